#include "Tovik/ThreadLocal.h"

#include <gtest/gtest.h>

#include <thread>

using Tovik::ThreadLocal;

TEST(ThreadLocalTests, ValuesBelongToTheirThread) {
    ThreadLocal<int> counter("counter");
    counter.setValue(7);

    std::optional<int> seenElsewhere = 0;
    std::optional<int> writtenElsewhere;
    std::thread other([&] {
        seenElsewhere = counter.value();
        counter.setValue(99);
        writtenElsewhere = counter.value();
    });
    other.join();

    EXPECT_EQ(seenElsewhere, std::nullopt);
    EXPECT_EQ(writtenElsewhere, 99);
    EXPECT_EQ(counter.value(), 7);
}

TEST(ThreadLocalTests, OtherTypeReadsAsAbsentAndNothingRemoves) {
    ThreadLocal<int> number("shared-key");
    ThreadLocal<std::string> text("shared-key");
    number.setValue(3);
    EXPECT_EQ(text.value(), std::nullopt);

    text.setValue(std::string("three"));
    EXPECT_EQ(text.value(), "three");
    EXPECT_EQ(number.value(), std::nullopt);

    text.setValue(std::nullopt);
    EXPECT_EQ(text.value(), std::nullopt);
    EXPECT_EQ(Tovik::currentThreadDictionary().count("shared-key"), 0U);
}
