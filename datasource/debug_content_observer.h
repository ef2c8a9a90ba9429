// A diagnostic observer that writes each row of a content result to the log.
// Nothing attaches it: a developer derives from it (supplying the runtime
// data callback) and hooks it onto a loader to see what a query returns.
#ifndef ZARVO_DATASOURCE_DEBUG_CONTENT_OBSERVER_H
#define ZARVO_DATASOURCE_DEBUG_CONTENT_OBSERVER_H

#include <zarvo/content_loader.h>

namespace zarvo {

class DebugContentObserver : public ContentLoader::Observer {
public:
    /// One info line per row: "row <n>: <column>=<value> ..." — the values
    /// are those of the row the result stands on.
    void onContentLoaded(ContentLoader* loader, ContentResult* result) override;
    void onContentInvalidated(ContentLoader* loader) override;

protected:
    ~DebugContentObserver() = default;
};

}  // namespace zarvo

#endif
