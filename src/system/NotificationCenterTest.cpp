#include "system/NotificationCenter.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

TEST(NotificationCenterTest, DeliversByNameAndObject) {
    NotificationCenter center;
    int first = 0, second = 0;
    std::vector<std::string> seen;
    int owner = 0, other = 0;
    center.addObserver("Done", nullptr, [&](const Notification&) { ++first; });
    center.addObserver("Done", &owner, [&](const Notification& n) {
        EXPECT_EQ(n.object, &owner);
        ++second;
    });
    center.addObserver("", nullptr, [&](const Notification& n) { seen.push_back(n.name); });

    center.postNotification("Done", &owner);
    center.postNotification("Done", &other);
    center.postNotification("Other");
    EXPECT_EQ(first, 2);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(seen, (std::vector<std::string>{"Done", "Done", "Other"}));
}

TEST(NotificationCenterTest, UserInfoAndOrderOfRegistration) {
    NotificationCenter center;
    std::vector<int> order;
    center.addObserver("N", nullptr, [&](const Notification& n) {
        EXPECT_EQ(n.userInfo.at("key"), "value");
        order.push_back(1);
    });
    center.addObserver("N", nullptr, [&](const Notification&) { order.push_back(2); });
    center.postNotification(Notification{"N", nullptr, {{"key", "value"}}});
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

TEST(NotificationCenterTest, RemovedObserversHearNothing) {
    NotificationCenter center;
    int count = 0;
    auto id = center.addObserver("N", nullptr, [&](const Notification&) { ++count; });
    EXPECT_NE(id, 0u);
    center.postNotification("N");
    center.removeObserver(id);
    center.removeObserver(id);
    center.removeObserver(12345);
    center.postNotification("N");
    EXPECT_EQ(count, 1);
    EXPECT_EQ(center.observerCount(), 0u);
    {
        ScopedNotificationObserver scoped(center, "N", nullptr,
                                          [&](const Notification&) { ++count; });
        center.postNotification("N");
        EXPECT_EQ(center.observerCount(), 1u);
    }
    center.postNotification("N");
    EXPECT_EQ(count, 2);
    EXPECT_EQ(center.observerCount(), 0u);
}

TEST(NotificationCenterTest, CallbacksMayChangeTheCentre) {
    NotificationCenter center;
    int count = 0;
    NotificationCenter::ObserverId id = 0;
    id = center.addObserver("N", nullptr, [&](const Notification&) {
        ++count;
        center.removeObserver(id);
        center.addObserver("M", nullptr, [&](const Notification&) { ++count; });
        center.postNotification("M");
    });
    center.postNotification("N");
    center.postNotification("N");
    EXPECT_EQ(count, 2);
}

TEST(NotificationCenterTest, PostsFromManyThreads) {
    NotificationCenter center;
    std::atomic<int> count{0};
    center.addObserver("N", nullptr, [&](const Notification&) { ++count; });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 1000; ++i) {
                center.postNotification("N");
                auto id = center.addObserver("X", nullptr, [](const Notification&) {});
                center.removeObserver(id);
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(count.load(), 4000);
    EXPECT_EQ(center.observerCount(), 1u);
}

TEST(NotificationCenterTest, DefaultCentreIsOne) {
    EXPECT_EQ(&NotificationCenter::defaultCenter(), &NotificationCenter::defaultCenter());
}
