// Dispositions of signals, and the printer.
#include "suite/process/pal.h"

#include <gtest/gtest.h>

#include <csignal>
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

}  // namespace
