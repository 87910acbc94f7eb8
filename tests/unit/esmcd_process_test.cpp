// Start-up, what is left of the process's rights, and its end, tried out in children: there is no way back
// from any of it. A daemon that runs has a /run of its own; only the packet socket and the link to the
// network services manager are replaced.
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
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
#include <sstream>

#include "daemon_fixture.h"
#include "esmcd/rights.h"
#include "esmcd/signal.h"
#include "esmcd/start.h"
#include "suite/base/clock.h"
#include "suite/ports/slow_socket.h"
#include "suite/rights/rights.h"
#include "unit/failing_disk.h"

namespace {

using failing_disk::fault;

constexpr int CANNOT = 77, NOT_STRUCK = 3;

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

// What a daemon ended with that a signal ended as soon as it served. The disk fails at this call that writes
// or removes the pid file (0: never).
int live(fault kind, int at) {
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
        failing_disk::arm("esmcd.pid", kind, at);
        if (at > 0)
            std::atexit([] {
                if (!failing_disk::disarm()) _exit(NOT_STRUCK);
            });
        std::exit(ssm_start(false, "/nonexistent.conf", 0, "esmcd"));
    }
    int code = -1;
    // Whether the condition came true before the deadline, or the child ended.
    const auto comes = [&](auto condition) {
        for (const nanoseconds end = monotonic_now() + 10 * NS_PER_S; monotonic_now() < end; usleep(1000)) {
            int status = 0;
            if (waitpid(child, &status, WNOHANG) == child) code = code_of(status);
            if (code >= 0 || condition()) return true;
        }
        return false;
    };
    const std::string run = "/proc/" + std::to_string(child) + "/root/run/", pid_file = run + "esmcd.pid";
    EXPECT_TRUE(comes([&] { return access((run + "esmcd.vty").c_str(), F_OK) == 0; })) << "it does not serve";
    if (code >= 0) return code;
    std::ostringstream said;
    said << std::ifstream(pid_file).rdbuf();
    struct stat info = {};
    EXPECT_TRUE(at > 0 || (stat(pid_file.c_str(), &info) == 0 && (info.st_mode & 07777) == 0644));
    EXPECT_TRUE((at > 0 && said.str().empty()) || said.str() == std::to_string(child) + "\n") << said.str();
    const nanoseconds asked = monotonic_now();
    kill(child, SIGTERM);
    if (!comes([] { return false; })) {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    // The sanitizers and a busy machine are given five times what is promised.
    EXPECT_TRUE(at > 0 || monotonic_now() - asked < 500 * NS_PER_MS);
    return code;
}

// Each step of a loop that never rests has to look at the signals.
TEST(start, flooded_daemon_writes_its_pid_and_ends_on_a_signal_within_100_ms) {
    const int code = live(fault::once, 0);
    if (code == CANNOT) GTEST_SKIP() << "needs the right to make a mount namespace";
    EXPECT_EQ(code, 0);
}

TEST(start, daemon_loses_no_more_than_its_pid_file_to_a_failing_disk) {
    int points = 0;
    for (const fault kind : {fault::once, fault::cut, fault::full}) {
        int code = 0;
        for (int at = 1; (code = live(kind, at)) == 0 && !HasFailure(); ++at) ++points;
        if (code == CANNOT) GTEST_SKIP() << "needs the right to make a mount namespace";
        ASSERT_EQ(code, NOT_STRUCK) << static_cast<int>(kind) << " after " << points;
    }
    EXPECT_GE(points, 10);
}

// ---- Rights ----

constexpr std::uint64_t RAW = std::uint64_t{1} << CAP_NET_RAW;

// A field of /proc/self/status as the kernel writes it.
std::string status_field(const std::string& name) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
    return "";
}
std::uint64_t capabilities(const std::string& set) {
    return std::strtoull(status_field("Cap" + set).c_str(), nullptr, 16);
}

bool refused(long result, int expected = EPERM) {
    return result == -1 && errno == expected;
}

class rights : public ::testing::Test {
  protected:
    static bool may_be_raw() { return capabilities("Prm") & RAW; }
    // Runs the body in a child behind the filter.
    template <class body>
    static void filtered(body run) {
        const int result = in_child([run] {
            const int installed = rights_filter_calls();
            if (installed == -ENOSYS || installed == -ECANCELED) return CANNOT;
            return installed == 0 ? run() : 100;
        });
        if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
        EXPECT_EQ(result, 0);
    }
};

TEST_F(rights, only_the_kept_capability_is_left_in_every_set_and_none_comes_back) {
    if (!may_be_raw() || geteuid() != 0) GTEST_SKIP() << "needs root and the right to raw sockets";
    // The file of another user, closed to everybody else: root without capabilities is not let in.
    char foreign[] = "/tmp/rights.XXXXXX";
    const int file = mkstemp(foreign);
    EXPECT_TRUE(file >= 0 && fchmod(file, 0600) == 0 && fchown(file, 65534, 65534) == 0);
    close(file);
    EXPECT_EQ(in_child([&] {
                  return first_failed(
                      {rights_keep_capabilities(RAW) == 0, capabilities("Eff") == RAW,
                       capabilities("Prm") == RAW, capabilities("Bnd") == RAW, capabilities("Inh") == 0,
                       capabilities("Amb") == 0, close(socket(AF_PACKET, SOCK_RAW, 0)) == 0,
                       refused(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr)),
                       refused(open(foreign, O_RDONLY), EACCES), rights_keep_capabilities(0) == 0,
                       rights_keep_capabilities(RAW | 1U << CAP_NET_ADMIN) == 0, capabilities("Eff") == 0,
                       capabilities("Prm") == 0});
              }),
              0);
    unlink(foreign);
}

TEST_F(rights, calls_beyond_the_table_are_refused_and_end_nothing) {
    filtered([] {
        char* const words[] = {const_cast<char*>("/bin/true"), nullptr};
        const timeval now = {};
        return first_failed({
            refused(prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0)),  // prctl itself is gone
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
}

// What the system tests do not come to for certain: a password's hash in a child, an own mapping, sockets.
TEST_F(rights, what_the_loop_needs_still_works) {
    filtered([] {
        if (in_child([] { return 0; }) != 0) return 1;
        void* memory = std::malloc(4 << 20);
        if (!memory) return 2;
        std::free(memory);
        for (const int family : {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK}) {
            const int fd = socket(family, family == AF_NETLINK ? SOCK_RAW : SOCK_STREAM, 0);
            if (fd < 0 && errno == EPERM) return 3;
            close(fd);
        }
        return 0;
    });
}

// The filter is inherited and can't be taken off, by whoever; no_new_privs came with it.
TEST_F(rights, the_daemon_ends_up_with_all_of_it) {
    if (!may_be_raw()) GTEST_SKIP() << "started without the right to raw sockets";
    const int result = in_child([] {
        close(STDERR_FILENO);
        pal_rights_drop();
        const int failed = first_failed({capabilities("Eff") == RAW, status_field("NoNewPrivs") == "1"});
        return failed || status_field("Seccomp") == "2" ? failed : CANNOT;
    });
    if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
    EXPECT_EQ(result, 0);
}

}  // namespace
