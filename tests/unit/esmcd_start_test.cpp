// Start-up and the end of the process. The daemon that is started here runs in a child with a /run of its
// own; only the packet socket and the link to the network services manager are replaced.
#include "esmcd/start.h"

#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <set>

#include "daemon_fixture.h"
#include "esmcd/signal.h"
#include "suite/base/clock.h"
#include "suite/ports/slow_socket.h"

namespace {

constexpr nanoseconds DEADLINE = 10 * NS_PER_S;

ssize_t no_send(void*, int, const_octets frame, std::uint32_t) {
    return static_cast<ssize_t>(frame.size());
}

// Always one more frame: an ESMC PDU for a port that nobody knows.
ssize_t endless_receive(void*, int, octets frame, std::uint32_t* kernel_ifindex) {
    std::memset(frame.data(), 0, frame.size());
    *kernel_ifindex = 12345;
    return static_cast<ssize_t>(std::min<std::size_t>(frame.size(), 60));
}

const slow_edge refused_socket = {[](void*) { return -EPERM; }, no_send, endless_receive, nullptr};
const slow_edge flooded_socket = {[](void*) { return eventfd(1, EFD_NONBLOCK); }, no_send, endless_receive,
                                  nullptr};

void free_records() {
    memmgr_free(ssm_instance, MTYPE_SSM_INSTANCE);
    memmgr_free(g_s_master, MTYPE_SSM_MASTER);
    ssm_instance = nullptr;
    g_s_master = nullptr;
}

// Without a socket start-up always comes back: as it is, and with each of its allocations failing in turn.
TEST(start, that_fails_leaves_nothing_open) {
    board_file board("synce_support 1\n");
    slow_socket_set_edge(&refused_socket);
    testing::internal::CaptureStderr();
    const std::uint64_t before = memmgr_allocations();
    EXPECT_EQ(ssm_start(false, nullptr, 0, "esmcd"), -1);
    const std::uint64_t count = memmgr_allocations() - before;
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Open ssm error\n"), std::string::npos);
    EXPECT_EQ(g_p_esmcd, nullptr);
    ASSERT_NE(ssm_instance, nullptr);  // stays
    EXPECT_EQ(ssm_instance->sock, -1);
    free_records();

    std::set<std::int32_t> codes;
    testing::internal::CaptureStderr();
    for (std::uint64_t nth = 1; nth <= count; ++nth) {
        memmgr_fail_at(nth);
        codes.insert(ssm_start(false, nullptr, 0, "esmcd"));
        memmgr_fail_at(0);
        EXPECT_EQ(g_p_esmcd, nullptr);
        free_records();
    }
    testing::internal::GetCapturedStderr();
    slow_socket_set_edge(nullptr);
    EXPECT_GT(count, 50U);
    EXPECT_EQ(codes, (std::set<std::int32_t>{-1, -998, -100}));
}

bool own_run_directory() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/run", "tmpfs", 0, nullptr) == 0;
}

constexpr int NO_NAMESPACE = 77;

// Whether the condition came true, or the child ended, before the deadline.
template <class condition>
bool wait_for(pid_t child, int* status, condition true_now) {
    for (const nanoseconds end = monotonic_now() + DEADLINE; monotonic_now() < end; usleep(1000))
        if (true_now() || waitpid(child, status, WNOHANG) == child) return true;
    return false;
}

// Each step of a loop that never rests has to look at the signals.
TEST(start, flooded_daemon_writes_its_pid_and_ends_on_a_signal_within_100_ms) {
    const pid_t child = fork();
    if (child == 0) {
        if (!own_run_directory()) _exit(NO_NAMESPACE);
        umask(027);
        slow_socket_set_edge(&flooded_socket);
        nsm_client_set_link_open([] { return -ENOENT; });
        ssm_signal_init();
        std::exit(ssm_start(false, "/nonexistent.conf", 0, "esmcd"));
    }
    const std::string run = "/proc/" + std::to_string(child) + "/root/run/";
    int status = -1;  // of a child that has not ended
    ASSERT_TRUE(wait_for(child, &status, [&] { return access((run + "esmcd.vty").c_str(), F_OK) == 0; }));
    if (WIFEXITED(status) && WEXITSTATUS(status) == NO_NAMESPACE)
        GTEST_SKIP() << "needs the right to make a mount namespace";
    ASSERT_EQ(status, -1) << "ended by itself";
    struct stat info = {};
    EXPECT_EQ(stat((run + "esmcd.pid").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644U);
    const nanoseconds asked = monotonic_now();
    kill(child, SIGTERM);
    if (!wait_for(child, &status, [] { return false; })) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    // The sanitizers and a busy machine are given five times what is promised.
    EXPECT_LT(monotonic_now() - asked, 500 * NS_PER_MS);
    EXPECT_EQ(status, 0);
}

}  // namespace
