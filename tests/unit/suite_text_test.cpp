// Growable text: what is kept when growing fails, limits, and the closing zero.
#include "suite/base/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "suite/base/memory.h"

namespace {

class Text : public ::testing::Test {
  protected:
    void TearDown() override {
        memmgr_fail_at(0);
        text_free(&t);
        EXPECT_EQ(memmgr_type_stats(MTYPE_TEXT).blocks, 0u);
    }
    text_buffer t;
};

TEST_F(Text, EveryLengthFromNothingUpToSeveralGrowths) {
    EXPECT_STREQ(t.c_str(), "");
    text_consume(&t, 5);
    EXPECT_TRUE(text_append(&t, nullptr, 0));
    std::string expected;
    for (int i = 0; i < 600; i++) {
        const std::string piece(static_cast<std::size_t>(i % 7), static_cast<char>('a' + i % 26));
        ASSERT_TRUE(i % 2 == 0 ? text_append(&t, piece.data(), piece.size())
                               : text_printf(&t, "%s", piece.c_str()));
        expected += piece;
        ASSERT_EQ(t.view(), expected);
        ASSERT_EQ(std::strlen(t.c_str()), expected.size());
    }
    const std::string large(5000, 'z');
    ASSERT_TRUE(text_printf(&t, "%s|", large.c_str()));
    EXPECT_EQ(t.view(), expected + large + "|");
}

TEST_F(Text, FailedGrowthLeavesTheContents) {
    const std::string large(500, 'z');
    ASSERT_TRUE(text_printf(&t, "kept"));
    memmgr_fail_at(1);
    EXPECT_FALSE(text_append(&t, large.data(), large.size()));
    memmgr_fail_at(1);
    EXPECT_FALSE(text_printf(&t, "%s", large.c_str()));
    EXPECT_FALSE(text_append(&t, large.data(), SIZE_MAX));
    EXPECT_STREQ(t.c_str(), "kept");
    EXPECT_TRUE(text_append(&t, "!", 1));
    EXPECT_STREQ(t.c_str(), "kept!");
}

TEST_F(Text, LimitCountsWhatIsHeld) {
    t.limit = 10;
    EXPECT_TRUE(text_append(&t, "0123456789", 10));
    EXPECT_FALSE(text_append(&t, "x", 1));
    text_consume(&t, 3);
    EXPECT_FALSE(text_printf(&t, "%s", "abcd"));
    EXPECT_TRUE(text_printf(&t, "%s", "abc"));
    EXPECT_STREQ(t.c_str(), "3456789abc");
    text_consume(&t, 99);
    EXPECT_STREQ(t.c_str(), "");
}

int print(char* buffer, std::size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = zvsnprintf(buffer, size, format, args);
    va_end(args);
    return n;
}

TEST_F(Text, ZvsnprintfCutsAndReturnsWhatWasKept) {
    char b[8] = "sentry!";
    EXPECT_EQ(print(b, 5, "%s", "abcdefgh"), 4);
    EXPECT_EQ(std::memcmp(b, "abcd\0y!", 8), 0);
    EXPECT_EQ(print(b, 5, "%d", 12), 2);
    EXPECT_EQ(print(b, 0, "%d", 34), 0);
    EXPECT_STREQ(b, "12");
}

}  // namespace
