// The memory manager (classes, reuse, counts, what it does about misuse), the table by number, growable text,
// and UTF-8.
#include <cstring>
#include <map>
#include <random>

#include "suite/base/index_table.h"
#include "suite/editor/utf8.h"
#include "unit/suite_support.h"

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

class Memory : public Suite {
  protected:
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
};

TEST_F(Memory, BlocksAreZeroedAlsoWhenReusedAndCountedByClass) {
    for (int round = 0; round < 3; round++) {
        for (std::size_t octets : {0u, 1u, 32u, 33u, 500u, 4096u, 65536u, 65537u, 300000u})
            EXPECT_GE(use(memmgr_calloc(octets, TYPE), octets), octets);
        const malloc_size* s = malloc_sizes;
        for (; s->octets != 0; s++) EXPECT_EQ(use(_memmgr_calloc(s, TYPE), s->octets), s->octets);
        EXPECT_EQ(_memmgr_calloc(s, TYPE), nullptr) << "the end is no class";
    }
    EXPECT_EQ(memmgr_type_stats(TYPE).blocks, 0u);
    EXPECT_EQ(memmgr_type_stats(TYPE).octets, 0u);
    EXPECT_GE(memmgr_type_stats(TYPE).peak_octets, 300000u);
    EXPECT_TRUE(said.empty());
}

// A shrunk block that grows again must not show what it held before.
TEST_F(Memory, ReallocKeepsContentsAndZeroesAllGrowth) {
    char* p = nullptr;
    std::size_t length = 0;
    for (std::size_t next : {10u, 31u, 5u, 30u, 33u, 1000u, 7u, 900u, 70000u, 100000u, 12u}) {
        const std::size_t kept = next < length ? next : length;
        memmgr_fail_at(1);
        EXPECT_EQ(memmgr_realloc(p, 200000, TYPE), nullptr);  // the block stays
        p = static_cast<char*>(memmgr_realloc(p, next, TYPE));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(std::string(p, kept), std::string(kept, 'x')) << next;
        EXPECT_TRUE(all_zero(p + kept, next - kept)) << next;
        std::memset(p, 'x', next);
        length = next;
    }
    memmgr_free(p, TYPE);
}

TEST_F(Memory, ImpossibleSizesAndWrongTypes) {
    for (std::size_t octets : {SIZE_MAX, SIZE_MAX - 15}) EXPECT_EQ(memmgr_calloc(octets, TYPE), nullptr);
    void* p = memmgr_calloc(1, TYPE);
    EXPECT_EQ(memmgr_realloc(p, SIZE_MAX, TYPE), nullptr);
    memmgr_free(p, TYPE);
    // A wrong type is said, and the block counted where it was taken.
    memmgr_name_type(OTHER_TYPE, "port record");
    memmgr_free(memmgr_calloc(100, TYPE), OTHER_TYPE);
    for (memory_type t : {TYPE, OTHER_TYPE}) EXPECT_EQ(memmgr_type_stats(t).blocks, 0u);
    EXPECT_NE(logged().at(0).find("port record"), std::string::npos);
}

TEST_F(Memory, DoubleFreeAndForeignMemoryAreSaidAndNotDone) {
    if (SANITIZED) GTEST_SKIP() << "the sanitizer reports these itself";
    void* p = memmgr_calloc(64, TYPE);
    memmgr_free(p, TYPE);
    memmgr_free(p, TYPE);
    EXPECT_NE(logged().at(0).find("already freed"), std::string::npos);
    EXPECT_EQ(memmgr_realloc(p, 200, TYPE), nullptr);
    alignas(16) char foreign[64] = "not from here";
    memmgr_free(foreign + 32, TYPE);
    EXPECT_NE(logged().back().find("unknown"), std::string::npos);
    // The class's cache is not corrupted: the block comes back, and only once.
    void* a = memmgr_calloc(60, OTHER_TYPE);
    void* b = memmgr_calloc(64, TYPE);
    EXPECT_EQ(a, p);
    EXPECT_NE(a, b);
    memmgr_free(a, OTHER_TYPE);
    memmgr_free(b, TYPE);
}

// Growth, probing across the end and removal out of the middle of a run, against a map; a failed allocation
// changes nothing. The numbers crowd: many share their low bits, as multiples of a power of two do.
TEST_F(Memory, TableByNumberFindsWhatWasPutInAndNotTakenOut) {
    std::mt19937 random(7);
    index_table table{};
    std::map<std::uint32_t, void*> model;
    static char records[4096];
    for (int step = 0; step < 20000; step++) {
        const auto key = static_cast<std::uint32_t>(random() % 400 * (step % 2 ? 1 : 4096));
        ASSERT_EQ(index_table_find(&table, key), model.contains(key) ? model[key] : nullptr);
        if (model.erase(key)) {
            index_table_remove(&table, key);
            continue;
        }
        if (random() % 8 == 0) memmgr_fail_at(1);
        if (index_table_reserve(&table, model.size() + 1, TYPE))
            index_table_put(&table, key, model[key] = &records[random() % sizeof records]);
        memmgr_fail_at(0);
    }
    for (const auto& [key, record] : model) index_table_remove(&table, key);
    EXPECT_EQ(index_table_any(&table), nullptr);
    EXPECT_GE(table.room, 512u) << "it has grown";
    index_table_free(&table, TYPE);
    EXPECT_EQ(memmgr_type_stats(TYPE).blocks, 0u);
}

class Text : public Suite {
  protected:
    ~Text() override { text_free(&t); }
    text_buffer t;
};

TEST_F(Text, EveryLengthFromNothingUpToSeveralGrowths) {
    EXPECT_STREQ(t.c_str(), "");
    text_consume(&t, 5);
    EXPECT_TRUE(text_append(&t, nullptr, 0));
    std::string expected;
    for (std::size_t i = 0; i < 600; i++) {
        const std::string piece(i < 599 ? i % 7 : 5000, 'a');
        ASSERT_TRUE(i % 2 == 0 ? text_append(&t, piece.data(), piece.size())
                               : text_printf(&t, "%s", piece.c_str()));
        expected += piece + std::to_string(i);
        ASSERT_TRUE(text_printf(&t, "%zu", i));
        ASSERT_EQ(t.c_str(), expected);
    }
}

TEST(Utf8, OnlyWholeAndValidCharactersCount) {
    EXPECT_EQ(utf8_columns("a\xc3\xa9\xe4\xb8\xad"), 4u);
    EXPECT_EQ(utf8_columns("e\xcc\x81"), 1u) << "a combining mark takes no column";
    for (const char* bad :
         {"\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe0\x80\x80", "\x80", "\xff", "\xe2\x82"})
        EXPECT_EQ(utf8_first(bad).length, 1u);
    EXPECT_FALSE(utf8_first("\xc2\x9b").shown) << "a control character of the upper set";
    EXPECT_EQ(utf8_last_length("a\xe2\x82\xac"), 3u);
    EXPECT_EQ(utf8_last_length("\x82\xac"), 1u);
}

}  // namespace
