// The event loop. Order, fairness and timers run against replaced edges, where time and readiness are exact;
// everything about descriptors runs against the kernel.
#include "suite/thread.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "suite/lib.h"
#include "suite/log.h"
#include "suite/memory.h"

namespace {

// A loop whose handlers are lambdas; `trace` is what most tests look at.
class Loop : public ::testing::Test {
  protected:
    using Action = std::function<void(thread*)>;

    void SetUp() override {
        log_use_sink(LOG_SINK_STDERR, false);
        use(nullptr);
    }
    void TearDown() override {
        thread_master_finish(ctx.master);
        for (int fd : open_fds) close(fd);
        memmgr_fail_at(0);
    }

    void use(const thread_edges* edges) {
        thread_master_finish(ctx.master);
        ctx.master = thread_master_create(edges);
        ASSERT_NE(ctx.master, nullptr);
    }

    static int run_action(thread* t) {
        const Action action = *static_cast<Action*>(t->arg);
        action(t);
        return 7;
    }
    Action* keep(Action a) {
        actions.push_back(std::make_unique<Action>(std::move(a)));
        return actions.back().get();
    }
    Action note(const std::string& word) {
        return [this, word](thread*) { trace.push_back(word); };
    }
    thread* timer(std::uint32_t ms, Action a) {
        return thread_add_timer_msec(&ctx, run_action, keep(std::move(a)), ms);
    }
    thread* high(int fd, Action a) { return thread_add_read_high(&ctx, run_action, keep(std::move(a)), fd); }
    thread* reader(int fd, Action a) { return thread_add_read(&ctx, run_action, keep(std::move(a)), fd); }
    thread* writer(int fd, Action a) { return thread_add_write(&ctx, run_action, keep(std::move(a)), fd); }

    // Runs events until the condition holds; false when the loop ran dry or `most` events did not get there.
    bool run_until(const std::function<bool()>& done, int most = 10000) {
        while (!done()) {
            thread event;
            if (most-- == 0 || thread_fetch(&ctx, &event) == nullptr) return false;
            EXPECT_EQ(thread_call(&event), 7);
        }
        return true;
    }
    void run_dry() {
        EXPECT_FALSE(run_until([] { return false; }));
    }
    // Lets `ms` pass and runs what happens meanwhile.
    bool run_for(std::uint32_t ms) {
        bool over = false;
        timer(ms, [&](thread*) { over = true; });
        return run_until([&] { return over; }, 1000000);
    }

    std::pair<int, int> make_pair(int type = SOCK_STREAM) {
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
        open_fds.insert(fds[0]);
        open_fds.insert(fds[1]);
        return {fds[0], fds[1]};
    }
    void close_fd(int fd) {
        close(fd);
        open_fds.erase(fd);
    }
    static void put(int fd, const char* text = "x") { ASSERT_GT(write(fd, text, strlen(text)), 0); }
    static std::string take(int fd) {
        char b[256];
        const ssize_t n = read(fd, b, sizeof b);
        return n < 0 ? "error" : std::string(b, static_cast<std::size_t>(n));
    }

    lib_globals ctx{};
    std::vector<std::string> trace;
    std::vector<std::unique_ptr<Action>> actions;
    std::set<int> open_fds;
};

// Time and readiness by hand: `ready` descriptors are reported at every wait, in the order of their numbers.
class VirtualLoop : public Loop {
  protected:
    void SetUp() override {
        Loop::SetUp();
        const thread_edges edges{[](void* a) { return static_cast<VirtualLoop*>(a)->now; }, wait, this};
        use(&edges);
    }
    static int wait(void* arg, int timeout_ms, thread_ready* out, int max) {
        VirtualLoop& l = *static_cast<VirtualLoop*>(arg);
        l.waits.push_back(timeout_ms);
        int n = 0;
        for (const auto& [fd, r] : l.ready) {
            if (n < max) out[n++] = {fd, r.first, r.second};
        }
        if (n == 0 && timeout_ms > 0) l.now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return n;
    }
    // An event that adds itself again for ever.
    Action forever(const char* word, thread* (*add)(lib_globals*, thread_func, void*, int)) {
        return [this, word, add](thread* t) {
            trace.push_back(word);
            add(&ctx, run_action, t->arg, t->fd);
        };
    }

