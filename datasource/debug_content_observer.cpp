#include "datasource/debug_content_observer.h"

#include <zarvo/log.h>

#include <sstream>

namespace zarvo {

void DebugContentObserver::onContentLoaded(ContentLoader* /*loader*/, ContentResult* result) {
    for (std::size_t row = 0; row < result->getRowCount(); ++row) {
        std::ostringstream text;
        text << "row " << row << ": ";
        // No setRowIndex: every line shows the row the result stands on.
        for (std::size_t column = 0; column < result->getColumnCount(); ++column) {
            text << result->getColumnName(column) << "=" << result->getColumnValue(column) << " ";
        }
        ZARVO_LOG_INFO("tethrix", "DebugContentObserver, {0}", text.str());
    }
}

void DebugContentObserver::onContentInvalidated(ContentLoader* /*loader*/) {}

}  // namespace zarvo
