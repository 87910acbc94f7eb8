// Signals: nothing happens in the handler, and afterwards each happens once.
#include "esmcd/signal.h"

#include <csignal>

#include "daemon_fixture.h"

namespace {

using lines = std::vector<std::string>;

class signals : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        ssm_signal_init();
    }
    void TearDown() override {
        for (int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU,
                           SIGXCPU, SIGXFSZ})
            std::signal(number, SIG_DFL);
        daemon_test::TearDown();
    }
    static int look(thread* event) {
        auto* test = static_cast<signals*>(event->arg);
        test->seen_ = test->logged();
        return 0;
    }
    lines seen_;  // what was logged before the timer ran
};

TEST_F(signals, are_answered_outside_the_handler_each_once_and_before_anything_else) {
    thread_set_interrupt(ctx_, ssm_signal_deliver);
    thread_add_timer_msec(ctx_, look, this, 0);
    for (int number : {SIGHUP, SIGUSR1, SIGHUP, SIGUSR2, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU}) raise(number);
    EXPECT_EQ(logged(), lines{});
    thread event;
    ASSERT_NE(thread_fetch(ctx_, &event), nullptr);
    thread_call(&event);
    EXPECT_EQ(seen_, (lines{": SIGHUP received", ": SIGHUP received", ": SIGUSR1 on received"}));
    ssm_signal_deliver(ctx_);
    EXPECT_EQ(logged(), lines{});
}

}  // namespace
