// Start-up, the end, and the filter of system calls, tried out in children: there is no way back from any of
// it. A daemon that runs has a /run of its own; only the packet socket and the link to the network services
// manager are replaced.
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
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
#include <cstddef>
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
#include "suite/rights/calls.h"

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
    const nanoseconds end = monotonic_now() + 20 * NS_PER_S;
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

// Under the filter, as a child's exit status: 0 or the number of the first call for which `holds` says no.
template <class check>
int filtered(rights_program program, check holds) {
    return in_child([&] {
        const int installed = rights_filter_calls(program);
        if (installed == -ENOSYS || installed == -ECANCELED) return CANNOT;
        return installed == 0 ? holds() : 255;
    });
}
#define EXPECT_FILTERED(result)                                                                   \
    if ((result) == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none"; \
    EXPECT_EQ(result, 0)

class Filter : public testing::TestWithParam<rights_program> {};

// With arguments that no call can use. Those are left out that would end the process or hold it up if they
// were let through.
int walk(rights_program program) {
    const std::set<long> left_out = {
        __NR_exit_group,
        __NR_exit,
        __NR_rt_sigreturn,
        SYS_vhangup,
        SYS_setsid,
        __NR_clone,
#ifdef __NR_fork
        __NR_fork,
        __NR_vfork,
        __NR_pause,
#endif
#ifdef __NR_sigreturn
        __NR_sigreturn,
#endif
#ifdef __x86_64__
        335,
        336,  // the kernel's own way back from a probe
#endif
    };
    for (std::uint32_t number = 0; number < RIGHTS_FIRST_NEW_CALL + 50; ++number) {
        if (left_out.contains(static_cast<long>(number))) continue;
        long arguments[6] = {-1, -1, -1, -1, -1, -1};
        bool in_table = false;
        for (const rights_call& c : rights_calls()) {
            if (number != c.number || !(c.programs & static_cast<int>(program))) continue;
            in_table = true;
            if (c.mask) arguments[c.argument] = static_cast<std::int32_t>(c.value);
        }
        errno = 0;
        (void)syscall(static_cast<long>(number), arguments[0], arguments[1], arguments[2], arguments[3],
                      arguments[4], arguments[5]);
        const int expected = number < RIGHTS_FIRST_NEW_CALL ? EPERM : ENOSYS;
        if (in_table == (errno != expected)) continue;
        std::fprintf(stderr, "call %u %s: %s\n", number, in_table ? "is refused" : "passes", strerror(errno));
        return 1;
    }
    return 0;
}

TEST_P(Filter, passes_what_the_table_has_and_nothing_else) {
    const int result = filtered(GetParam(), [] { return walk(GetParam()); });
    EXPECT_FILTERED(result);
}

// Children are made, and end; no other process is signalled, by whatever call.
TEST_P(Filter, signals_nobody_and_starts_nothing) {
    const bool daemon = GetParam() == rights_program::esmcd;
    const int self = getpid();
    const int result = filtered(GetParam(), [=] {
        char* const words[] = {const_cast<char*>("/bin/true"), nullptr};
        const timeval now = {};
        const rlimit none = {};
        int status = -1;
        const pid_t child = fork();
        if (child == 0) _exit(7);
        return first_failed({
            child > 0,
            waitpid(child, &status, 0) == child && code_of(status) == 7,
            refused(kill(self, 0)),
            refused(syscall(SYS_tgkill, self, self, 0)),
            refused(syscall(SYS_tkill, self, 0)),
            refused(sigqueue(self, 0, {})),
            refused(fcntl(0, F_SETOWN, self)),
            refused(fcntl(0, F_SETSIG, SIGKILL)),
            refused(prlimit(self, RLIMIT_CPU, &none, nullptr)),
            refused(setpriority(PRIO_PROCESS, self, 19)),
            refused(syscall(SYS_clone, SIGKILL, nullptr, nullptr, nullptr, nullptr)),
            refused(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, nullptr)),
            refused(syscall(SYS_clone, CLONE_PARENT | SIGCHLD, nullptr, nullptr, nullptr, nullptr)),
            refused(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)),
            refused(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr)),
            refused(unshare(CLONE_NEWNET)),
            refused(execv(words[0], words)),
            refused(settimeofday(&now, nullptr)),
            refused(syscall(SYS_socket, AF_VSOCK, SOCK_STREAM, 0)),
            refused(syscall(SYS_socket, daemon ? AF_NETLINK : AF_PACKET, SOCK_RAW, 0)),
            close(socket(daemon ? AF_PACKET : AF_NETLINK, SOCK_RAW, 0)) == 0 || geteuid() != 0,
            mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) == MAP_FAILED,
        });
    });
    EXPECT_FILTERED(result);
}

INSTANTIATE_TEST_SUITE_P(programs, Filter, testing::Values(rights_program::esmcd, rights_program::nsmd));

// A kernel that has the filter and does not take it is no kernel without one: the log has to warn.
TEST(rights, a_filter_that_is_not_taken_is_no_missing_filter) {
    const int result = in_child([] {
        sock_filter refuse[] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
                                {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, __NR_seccomp},
                                {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EINVAL},
                                {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
        const sock_fprog program = {std::size(refuse), refuse};
        if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
            prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) != 0)
            return CANNOT;
        const int installed = rights_filter_calls(rights_program::esmcd);
        return installed == -ECANCELED ? CANNOT : installed == -EINVAL ? 0 : 1;
    });
    EXPECT_FILTERED(result);
}

}  // namespace
