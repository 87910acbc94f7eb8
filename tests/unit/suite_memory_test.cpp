// The memory manager: classes, reuse, counts, and what it does about misuse.
#include "suite/memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "suite/log.h"

namespace {

constexpr memory_type TYPE = 910, OTHER_TYPE = 911;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
constexpr bool SANITIZED = __has_feature(address_sanitizer);
#else
constexpr bool SANITIZED = false;
#endif

bool all_zero(const void* p, std::size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (std::size_t i = 0; i < n; i++) {
        if (b[i] != 0) return false;
    }
    return true;
}

class Memory : public ::testing::Test {
  protected:
    void SetUp() override {
        log_use_sink(LOG_SINK_STDERR, false);
        log_add_tap(collect, this);
        memory_init(36);
    }
    void TearDown() override {
        memmgr_fail_at(0);
        log_remove_tap(collect, this);
    }
    static void collect(void* arg, int, const char* line, std::size_t length) {
        static_cast<Memory*>(arg)->said += std::string(line, length) + "\n";
    }
    std::string said;
};

TEST_F(Memory, ClassesAscendAndEndWithZero) {
    std::size_t last = 0;
    const malloc_size* s = malloc_sizes;
    for (; s->octets != 0; s++) {
        EXPECT_GT(s->octets, last);
        last = s->octets;
    }
    EXPECT_EQ(last, 65536u);
    EXPECT_EQ(_memmgr_calloc(s, TYPE), nullptr);  // the end is no class
    EXPECT_EQ(_memmgr_calloc(s + 1, TYPE), nullptr);
}

TEST_F(Memory, BlocksAreZeroedAlsoWhenReusedAndCountedByClass) {
    const memmgr_stats before = memmgr_type_stats(TYPE);
    for (std::size_t octets : {0u, 1u, 32u, 33u, 500u, 4096u, 65536u, 65537u, 300000u}) {
        for (int round = 0; round < 3; round++) {
            void* p = memmgr_calloc(octets, TYPE);
            ASSERT_NE(p, nullptr);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
            EXPECT_TRUE(all_zero(p, octets));
            std::memset(p, 0xa5, octets);
            EXPECT_EQ(memmgr_type_stats(TYPE).blocks, before.blocks + 1);
            EXPECT_GE(memmgr_type_stats(TYPE).octets, before.octets + octets);
            memmgr_free(p, TYPE);
        }
    }
    for (const malloc_size* s = malloc_sizes; s->octets != 0; s++) {
        void* p = _memmgr_calloc(s, TYPE);
        ASSERT_NE(p, nullptr);
        EXPECT_TRUE(all_zero(p, s->octets));
        EXPECT_EQ(memmgr_type_stats(TYPE).octets, before.octets + s->octets);
        std::memset(p, 0x5a, s->octets);
        memmgr_free(p, TYPE);
    }
    EXPECT_EQ(memmgr_type_stats(TYPE).octets, before.octets);
    EXPECT_EQ(memmgr_type_stats(TYPE).blocks, before.blocks);
    EXPECT_GE(memmgr_type_stats(TYPE).peak_octets, before.octets + 300000);
    EXPECT_EQ(said, "");
}

// A shrunk block that grows again must not show what it held before.
TEST_F(Memory, ReallocKeepsContentsAndZeroesAllGrowth) {
    char* p = static_cast<char*>(memmgr_realloc(nullptr, 10, TYPE));
    ASSERT_NE(p, nullptr);
    std::size_t length = 10;
    std::memset(p, 'x', length);
    for (std::size_t next : {31u, 5u, 30u, 33u, 1000u, 7u, 900u, 70000u, 100000u, 12u}) {
        const std::size_t kept = next < length ? next : length;
        p = static_cast<char*>(memmgr_realloc(p, next, TYPE));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(std::string(p, kept), std::string(kept, 'x')) << next;
        EXPECT_TRUE(all_zero(p + kept, next - kept)) << next;
        std::memset(p, 'x', next);
        length = next;
    }
    memmgr_free(p, TYPE);
}

TEST_F(Memory, TheNthAllocationFailsOnceGrowthIncluded) {
    const auto failures = memmgr_type_stats(TYPE).failures;
    const auto allocations = memmgr_allocations();
    memmgr_fail_at(2);
    void* a = memmgr_calloc(8, TYPE);
    ASSERT_NE(a, nullptr);
    std::memcpy(a, "kept", 5);
    EXPECT_EQ(memmgr_realloc(a, 5000, TYPE), nullptr);
    EXPECT_STREQ(static_cast<char*>(a), "kept");
    a = memmgr_realloc(a, 5000, TYPE);
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(static_cast<char*>(a), "kept");
    memmgr_fail_at(1);
    EXPECT_EQ(_memmgr_calloc(malloc_sizes, TYPE), nullptr);
    memmgr_free(a, TYPE);
    EXPECT_EQ(memmgr_type_stats(TYPE).failures, failures + 2);
    EXPECT_EQ(memmgr_allocations(), allocations + 4);
}

TEST_F(Memory, ImpossibleSizesAreRefused) {
    EXPECT_EQ(memmgr_calloc(SIZE_MAX, TYPE), nullptr);
    EXPECT_EQ(memmgr_calloc(SIZE_MAX - 15, TYPE), nullptr);
    void* p = memmgr_calloc(1, TYPE);
    EXPECT_EQ(memmgr_realloc(p, SIZE_MAX, TYPE), nullptr);
    memmgr_free(p, TYPE);
}

TEST_F(Memory, WrongTypeIsSaidAndTheBlockCountedWhereItWasTaken) {
    memmgr_name_type(OTHER_TYPE, "port record");
    const auto mine = memmgr_type_stats(TYPE).blocks, other = memmgr_type_stats(OTHER_TYPE).blocks;
    memmgr_free(memmgr_calloc(100, TYPE), OTHER_TYPE);
    EXPECT_EQ(memmgr_type_stats(TYPE).blocks, mine);
    EXPECT_EQ(memmgr_type_stats(OTHER_TYPE).blocks, other);
    EXPECT_NE(said.find("port record"), std::string::npos);
    memmgr_free(nullptr, TYPE);
}

TEST_F(Memory, DoubleFreeAndForeignMemoryAreSaidAndNotDone) {
    if (SANITIZED) GTEST_SKIP() << "the sanitizer reports these itself";
    void* p = memmgr_calloc(64, TYPE);
    memmgr_free(p, TYPE);
    memmgr_free(p, TYPE);
    EXPECT_NE(said.find("already freed"), std::string::npos);
    EXPECT_EQ(memmgr_realloc(p, 200, TYPE), nullptr);
    alignas(16) char foreign[64] = "not from here";
    memmgr_free(foreign + 32, TYPE);
    EXPECT_NE(said.find("unknown"), std::string::npos);
    // The class's cache is not corrupted: it hands out different blocks.
    void* a = memmgr_calloc(64, TYPE);
    void* b = memmgr_calloc(64, TYPE);
    EXPECT_NE(a, b);
    memmgr_free(a, TYPE);
    memmgr_free(b, TYPE);
}

TEST_F(Memory, FreedBlocksComeBack) {
    if (SANITIZED) GTEST_SKIP() << "nothing is kept under the sanitizer";
    void* p = memmgr_calloc(700, TYPE);
    memmgr_free(p, TYPE);
    void* q = memmgr_calloc(600, OTHER_TYPE);
    EXPECT_EQ(p, q);
    memmgr_free(q, OTHER_TYPE);
}

TEST_F(Memory, NamesAreNeverNull) {
    EXPECT_STREQ(memmgr_type_name(MTYPE_THREAD), "event loop");
    EXPECT_NE(memmgr_type_name(-5), nullptr);
    EXPECT_NE(memmgr_type_name(77777), nullptr);
    memmgr_free(memmgr_calloc(8, 77777), 77777);  // an unknown type is no reason to fail
    EXPECT_EQ(said, "");
}

}  // namespace
