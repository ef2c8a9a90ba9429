// The diagnostic observer's log lines.

#include "datasource/debug_content_observer.h"

#include <zarvo/testkit/log_capture.h>

#include <gmock/gmock.h>

namespace zarvo {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class PrintingObserver : public DebugContentObserver {
public:
    void onRuntimeDataUpdateReceived(ContentLoader*, const std::string&, const std::string&) override {}
};

TEST(DebugContentObserver, LogsOneLinePerRowWithTheValuesOfTheCurrentRow) {
    testkit::LogCapture log;
    PrintingObserver observer;
    ContentResult result(0, {{"id", ContentDataTypeInteger}, {"name", ContentDataTypeString}},
                         {7, std::string("Anna"), 8, std::string("Bo")});

    observer.onContentLoaded(nullptr, &result);

    // Both lines show row 0's values: the observer never moves the result.
    EXPECT_THAT(log.lines(), ElementsAre("info tethrix: DebugContentObserver, row 0: id=7 name=Anna ",
                                         "info tethrix: DebugContentObserver, row 1: id=7 name=Anna "));
}

}  // namespace
}  // namespace zarvo
