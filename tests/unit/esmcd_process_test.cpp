// Start-up, the end, and the filter of system calls, tried out in children: there is no way back from any of
// it. A daemon that runs has a /run of its own; only the packet socket and the link to the network services
// manager are replaced.
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <set>

#include "daemon_fixture.h"
#include "esmcd/signal.h"
#include "esmcd/start.h"
#include "suite/base/clock.h"
#include "suite/ports/slow_socket.h"
#include "suite/process/single.h"
#include "suite/rights/rights.h"

namespace {

constexpr int CANNOT = 77;

// The first check that failed, from 1; 0: none. They are made in their order.
int first_failed(std::initializer_list<bool> checks) {
    const auto* const failed = std::find(checks.begin(), checks.end(), false);
    return failed == checks.end() ? 0 : static_cast<int>(failed - checks.begin()) + 1;
}

// What the child that ran the body ended with (256 and up: it was killed).
int code_of(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}
template <class body>
int in_child(body run) {
    const pid_t child = fork();
    if (child == 0) _exit(run());
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child ? code_of(status) : -1;
}

// ---- Start and end ----

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

// Without a socket start-up always comes back: as it is, and with each of its allocations failing in turn.
TEST(start, that_fails_leaves_nothing_open) {
    board_file board("synce_support 1\n");
    slow_socket_set_edge(&refused_socket);
    std::set<std::int32_t> codes;
    std::uint64_t count = 0;
    for (std::uint64_t nth = 0; nth <= count; ++nth) {
        const std::uint64_t before = memmgr_allocations();
        memmgr_fail_at(nth);
        testing::internal::CaptureStderr();
        const std::int32_t code = ssm_start(false, nullptr, 0, "esmcd");
        const std::string said = testing::internal::GetCapturedStderr();
        memmgr_fail_at(0);
        codes.insert(code);
        EXPECT_EQ(g_p_esmcd, nullptr);
        if (nth == 0) {
            count = memmgr_allocations() - before;
            EXPECT_EQ(code, -1);
            EXPECT_NE(said.find("Open ssm error\n"), std::string::npos);
            ASSERT_NE(ssm_instance, nullptr);  // stays
            EXPECT_EQ(ssm_instance->sock, -1);
        }
        memmgr_free(std::exchange(ssm_instance, nullptr), MTYPE_SSM_INSTANCE);
        memmgr_free(std::exchange(g_s_master, nullptr), MTYPE_SSM_MASTER);
    }
    slow_socket_set_edge(nullptr);
    EXPECT_GT(count, 50U);
    EXPECT_EQ(codes, (std::set<std::int32_t>{-1, -998, -100}));
}

// Each step of a loop that never rests has to look at the signals.
TEST(start, flooded_daemon_writes_its_pid_and_ends_on_a_signal_within_100_ms) {
    const pid_t child = fork();
    if (child == 0) {
        const bool alone = unshare(CLONE_NEWNS) == 0 &&
                           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                           mount("none", "/run", "tmpfs", 0, nullptr) == 0;
        if (!alone || !freopen("/dev/null", "w", stderr)) _exit(CANNOT);
        umask(027);
        slow_socket_set_edge(&flooded_socket);
        nsm_client_set_link_open([] { return -ENOENT; });
        ssm_signal_init();
        std::exit(ssm_start(false, "/nonexistent.conf", 0, "esmcd"));
    }
    int status = -1;
    // Whether the condition came true before the deadline, or the child ended.
    const auto comes = [&](auto condition) {
        for (const nanoseconds end = monotonic_now() + 10 * NS_PER_S; monotonic_now() < end; usleep(1000))
            if (waitpid(child, &status, WNOHANG) == child || condition()) return true;
        return false;
    };
    const std::string run = "/proc/" + std::to_string(child) + "/root/run/", pid_file = run + "esmcd.pid";
    EXPECT_TRUE(comes([&] { return access((run + "esmcd.vty").c_str(), F_OK) == 0; })) << "it does not serve";
    if (status >= 0 && code_of(status) == CANNOT) GTEST_SKIP() << "needs the right to make a mount namespace";
    ASSERT_EQ(status, -1) << "it ended by itself";
    pid_t written = 0;
    struct stat info = {};
    EXPECT_TRUE(std::ifstream(pid_file) >> written && written == child) << written;
    EXPECT_TRUE(stat(pid_file.c_str(), &info) == 0 && (info.st_mode & 07777) == 0644);
    const nanoseconds asked = monotonic_now();
    kill(child, SIGTERM);
    const bool ended = comes([] { return false; });
    // The sanitizers and a busy machine are given five times what is promised.
    EXPECT_LT(monotonic_now() - asked, 500 * NS_PER_MS);
    EXPECT_EQ(code_of(status), 0);
    if (ended) return;
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

// From the first claim on, over the fork of daemon mode, until that process is killed, whatever its own
// children do; a lock file that can't be asked counts as held.
TEST(single, claim_goes_over_a_fork_and_ends_with_the_process_not_with_its_children) {
    const std::string path = testing::TempDir() + "single." + std::to_string(getpid());
    const auto is_free = [&](rlim_t descriptors = 64) {
        return in_child([&] {
                   const rlimit limit = {descriptors, 64};
                   if (!freopen("/dev/null", "w", stderr) || setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
                   return single_claim(path.c_str()) ? 1 : 0;
               }) != 0;
    };
    struct {
        bool held_over_fork;
        pid_t daemon, child;
    } told = {};
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const int parent = in_child([&] {
        if (!single_claim(path.c_str()) || is_free()) return 1;
        if (fork() != 0) _exit(0);
        told = {!is_free(), getpid(), 0};
        single_hold();
        told.child = fork();
        if (told.child != 0 && write(ends[1], &told, sizeof told) < 0) return 1;
        for (;;) pause();
    });
    ASSERT_EQ(parent, 0);
    ASSERT_EQ(read(ends[0], &told, sizeof told), static_cast<ssize_t>(sizeof told));
    EXPECT_TRUE(told.held_over_fork);
    EXPECT_FALSE(is_free());
    EXPECT_FALSE(is_free(3)) << "not being able to ask is no answer";
    kill(told.daemon, SIGKILL);
    const nanoseconds end = monotonic_now() + 5 * NS_PER_S;
    while (!is_free() && monotonic_now() < end) usleep(1000);
    EXPECT_TRUE(is_free()) << "a child of the dead holds it";
    EXPECT_EQ(kill(told.child, SIGKILL), 0);
    unlink(path.c_str());
    close(ends[0]);
    close(ends[1]);
}

// ---- Rights ----

bool refused(long result, int expected = EPERM) {
    return result == -1 && errno == expected;
}

TEST(rights, calls_beyond_the_table_are_refused_and_end_nothing) {
    const int result = in_child([] {
        char* const words[] = {const_cast<char*>("/bin/true"), nullptr};
        const timeval now = {};
        const int installed = rights_filter_calls();
        if (installed == -ENOSYS || installed == -ECANCELED) return CANNOT;
        return first_failed({
            installed == 0, refused(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)),  // prctl itself is gone
            refused(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)),
            refused(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr)),
            refused(unshare(CLONE_NEWNET)), refused(execv(words[0], words)),
            refused(settimeofday(&now, nullptr)), refused(socket(AF_VSOCK, SOCK_STREAM, 0)),
            mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED &&
                errno == EPERM,
            refused(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, nullptr)),
            // Newer calls do not exist, so that a C library falls back to the older ones.
            refused(syscall(435, nullptr, 0), ENOSYS),  // clone3
            refused(syscall(425, 1, nullptr), ENOSYS),  // io_uring_setup
        });
    });
    if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
    EXPECT_EQ(result, 0);
}

}  // namespace
