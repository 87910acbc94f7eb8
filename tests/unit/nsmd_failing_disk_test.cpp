// The disk fails at each call that saves nsmd's port indexes and the simulated clock's registers.
#include <sys/wait.h>

#include <fstream>
#include <sstream>

#include "nsmd/clock/sim.h"
#include "nsmd_support.h"
#include "suite/rights/user.h"
#include "unit/failing_disk.h"

namespace {

using failing_disk::fault;

// What saves to a file: what that says at first, after a change that meets the disk's fault, and after
// another.
struct indexes {
    static constexpr const char *FIRST = "1 p1\n", *SECOND = "1 p1\n2 p2\n", *THIRD = "1 p1\n2 p2\n3 p3\n";
    recorded_table ports{{"p*"}};

    explicit indexes(const char* path) { port_table_keep_indexes(ports.table, path); }
    void change(int nth) {
        const std::string number = std::to_string(nth);
        port_table_link(ports.table, info_of("p" + number + " " + number));
        EXPECT_EQ(ports.take(), "p" + number + " " + number + " added") << "it goes on without the file";
    }
};

struct registers {
    static constexpr const char *FIRST = "2 0 0 0 0 0\n", *SECOND = "2 0 1 0 1 0\n", *THIRD = SECOND;
    virtual_loop loop;
    dpll_backend clock;

    explicit registers(const char* path)
        : clock(dpll_sim_create(&loop.ctx, nullptr, {1000, 0, path},
                                {[](void*, const dpll_report&) {}, nullptr})) {}
    ~registers() { clock.finish(clock.self); }
    void change(int nth) { clock.apply(clock.self, {nth > 1, 0, nth > 1, 0}); }
};

struct nsmd_failing_disk : testing::Test {
    log_lines log;
    char folder[32] = "/tmp/nsmd_disk_XXXXXX";
    std::string path = std::string(mkdtemp(folder)) + "/file";
    int kept = 0;

    ~nsmd_failing_disk() override {
        unlink(path.c_str());
        EXPECT_EQ(rmdir(folder), 0);
    }
    std::string content() const {
        std::ostringstream all;
        all << std::ifstream(path).rdbuf();
        return all.str();
    }
    // Whether there was a call with that number.
    template <typename saver>
    bool strikes(fault kind, int at) {
        if (!std::ofstream(path)) ADD_FAILURE();
        log.lines.clear();
        saver s(path.c_str());
        s.change(1);
        EXPECT_EQ(content(), saver::FIRST);
        failing_disk::arm(path, kind, at);
        s.change(2);
        const bool struck = failing_disk::disarm();
        const std::string left = content();
        EXPECT_TRUE(left == saver::FIRST || left == saver::SECOND || left.empty()) << left;
        EXPECT_TRUE(left == saver::SECOND || log.count(" can't write ") == 1);
        kept += left == saver::FIRST;
        s.change(3);
        EXPECT_EQ(content(), saver::THIRD) << "there is room again";
        return struck;
    }
    // Each call fails, takes half, or finds the disk full: at least so many there are.
    template <typename saver>
    void expect_calls(int fail, int full) {
        for (const fault kind : {fault::once, fault::cut, fault::full}) {
            int at = 1;
            while (strikes<saver>(kind, at) && !HasFailure()) ++at;
            EXPECT_GT(at, kind == fault::full ? full : fail);
        }
    }
};

TEST_F(nsmd_failing_disk, indexes_by_a_new_file) {
    expect_calls<indexes>(4, 2);
    EXPECT_GE(kept, 3);
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
        expect_calls<indexes>(7, 3);
        std::fflush(nullptr);
        _exit(HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(nsmd_failing_disk, registers_of_the_simulated_clock) {
    expect_calls<registers>(4, 2);
    EXPECT_GE(kept, 2);
}

}  // namespace
