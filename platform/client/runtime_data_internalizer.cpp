#include <zarvo/runtime_data.h>

#include "runtime_data_format.h"
#include "runtime_data_model.h"

#include <zarvo/log.h>

#include <tethrix/protocol/runtime_update.h>

namespace zarvo {

void RuntimeDataInternalizer::internalize(const std::string& data, std::shared_ptr<RuntimeDataObject> target) {
    if (!target) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data update refused: no tree to apply it to");
        return;
    }
    const auto fault = tethrix::protocol::applyRuntimeUpdate<client::RuntimeDataModel>(data, *target);
    if (fault) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "{}", fault->message("Runtime data update refused"));
    }
}

}  // namespace zarvo
