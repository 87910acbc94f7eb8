// Children that work for the loop: what they hold, what comes back, and that none is left behind.
#include <fcntl.h>
#include <sys/wait.h>

#include <csignal>

#include "suite/process/job.h"
#include "unit/suite_host_support.h"

namespace {

// The numbers of the child's open descriptors, its own look at them left out.
int list_descriptors(const void*, int out) {
    std::string open;
    for (int fd = 0; fd < 1024; fd++)
        if (fcntl(fd, F_GETFD) >= 0) open += std::to_string(fd) + (fd == out ? "* " : " ");
    return write(out, open.data(), open.size()) < 0 ? 1 : 7;
}
int write_without_end(const void*, int out) {
    char text[1000] = {};
    while (write(out, text, sizeof text) > 0) continue;
    return 0;
}
int hang(const void*, int) {
    for (;;) pause();
}
int crash(const void*, int out) {
    (void)!write(out, "half", 4);
    return raise(SIGKILL);
}

class Jobs : public Host {
  protected:
    job* begin(job_work work, std::initializer_list<int> keep = {}, std::uint32_t limit_s = 0) {
        const auto done = [](lib_globals*, void* self, int status, std::string_view result) {
            static_cast<Jobs*>(self)->came.emplace_back(status, result);
        };
        return job_start(ctx, {work, nullptr, keep.begin(), keep.size(), 2000, limit_s, done, this});
    }
    bool comes(std::size_t count) {
        return run_loop(ctx, 20'000, [&] { return came.size() == count; });
    }
    static bool no_child() { return waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD; }

    std::vector<std::pair<int, std::string>> came;  // status and result
};

TEST_F(Jobs, ChildHoldsItsPipeAndWhatItIsGiven) {
    const int kept = dup(0), between = dup(0), last = dup(0);
    EXPECT_NE(begin(list_descriptors, {last, kept}), nullptr);
    ASSERT_TRUE(comes(1));
    for (int fd : {kept, between, last}) close(fd);
    EXPECT_EQ(came[0].first, 7);
    const std::string& open = came[0].second;
    EXPECT_TRUE(open.starts_with(std::to_string(kept) + " " + std::to_string(last) + " ")) << open;
    EXPECT_EQ(open.find('*'), open.size() - 2) << open;
    EXPECT_EQ(std::count(open.begin(), open.end(), ' '), 3) << open;
}

TEST_F(Jobs, WhatEndsBadlyIsToldAndWhatIsCancelledIsNot) {
    ASSERT_NE(begin(crash), nullptr);
    ASSERT_TRUE(comes(1));
    ASSERT_NE(begin(write_without_end), nullptr);
    ASSERT_TRUE(comes(2));
    ASSERT_NE(begin(hang, {}, 1), nullptr);
    ASSERT_TRUE(comes(3));
    for (const auto& [status, result] : came) EXPECT_EQ(status, -1);
    EXPECT_EQ(came[0].second, "half");
    EXPECT_TRUE(no_child());
    job_cancel(begin(hang, {}, 60));
    job_cancel(begin(list_descriptors));
    EXPECT_TRUE(run_loop(ctx, 20'000, no_child)) << "ended and reaped";
    ASSERT_NE(begin(hang, {}, 60), nullptr);
    stop();
    EXPECT_TRUE(no_child());
    start();
    EXPECT_EQ(came.size(), 3u);
}

TEST_F(Jobs, MemoryMayBeShortAtAnyPoint) {
    for (std::uint64_t n = 1; n < 4; n++) {
        memmgr_fail_at(n);
        const bool started = begin(list_descriptors) != nullptr;
        EXPECT_TRUE(comes(started ? 1 : 0)) << n;
        memmgr_fail_at(0);
        came.clear();
        EXPECT_TRUE(no_child()) << n;
    }
}

}  // namespace
