// Every input is update text as a publisher posts it to a tree with values
// of every type, lists with and without a row template and nested objects.
// An update is applied whole or not at all: a refused one leaves the state
// as it was; an applied one leaves a state that applies back unchanged.
#include "runtime_file.h"
#include "runtime_node.h"

#include <tethrix/protocol/runtime_state.h>
#include <tethrix/protocol/runtime_update.h>

#include <tinyxml2.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

using namespace tethrix;

namespace {

const char* const treeXml = R"(<tree service="fuzz">
  <string name="state" value="stopped"/>
  <boolean name="playing"/>
  <integer name="volume" value="12"/>
  <real name="position" value="1.5"/>
  <object name="track">
    <integer name="id" value="4"/>
    <string name="title" value="Red Sky"/>
    <object name="album"><string name="title"/><list name="tags"/></object>
  </object>
  <list name="queue">
    <template name="entry"><integer name="id"/><string name="title"/><real name="duration"/></template>
    <row><integer name="id" value="1"/></row>
    <row><integer name="id" value="2"/><string name="title" value="b"/></row>
    <row><integer name="id" value="3"/></row>
  </list>
  <list name="free">
    <row><string name="x" value="y"/></row>
  </list>
</tree>)";

service::RuntimeNode::Ptr freshTree() {
    static const service::RuntimeNode::Ptr base = [] {
        tinyxml2::XMLDocument document;
        document.Parse(treeXml);
        return service::readRuntimeTrees(document, "fuzz").front().root;
    }();
    return base->clone();
}

[[noreturn]] void fail(const char* what, const std::string& before, const std::string& after) {
    std::fprintf(stderr, "%s\nbefore: %s\nafter:  %s\n", what, before.c_str(), after.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Model = service::RuntimeTreeModel;
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    auto root = freshTree();
    const std::string before = protocol::writeRuntimeState<Model>(*root);
    const auto fault = protocol::applyRuntimeUpdate<Model>(text, *root);
    const std::string after = protocol::writeRuntimeState<Model>(*root);
    if (fault) {
        if (after != before)
            fail("a refused update changed the tree", before, after);
        return 0;
    }
    if (protocol::applyRuntimeUpdate<Model>(after, *root))
        fail("the state does not apply back", before, after);
    if (protocol::writeRuntimeState<Model>(*root) != after)
        fail("the state changed when applied back", before, after);
    return 0;
}
