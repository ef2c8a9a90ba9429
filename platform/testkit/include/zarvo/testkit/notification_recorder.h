// Records DataContext::notifyModified calls, in order, by label.
#ifndef ZARVO_TESTKIT_NOTIFICATION_RECORDER_H
#define ZARVO_TESTKIT_NOTIFICATION_RECORDER_H

#include <zarvo/data_object.h>

#include <memory>
#include <string>
#include <vector>

namespace zarvo {
namespace testkit {

class NotificationRecorder {
public:
    NotificationRecorder() = default;
    /// Unsubscribes from every watched context that is still alive.
    ~NotificationRecorder();
    NotificationRecorder(const NotificationRecorder&) = delete;
    NotificationRecorder& operator=(const NotificationRecorder&) = delete;

    /// Records each notification of `context` as `label`. The recorder does
    /// not keep the context alive.
    void watch(DataContext& context, const std::string& label);
    /// Watches `root` and every object below it as it is now, each labelled
    /// with its path of names joined by "." ("Root.connected"). Lists are
    /// watched themselves; their rows are not walked.
    void watchTree(const std::shared_ptr<DataObject>& root);

    const std::vector<std::string>& events() const { return recorded; }
    /// The events so far, which are then forgotten.
    std::vector<std::string> take();
    void clear() { recorded.clear(); }

private:
    void watchTree(const std::shared_ptr<DataObject>& object, const std::string& path);
    struct Watch {
        std::weak_ptr<void> alive;
        DataContext* context;
        std::shared_ptr<void> token;
    };
    std::vector<Watch> watches;
    std::vector<std::string> recorded;
};

}  // namespace testkit
}  // namespace zarvo

#endif
