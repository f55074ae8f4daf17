// The in-process notification center: which observers a post reaches, in
// which order, and what a block may change while it runs.
#include "Foundation/NotificationCenter.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Foundation::Notification;
using Foundation::NotificationCenter;

TEST(NotificationCenterTests, PostsReachMatchingObserversInOrder) {
    NotificationCenter center;
    std::vector<std::string> seen;
    int sender = 0, other = 0;
    auto note = [&](std::string who) {
        return [&seen, who](const Notification& n) { seen.push_back(who + ":" + n.name); };
    };

    center.addObserver("A", nullptr, note("anyA"));
    center.addObserver(std::nullopt, &sender, note("fromSender"));
    NotificationCenter::ObserverToken later = 0;
    const auto remover = center.addObserver("A", nullptr, [&](const Notification&) {
        seen.push_back("remover");
        center.removeObserver(later);  // already matched by this post, yet not called
        center.addObserver("A", nullptr, note("added"));  // not called by this post
    });
    later = center.addObserver("A", nullptr, note("later"));

    center.post("A", &sender, {{"k", 1}});
    EXPECT_EQ(seen, (std::vector<std::string>{"anyA:A", "fromSender:A", "remover"}));

    seen.clear();
    center.removeObserver(remover);
    center.post("B", &other);
    center.post("A", &other);
    EXPECT_EQ(seen, (std::vector<std::string>{"anyA:A", "added:A"}));
}
