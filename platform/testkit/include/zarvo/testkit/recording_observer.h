// An observer of content loaders that keeps what it is told, as text.
#ifndef ZARVO_TESTKIT_RECORDING_OBSERVER_H
#define ZARVO_TESTKIT_RECORDING_OBSERVER_H

#include <zarvo/content_loader.h>

#include <boost/any.hpp>

#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace zarvo {
namespace testkit {

class RecordingObserver : public ContentLoader::Observer {
public:
    struct Loaded {
        std::size_t startIndex;
        std::vector<std::string> columns;
        /// Each row's values, rendered by getColumnValue.
        std::vector<std::vector<std::string>> rows;
        /// Each row's values as getValueAny gives them.
        std::vector<std::vector<boost::any>> values;
    };

    void onContentLoaded(ContentLoader* loader, ContentResult* result) override {
        Loaded loaded{result->getStartIndex(), {}, {}, {}};
        for (std::size_t c = 0; c < result->getColumnCount(); ++c) {
            loaded.columns.push_back(result->getColumnName(c));
        }
        for (std::size_t r = 0; r < result->getRowCount(); ++r) {
            result->setRowIndex(r);
            loaded.rows.emplace_back();
            loaded.values.emplace_back();
            for (std::size_t c = 0; c < result->getColumnCount(); ++c) {
                loaded.rows.back().push_back(result->getColumnValue(c));
                loaded.values.back().push_back(result->getValueAny(c));
            }
        }
        results.push_back(std::move(loaded));
        record(loader);
    }
    void onContentInvalidated(ContentLoader* loader) override {
        ++invalidations;
        record(loader);
    }
    void onRuntimeDataUpdateReceived(ContentLoader* loader, const std::string& address,
                                     const std::string& data) override {
        updates.push_back(address + "=" + data);
        record(loader);
    }

    std::size_t deliveries() const { return threads.size(); }

    std::vector<Loaded> results;
    int invalidations = 0;
    std::vector<std::string> updates;
    std::vector<std::thread::id> threads;
    std::vector<ContentLoader*> loaders;
    /// Runs after each delivery has been recorded.
    std::function<void()> afterDelivery;

private:
    void record(ContentLoader* loader) {
        threads.push_back(std::this_thread::get_id());
        loaders.push_back(loader);
        if (afterDelivery) {
            afterDelivery();
        }
    }
};

}  // namespace testkit
}  // namespace zarvo

#endif
