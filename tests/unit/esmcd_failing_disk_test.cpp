// The disk fails at each call that writes or removes the pid file: the daemon starts, serves and ends all the
// same, and what the file says is its own number or nothing.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "esmcd/signal.h"
#include "esmcd/start.h"
#include "suite/manager/client.h"
#include "suite/ports/slow_socket.h"
#include "unit/failing_disk.h"

namespace {

using failing_disk::fault;

constexpr int NOT_STRUCK = 3, NO_NAMESPACE = 77;

const slow_edge quiet_socket = {
    [](void*) { return eventfd(0, EFD_NONBLOCK); },
    [](void*, int, const_octets frame, std::uint32_t) { return static_cast<ssize_t>(frame.size()); },
    [](void*, int, octets, std::uint32_t*) {
        errno = EAGAIN;
        return ssize_t{-1};
    },
    nullptr};

// A daemon with a /run of its own; it never comes back.
void run_daemon(fault kind, int at) {
    const bool alone = unshare(CLONE_NEWNS) == 0 &&
                       mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                       mount("none", "/run", "tmpfs", 0, nullptr) == 0;
    if (!alone) _exit(NO_NAMESPACE);
    freopen("/dev/null", "w", stderr);
    slow_socket_set_edge(&quiet_socket);
    nsm_client_set_link_open([] { return -ENOENT; });
    ssm_signal_init();
    failing_disk::arm("esmcd.pid", kind, at);
    std::atexit([] {
        if (!failing_disk::disarm()) _exit(NOT_STRUCK);
    });
    std::exit(ssm_start(false, "/nonexistent.conf", 0, "esmcd"));
}

// The exit status of a daemon that was told to end once it served.
int status_of_daemon(fault kind, int at) {
    const pid_t child = fork();
    if (child == 0) run_daemon(kind, at);
    const std::string root = "/proc/" + std::to_string(child) + "/root/run/";
    int status = 0, tries = 0;
    for (; tries < 5000 && access((root + "esmcd.vty").c_str(), F_OK) != 0; ++tries) {
        if (waitpid(child, &status, WNOHANG) == child) return WEXITSTATUS(status);
        usleep(2000);
    }
    EXPECT_LT(tries, 5000) << "it does not serve";
    std::ostringstream said;
    said << std::ifstream(root + "esmcd.pid").rdbuf();
    EXPECT_TRUE(said.str().empty() || said.str() == std::to_string(child) + "\n") << said.str();
    kill(child, SIGTERM);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

TEST(running_daemon, loses_no_more_than_its_pid_file_to_a_failing_disk) {
    int points = 0;
    for (const fault kind : {fault::once, fault::cut, fault::full}) {
        int at = 1, status = 0;
        while ((status = status_of_daemon(kind, at)) == 0 && !HasFailure()) ++at;
        if (status == NO_NAMESPACE) GTEST_SKIP() << "needs the right to make a mount namespace";
        EXPECT_EQ(status, NOT_STRUCK) << static_cast<int>(kind) << " at call " << at;
        points += at - 1;
    }
    EXPECT_GE(points, 10);
}

}  // namespace
