// Runtime data updates on a tree of 1,000 leaves, a tenth of them changed by
// each update: from the update text to the data objects that mirror the
// leaves being notified.
//
// The leaves are integers, reals, booleans and strings in turn, either all
// directly under the top ("flat", argument 0) or in 10 objects of 100
// ("grouped", argument 1). Twenty prepared update texts take turns; each
// sets every tenth leaf, and each leaf changes every time it is set.
//
//   BM_Internalize            the client library alone: parse, check, write
//                             the tree, run a counting handler per change
//   BM_UpdateToDataObjects    the same through the plug-in's adapter: its
//                             handlers copy each change to the bound data
//                             object, whose binding counts the notification
//   BM_UpdateThroughLoop      as above, the text delivered by the scripted
//                             service on the loop, as an update from the
//                             service arrives
//   BM_UnchangedUpdate        an update that repeats the values the tree
//                             holds: the comparisons alone, nothing notified
//
// items_per_second is changed (or, for the last, compared) leaves per
// second; time_per_leaf is its inverse, in CPU time. notified_per_update must be 100 where
// leaves change, and 0 for the unchanged update.
#include "datasource/content_adapter.h"
#include "datasource/content_adapter_configuration.h"

#include <zarvo/runtime_data.h>
#include <zarvo/testkit/scripted_service.h>
#include <zarvo/testkit/test_host.h>

