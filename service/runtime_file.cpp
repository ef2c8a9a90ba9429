#include "runtime_file.h"

#include "runtime_data_hub.h"

#include <tethrix/protocol/runtime_tree_reader.h>

#include <tinyxml2.h>

#include <algorithm>
#include <cctype>
#include <stdexcept>

namespace tethrix::service {

namespace {

[[noreturn]] void refuse(const std::string& origin, const std::string& why) {
    throw std::runtime_error(origin + ": " + why);
}

NamedRuntimeTree readTree(const tinyxml2::XMLElement& element, const std::string& name, const std::string& origin) {
    const std::string uri = runtimeDataScheme + name;
    if (!isRuntimeTreeName(name)) {
        refuse(origin, protocol::quoted(uri) + ": a name is letters, digits, '_' and '-'");
    }
    protocol::RuntimeTreeReader<RuntimeTreeModel> reader;
    RuntimeNode::Ptr root = reader.read(element);
    if (!root)
        refuse(origin, uri + ": " + reader.fault().message());
    if (root->getChildCount() == 0)
        refuse(origin, uri + " describes no nodes");
    return {name, root};
}

}  // namespace

bool isRuntimeTreeName(const std::string& name) {
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-';
    });
}

std::vector<NamedRuntimeTree> readRuntimeTrees(const tinyxml2::XMLDocument& document, const std::string& origin) {
    const tinyxml2::XMLElement* root = document.RootElement();
    if (!root)
        refuse(origin, "no root element");
    std::vector<NamedRuntimeTree> trees;
    if (const char* service = root->Attribute("service"))
        trees.push_back(readTree(*root, service, origin));
    const std::string scheme = runtimeDataScheme;
    for (auto* child = root->FirstChildElement(); child; child = child->NextSiblingElement()) {
        const char* uri = child->Attribute("uri");
        if (!uri || std::string(uri).rfind(scheme, 0) != 0)
            continue;
        trees.push_back(readTree(*child, std::string(uri).substr(scheme.size()), origin));
    }
    if (trees.empty()) {
        refuse(origin, "no runtime data: give the root a service attribute or a source a uri servicedata://<name>");
    }
    return trees;
}

std::vector<NamedRuntimeTree> loadRuntimeFile(const std::string& path) {
    tinyxml2::XMLDocument document;
    if (document.LoadFile(path.c_str()) != tinyxml2::XML_SUCCESS) {
        // tinyxml2's own text names the error and the line.
        refuse(path, document.ErrorStr());
    }
    return readRuntimeTrees(document, path);
}

}  // namespace tethrix::service
