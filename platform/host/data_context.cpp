#include <zarvo/data_context.h>

#include <zarvo/data_object.h>

#include <algorithm>
#include <utility>

namespace zarvo {

const PropertyType<std::string> DataContext::DataContextProperty("DataContext", std::string(), 0, true, nullptr);
const PropertyType<std::string> DataContext::ItemsSourceProperty("ItemsSource", std::string(), 0, false, nullptr);

DataContext::DataContext(Domain* domain, string_view name) : Resource(domain, name) {}

DataContext::~DataContext() = default;

MetaclassEditorInfo DataContext::makeEditorInfo() {
    return MetaclassEditorInfo();
}

const Metaclass* DataContext::getStaticMetaclass() {
    static const MetaclassStaticImpl<DataContext> metaclass(
        "Zarvo.DataContext", nullptr, true, {&DataContextProperty, &ItemsSourceProperty}, &DataContext::makeEditorInfo);
    return &metaclass;
}

void DataContext::notifyModified() {
    // Most data objects have no binding, and a bound one mostly one: neither
    // needs the copy below.
    if (subscriptions.empty()) {
        return;
    }
    if (subscriptions.size() == 1) {
        const std::shared_ptr<ModifiedSubscription> only = subscriptions.front();
        if (only->handler) {
            only->handler(*this);
        }
        return;
    }
    // A handler may drop the last owner of this object: it stays until the
    // round is over.
    auto* object = dynamic_cast<DataObject*>(this);
    const std::shared_ptr<DataObject> keep = object != nullptr ? object->weak_from_this().lock() : nullptr;
    // Handlers may add or remove subscriptions, so the round goes over a copy;
    // one that an earlier handler removed is skipped.
    const auto snapshot = subscriptions;
    for (std::size_t i = 0; i < snapshot.size(); ++i) {
        const auto& subscription = snapshot[i];
        const bool unchanged = i < subscriptions.size() && subscriptions[i] == subscription;
        if (!unchanged && std::find(subscriptions.begin(), subscriptions.end(), subscription) == subscriptions.end()) {
            continue;
        }
        if (subscription->handler) {
            subscription->handler(*this);
        }
    }
}

std::shared_ptr<void> DataContext::addModifiedSubscription(std::function<void(DataContext&)> handler) {
    auto subscription = std::make_shared<ModifiedSubscription>();
    subscription->handler = std::move(handler);
    subscriptions.push_back(subscription);
    return subscription;
}

void DataContext::removeModifiedSubscription(const std::shared_ptr<void>& token) {
    if (!token) {
        return;
    }
    auto found = std::find_if(subscriptions.begin(), subscriptions.end(),
                              [&token](const std::shared_ptr<ModifiedSubscription>& subscription) {
                                  return subscription.get() == token.get();
                              });
    if (found != subscriptions.end()) {
        subscriptions.erase(found);
    }
}

}  // namespace zarvo
