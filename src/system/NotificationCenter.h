#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

// A notification: its name, the object that posted it (or none) and optional details.
struct Notification {
    std::string name;
    const void* object = nullptr;
    std::map<std::string, std::string> userInfo;
};

// An in-process notification centre. Observers register a callback for a name, optionally
// only for one posting object; postNotification() calls every matching callback on the
// posting thread, in the order of registration, before it returns. All operations may be
// used from any thread. Callbacks run without the centre's lock held, so they may add or
// remove observers and post again; an observer removed on another thread while a post is
// under way may still receive that one notification.
class NotificationCenter {
public:
    using ObserverId = uint64_t;
    using Callback = std::function<void(const Notification&)>;

    NotificationCenter() = default;
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The process-wide centre.
    static NotificationCenter& defaultCenter();

    // Calls callback for every notification of the name (an empty name: of every name)
    // whose object is object (nullptr: any object). The id is never 0.
    ObserverId addObserver(const std::string& name, const void* object, Callback callback);
    // Forgets the observer; unknown ids are ignored.
    void removeObserver(ObserverId id);

    void postNotification(const Notification& notification);
    void postNotification(const std::string& name, const void* object = nullptr) {
        postNotification(Notification{name, object, {}});
    }

    size_t observerCount() const;

private:
    struct Observer {
        ObserverId id = 0;
        std::string name;
        const void* object = nullptr;
        std::shared_ptr<Callback> callback;
    };

    mutable std::mutex _lock;
    std::vector<Observer> _observers;
    ObserverId _nextId = 1;
};

// Removes its observer from the centre when it goes out of scope.
class ScopedNotificationObserver {
public:
    ScopedNotificationObserver(NotificationCenter& center, const std::string& name,
                               const void* object, NotificationCenter::Callback callback)
        : _center(&center), _id(center.addObserver(name, object, std::move(callback))) {}
    ~ScopedNotificationObserver() {
        if (_center)
            _center->removeObserver(_id);
    }
    ScopedNotificationObserver(const ScopedNotificationObserver&) = delete;
    ScopedNotificationObserver& operator=(const ScopedNotificationObserver&) = delete;

private:
    NotificationCenter* _center;
    NotificationCenter::ObserverId _id;
};
