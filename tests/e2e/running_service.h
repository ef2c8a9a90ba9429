// tethrix-service in the test's process, on a thread of its own, on a free
// port of 127.0.0.1.
#ifndef ZARVO_TESTS_E2E_RUNNING_SERVICE_H
#define ZARVO_TESTS_E2E_RUNNING_SERVICE_H

#include "service.h"

#include <memory>
#include <thread>

namespace zarvo {
namespace test {

class RunningService {
public:
    explicit RunningService(const tethrix::service::ServiceOptions& options)
        : service(std::make_unique<tethrix::service::Service>(options)), boundPort(service->endpoint().port()),
          thread([this] { service->run(); }) {}

    ~RunningService() {
        service->stop();
        thread.join();
    }

    RunningService(const RunningService&) = delete;
    RunningService& operator=(const RunningService&) = delete;

    unsigned short port() const { return boundPort; }

private:
    std::unique_ptr<tethrix::service::Service> service;
    unsigned short boundPort;
    std::thread thread;
};

}  // namespace test
}  // namespace zarvo

#endif
