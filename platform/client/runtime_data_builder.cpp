#include <zarvo/runtime_data.h>

#include "runtime_data_format.h"
#include "runtime_data_model.h"

#include <zarvo/log.h>

#include <tethrix/protocol/runtime_tree_reader.h>

namespace zarvo {

std::shared_ptr<RuntimeDataObject> RuntimeDataBuilder::build(const tinyxml2::XMLElement* element) {
    if (!element) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data XML: no element to build from");
        return nullptr;
    }
    tethrix::protocol::RuntimeTreeReader<client::RuntimeDataModel> reader;
    std::shared_ptr<RuntimeDataObject> tree = reader.read(*element);
    if (!tree) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data XML, {}", reader.fault().message());
    }
    return tree;
}

}  // namespace zarvo
