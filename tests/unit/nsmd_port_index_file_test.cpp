// The file that keeps the ports' indexes over a restart.
#include "nsmd/port_index_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <string>

namespace {

class PortIndexFile : public ::testing::Test {
  protected:
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
    void write(const std::string& text) { std::ofstream(path) << text; }
    std::string read() {
        std::ostringstream all;
        all << std::ifstream(path).rdbuf();
        return all.str();
    }

    std::string folder, path;
    port_index_pool pool{};
};

TEST_F(PortIndexFile, NextPoolNumbersAlike) {
    EXPECT_EQ(port_index_take_own(&pool, "p10", 10), 10U);
    EXPECT_EQ(port_index_take_any(&pool, "far"), 1U);
    EXPECT_EQ(port_index_take_any(&pool, "near"), 2U);
    port_index_leave(&pool, 2);
    ASSERT_EQ(port_index_save(&pool, path.c_str()), 0);
    EXPECT_EQ(read(), "2 near\n1 far\n10 p10\n");

    port_index_pool next{};
    port_index_load(&next, path.c_str());
    EXPECT_EQ(port_index_take_own(&next, "new", 10), 0U) << "reserved for its last holder";
    EXPECT_EQ(port_index_take_any(&next, "new"), 3U);
    EXPECT_EQ(port_index_take_back(&next, "near"), 2U);
    EXPECT_EQ(port_index_take_back(&next, "p10"), 10U);
    EXPECT_EQ(port_index_take_back(&next, "far"), 1U);
}

TEST_F(PortIndexFile, FullPoolAndLongestNamesFit) {
    for (unsigned i = 1; i < port_index_pool::COUNT; ++i) {
        char name[LINK_NAME_SIZE];
        std::snprintf(name, sizeof name, "abcdefghijkl%03u", i);
        EXPECT_EQ(port_index_take_any(&pool, name), i);
    }
    ASSERT_EQ(port_index_save(&pool, path.c_str()), 0);
    port_index_pool next{};
    port_index_load(&next, path.c_str());
    EXPECT_EQ(port_index_take_back(&next, "abcdefghijkl255"), 255U);
    EXPECT_EQ(port_index_take_back(&next, "abcdefghijkl001"), 1U);
    // All reserved: the one that was left longest ago has to give way.
    EXPECT_NE(port_index_take_any(&next, "new"), 0U);
}

TEST_F(PortIndexFile, NonsenseIsPassedOver) {
    write(
        "0 zero\n256 big\n-1 minus\n7\nword\n\n8 good\n8 better\n9 good\n4294967297 wraps\n5 "
        "cut-off-without-its-newline");
    port_index_load(&pool, path.c_str());
    EXPECT_EQ(port_index_take_back(&pool, "good"), 9U);
    EXPECT_EQ(port_index_take_back(&pool, "better"), 8U);
    for (const char* name : {"zero", "big", "minus", "cut-off-without"})
        EXPECT_EQ(port_index_take_back(&pool, name), 0U) << name;
    port_index_load(&pool, "/nowhere/indexes");
    write(std::string(100000, 'x'));
    port_index_load(&pool, path.c_str());
    EXPECT_EQ(port_index_take_any(&pool, "new"), 1U);
}

TEST_F(PortIndexFile, FailureLeavesTheFormerFile) {
    EXPECT_EQ(port_index_take_any(&pool, "p1"), 1U);
    EXPECT_EQ(port_index_save(&pool, "/nowhere/indexes"), -ENOENT);
    ASSERT_EQ(port_index_save(&pool, path.c_str()), 0);
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    EXPECT_EQ(port_index_take_any(&pool, "p2"), 2U);
    EXPECT_EQ(port_index_save(&pool, path.c_str()), -EISDIR);
    EXPECT_EQ(read(), "1 p1\n");
    rmdir((path + ".new").c_str());
}

}  // namespace
