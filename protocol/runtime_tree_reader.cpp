#include <tethrix/protocol/runtime_tree_reader.h>

#include <cctype>

namespace tethrix::protocol {

std::string RuntimeXmlFault::message() const {
    return "line " + std::to_string(line) + ", " + element + ": " + reason;
}

namespace runtime_xml {

std::optional<RuntimeNodeType> kindOf(const tinyxml2::XMLElement& element) {
    struct Entry {
        const char* name;
        RuntimeNodeType kind;
    };
    // The short names are those of a content source's field types, which an
    // engineer writing both kinds of source will reach for.
    static const Entry entries[] = {
        {"integer", runtimeInteger}, {"int", runtimeInteger},     {"real", runtimeReal},
        {"float", runtimeReal},      {"boolean", runtimeBoolean}, {"bool", runtimeBoolean},
        {"string", runtimeString},   {"object", runtimeObject},   {"list", runtimeList},
    };
    for (const Entry& entry : entries) {
        if (std::strcmp(element.Name(), entry.name) == 0)
            return entry.kind;
    }
    return std::nullopt;
}

std::string describe(const tinyxml2::XMLElement& element) {
    std::string text = std::string("<") + element.Name();
    if (const char* name = element.Attribute("name"))
        text += " name=" + quoted(name);
    return text + ">";
}

bool hasVisibleText(const tinyxml2::XMLElement& element) {
    for (const tinyxml2::XMLNode* node = element.FirstChild(); node; node = node->NextSibling()) {
        if (!node->ToText())
            continue;
        for (const char* c = node->Value(); *c; ++c) {
            if (!std::isspace(static_cast<unsigned char>(*c)))
                return true;
        }
    }
    return false;
}

const char* kindWord(RuntimeNodeType type) {
    switch (type) {
    case runtimeInteger:
        return "an integer";
    case runtimeReal:
        return "a real";
    case runtimeBoolean:
        return "a boolean (1, 0, true or false)";
    default:
        return "a string";
    }
}

}  // namespace runtime_xml
}  // namespace tethrix::protocol