#include <benchmark/benchmark.h>
#include <tinyxml2.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {
namespace {

const int leafCount = 1000;
const int groupCount = 10;  // objects in the grouped shape
const int updateCount = 20;
const int changedPerUpdate = leafCount / 10;

const char* const leafTypes[] = {"integer", "real", "boolean", "string"};

std::string leafName(int leaf) {
    return "leaf" + std::to_string(leaf);
}

// The value of a leaf in round 0 or 1; the two rounds differ for every type.
std::string xmlValue(int leaf, int round) {
    switch (leaf % 4) {
    case 0:
        return std::to_string(round + leaf);
    case 1:
        return std::to_string(round) + ".5";
    case 2:
        return round ? "true" : "false";
    default:
        return "text" + std::to_string(round);
    }
}

std::string jsonValue(int leaf, int round) {
    return leaf % 4 == 3 ? "\"" + xmlValue(leaf, round) + "\"" : xmlValue(leaf, round);
}

std::string treeXml(bool grouped) {
    std::string xml = "<player service='bench'>";
    for (int group = 0; group < (grouped ? groupCount : 1); ++group) {
        if (grouped) {
            xml += "<object name='group" + std::to_string(group) + "'>";
        }
        const int perGroup = grouped ? leafCount / groupCount : leafCount;
        for (int leaf = group * perGroup; leaf < (group + 1) * perGroup; ++leaf) {
            xml += std::string("<") + leafTypes[leaf % 4] + " name='" + leafName(leaf) + "' value='" +
                   xmlValue(leaf, 1) + "'/>";
        }
        xml += grouped ? "</object>" : "";
    }
    return xml + "</player>";
}

// Sets the leaves whose number ends in `digit` to their values of `round`.
std::string updateText(bool grouped, int digit, int round) {
    std::string text = "{\"values\":{";
    const int perGroup = grouped ? leafCount / groupCount : leafCount;
    for (int group = 0; group < (grouped ? groupCount : 1); ++group) {
        if (grouped) {
            text += (group ? ",\"group" : "\"group") + std::to_string(group) + "\":{";
        }
        bool first = true;
        for (int leaf = group * perGroup; leaf < (group + 1) * perGroup; ++leaf) {
            if (leaf % 10 != digit) {
                continue;
            }
            text += (first ? "\"" : ",\"") + leafName(leaf) + "\":" + jsonValue(leaf, round);
            first = false;
        }
        text += grouped ? "}" : "";
    }
    return text + "}}";
}

// Update u sets the leaves ending in u % 10 to round u / 10: a leaf is set
// by two updates of the twenty, to alternating values.
std::vector<std::string> updateTexts(bool grouped) {
    std::vector<std::string> texts;
    for (int update = 0; update < updateCount; ++update) {
        texts.push_back(updateText(grouped, update % 10, update / 10));
    }
    return texts;
}

std::shared_ptr<RuntimeDataObject> buildTree(bool grouped) {
    const std::string xml = treeXml(grouped);
    tinyxml2::XMLDocument document;
    document.Parse(xml.c_str(), xml.size());
    return RuntimeDataBuilder::build(document.RootElement());
}

void countLeafChanges(const std::shared_ptr<RuntimeDataObject>& node, std::int64_t& count) {
    if (node->getType() != RuntimeDataObject::TypeObject) {
        node->addModifiedNotificationHandler([&count](RuntimeDataObject*) { ++count; });
        return;
    }
    for (auto child = node->beginChildren(); child != node->endChildren(); ++child) {
        countLeafChanges(*child, count);
    }
}

void bindLeaves(const std::shared_ptr<DataObject>& object, std::int64_t& count,
                std::vector<std::shared_ptr<void>>& tokens) {
    if (object->getType() != DataObject::TypeObject) {
        tokens.push_back(object->addModifiedSubscription([&count](DataContext&) { ++count; }));
        return;
    }
    for (std::size_t i = 0; i < object->getChildCount(); ++i) {
        bindLeaves(object->getChild(i), count, tokens);
    }
}

void report(benchmark::State& state, std::int64_t leaves, std::int64_t notified, std::int64_t updates) {
    state.SetItemsProcessed(leaves);
    state.counters["time_per_leaf"] =
        benchmark::Counter(static_cast<double>(leaves), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["notified_per_update"] = static_cast<double>(notified) / static_cast<double>(updates);
}

void BM_Internalize(benchmark::State& state) {
    const bool grouped = state.range(0) != 0;
    const auto tree = buildTree(grouped);
    const auto texts = updateTexts(grouped);
    std::int64_t notified = 0;
    countLeafChanges(tree, notified);
    for (const auto& text : texts) {
        RuntimeDataInternalizer::internalize(text, tree);  // into the steady cycle
    }
    notified = 0;

    std::int64_t updates = 0;
    for (auto _ : state) {
        RuntimeDataInternalizer::internalize(texts[updates % updateCount], tree);
        ++updates;
    }
    report(state, updates * changedPerUpdate, notified, updates);
}

// A runtime source on its adapter, as the data source builds it, with a
// binding that counts notifications on every leaf data object.
class BoundSource {
public:
    explicit BoundSource(bool grouped) {
        auto config = std::make_shared<ContentAdapterConfiguration>();
        config->uri = "servicedata://bench";
        config->name = "bench";
        config->runtimeData = std::make_shared<RuntimeDataObject>(nullptr, "", "");
        const auto tree = buildTree(grouped);
        for (auto child = tree->beginChildren(); child != tree->endChildren(); ++child) {
            config->runtimeData->addChild(*child);
        }
        adapter = std::make_shared<ContentAdapter>(config, &host.domain(), service.context());
        root = std::make_shared<DataObject>(&host.domain(), "Root");
        adapter->initialize(root, true);
        bindLeaves(root, notified, tokens);
        service.setState(Connection::StateConnected);
        host.runUntilIdle();
        auto client = service.context()->getClient();
        adapter->start(
            std::make_shared<DefaultContentLoader>(client.get(), client->getConnection()->getMessageDispatcher()));
        host.runUntilIdle();
    }

    testkit::TestHost host;
    testkit::ScriptedService service{host.domain()};
    std::shared_ptr<ContentAdapter> adapter;
    std::shared_ptr<DataObject> root;
    std::int64_t notified = 0;
    std::vector<std::shared_ptr<void>> tokens;
};

void BM_UpdateToDataObjects(benchmark::State& state) {
    const bool grouped = state.range(0) != 0;
    BoundSource source(grouped);
    const auto texts = updateTexts(grouped);
    for (const auto& text : texts) {
        source.adapter->onRuntimeDataUpdateReceived(nullptr, "", text);
    }
    source.notified = 0;

    std::int64_t updates = 0;
    for (auto _ : state) {
        source.adapter->onRuntimeDataUpdateReceived(nullptr, "", texts[updates % updateCount]);
        ++updates;
    }
    report(state, updates * changedPerUpdate, source.notified, updates);
}

void BM_UpdateThroughLoop(benchmark::State& state) {
    const bool grouped = state.range(0) != 0;
    BoundSource source(grouped);
    const auto texts = updateTexts(grouped);
    const auto subscription = source.service.subscriptions().at(0);
    for (const auto& text : texts) {
        source.service.pushRuntimeUpdate(subscription, "", text);
        source.host.runUntilIdle();
    }
    source.notified = 0;

    std::int64_t updates = 0;
    for (auto _ : state) {
        source.service.pushRuntimeUpdate(subscription, "", texts[updates % updateCount]);
        source.host.runUntilIdle();
        ++updates;
    }
    report(state, updates * changedPerUpdate, source.notified, updates);
}

void BM_UnchangedUpdate(benchmark::State& state) {
    const bool grouped = state.range(0) != 0;
    BoundSource source(grouped);
    const std::string text = updateTexts(grouped).front();
    source.adapter->onRuntimeDataUpdateReceived(nullptr, "", text);
    source.notified = 0;

    std::int64_t updates = 0;
    for (auto _ : state) {
        source.adapter->onRuntimeDataUpdateReceived(nullptr, "", text);
        ++updates;
    }
    report(state, updates * changedPerUpdate, source.notified, updates);
}

BENCHMARK(BM_Internalize)->ArgName("grouped")->Arg(0)->Arg(1);
BENCHMARK(BM_UpdateToDataObjects)->ArgName("grouped")->Arg(0)->Arg(1);
BENCHMARK(BM_UpdateThroughLoop)->ArgName("grouped")->Arg(0)->Arg(1);
BENCHMARK(BM_UnchangedUpdate)->ArgName("grouped")->Arg(0)->Arg(1);

}  // namespace
}  // namespace zarvo

BENCHMARK_MAIN();
