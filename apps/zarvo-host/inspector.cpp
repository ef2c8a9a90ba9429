#include "inspector.h"

#include "service_connection.h"
#include "tree_printer.h"

#include <tethrix/protocol/json_writer.h>

#include <zarvo/client.h>
#include <zarvo/host/statistics.h>
#include <zarvo/image.h>
#include <zarvo/message_dispatcher.h>
#include <zarvo/resource_manager.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <unordered_set>

namespace zarvo::host {

using tethrix::protocol::JsonWriter;

namespace {

const char* clientStateName(Connection::State state) {
    switch (state) {
    case Connection::StateConnected:
        return "connected";
    case Connection::StateLost:
        return "lost";
    default:
        return "not connected";
    }
}

bool isImageUrl(const std::string& value) {
    return value.rfind("http://", 0) == 0 || value.rfind("https://", 0) == 0;
}

std::shared_ptr<TexturePixels> copyPixels(const Texture& texture) {
    const BitmapImage& image = texture.getImage();
    auto pixels = std::make_shared<TexturePixels>();
    pixels->width = image.getWidth();
    pixels->height = image.getHeight();
    pixels->channels = static_cast<int>(BitmapImage::bytesPerPixel(image.getFormat()));
    pixels->premultiplied = image.isPremultiplied();
    pixels->pixels = image.getPixels();
    return pixels;
}

}  // namespace

Inspector::Inspector(DataSource& source, Domain& domain, PluginLibrary& library, InspectorLog& log,
                     InspectorOptions options)
    : source(source),
      domain(domain),
      library(library),
      log(log),
      options(std::move(options)),
      self(std::make_shared<Inspector*>(this)) {
    sourceToken = source.addModifiedSubscription([this](DataContext&) {
        ++reloads;
        treeDirty = true;
    });
    rebuildTree();
}

Inspector::~Inspector() {
    domain.getMessageDispatcher()->removeTimer(frameTimer);
    source.removeModifiedSubscription(sourceToken);
    // The views release their rows while the lists are still followed.
    browsers.clear();
    unsubscribeAll();
}

// ---------------------------------------------------------------- the tree

void Inspector::unsubscribeAll() {
    for (Node& node : nodes) {
        node.object->removeModifiedSubscription(node.token);
    }
}

void Inspector::rebuildTree() {
    // The old nodes hold their objects until the new tree has its ids, so
    // that an object still in the tree keeps its id and no address is
    // reused meanwhile.
    std::vector<Node> old = std::move(nodes);
    for (Node& node : old) {
        node.object->removeModifiedSubscription(node.token);
    }
    nodes.clear();
    nodeIndex.clear();
    treeCut = false;
    std::map<const DataObject*, std::uint32_t> keptIds;
    const std::shared_ptr<DataObject> root = source.getData();
    if (root) {
        addNode(root, 0, 0, root->getName());
    }
    for (const Node& node : nodes) {
        keptIds.emplace(node.object.get(), node.id);
    }
    idOf = std::move(keptIds);
    changed.clear();
    treeDirty = false;
    ++treeVersion;
    // Views of lists that left the tree end; the page asks again for the
    // lists of the new tree.
    for (auto& browser : browsers) {
        for (auto view = browser->views.begin(); view != browser->views.end();) {
            view = nodeIndex.count(view->first) != 0 ? std::next(view) : browser->views.erase(view);
        }
    }
}

void Inspector::addNode(const std::shared_ptr<DataObject>& object, std::uint32_t parent, std::uint32_t depth,
                        const std::string& path) {
    if (!object) {
        return;
    }
    if (nodes.size() >= maxTreeObjects) {
        treeCut = true;
        return;
    }
    const auto known = idOf.find(object.get());
    const std::uint32_t id = known != idOf.end() ? known->second : nextId++;
    auto token = object->addModifiedSubscription([this, id](DataContext&) { onModified(id); });
    nodeIndex[id] = nodes.size();
    nodes.push_back(Node{id, parent, depth, path, object, std::move(token), object->getChildCount()});
    if (object->getType() == DataObject::TypeList) {
        return;  // its rows are shown by the page's list views
    }
    for (std::size_t index = 0; index < object->getChildCount(); ++index) {
        const std::shared_ptr<DataObject> child = object->getChild(index);
        if (child) {
            addNode(child, id, depth + 1, path + "." + child->getName());
        }
    }
}

const Inspector::Node* Inspector::findNode(std::uint32_t id) const {
    const auto found = nodeIndex.find(id);
    return found == nodeIndex.end() ? nullptr : &nodes[found->second];
}

void Inspector::onModified(std::uint32_t id) {
    const Node* node = findNode(id);
    if (node == nullptr) {
        return;
    }
    // An object whose children changed is shown afresh; the values of the
    // others are sent at the next frame.
    if (node->object->getType() == DataObject::TypeObject && node->object->getChildCount() != node->childCount) {
        treeDirty = true;
        return;
    }
    changed.insert(id);
}

// ---------------------------------------------------------------- queries

std::string Inspector::listPathOfQuery(const std::string& uri) {
    const auto known = listOfUri.find(uri);
    if (known != listOfUri.end()) {
        return known->second;
    }
    // The list whose view asked for rows when the query went out, else the
    // list named as the query's table.
    std::string path;
    if (movingList != nullptr) {
        path = movingList->path;
    } else {
        const std::string table = uri.substr(uri.find_last_of('/') + 1);
        for (const Node& node : nodes) {
            if (node.object->getType() == DataObject::TypeList && node.object->getName() == table) {
                path = node.path;
                break;
            }
        }
    }
    if (!path.empty()) {
        listOfUri[uri] = path;
    }
    return path;
}

void Inspector::onQuery(const QueryEvent& event) {
    const std::string path = listPathOfQuery(event.uri);
    if (path.empty()) {
        return;
    }
    ListQueries& queries = queriesByList[path];
    if (event.kind == QueryEvent::Kind::Sent) {
        ++queries.sent;
        queries.recent.push_back(QueryNote{event.queryId, event.index, event.count, "sent"});
        if (queries.recent.size() > recentQueriesPerList) {
            queries.recent.pop_front();
        }
        return;
    }
    const double milliseconds = static_cast<double>(event.roundTrip.count()) / 1000.0;
    std::string state;
    if (event.kind == QueryEvent::Kind::Answered) {
        ++queries.answered;
        queries.lastRoundTripMs = milliseconds;
        if (queries.blocks.size() < maxCountedBlocks) {
            queries.blocks.insert(event.index);
        }
        char text[64];
        std::snprintf(text, sizeof text, "%zu rows in %.1f ms", event.rows, milliseconds);
        state = text;
    } else {
        ++queries.failed;
        state = "failed";
    }
    for (QueryNote& note : queries.recent) {
        if (note.queryId == event.queryId) {
            note.state = state;
        }
    }
}

// ---------------------------------------------------------------- browsers

void Inspector::addBrowser(std::shared_ptr<BrowserChannel> channel) {
    auto browser = std::make_unique<Browser>();
    browser->channel = std::move(channel);
    browsers.push_back(std::move(browser));
    if (!frameTimer) {
        std::weak_ptr<Inspector*> weak = self;
        frameTimer = domain.getMessageDispatcher()->addTimer(frameInterval, ZvuTimerMessageModeRepeat,
                                                             [weak](const TimerMessageArguments&) {
                                                                 if (const auto alive = weak.lock()) {
                                                                     (*alive)->frame();
                                                                 }
                                                             });
    }
    frame();
}

void Inspector::applyWindows(Browser& browser) {
    for (const auto& request : browser.channel->takeWindowRequests()) {
        const Node* node = findNode(request.first);
        if (node == nullptr || node->object->getType() != DataObject::TypeList) {
            continue;
        }
        const ListWindow& window = request.second;
        if (window.count == 0) {
            browser.views.erase(request.first);
            continue;
        }
        View& view = browser.views[request.first];
        if (!view.view) {
            view.view = std::make_unique<ListView>(std::static_pointer_cast<DataObjectList>(node->object));
        }
        movingList = node;
        if (window.jump) {
            view.view->jumpTo(window.first, window.count);
        } else {
            view.view->moveTo(window.first, window.count);
        }
        movingList = nullptr;
        for (auto row = view.sentRows.begin(); row != view.sentRows.end();) {
            const bool inside = row->first >= window.first && row->first < window.first + window.count;
            row = inside ? std::next(row) : view.sentRows.erase(row);
        }
    }
}

std::size_t Inspector::rowsHeldByViews(std::uint32_t list) const {
    std::size_t held = 0;
    for (const auto& browser : browsers) {
        const auto view = browser->views.find(list);
        if (view != browser->views.end()) {
            held += view->second.view->rows().size();
        }
    }
    return held;
}

void Inspector::frame() {
    if (treeDirty) {
        rebuildTree();
    }
    // Browsers that went away let go of their rows here.
    browsers.erase(std::remove_if(browsers.begin(), browsers.end(),
                                  [](const std::unique_ptr<Browser>& browser) { return browser->channel->isClosed(); }),
                   browsers.end());
    if (browsers.empty()) {
        changed.clear();
        return;
    }
    std::uint64_t oldestLog = browsers.front()->logSequence;
    for (const auto& browser : browsers) {
        oldestLog = std::min(oldestLog, browser->logSequence);
        applyWindows(*browser);
    }
    const std::vector<KeptLogRecord> records = log.recordsAfter(oldestLog);

    JsonWriter header;
    header.beginObject();
    header.key("source");
    header.string(options.sourceName);
    header.key("service");
    header.string(options.serviceUrl);
    header.key("config");
    header.string(options.configFile);
    header.key("connected");
    const std::shared_ptr<DataObject> flag = source.lookupDataContext("connected");
    if (flag && flag->getType() == DataObject::TypeBoolean) {
        header.boolean(static_cast<const DataObjectBoolean&>(*flag).getValue());
    } else {
        header.string("no flag in the tree");
    }
    header.key("client");
    header.string(clientStateName(Context::instance(domain, nullptr)->getClient()->getConnection()->getState()));
    header.key("queries");
    header.unsignedInteger(sentQueryCount(domain));
    header.key("liveObjects");
    header.unsignedInteger(liveDataObjectCount());
    header.key("reloads");
    header.unsignedInteger(reloads);
    header.key("browsers");
    header.unsignedInteger(browsers.size());
    header.endObject();
    const std::string headerText = header.take();

    for (auto& browser : browsers) {
        JsonWriter out;
        out.beginObject();
        bool any = false;
        if (browser->sentHeader != headerText) {
            browser->sentHeader = headerText;
            out.key("header");
            out.number(headerText);
            any = true;
        }
        if (browser->treeVersion != treeVersion) {
            browser->treeVersion = treeVersion;
            out.key("tree");
            out.beginObject();
            out.key("cut");
            out.boolean(treeCut);
            out.key("nodes");
            out.beginArray();
            for (const Node& node : nodes) {
                writeNode(out, node);
            }
            out.endArray();
            out.endObject();
            any = true;
        } else if (!changed.empty()) {
            out.key("changes");
            out.beginArray();
            for (const std::uint32_t id : changed) {
                if (const Node* node = findNode(id)) {
                    out.beginArray();
                    out.unsignedInteger(id);
                    writeValue(out, *node->object);
                    out.endArray();
                }
            }
            out.endArray();
            any = true;
        }
        bool logged = false;
        for (const KeptLogRecord& record : records) {
            if (record.sequence <= browser->logSequence) {
                continue;
            }
            if (!logged) {
                out.key("log");
                out.beginArray();
                logged = true;
            }
            out.beginArray();
            out.unsignedInteger(record.sequence);
            out.string(logLevelName(static_cast<LogLevel>(record.level)));
            out.string(record.category);
            out.string(record.file + ":" + std::to_string(record.line));
            out.string(record.message);
            out.endArray();
            browser->logSequence = record.sequence;
        }
        if (logged) {
            out.endArray();
            any = true;
        }
        any = writeLists(out, *browser) || any;
        out.endObject();
        if (any) {
            browser->channel->send(out.take());
        }
    }
    changed.clear();
}

bool Inspector::writeLists(JsonWriter& out, Browser& browser) {
    bool opened = false;
    for (auto& entry : browser.views) {
        const Node* node = findNode(entry.first);
        if (node == nullptr) {
            continue;
        }
        View& view = entry.second;
        movingList = node;
        view.view->refresh();
        movingList = nullptr;

        JsonWriter panel;
        writePanel(panel, *node, view);
        std::string panelText = panel.take();
        std::vector<std::pair<std::uint64_t, std::string>> rows;
        for (const auto& row : view.view->rows()) {
            JsonWriter fields;
            fields.beginArray();
            fields.unsignedInteger(row.first);
            fields.boolean(ListView::isFilled(*row.second));
            writeFields(fields, *row.second);
            fields.endArray();
            std::string text = fields.take();
            std::string& sent = view.sentRows[row.first];
            if (sent != text) {
                sent = text;
                rows.emplace_back(row.first, std::move(text));
            }
        }
        if (rows.empty() && panelText == view.sentPanel && view.templateSent) {
            continue;
        }
        if (!opened) {
            out.key("lists");
            out.beginArray();
            opened = true;
        }
        out.beginObject();
        out.key("id");
        out.unsignedInteger(node->id);
        out.key("first");
        out.unsignedInteger(view.view->first());
        out.key("size");
        out.unsignedInteger(view.view->size());
        if (!view.templateSent) {
            view.templateSent = true;
            out.key("template");
            const std::shared_ptr<DataObject> itemTemplate =
                static_cast<DataObjectList&>(*node->object).getItemTemplate();
            if (itemTemplate) {
                writeFields(out, *itemTemplate);
            } else {
                out.beginArray();
                out.endArray();
            }
        }
        if (panelText != view.sentPanel) {
            view.sentPanel = panelText;
            out.key("panel");
            out.number(panelText);
        }
        out.key("rows");
        out.beginArray();
        for (const auto& row : rows) {
            out.number(row.second);
        }
        out.endArray();
        out.endObject();
    }
    if (opened) {
        out.endArray();
    }
    return opened;
}

void Inspector::writePanel(JsonWriter& out, const Node& list, const View& view) {
    out.beginObject();
    out.key("count");
    out.unsignedInteger(static_cast<DataObjectList&>(*list.object).itemCount());
    out.key("heldHere");
    out.unsignedInteger(view.view->rows().size());
    out.key("heldByViews");
    out.unsignedInteger(rowsHeldByViews(list.id));
    out.key("unfilled");
    out.unsignedInteger(view.view->unfilledCount());
    const auto found = queriesByList.find(list.path);
    if (found != queriesByList.end()) {
        const ListQueries& queries = found->second;
        out.key("sent");
        out.unsignedInteger(queries.sent);
        out.key("answered");
        out.unsignedInteger(queries.answered);
        out.key("failed");
        out.unsignedInteger(queries.failed);
        out.key("blocks");
        out.unsignedInteger(queries.blocks.size());
        if (queries.lastRoundTripMs >= 0) {
            out.key("roundTripMs");
            out.real(queries.lastRoundTripMs);
        }
        out.key("recent");
        out.beginArray();
        for (const QueryNote& note : queries.recent) {
            out.beginArray();
            out.integer(note.index);
            out.integer(note.count);
            out.string(note.state);
            out.endArray();
        }
        out.endArray();
    }
    out.endObject();
}

void Inspector::writeNode(JsonWriter& out, const Node& node) {
    DataObject& object = *node.object;
    out.beginObject();
    out.key("id");
    out.unsignedInteger(node.id);
    out.key("parent");
    out.unsignedInteger(node.parent);
    out.key("depth");
    out.unsignedInteger(node.depth);
    out.key("name");
    out.string(object.getName());
    out.key("type");
    out.string(typeName(object.getType()));
    out.key("value");
    writeValue(out, object);
    out.endObject();
}

void Inspector::writeFields(JsonWriter& out, DataObject& row) {
    out.beginArray();
    for (std::size_t index = 0; index < row.getChildCount(); ++index) {
        const std::shared_ptr<DataObject> field = row.getChild(index);
        if (!field) {
            continue;
        }
        out.beginArray();
        out.string(field->getName());
        out.string(typeName(field->getType()));
        writeValue(out, *field);
        out.endArray();
    }
    out.endArray();
}

void Inspector::writeValue(JsonWriter& out, DataObject& object) {
    switch (object.getType()) {
    case DataObject::TypeInteger:
        out.integer(static_cast<const DataObjectInteger&>(object).getValue());
        return;
    case DataObject::TypeReal: {
        const double value = static_cast<const DataObjectReal&>(object).getValue();
        if (std::isfinite(value)) {
            out.number(valueText(object));
        } else {
            out.real(value);
        }
        return;
    }
    case DataObject::TypeBoolean:
        out.boolean(static_cast<const DataObjectBoolean&>(object).getValue());
        return;
    case DataObject::TypeString: {
        const std::string& value = static_cast<const DataObjectString&>(object).getValue();
        noteImageUrl(value);
        out.string(value);
        return;
    }
    case DataObject::TypeList:
        out.beginObject();
        out.key("rows");
        out.unsignedInteger(static_cast<DataObjectList&>(object).itemCount());
        out.endObject();
        return;
    default:
        out.beginObject();
        out.key("children");
        out.unsignedInteger(object.getChildCount());
        out.endObject();
        return;
    }
}

// ---------------------------------------------------------------- snapshot and images

void Inspector::noteImageUrl(const std::string& value) {
    if (!isImageUrl(value)) {
        return;
    }
    if (knownImageUrls.size() >= maxKnownImageUrls && knownImageUrls.count(value) == 0) {
        knownImageUrls.clear();
    }
    knownImageUrls.insert(value);
}

std::string Inspector::snapshotFileName() const {
    return options.sourceName + "-snapshot.xml";
}

void Inspector::takeSnapshot(std::function<void(std::string, std::string)> reply) {
    std::string xmlFileName;
    std::string snapshot;
    try {
        library.takeDataSnapshot(&domain, options.sourceName, xmlFileName, snapshot);
    } catch (const std::exception& error) {
        reply(std::string(), error.what());
        return;
    }
    reply(std::move(snapshot), std::string());
}

void Inspector::loadImage(const std::string& url,
                          std::function<void(std::shared_ptr<TexturePixels>, std::string)> reply) {
    // Only what the page was shown: the page must not make the engine
    // fetch or read whatever it names.
    if (knownImageUrls.count(url) == 0) {
        reply(nullptr, "the inspector has shown no value " + url + "\n");
        return;
    }
    ResourceManager& resources = *domain.getResourceManager();
    const auto texture = std::dynamic_pointer_cast<Texture>(resources.acquireLoadedResource(url));
    if (texture) {
        reply(copyPixels(*texture), std::string());
        return;
    }
    std::weak_ptr<Inspector*> weak = self;
    resources.acquireResourcesAsync(std::unordered_set<std::string>{url}, [weak, url, reply]() {
        const auto alive = weak.lock();
        if (!alive) {
            return;
        }
        Inspector& inspector = **alive;
        const auto loaded =
            std::dynamic_pointer_cast<Texture>(inspector.domain.getResourceManager()->acquireLoadedResource(url));
        if (loaded) {
            reply(copyPixels(*loaded), std::string());
            return;
        }
        std::string why = "no texture for " + url + "\n";
        for (const std::string& line : inspector.log.messagesContaining(url, 5)) {
            why += line + "\n";
        }
        reply(nullptr, why);
    });
}

}  // namespace zarvo::host
