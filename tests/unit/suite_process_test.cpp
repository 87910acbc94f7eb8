// Daemon mode, dispositions, printers. Daemon mode is tried in a child, which reports through a pipe.
#include "suite/process/pal.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <string>

namespace {

struct sigaction disposition(int number) {
    struct sigaction now = {};
    sigaction(number, nullptr, &now);
    return now;
}

TEST(pal_signal, set_returns_the_former_handler_and_the_unwanted_are_ignored) {
    const pal_signal_handler before = pal_signal_set(SIGUSR2, SIG_IGN);
    EXPECT_EQ(pal_signal_set(SIGUSR2, pal_sigxcpu), SIG_IGN);
    const int flags = disposition(SIGUSR2).sa_flags & ~0x04000000;  // but for the kernel's own restorer flag
    EXPECT_EQ(flags, SA_RESTART);
    EXPECT_EQ(pal_signal_set(SIGUSR2, before), pal_sigxcpu);
    EXPECT_EQ(pal_signal_set(SIGKILL, SIG_IGN), SIG_ERR);
    pal_signal_init();
    for (int limit : {SIGXCPU, SIGXFSZ}) raise(limit);  // caught once
    for (int number : {SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU, SIGXCPU, SIGXFSZ}) {
        EXPECT_EQ(disposition(number).sa_handler, SIG_IGN) << number;
        pal_signal_set(number, SIG_DFL);
    }
}

TEST(pal_system_err, prints_one_line_and_cuts_at_the_buffers_end) {
    testing::internal::CaptureStderr();
    pal_system_err("Open %s error", "ssm");
    pal_system_err("%s", std::string(3000, 'x').c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Open ssm error\n" + std::string(1023, 'x') + "\n");
}

// What the process left by pal_daemonize finds; "" when the parent did not end with status 0.
std::string daemonized(std::uint16_t keep_directory, std::uint16_t keep_streams) {
    int report[2];
    if (pipe(report) != 0) return "";
    const pid_t child = fork();
    if (child == 0) {
        umask(0);
        const std::int32_t rv = pal_daemonize(keep_directory, keep_streams);
        char directory[PATH_MAX] = "", input[PATH_MAX] = "";
        if (!getcwd(directory, sizeof directory) || readlink("/proc/self/fd/0", input, sizeof input - 1) < 0)
            _exit(1);
        dprintf(report[1], "%d %s %s %o %s", static_cast<int>(rv), directory, input,
                static_cast<unsigned>(umask(0)), getsid(0) == getpid() ? "leader" : "member");
        _exit(0);
    }
    close(report[1]);
    int status = -1;
    waitpid(child, &status, 0);
    char text[256] = "";
    // One write, and nobody else to write: what is there is all of it.
    if (read(report[0], text, sizeof text - 1) < 0) text[0] = 0;
    close(report[0]);
    return status == 0 ? text : "";
}

TEST(pal_daemonize, leaves_directory_streams_and_session) {
    ASSERT_NE(freopen("/dev/zero", "r", stdin), nullptr);
    ASSERT_EQ(chdir("/tmp"), 0);
    EXPECT_EQ(daemonized(1, 1), "0 /tmp /dev/zero 27 leader");
    EXPECT_EQ(daemonized(0, 0), "0 / /dev/null 27 leader");
}

}  // namespace
