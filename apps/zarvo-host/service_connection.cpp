#include "service_connection.h"

#include <stdexcept>

namespace zarvo::host {

void connectToService(Domain& /*domain*/, const std::string& url) {
    throw std::runtime_error("cannot connect to " + url + ": this build has no network transport for the service");
}

void waitUntilSettled(Domain& /*domain*/, std::optional<std::chrono::milliseconds> /*limit*/) {}

}  // namespace zarvo::host
