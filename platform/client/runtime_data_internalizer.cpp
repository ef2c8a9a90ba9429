#include <zarvo/runtime_data.h>

#include "runtime_data_format.h"
#include "runtime_data_model.h"

#include <zarvo/log.h>

#include <tethrix/protocol/runtime_update.h>

namespace zarvo {

namespace client {

namespace {
// The loop's thread alone delivers updates; each thread has its own marking.
thread_local bool deliveringState = false;
}  // namespace

RuntimeStateScope::RuntimeStateScope(bool state) : outer(deliveringState) {
    deliveringState = state;
}

RuntimeStateScope::~RuntimeStateScope() {
    deliveringState = outer;
}

bool RuntimeStateScope::active() {
    return deliveringState;
}

}  // namespace client

void RuntimeDataInternalizer::internalize(const std::string& data, std::shared_ptr<RuntimeDataObject> target) {
    if (!target) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "Runtime data update refused: no tree to apply it to");
        return;
    }
    const auto fault = client::RuntimeStateScope::active()
                           ? tethrix::protocol::applyRuntimeUpdate<client::RuntimeStateModel>(data, *target)
                           : tethrix::protocol::applyRuntimeUpdate<client::RuntimeDataModel>(data, *target);
    if (fault) {
        ZARVO_LOG_ERROR(client::runtimeDataLogCategory, "{}", fault->message("Runtime data update refused"));
    }
}

}  // namespace zarvo
