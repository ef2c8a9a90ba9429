// Every input is a file of runtime data trees as the service reads it at
// start. Reading must refuse what it cannot take with a reason and never
// crash; every tree it takes must give a state that applies back to the
// tree unchanged, as each subscriber's first update does.
#include "runtime_file.h"
#include "runtime_node.h"

#include <tethrix/protocol/runtime_state.h>
#include <tethrix/protocol/runtime_update.h>

#include <tinyxml2.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

using namespace tethrix;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    tinyxml2::XMLDocument document;
    if (document.Parse(reinterpret_cast<const char*>(data), size) != tinyxml2::XML_SUCCESS)
        return 0;
    std::vector<service::NamedRuntimeTree> trees;
    try {
        trees = service::readRuntimeTrees(document, "fuzz");
    } catch (const std::runtime_error&) {
        return 0;
    }
    for (const auto& tree : trees) {
        const std::string state = protocol::writeRuntimeState<service::RuntimeTreeModel>(*tree.root);
        auto fault = protocol::applyRuntimeUpdate<service::RuntimeTreeModel>(state, *tree.root);
        const std::string again = protocol::writeRuntimeState<service::RuntimeTreeModel>(*tree.root);
        if (fault || again != state) {
            std::fprintf(stderr, "the state of %s does not apply back: %s\nstate: %s\nafter: %s\n", tree.name.c_str(),
                         fault ? fault->message("refused").c_str() : "changed", state.c_str(), again.c_str());
            std::abort();
        }
    }
    return 0;
}
