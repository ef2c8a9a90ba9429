// A domain on a hand-driven loop with a manual clock, for tests.
#ifndef ZARVO_TESTKIT_TEST_HOST_H
#define ZARVO_TESTKIT_TEST_HOST_H

#include <zarvo/domain.h>
#include <zarvo/message_dispatcher.h>

#include <chrono>
#include <memory>

namespace zarvo {
namespace testkit {

class TestHost {
public:
    TestHost();
    ~TestHost();

    Domain& domain() { return *testDomain; }
    ZvuMessageDispatcher& loop() { return *dispatcher; }
    /// Runs posted work and due timers until nothing is ready.
    std::size_t runUntilIdle() { return dispatcher->runUntilIdle(); }
    /// Moves the manual clock, firing timers on the way.
    void advance(std::chrono::milliseconds by) { dispatcher->advance(by); }

private:
    std::shared_ptr<ZvuMessageDispatcher> dispatcher;
    std::unique_ptr<Domain> testDomain;
};

}  // namespace testkit
}  // namespace zarvo

#endif
