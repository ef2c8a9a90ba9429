// Data contexts: what UI nodes bind to.
#ifndef ZARVO_DATA_CONTEXT_H
#define ZARVO_DATA_CONTEXT_H

#include <zarvo/metaclass.h>
#include <zarvo/resource.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zarvo {

class DataObject;

class DataContext : public Resource {
public:
    /// One party bound to this context. Its handler runs, synchronously, at
    /// every notifyModified().
    struct ModifiedSubscription {
        std::function<void(DataContext&)> handler;
    };

    DataContext(Domain* domain, string_view name);
    ~DataContext() override;

    /// The data this context stands for; may be null.
    virtual std::shared_ptr<DataObject> getData() = 0;
    /// The context at `path`, a "."-separated chain of child names below
    /// getData(); null if there is none.
    virtual std::shared_ptr<DataObject> lookupDataContext(string_view path) = 0;

    /// Tells everything bound to this context that it changed. Subscriptions
    /// added or removed by a handler take effect from the next notification;
    /// a removed one is not called again.
    void notifyModified();

    /// Binds `handler`; gives the token that removeModifiedSubscription takes.
    std::shared_ptr<void> addModifiedSubscription(std::function<void(DataContext&)> handler);
    /// Unbinds; a null or unknown token does nothing.
    void removeModifiedSubscription(const std::shared_ptr<void>& token);
    std::size_t getModifiedSubscriptionCount() const { return subscriptions.size(); }

    /// Binds a UI node to a context, by path.
    static const PropertyType<std::string> DataContextProperty;
    /// Binds a UI node's items to a list, by path.
    static const PropertyType<std::string> ItemsSourceProperty;
    static MetaclassEditorInfo makeEditorInfo();
    static const Metaclass* getStaticMetaclass();

private:
    std::vector<std::shared_ptr<ModifiedSubscription>> subscriptions;
};

}  // namespace zarvo

#endif
