#include <zarvo/testkit/notification_recorder.h>

namespace zarvo {
namespace testkit {

// A watch keeps its subscription only weakly (`alive`): the context owns the
// subscription, so the weak pointer expires exactly when the context is gone,
// and the recorder never touches a dead context. `token` stays empty.
NotificationRecorder::~NotificationRecorder() {
    for (auto& watch : watches) {
        auto subscription = watch.alive.lock();
        if (subscription) {
            watch.context->removeModifiedSubscription(subscription);
        }
    }
}

void NotificationRecorder::watch(DataContext& context, const std::string& label) {
    auto subscription = context.addModifiedSubscription([this, label](DataContext&) { recorded.push_back(label); });
    watches.push_back(Watch{subscription, &context, nullptr});
}

void NotificationRecorder::watchTree(const std::shared_ptr<DataObject>& root) {
    if (root) {
        watchTree(root, root->getName());
    }
}

void NotificationRecorder::watchTree(const std::shared_ptr<DataObject>& object, const std::string& path) {
    watch(*object, path);
    if (object->getType() == DataObject::TypeList) {
        return;
    }
    for (std::size_t i = 0; i < object->getChildCount(); ++i) {
        auto child = object->getChild(i);
        if (child) {
            watchTree(child, path + "." + child->getName());
        }
    }
}

std::vector<std::string> NotificationRecorder::take() {
    std::vector<std::string> events;
    events.swap(recorded);
    return events;
}

}  // namespace testkit
}  // namespace zarvo
