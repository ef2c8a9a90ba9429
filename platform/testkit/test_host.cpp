#include <zarvo/testkit/test_host.h>

namespace zarvo {
namespace testkit {

TestHost::TestHost()
    : dispatcher(std::make_shared<ZvuMessageDispatcher>(ZvuMessageDispatcher::Clock::Manual)),
      testDomain(std::make_unique<Domain>(dispatcher)) {}

// The domain goes first: what it holds may still post to the loop.
TestHost::~TestHost() {
    testDomain.reset();
}

}  // namespace testkit
}  // namespace zarvo
