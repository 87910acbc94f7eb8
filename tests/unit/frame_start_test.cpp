// Start-up and the end of the process. The daemon that is started here runs in a child with a /run of its
// own; only the packet socket and the link to the network services manager are replaced.
#include "frame/ssm_start.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include "daemon_fixture.h"
#include "frame/ssm_signal.h"
#include "suite/clock.h"
#include "suite/slow_socket.h"

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

ssize_t no_receive(void*, int, octets, std::uint32_t*) {
    errno = EAGAIN;
    return -1;
}

const slow_edge refused_socket = {[](void*) { return -EPERM; }, no_send, no_receive, nullptr};
const slow_edge quiet_socket = {[](void*) { return eventfd(0, EFD_NONBLOCK); }, no_send, no_receive, nullptr};
const slow_edge flooded_socket = {[](void*) { return eventfd(1, EFD_NONBLOCK); }, no_send, endless_receive,
                                  nullptr};

void free_records() {
    memmgr_free(ssm_instance, MTYPE_SSM_INSTANCE);
    memmgr_free(g_s_master, MTYPE_SSM_MASTER);
    ssm_instance = nullptr;
    g_s_master = nullptr;
}

TEST(start, without_a_socket_ends_with_its_code_and_no_pid_file) {
    board_file board("synce_support 1\n");
    slow_socket_set_edge(&refused_socket);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ssm_start(false, nullptr, 0, "esmcd"), -1);
    const std::string said = testing::internal::GetCapturedStderr();
    slow_socket_set_edge(nullptr);
    EXPECT_NE(said.find("Open ssm error\n"), std::string::npos) << said;
    EXPECT_EQ(g_p_esmcd, nullptr);
    ASSERT_NE(ssm_instance, nullptr);  // stays
    EXPECT_EQ(ssm_instance->sock, -1);
    free_records();
}

// Each allocation of start-up in turn fails; the socket fails in the end, so that start-up always comes back.
TEST(start, survives_every_allocation_that_fails) {
    board_file board("synce_support 1\n");
    slow_socket_set_edge(&refused_socket);
    testing::internal::CaptureStderr();
    const std::uint64_t before = memmgr_allocations();
    EXPECT_EQ(ssm_start(false, nullptr, 0, "esmcd"), -1);
    const std::uint64_t count = memmgr_allocations() - before;
    free_records();
    bool no_memory = false, no_instance = false;
    for (std::uint64_t nth = 1; nth <= count; ++nth) {
        memmgr_fail_at(nth);
        const std::int32_t rv = ssm_start(false, nullptr, 0, "esmcd");
        memmgr_fail_at(0);
        EXPECT_TRUE(rv == -1 || rv == -998 || rv == -100) << rv;
        EXPECT_EQ(g_p_esmcd, nullptr);
        no_memory |= rv == -998;
        no_instance |= rv == -100;
        free_records();
    }
    testing::internal::GetCapturedStderr();
    slow_socket_set_edge(nullptr);
    EXPECT_GT(count, 50U);
    EXPECT_TRUE(no_memory);
    EXPECT_TRUE(no_instance);
}

bool own_run_directory() {
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           mount("none", "/run", "tmpfs", 0, nullptr) == 0;
}

constexpr int NO_NAMESPACE = 77;

// A running daemon in a child; its standard error comes through a pipe.
class child_daemon {
  public:
    explicit child_daemon(const slow_edge* edge) {
        int report[2];
        if (pipe(report) != 0) return;
        output_ = report[0];
        pid_ = fork();
        if (pid_ != 0) {
            close(report[1]);
            return;
        }
        dup2(report[1], STDERR_FILENO);
        if (!own_run_directory()) _exit(NO_NAMESPACE);
        umask(027);
        slow_socket_set_edge(edge);
        nsm_client_set_link_open([] { return -ENOENT; });
        ssm_signal_init();
        std::exit(ssm_start(false, "/nonexistent.conf", 0, "esmcd"));
    }

    std::string path(const char* name) const { return "/proc/" + std::to_string(pid_) + "/root" + name; }

    // False when the child is not allowed a namespace of its own.
    bool wait_until_running() {
        for (const nanoseconds end = monotonic_now() + DEADLINE; monotonic_now() < end; usleep(2000)) {
            if (access(path("/run/esmcd.vty").c_str(), F_OK) == 0) return true;
            if (waitpid(pid_, &status_, WNOHANG) == pid_) return false;
        }
        return false;
    }
    int status() const { return status_; }
    int kill_and_wait(int number) {
        kill(pid_, number);
        for (const nanoseconds end = monotonic_now() + DEADLINE; monotonic_now() < end; usleep(500))
            if (waitpid(pid_, &status_, WNOHANG) == pid_) return status_;
        kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
        return -1;
    }
    void send(int number) const { kill(pid_, number); }
    std::string output() const {
        std::string text;
        char part[4096];
        for (ssize_t n; (n = read(output_, part, sizeof part)) > 0;)
            text.append(part, static_cast<std::size_t>(n));
        close(output_);
        return text;
    }
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int output_ = -1;
    int status_ = 0;
};

#define START_OR_SKIP(daemon)                                                           \
    if (!daemon.wait_until_running()) {                                                 \
        if (WIFEXITED(daemon.status()) && WEXITSTATUS(daemon.status()) == NO_NAMESPACE) \
            GTEST_SKIP() << "needs the right to make a mount namespace";                \
        FAIL() << "not running: " << daemon.status() << "\n" << daemon.output();        \
    }

TEST(running_daemon, has_its_pid_file_and_ends_with_status_0) {
    child_daemon daemon(&quiet_socket);
    START_OR_SKIP(daemon);
    const std::string file = daemon.path("/run/esmcd.pid");
    struct stat info = {};
    ASSERT_EQ(stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0644U);
    char text[32] = "";
    const int descriptor = open(file.c_str(), O_RDONLY);
    ASSERT_GT(read(descriptor, text, sizeof text - 1), 0);
    close(descriptor);
    EXPECT_EQ(text, std::to_string(daemon.pid()) + "\n");
    daemon.send(SIGHUP);
    daemon.send(SIGUSR2);
    EXPECT_EQ(daemon.kill_and_wait(SIGINT), 0);
    const std::string log = daemon.output();
    EXPECT_NE(log.find(": SIGHUP received\n"), std::string::npos) << log;
    EXPECT_NE(log.find(": Terminating on signal\n"), std::string::npos) << log;
}

TEST(running_daemon, that_is_flooded_ends_as_fast) {
    child_daemon daemon(&flooded_socket);
    START_OR_SKIP(daemon);
    const nanoseconds asked = monotonic_now();
    EXPECT_EQ(daemon.kill_and_wait(SIGTERM), 0);
    // 100 ms are promised; the sanitizers and a busy machine are given five times that.
    EXPECT_LT(monotonic_now() - asked, 500 * NS_PER_MS);
    daemon.output();
}

}  // namespace
