// The file that keeps the ports' indexes over a restart.
#include "nsmd/links/port_index.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <string>

namespace {

struct port_index_file : testing::Test {
    std::string folder, path;
    port_index_pool pool{}, next{};

    void SetUp() override {
        char name[] = "/tmp/indexes.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        folder = name;
        path = folder + "/indexes";
    }
    void TearDown() override {
        unlink(path.c_str());
        rmdir(folder.c_str());  // fails, and leaves the folder to be seen, when more than the file is in it
    }
    void load(const std::string& text) {
        std::ofstream(path) << text;
        port_index_load(&next, path.c_str());
    }
    std::string saved() const {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(port_index_file, the_next_pool_numbers_alike) {
    EXPECT_EQ(port_index_take_own(&pool, "p10", 10), 10U);
    EXPECT_EQ(port_index_take_any(&pool, "far"), 1U);
    EXPECT_EQ(port_index_take_any(&pool, "near"), 2U);
    EXPECT_EQ(port_index_take_any(&pool, "past"), 3U);
    port_index_leave(&pool, 3);
    port_index_leave(&pool, 2);
    ASSERT_EQ(port_index_save(&pool, path.c_str()), 0);
    EXPECT_EQ(saved(), "3 past\n2 near\n1 far\n10 p10\n");  // those left longest ago first
    load(saved());
    EXPECT_EQ(port_index_take_own(&next, "new", 10), 0U) << "reserved for its last holder";
    EXPECT_EQ(port_index_take_any(&next, "new"), 4U);
    EXPECT_EQ(port_index_take_back(&next, "near"), 2U);
    EXPECT_EQ(port_index_take_back(&next, "p10"), 10U);
}

TEST_F(port_index_file, a_full_pool_with_the_longest_names_fits) {
    for (unsigned i = 1; i < port_index_pool::COUNT; ++i)
        EXPECT_EQ(port_index_take_any(&pool, ("abcdefghijkl" + std::to_string(i + 100)).c_str()), i);
    ASSERT_EQ(port_index_save(&pool, path.c_str()), 0);
    load(saved());
    EXPECT_EQ(port_index_take_back(&next, "abcdefghijkl355"), 255U);
    EXPECT_EQ(port_index_take_back(&next, "abcdefghijkl101"), 1U);
    EXPECT_NE(port_index_take_any(&next, "new"), 0U) << "all are reserved: one of them has to give way";
}

TEST_F(port_index_file, nonsense_is_passed_over) {
    load(
        "0 zero\n256 big\n-1 minus\n7\nword\n\n8 good\n8 better\n9 good\n4294967297 wraps\n5 "
        "cut-off-without-its-newline");
    EXPECT_EQ(port_index_take_back(&next, "good"), 9U);
    EXPECT_EQ(port_index_take_back(&next, "better"), 8U);
    for (const char* name : {"zero", "big", "minus", "cut-off-without"})
        EXPECT_EQ(port_index_take_back(&next, name), 0U) << name;
    port_index_load(&next, "/nowhere/indexes");
    load(std::string(100000, 'x'));
    EXPECT_EQ(port_index_take_any(&next, "new"), 1U);
}

TEST_F(port_index_file, a_failure_leaves_the_former_file) {
    EXPECT_EQ(port_index_take_any(&pool, "p1"), 1U);
    EXPECT_EQ(port_index_save(&pool, "/nowhere/indexes"), -ENOENT);
    ASSERT_EQ(port_index_save(&pool, path.c_str()), 0);
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    EXPECT_EQ(port_index_take_any(&pool, "p2"), 2U);
    EXPECT_EQ(port_index_save(&pool, path.c_str()), -EISDIR);
    EXPECT_EQ(saved(), "1 p1\n");
    rmdir((path + ".new").c_str());
}

}  // namespace
