// The memory manager: classes, reuse, counts, and what it does about misuse.
#include "suite/base/memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>

#include "suite/log/log.h"

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
    return std::string(static_cast<const char*>(p), n) == std::string(n, '\0');
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
    // Takes, soils and gives back; what the type counted for it.
    static std::size_t use(void* p, std::size_t octets) {
        EXPECT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % alignof(std::max_align_t), 0u);
        EXPECT_TRUE(all_zero(p, octets));
        std::memset(p, 0xa5, octets);
        EXPECT_EQ(memmgr_type_stats(TYPE).blocks, 1u);
        const std::size_t counted = memmgr_type_stats(TYPE).octets;
        memmgr_free(p, TYPE);
        return counted;
    }
    std::string said;
};

TEST_F(Memory, BlocksAreZeroedAlsoWhenReusedAndCountedByClass) {
    for (int round = 0; round < 3; round++) {
        for (std::size_t octets : {0u, 1u, 32u, 33u, 500u, 4096u, 65536u, 65537u, 300000u})
            EXPECT_GE(use(memmgr_calloc(octets, TYPE), octets), octets);
        for (const malloc_size* s = malloc_sizes; s->octets != 0; s++)
            EXPECT_EQ(use(_memmgr_calloc(s, TYPE), s->octets), s->octets);
    }
    EXPECT_EQ(memmgr_type_stats(TYPE).blocks, 0u);
    EXPECT_EQ(memmgr_type_stats(TYPE).octets, 0u);
    EXPECT_GE(memmgr_type_stats(TYPE).peak_octets, 300000u);
    EXPECT_EQ(said, "");
}

// A shrunk block that grows again must not show what it held before.
TEST_F(Memory, ReallocKeepsContentsAndZeroesAllGrowth) {
    char* p = nullptr;
    std::size_t length = 0;
    for (std::size_t next : {10u, 31u, 5u, 30u, 33u, 1000u, 7u, 900u, 70000u, 100000u, 12u}) {
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
    char* a = static_cast<char*>(memmgr_calloc(8, TYPE));
    ASSERT_NE(a, nullptr);
    std::memcpy(a, "kept", 5);
    EXPECT_EQ(memmgr_realloc(a, 5000, TYPE), nullptr);
    EXPECT_STREQ(a, "kept");
    a = static_cast<char*>(memmgr_realloc(a, 5000, TYPE));
    ASSERT_NE(a, nullptr);
    EXPECT_STREQ(a, "kept");
    memmgr_free(a, TYPE);
    EXPECT_EQ(memmgr_type_stats(TYPE).failures, failures + 1);
    EXPECT_EQ(memmgr_allocations(), allocations + 3);
}

TEST_F(Memory, ImpossibleSizesAndUnknownTypes) {
    for (std::size_t octets : {SIZE_MAX, SIZE_MAX - 15}) EXPECT_EQ(memmgr_calloc(octets, TYPE), nullptr);
    void* p = memmgr_calloc(1, TYPE);
    EXPECT_EQ(memmgr_realloc(p, SIZE_MAX, TYPE), nullptr);
    memmgr_free(p, TYPE);
    const malloc_size* end = malloc_sizes;
    while (end->octets != 0) end++;
    EXPECT_EQ(_memmgr_calloc(end, TYPE), nullptr) << "the end is no class";
    EXPECT_EQ(_memmgr_calloc(end + 1, TYPE), nullptr);
    for (memory_type unknown : {-5, 77777}) {
        EXPECT_NE(memmgr_type_name(unknown), nullptr);
        memmgr_free(memmgr_calloc(8, unknown), unknown);
    }
    EXPECT_EQ(said, "");
}

TEST_F(Memory, WrongTypeIsSaidAndTheBlockCountedWhereItWasTaken) {
    memmgr_name_type(OTHER_TYPE, "port record");
    memmgr_free(memmgr_calloc(100, TYPE), OTHER_TYPE);
    EXPECT_EQ(memmgr_type_stats(TYPE).blocks, 0u);
    EXPECT_EQ(memmgr_type_stats(OTHER_TYPE).blocks, 0u);
    EXPECT_NE(said.find("port record"), std::string::npos);
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
    // The class's cache is not corrupted: the block comes back, and only once.
    void* a = memmgr_calloc(60, OTHER_TYPE);
    void* b = memmgr_calloc(64, TYPE);
    EXPECT_EQ(a, p);
    EXPECT_NE(a, b);
    memmgr_free(a, OTHER_TYPE);
    memmgr_free(b, TYPE);
}

}  // namespace
