// The inspector's side on the engine's loop: it follows the data source's
// tree through its notifications, runs one list view per list a page shows,
// and at each frame sends every page what changed. Every access to the tree
// happens here, on the loop.
#ifndef ZARVO_HOST_INSPECTOR_H
#define ZARVO_HOST_INSPECTOR_H

#include "browser_channel.h"
#include "inspector_log.h"
#include "inspector_server.h"
#include "plugin_library.h"
#include "query_monitor.h"

#include <zarvo/data_source.h>
#include <zarvo/domain.h>
#include <zarvo/host/list_view.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace tethrix::protocol {
class JsonWriter;
}

namespace zarvo::host {

/// Objects of the tree shown; the rest is left out, and the page says so.
constexpr std::size_t maxTreeObjects = 5000;
/// Image URLs the page may ask for: those it was shown, the latest kept.
constexpr std::size_t maxKnownImageUrls = 4096;
/// Distinct blocks of one list counted as fetched.
constexpr std::size_t maxCountedBlocks = 5000;
/// Queries of a list the panel shows.
constexpr std::size_t recentQueriesPerList = 8;
/// How often pages are sent what changed.
constexpr std::chrono::milliseconds frameInterval(50);

struct InspectorOptions {
    std::string sourceName;
    std::string serviceUrl;
    std::string configFile;
};

class Inspector : public InspectorBackend {
public:
    /// Follows `source` at once; frames start with the first browser. The
    /// snapshot comes from the plug-in's exported function in `library`.
    Inspector(DataSource& source, Domain& domain, PluginLibrary& library, InspectorLog& log, InspectorOptions options);
    /// Releases every row the views hold.
    ~Inspector() override;
    Inspector(const Inspector&) = delete;
    Inspector& operator=(const Inspector&) = delete;

    /// A query went out or was answered (from the QueryMonitor, on the loop).
    void onQuery(const QueryEvent& event);

    void addBrowser(std::shared_ptr<BrowserChannel> channel) override;
    void takeSnapshot(std::function<void(std::string, std::string)> reply) override;
    void loadImage(const std::string& url,
                   std::function<void(std::shared_ptr<TexturePixels>, std::string)> reply) override;
    std::string snapshotFileName() const override;

    /// Runs one frame now; the timer does it every frameInterval.
    void frame();

private:
    struct Node {
        std::uint32_t id;
        std::uint32_t parent;
        std::uint32_t depth;
        std::string path;
        std::shared_ptr<DataObject> object;
        std::shared_ptr<void> token;
        std::size_t childCount;
    };
    struct QueryNote {
        std::uint64_t queryId;
        int index;
        int count;
        std::string state;
    };
    /// What the queries of one list did, by the list's path.
    struct ListQueries {
        std::uint64_t sent = 0;
        std::uint64_t answered = 0;
        std::uint64_t failed = 0;
        std::set<int> blocks;
        double lastRoundTripMs = -1;
        std::deque<QueryNote> recent;
    };
    struct View {
        std::unique_ptr<ListView> view;
        /// Rows as last sent, by index.
        std::map<std::uint64_t, std::string> sentRows;
        std::string sentPanel;
        bool templateSent = false;
    };
    struct Browser {
        std::shared_ptr<BrowserChannel> channel;
        std::uint64_t treeVersion = 0;
        std::uint64_t logSequence = 0;
        std::map<std::uint32_t, View> views;
        std::string sentHeader;
    };

    void rebuildTree();
    void addNode(const std::shared_ptr<DataObject>& object, std::uint32_t parent, std::uint32_t depth,
                 const std::string& path);
    void unsubscribeAll();
    void onModified(std::uint32_t id);
    const Node* findNode(std::uint32_t id) const;
    void applyWindows(Browser& browser);
    /// True if anything was written for the browser's lists.
    bool writeLists(tethrix::protocol::JsonWriter& out, Browser& browser);
    void writePanel(tethrix::protocol::JsonWriter& out, const Node& list, const View& view);
    void writeValue(tethrix::protocol::JsonWriter& out, DataObject& object);
    void writeNode(tethrix::protocol::JsonWriter& out, const Node& node);
    void writeFields(tethrix::protocol::JsonWriter& out, DataObject& row);
    std::string listPathOfQuery(const std::string& uri);
    void noteImageUrl(const std::string& value);
    std::size_t rowsHeldByViews(std::uint32_t list) const;

    DataSource& source;
    Domain& domain;
    PluginLibrary& library;
    InspectorLog& log;
    const InspectorOptions options;
    std::shared_ptr<void> sourceToken;
    std::shared_ptr<void> frameTimer;

    std::vector<Node> nodes;
    std::map<std::uint32_t, std::size_t> nodeIndex;
    std::map<const DataObject*, std::uint32_t> idOf;
    std::uint32_t nextId = 1;
    bool treeCut = false;
    bool treeDirty = true;
    std::uint64_t treeVersion = 0;
    std::uint64_t reloads = 0;
    std::set<std::uint32_t> changed;

    std::map<std::string, ListQueries> queriesByList;
    std::map<std::string, std::string> listOfUri;
    /// The list whose view is being moved: queries sent meanwhile are its.
    const Node* movingList = nullptr;

    std::set<std::string> knownImageUrls;
    std::vector<std::unique_ptr<Browser>> browsers;
    /// Work posted to the loop holds this weakly, so that it does nothing
    /// once the inspector is gone.
    std::shared_ptr<Inspector*> self;
};

}  // namespace zarvo::host

#endif