    nanoseconds now = 5 * NS_PER_S;
    std::map<int, std::pair<bool, bool>> ready;
    std::vector<int> waits;
};

using Words = std::vector<std::string>;

TEST_F(VirtualLoop, TimersComeInTheOrderOfTheirDueTimesAndThenOfTheirAddition) {
    timer(30, note("c"));
    timer(10, note("a1"));
    timer(10, note("a2"));
    timer(20, note("b"));
    timer(10, note("a3"));
    run_dry();
    EXPECT_EQ(trace, (Words{"a1", "a2", "a3", "b", "c"}));
    EXPECT_EQ(now, 5 * NS_PER_S + 30 * NS_PER_MS);
}

TEST_F(VirtualLoop, WaitIsRoundedUpSoThatATimerIsNeverEarlyNorSpunFor) {
    timer(10, note("t"));
    now += 300'000;  // 9.7 ms left
    run_dry();
    EXPECT_EQ(waits, (std::vector<int>{10}));
    EXPECT_EQ(trace.size(), 1u);
}

// Against the plainest model there is, with restarts and cancels in between.
TEST_F(VirtualLoop, RandomAddsAndCancelsAgreeWithAModel) {
    std::mt19937 random(1);
    std::vector<std::pair<nanoseconds, int>> model;  // due, id; the vector's order is the order of addition
    std::map<int, thread*> pending;
    int next_id = 0;
    const auto model_erase = [&](int id) {
        model.erase(std::find_if(model.begin(), model.end(), [&](auto& m) { return m.second == id; }));
    };
    std::function<void()> churn = [&] {
        while (pending.size() < 300) {
            const int id = next_id++;
            const std::uint32_t ms = 1 + static_cast<std::uint32_t>(random() % 50);
            pending[id] = timer(ms, [&, id](thread*) {
                const auto first = std::min_element(model.begin(), model.end(),
                                                    [](auto& a, auto& b) { return a.first < b.first; });
                ASSERT_EQ(first->second, id);
                ASSERT_LE(first->first, now);
                model.erase(first);
                pending.erase(id);
                for (int i = 0; i < 2 && !pending.empty(); i++) {
                    const auto victim =
                        std::next(pending.begin(), static_cast<long>(random() % pending.size()));
                    thread_cancel(victim->second);
                    model_erase(victim->first);
                    pending.erase(victim);
                }
                if (next_id < 20000) churn();
            });
            model.emplace_back(thread_now(&ctx) + ms * NS_PER_MS, id);
        }
    };
    churn();
    EXPECT_FALSE(run_until([] { return false; }, 100000));
    EXPECT_TRUE(pending.empty());
    EXPECT_GE(next_id, 20000);
    EXPECT_EQ(thread_get_stats(&ctx).timers_pending, 0u);
}

TEST_F(VirtualLoop, ZeroTimerThatAddsItselfStarvesNobody) {
    int fired = 0;
    std::function<void(thread*)> again = [&](thread* t) {
        fired++;
        thread_add_timer_msec(&ctx, run_action, t->arg, 0);
    };
    timer(0, again);
    ready[4] = {true, false};
    ready[5] = {true, false};
    high(4, note("high"));
    reader(5, note("normal"));
    EXPECT_TRUE(run_until([&] { return trace.size() == 2; }, 20));
    EXPECT_LE(fired, 2);
    EXPECT_EQ(now, 5 * NS_PER_S);
}

TEST_F(VirtualLoop, TurnIsTimersThenOneHighThenOneOfTheOthers) {
    for (int fd : {1, 2, 3, 4}) ready[fd] = {true, fd == 4};
    high(1, forever("h1", thread_add_read_high));
    high(2, forever("h2", thread_add_read_high));
    reader(3, forever("r3", thread_add_read));
    reader(4, forever("r4", thread_add_read));
    writer(4, forever("w4", thread_add_write));
    timer(0, note("t1"));
    timer(0, note("t2"));
    run_until([&] { return trace.size() == 14; });
    EXPECT_EQ(Words(trace.begin(), trace.begin() + 6), (Words{"t1", "t2", "h1", "r3", "h2", "r4"}));
    // From then on both classes alternate, and within a class everybody has the same share.
    std::map<std::string, int> counts;
    trace.clear();
    run_until([&] { return trace.size() == 600; });
    for (const auto& word : trace) counts[word]++;
    for (const char* word : {"h1", "h2"}) EXPECT_NEAR(counts[word], 150, 10) << word;
    for (const char* word : {"r3", "r4", "w4"}) EXPECT_NEAR(counts[word], 100, 10) << word;
}

TEST_F(VirtualLoop, ReaderThatAlwaysHasMoreHidesNeitherTimersNorOthersNorNewReadiness) {
    int frames = 0;
    std::function<void(thread*)> frame = [&](thread* t) {
        frames++;
        now += 1000;
        if (frames == 100) ready[9] = {true, false};
        thread_add_read_high(&ctx, run_action, t->arg, t->fd);
        thread_mark_ready(&ctx, t->fd);
    };
    ready[3] = {true, false};
    high(3, frame);
    int seen_at = 0, timer_at = 0;
    reader(9, [&](thread*) { seen_at = frames; });
    timer(1, [&](thread*) { timer_at = frames; });
    EXPECT_TRUE(run_until([&] { return frames == 2000; }));
    EXPECT_GE(seen_at, 100);
    EXPECT_LE(seen_at, 118);  // the kernel is asked at least every 16 events
    EXPECT_NEAR(timer_at, 1000, 2);
    EXPECT_LT(waits.size(), 150u);  // and hardly more often than that
}

TEST_F(VirtualLoop, MarkCountsOnceAlsoWhenItComesBeforeTheEvent) {
    thread_mark_ready(&ctx, -1);
    thread_mark_ready(&ctx, 8);
    high(8, note("a"));
    thread_mark_ready(&ctx, 8);
    run_dry();
    EXPECT_EQ(trace, (Words{"a"}));
    thread_mark_ready(&ctx, 8);
    thread_cancel(high(8, note("cancelled")));
    reader(8, note("b"));  // what the reader holds did not go with the cancelled event
    run_dry();
    EXPECT_EQ(trace, (Words{"a", "b"}));
    thread_mark_ready(&ctx, 8);
    thread_forget_fd(&ctx, 8);  // closed, with what the reader held
    reader(8, note("c"));
    run_dry();
    EXPECT_EQ(trace, (Words{"a", "b"}));
}

TEST_F(VirtualLoop, ReadinessIsAskedForAgainBeforeASecondService) {
    ready[3] = {true, false};
    high(3, [&](thread* t) {
        trace.push_back("once");
        ready.clear();  // as if the handler had read everything
        thread_add_read_high(&ctx, run_action, t->arg, t->fd);
    });
    run_dry();
    EXPECT_EQ(trace, (Words{"once"}));
}

TEST_F(VirtualLoop, CancelReachesEventsThatAreDueOrReadyInTheSameTurn) {
    for (int fd : {1, 2, 3}) ready[fd] = {true, false};
    thread* victims[3];
    timer(0, [&](thread*) {
        for (thread* v : victims) thread_cancel(v);
    });
    victims[0] = timer(0, note("timer"));
    victims[1] = high(2, note("high"));
    victims[2] = reader(3, note("normal"));
    high(1, note("survivor"));
    EXPECT_FALSE(run_until([] { return false; }, 20));
    EXPECT_EQ(trace, (Words{"survivor"}));
    const thread_stats s = thread_get_stats(&ctx);
    EXPECT_EQ(s.timers_pending + s.reads_pending + s.writes_pending, 0u);
}

TEST_F(VirtualLoop, CancelledAndAddedAgainInTheOtherClassRunsOnceInThatClass) {
    ready[2] = {true, false};
    thread* first = high(2, note("high"));
    timer(0, [&](thread*) {
        thread_cancel(first);
        reader(2, note("normal"));
    });
    run_dry();
    EXPECT_EQ(trace, (Words{"normal"}));
}

TEST_F(VirtualLoop, ReportDoesNotOutliveACancel) {
    ready[2] = {true, true};
    thread* events[] = {high(2, note("old")), writer(2, note("old"))};
    timer(0, [&](thread*) {
        for (thread* e : events) thread_cancel(e);
        ready.clear();  // somebody else has read it meanwhile
        high(2, note("spurious"));
        writer(2, note("spurious"));
    });
    run_dry();
    EXPECT_TRUE(trace.empty());
}

TEST_F(VirtualLoop, ClockThatStepsBackKeepsWhatTheTimersHadLeft) {
    timer(100, note("a"));
    timer(200, note("b"));
    timer(5, [&](thread*) {
        trace.push_back("step");
        now -= 3 * NS_PER_S;
        for (int i = 0; i < 3; i++) timer(1, note("new"));
    });
    const nanoseconds began = now;
    run_dry();
    EXPECT_EQ(trace, (Words{"step", "new", "new", "new", "a", "b"}));
    EXPECT_EQ(now, began - 3 * NS_PER_S + 200 * NS_PER_MS);
}

TEST_F(VirtualLoop, ClockThatJumpsAheadRunsWhatIsDueOnceEach) {
    for (int i = 0; i < 5; i++) timer(1000u * static_cast<unsigned>(i), note(std::to_string(i)));
    now += 1000 * NS_PER_S;
    run_dry();
    EXPECT_EQ(trace, (Words{"0", "1", "2", "3", "4"}));
}

TEST_F(VirtualLoop, RemainingTimeIsRoundedUpAndZeroWhenOverdue) {
    thread* t = timer(1000, note("t"));
    EXPECT_EQ(thread_timer_remaining_ms(t), 1000u);
    now += 1;
    EXPECT_EQ(thread_timer_remaining_ms(t), 1000u);
    now += 999 * NS_PER_MS;
    EXPECT_EQ(thread_timer_remaining_ms(t), 1u);
    now += 10 * NS_PER_S;
    EXPECT_EQ(thread_timer_remaining_ms(t), 0u);
}

TEST_F(VirtualLoop, TimersOfATurnCountFromItsSample) {
    timer(10, [&](thread*) {
        now += 7 * NS_PER_MS;  // a slow handler
        timer(10, note("t"));
    });
    const nanoseconds began = now;
    run_dry();
    EXPECT_EQ(now, began + 20 * NS_PER_MS);
}

TEST_F(VirtualLoop, ShutdownAndAnEmptyLoopYieldNothing) {
    thread event;
    EXPECT_EQ(thread_fetch(&ctx, &event), nullptr);
    timer(0, [&](thread*) { ctx.flags |= LIB_SHUTTING_DOWN; });
    timer(0, note("late"));
    run_dry();
    EXPECT_TRUE(trace.empty());
}

TEST_F(VirtualLoop, LongestRunIsTheSlowestTimer) {
    timer(1, [&](thread*) { now += 3 * NS_PER_MS; });
    timer(2, [&](thread*) { now += 2 * NS_PER_MS; });
    run_dry();
    EXPECT_EQ(thread_get_stats(&ctx).longest_run, 3 * NS_PER_MS);
    EXPECT_EQ(thread_get_stats(&ctx).timers_run, 2u);
}

TEST_F(VirtualLoop, ExhaustedMemoryRefusesAnEventAndChangesNothing) {
    std::vector<thread*> held;
    for (std::uint64_t nth = 1; nth <= 4; nth++) {
        // Fill up to the point where the next event needs memory.
        const auto before = memmgr_allocations();
        while (memmgr_allocations() == before) held.push_back(timer(1, note("t")));
        const std::size_t count = thread_get_stats(&ctx).timers_pending;
        std::size_t refused = 0;
        memmgr_fail_at(nth);
        for (int i = 0; i < 400; i++) refused += timer(1, note("t")) == nullptr;
        memmgr_fail_at(0);
        EXPECT_EQ(refused, 1u);
        EXPECT_EQ(thread_get_stats(&ctx).timers_pending, count + 399);
    }
    memmgr_fail_at(1);
    EXPECT_EQ(high(5000, note("far")), nullptr);  // the table of descriptors has to grow for it
    EXPECT_NE(high(5000, note("far")), nullptr);
    memmgr_fail_at(1);
    EXPECT_EQ(thread_master_create(), nullptr);
}

TEST_F(VirtualLoop, RestartingTimersAllocatesNothing) {
    thread* t[100];
    for (auto& e : t) e = timer(1000, note("t"));
    const auto before = memmgr_allocations();
    Action a = note("t");
    for (int i = 0; i < 10000; i++) {
        thread_cancel(t[i % 100]);
        t[i % 100] = thread_add_timer_msec(&ctx, run_action, &a, 1000);
    }
    EXPECT_EQ(memmgr_allocations(), before);
}

TEST_F(VirtualLoop, MisuseIsRefused) {
    EXPECT_EQ(high(-1, note("x")), nullptr);
    EXPECT_NE(high(3, note("x")), nullptr);
    EXPECT_EQ(reader(3, note("second")), nullptr);
    EXPECT_NE(writer(3, note("other direction")), nullptr);
    thread* t = timer(1, note("x"));
    thread_cancel(t);
    thread_cancel(t);  // said in the log, not done
    EXPECT_EQ(thread_get_stats(&ctx).timers_pending, 0u);
    lib_globals bare{};
    EXPECT_EQ(thread_add_timer_msec(&bare, run_action, nullptr, 1), nullptr);
    EXPECT_EQ(thread_fetch(&bare, t), nullptr);
    thread_forget_fd(&bare, 3);
    thread_mark_ready(&bare, 3);
}

// ---- the kernel's descriptors ----

TEST_F(Loop, ReaderIsCalledForEachArrivalAndNotOtherwise) {
    const auto [a, b] = make_pair();
    int calls = 0;
    std::function<void(thread*)> read_all = [&, fd = a](thread* t) {
        calls++;
        EXPECT_NE(take(fd), "error");  // EAGAIN would be a spurious call
        thread_add_read(&ctx, run_action, t->arg, fd);
    };
    reader(a, read_all);
    for (int i = 1; i <= 50; i++) {
        put(b);
        ASSERT_TRUE(run_until([&] { return calls == i; }));
    }
    ASSERT_TRUE(run_for(5));
    EXPECT_EQ(calls, 50);
}

TEST_F(Loop, DescriptorWithoutEventDoesNotMakeTheLoopSpin) {
    const auto [a, b] = make_pair();
    reader(a, note("read"));
    writer(a, note("write"));
    put(b);
    ASSERT_TRUE(run_until([&] { return trace.size() == 2; }));
    thread_cancel(reader(a, note("cancelled")));
    const auto turns = thread_get_stats(&ctx).turns;
    ASSERT_TRUE(run_for(20));  // still readable and writable, and nobody wants to know
    EXPECT_LE(thread_get_stats(&ctx).turns - turns, 5u);
    reader(a, note("again"));
    ASSERT_TRUE(run_until([&] { return trace.back() == "again"; }));
}

TEST_F(Loop, HangUpWakesBothDirections) {
    const auto [a, b] = make_pair();
    close_fd(b);
    high(a, note("read"));
    writer(a, note("write"));
    EXPECT_TRUE(run_until([&] { return trace.size() == 2; }, 2));
}

TEST_F(Loop, CancelInsideAHandlerReachesWhatTheSameWaitReported) {
    const auto [a, b] = make_pair();
    const auto [c, d] = make_pair();
    thread* events[2];
    const auto cancel_other = [&](int other) {
        return [&, other](thread*) {
            trace.push_back("ran");
            thread_cancel(events[other]);
        };
    };
    put(b);
    put(d);
    events[0] = reader(a, cancel_other(1));
    events[1] = reader(c, cancel_other(0));
    run_dry();
    EXPECT_EQ(trace, (Words{"ran"}));
}

TEST_F(Loop, ReusedNumberStartsClean) {
    const auto [a, peer] = make_pair();
    int b = peer;
    const auto [c, d] = make_pair();
    put(b);
    put(d);
    int reused = -1;
    // Both are in the same batch of reports when the first handler replaces the other descriptor.
    const int victim = a;
    reader(victim, note("old reader"));
    writer(victim, note("old writer"));
    high(c, [&](thread*) {
        thread_forget_fd(&ctx, victim);
        close_fd(victim);
        int fds[2];
        ASSERT_EQ(pipe2(fds, O_NONBLOCK | O_CLOEXEC), 0);
        reused = fds[0];
        open_fds.insert(fds[0]);
        open_fds.insert(fds[1]);
        ASSERT_EQ(reused, victim);
        reader(reused, note("new reader"));
        b = fds[1];
    });
    ASSERT_TRUE(run_for(3));
    EXPECT_TRUE(trace.empty());  // the pipe is empty: the socket's readiness must not count for it
    put(b);
    EXPECT_TRUE(run_until([&] { return !trace.empty(); }));
    EXPECT_EQ(trace, (Words{"new reader"}));
}

TEST_F(Loop, RunningHandlerMayForgetAndCloseItsOwnDescriptor) {
    for (int i = 0; i < 3; i++) {
        const auto [a, b] = make_pair();
        put(b);
        high(a, [&, fd = a](thread*) {
            thread_forget_fd(&ctx, fd);
            close_fd(fd);
            trace.push_back("closed");
        });
        ASSERT_TRUE(run_until([&] { return trace.size() == static_cast<std::size_t>(i) + 1; }));
        close_fd(b);
    }
    run_dry();
}

TEST_F(Loop, RegularFileIsAlwaysReadyAndFair) {
    char path[] = "/tmp/suite_thread_XXXXXX";
    const int file = mkstemp(path);
    ASSERT_GE(file, 0);
    unlink(path);
    open_fds.insert(file);
    const auto [a, b] = make_pair();
    put(b);
    int reads = 0;
    reader(file, [&](thread* t) {
        reads++;
        thread_add_read(&ctx, run_action, t->arg, t->fd);
    });
    reader(a, note("socket"));
    writer(file, note("write"));
    bool timer_ran = false;
    timer(2, [&](thread*) { timer_ran = true; });
    EXPECT_TRUE(run_until([&] { return trace.size() == 2 && timer_ran; }, 1000000));
    EXPECT_GE(reads, 1);
    thread_forget_fd(&ctx, file);
    run_dry();
}

TEST_F(Loop, BadDescriptorIsRefused) {
    EXPECT_EQ(reader(987, note("x")), nullptr);
    EXPECT_EQ(thread_get_stats(&ctx).reads_pending, 0u);
    run_dry();
}

TEST_F(Loop, FloodOnTheHighClassDelaysNobody) {
    const auto [a, b] = make_pair(SOCK_DGRAM);
    const auto [c, d] = make_pair();
    std::uint64_t frames = 0;
    high(a, [&, fd = a, peer = b](thread* t) {
        frames++;
        take(fd);
        put(peer);  // never runs empty
        thread_add_read_high(&ctx, run_action, t->arg, fd);
        if (frames % 3 == 0) thread_mark_ready(&ctx, fd);
    });
    put(b);
    std::uint64_t sent_at = 0, seen_at = 0;
    reader(c, [&](thread*) { seen_at = frames; });
    bool timer_ran = false, interrupted = false;
    timer(5, [&, peer = d](thread*) {
        timer_ran = true;
        sent_at = frames;
        put(peer);
    });
    static bool* flag;
    flag = &interrupted;
    thread_set_interrupt(&ctx, [](lib_globals*) { *flag = true; });
    EXPECT_TRUE(run_until([&] { return seen_at != 0; }, 1000000));
    EXPECT_TRUE(timer_ran);
    EXPECT_LE(seen_at - sent_at, 20u);
    thread_interrupt();
    EXPECT_TRUE(run_until([&] { return interrupted; }, 4));
    thread_set_interrupt(&ctx, nullptr);
}

TEST_F(Loop, ManyReadyDescriptorsAllGetTheirTurn) {
    std::vector<int> calls(200);
    for (int i = 0; i < 200; i++) {  // more than one wait reports
        const auto [a, b] = make_pair();
        put(b);
        reader(a, [&calls, i, this](thread* t) {
            calls[static_cast<std::size_t>(i)]++;
            thread_add_read(&ctx, run_action, t->arg, t->fd);
        });
    }
    EXPECT_FALSE(run_until([] { return false; }, 2000));
    const auto [least, most] = std::minmax_element(calls.begin(), calls.end());
    EXPECT_GE(*least, 8);
    EXPECT_LE(*most, 12);
}

TEST_F(Loop, SignalWakesASleepingLoopAndRunsTheHandlerFirst) {
    struct sigaction action {
    }, former{};
    action.sa_handler = [](int) { thread_interrupt(); };
    action.sa_flags = SA_RESTART;
    sigaction(SIGALRM, &action, &former);
    static int handled;
    handled = 0;
    thread_set_interrupt(&ctx, [](lib_globals* l) {
        handled++;
        l->flags |= LIB_SHUTTING_DOWN;
    });
    const itimerval soon{{0, 0}, {0, 2000}};
    setitimer(ITIMER_REAL, &soon, nullptr);
    timer(20000, note("too late"));
    run_dry();
    EXPECT_EQ(handled, 1);
    EXPECT_TRUE(trace.empty());
    sigaction(SIGALRM, &former, nullptr);
}

TEST_F(Loop, InterruptBeforeThereIsALoopOrAHandlerIsNotLost) {
    thread_master_finish(ctx.master);
    ctx.master = nullptr;
    errno = 42;
    thread_interrupt();
    EXPECT_EQ(errno, 42);
    use(nullptr);
    timer(0, note("timer"));
    EXPECT_TRUE(run_until([&] { return trace.size() == 1; }));
    static int handled;
    handled = 0;
    thread_set_interrupt(&ctx, [](lib_globals*) { handled++; });
    thread_interrupt();
    EXPECT_EQ(errno, 42);
    timer(0, [&](thread*) { EXPECT_EQ(handled, 1); });
    timer(1, note("last"));
    EXPECT_TRUE(run_until([&] { return trace.size() == 2; }));
    EXPECT_EQ(handled, 1);
}

// Random use of a handful of descriptors, which are closed and come back under the same numbers all the time.
// A reader may only run with something to read, and nothing that was written may be left lying.
TEST_F(Loop, RandomUseNeitherWakesForNothingNorForgetsAnybody) {
    std::mt19937 random(3);
    struct End {
        int fd, peer;
        thread* event;
        int unread;
    };
    std::vector<End> ends;
    const auto below = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    std::function<void(End&)> arm;
    const auto find = [&](int fd) {
        return std::find_if(ends.begin(), ends.end(), [&](const End& e) { return e.fd == fd; });
    };
    int reads = 0;
    const auto mutate = [&] {
        if (ends.size() < 12 && below(3) == 0) {
            const auto [a, b] = make_pair();
            ends.push_back({a, b, nullptr, 0});
            arm(ends.back());
            return;
        }
        if (ends.empty()) return;
        End& e = ends[below(ends.size())];
        switch (below(6)) {
            case 0:
                thread_forget_fd(&ctx, e.fd);
                close_fd(e.fd);
                close_fd(e.peer);
                ends.erase(find(e.fd));
                break;
            case 1:
                thread_cancel(e.event);
                e.event = nullptr;
                break;
            case 2:
                if (e.event == nullptr) arm(e);
                break;
            default:
                if (e.unread < 20) {
                    put(e.peer);
                    e.unread++;
                }
        }
    };
    arm = [&](End& e) {
        const auto on_read = [&](thread* t) {
            const auto it = find(t->fd);
            ASSERT_NE(it, ends.end());
            char c;
            ASSERT_EQ(read(t->fd, &c, 1), 1);
            it->unread--;
            it->event = nullptr;
            reads++;
            if (below(8) != 0) arm(*it);
            if (reads < 20000) mutate();
        };
        e.event = below(2) ? high(e.fd, on_read) : reader(e.fd, on_read);
        ASSERT_NE(e.event, nullptr);
    };
    Action* tick = keep(nullptr);
    *tick = [&, tick](thread*) {
        for (int i = 0; i < 5; i++) mutate();
        if (reads < 20000) thread_add_timer_msec(&ctx, run_action, tick, 0);
    };
    (*tick)(nullptr);
    EXPECT_TRUE(run_until([&] { return reads >= 20000; }, 1000000));
    for (auto& e : ends) {
        if (e.event == nullptr) arm(e);
    }
    const auto all_read = [&] {
        for (auto& e : ends) {
            if (e.event == nullptr) arm(e);
            if (e.unread != 0) return false;
        }
        return true;
    };
    EXPECT_TRUE(run_until(all_read, 10000));
    EXPECT_EQ(thread_get_stats(&ctx).reads_pending, ends.size());
}

TEST_F(Loop, HandlerMayEndTheLoop) {
    static int* calls;
    int count = 0;
    calls = &count;
    timer(0, [&](thread* t) {
        ++*calls;
        thread_master_finish(t->ctx->master);
        t->ctx->master = nullptr;
    });
    thread event;
    ASSERT_NE(thread_fetch(&ctx, &event), nullptr);
    EXPECT_EQ(thread_call(&event), 7);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(thread_fetch(&ctx, &event), nullptr);
}

TEST_F(Loop, FinishGivesEverythingBack) {
    const auto before = memmgr_type_stats(MTYPE_THREAD).blocks;
    lib_globals other{};
    other.master = thread_master_create();
    ASSERT_NE(other.master, nullptr);
    const auto [a, b] = make_pair();
    thread_add_read(&other, run_action, nullptr, a);
    for (int i = 0; i < 500; i++) ASSERT_NE(thread_add_timer_msec(&other, run_action, nullptr, 5), nullptr);
    thread_master_finish(other.master);
    EXPECT_EQ(memmgr_type_stats(MTYPE_THREAD).blocks, before);
}

}  // namespace
