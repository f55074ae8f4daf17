#include "Tovik/ThreadLocal.h"

#include <gtest/gtest.h>

#include <thread>

using Tovik::ThreadLocal;

TEST(ThreadLocalTests, ValuesBelongToTheirThreadAndType) {
    ThreadLocal<int> number("shared-key");
    ThreadLocal<std::string> text("shared-key");
    number.setValue(7);

    std::optional<int> seenElsewhere = 0, writtenElsewhere;
    std::thread([&] {
        seenElsewhere = number.value();
        number.setValue(99);
        writtenElsewhere = number.value();
    }).join();
    EXPECT_EQ(seenElsewhere, std::nullopt);
    EXPECT_EQ(writtenElsewhere, 99);
    EXPECT_EQ(number.value(), 7);

    // One entry per key: a value of another type reads as absent, and setting nothing removes it.
    EXPECT_EQ(text.value(), std::nullopt);
    text.setValue(std::string("three"));
    EXPECT_EQ(number.value(), std::nullopt);
    text.setValue(std::nullopt);
    EXPECT_EQ(Tovik::currentThreadDictionary().count("shared-key"), 0U);
}
