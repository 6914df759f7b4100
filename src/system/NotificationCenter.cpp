#include "system/NotificationCenter.h"

#include <algorithm>

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::ObserverId
NotificationCenter::addObserver(const std::string& name, const void* object, Callback callback) {
    std::lock_guard<std::mutex> guard(_lock);
    const ObserverId id = _nextId++;
    _observers.push_back(
        Observer{id, name, object, std::make_shared<Callback>(std::move(callback))});
    return id;
}

void NotificationCenter::removeObserver(ObserverId id) {
    std::lock_guard<std::mutex> guard(_lock);
    std::erase_if(_observers, [id](const Observer& observer) { return observer.id == id; });
}

void NotificationCenter::postNotification(const Notification& notification) {
    std::vector<std::shared_ptr<Callback>> matching;
    {
        std::lock_guard<std::mutex> guard(_lock);
        for (const Observer& observer : _observers) {
            if (!observer.name.empty() && observer.name != notification.name)
                continue;
            if (observer.object != nullptr && observer.object != notification.object)
                continue;
            matching.push_back(observer.callback);
        }
    }
    for (const auto& callback : matching) {
        if (*callback)
            (*callback)(notification);
    }
}

size_t NotificationCenter::observerCount() const {
    std::lock_guard<std::mutex> guard(_lock);
    return _observers.size();
}
