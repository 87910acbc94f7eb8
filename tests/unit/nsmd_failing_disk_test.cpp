// The disk fails at each call that saves nsmd's port indexes.
#include <sys/wait.h>

#include <fstream>

#include "nsmd_support.h"
#include "suite/rights/user.h"
#include "unit/failing_disk.h"

namespace {

using failing_disk::fault;

struct nsmd_failing_disk : testing::Test {
    static constexpr const char *FIRST = "1 p1\n", *SECOND = "1 p1\n2 p2\n", *THIRD = "1 p1\n2 p2\n3 p3\n";
    log_lines log;
    char folder[32] = "/tmp/nsmd_disk_XXXXXX";
    std::string path = std::string(mkdtemp(folder)) + "/file";

    ~nsmd_failing_disk() override {
        unlink(path.c_str());
        EXPECT_EQ(rmdir(folder), 0);
    }
    // Whether there was a call with that number.
    bool strikes(fault kind, int at, int* kept) {
        std::ofstream(path).flush();
        log.lines.clear();
        recorded_table ports{{"p*"}};
        port_table_keep_indexes(ports.table, path.c_str());
        port_table_link(ports.table, info_of("p1 1"));
        EXPECT_EQ(content_of(path), FIRST);
        failing_disk::arm(path, kind, at);
        port_table_link(ports.table, info_of("p2 2"));
        const bool struck = failing_disk::disarm();
        const std::string left = content_of(path);
        EXPECT_TRUE(left == FIRST || left == SECOND || left.empty()) << left;
        EXPECT_TRUE(left == SECOND || log.count(" can't write ") == 1);
        *kept += left == FIRST;
        port_table_link(ports.table, info_of("p3 3"));
        EXPECT_EQ(content_of(path), THIRD) << "there is room again";
        EXPECT_EQ(ports.take(), "p1 1 added, p2 2 added, p3 3 added");
        return struck;
    }
    // Each call fails, takes half, or finds the disk full: at least so many there are. How often the old
    // content stayed.
    int expect_calls(int fail, int full) {
        int kept = 0;
        for (const fault kind : {fault::once, fault::cut, fault::full}) {
            int at = 1;
            while (strikes(kind, at, &kept) && !HasFailure()) ++at;
            EXPECT_GT(at, kind == fault::full ? full : fail);
        }
        return kept;
    }
};

TEST_F(nsmd_failing_disk, indexes_by_a_new_file) {
    EXPECT_GE(expect_calls(4, 2), 3);
}

TEST_F(nsmd_failing_disk, indexes_in_place_by_another_user) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    const pid_t child = fork();
    if (child == 0) {
        rights_user user;
        EXPECT_EQ(rights_user_find("65534:65534", &user), nullptr);
        EXPECT_EQ(chmod(folder, 0755), 0);
        EXPECT_EQ(rights_give(path.c_str(), user, true), 1);
        EXPECT_EQ(rights_become(user, 0), 0);
        expect_calls(7, 3);
        std::fflush(nullptr);
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

}  // namespace
