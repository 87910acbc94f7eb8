// The event loop. Order, fairness and timers run against replaced edges, where time and readiness are exact;
// everything about descriptors runs against the kernel.
#include <algorithm>
#include <deque>
#include <map>
#include <random>

#include "unit/suite_support.h"

namespace {

// A loop whose handlers are lambdas; `trace` is what most tests look at.
class Loop : public Suite {
  protected:
    using Action = std::function<void(thread*)>;

    Loop() { start(nullptr); }
    ~Loop() override { thread_master_finish(ctx.master); }
    void start(const thread_edges* edges) {
        thread_master_finish(ctx.master);
        ctx.master = thread_master_create(edges);
        ASSERT_NE(ctx.master, nullptr);
    }

    static int run_action(thread* t) {
        (*static_cast<Action*>(t->arg))(t);
        return 7;
    }
    thread* timer(std::uint32_t ms, Action a) {
        return thread_add_timer_msec(&ctx, run_action, &actions.emplace_back(std::move(a)), ms);
    }
    thread* high(int fd, Action a) {
        return thread_add_read_high(&ctx, run_action, &actions.emplace_back(std::move(a)), fd);
    }
    thread* reader(int fd, Action a) {
        return thread_add_read(&ctx, run_action, &actions.emplace_back(std::move(a)), fd);
    }
    thread* writer(int fd, Action a) {
        return thread_add_write(&ctx, run_action, &actions.emplace_back(std::move(a)), fd);
    }
    // Once more, a timer without any delay.
    void again(const thread* t) {
        if (t->type == thread_class::timer) thread_add_timer_msec(&ctx, t->func, t->arg, 0);
        if (t->type == thread_class::read_high) thread_add_read_high(&ctx, t->func, t->arg, t->fd);
        if (t->type == thread_class::read) thread_add_read(&ctx, t->func, t->arg, t->fd);
        if (t->type == thread_class::write) thread_add_write(&ctx, t->func, t->arg, t->fd);
    }
    Action note(const std::string& word) {
        return [this, word](thread*) { trace.push_back(word); };
    }
    Action forever(const std::string& word) {
        return [this, word](thread* t) {
            trace.push_back(word);
            again(t);
        };
    }

    // Runs events until the condition holds; false when the loop ran dry or `most` events did not get there.
    bool run_until(const std::function<bool()>& done, int most = 1000000) {
        while (!done()) {
            thread event;
            if (most-- == 0 || thread_fetch(&ctx, &event) == nullptr) return false;
            EXPECT_EQ(thread_call(&event), 7);
        }
        return true;
    }
    bool run_words(std::size_t count, int most = 1000000) {
        return run_until([&] { return trace.size() >= count; }, most);
    }
    void run_dry() {
        EXPECT_FALSE(run_until([] { return false; }));
    }

    lib_globals ctx{};
    words trace;
    std::deque<Action> actions;
};

// Time and readiness by hand: what is `ready` is reported at every wait.
class VirtualLoop : public Loop {
  protected:
    VirtualLoop() {
        const thread_edges edges{[](void* a) { return static_cast<VirtualLoop*>(a)->now; }, wait, this};
        start(&edges);
    }
    static int wait(void* arg, int timeout_ms, thread_ready* out, int) {
        VirtualLoop& l = *static_cast<VirtualLoop*>(arg);
        l.waits.push_back(timeout_ms);
        std::copy(l.ready.begin(), l.ready.end(), out);
        if (l.ready.empty() && timeout_ms > 0) l.now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return static_cast<int>(l.ready.size());
    }

    nanoseconds now = 5 * NS_PER_S;
    std::vector<thread_ready> ready;
    std::vector<int> waits;
};

TEST_F(VirtualLoop, TimersCountFromTheTurnsSampleAreNeverEarlyNorSpunForAndTheSlowestHandlerIsShown) {
    const nanoseconds began = now;
    thread* t = timer(10, [&](thread*) {
        now += 7 * NS_PER_MS;
        timer(10, note("t"));
    });
    timer(10, [&](thread*) { now += 2 * NS_PER_MS; });
    now += 300'000;  // 9.7 ms left
    EXPECT_EQ(thread_timer_remaining_ms(t), 10u);
    run_dry();
    EXPECT_EQ(waits[0], 10);
    EXPECT_EQ(waits.size(), 2u);
    EXPECT_EQ(now, began + 20 * NS_PER_MS + 300'000);
    EXPECT_EQ(thread_get_stats(&ctx).longest_run, 7 * NS_PER_MS);
    EXPECT_EQ(thread_get_stats(&ctx).timers_run, 3u);
}

// Against the plainest model there is: a map by due time and order of addition. Timers are restarted and
// cancelled all the time, which must need no memory.
TEST_F(VirtualLoop, RandomAddsAndCancelsAgreeWithAModel) {
    using Key = std::pair<nanoseconds, int>;
    std::mt19937 random(1);
    std::map<Key, thread*> pending;
    int next_id = 0;
    std::function<void()> fill = [&] {
        while (pending.size() < 300 && next_id < 20000) {
            const std::uint32_t ms = 1 + static_cast<std::uint32_t>(random() % 50);
            const Key key{thread_now(&ctx) + ms * NS_PER_MS, next_id++};
            pending[key] = timer(ms, [&, key](thread*) {
                ASSERT_EQ(pending.begin()->first, key);
                ASSERT_EQ(key.first, now);
                pending.erase(key);
                for (int i = 0; i < 2 && !pending.empty(); i++) {
                    const auto n = static_cast<long>(random() % pending.size());
                    const auto victim = std::next(pending.begin(), n);
                    thread_cancel(victim->second);
                    pending.erase(victim);
                }
                fill();
            });
        }
    };
    fill();
    const auto allocations = memmgr_allocations();
    run_dry();
    EXPECT_TRUE(pending.empty());
    EXPECT_EQ(next_id, 20000);
    EXPECT_EQ(thread_get_stats(&ctx).timers_pending, 0u);
    EXPECT_EQ(memmgr_allocations(), allocations);
}

TEST_F(VirtualLoop, TurnIsTimersThenOneHighThenOneOfTheOthers) {
    ready = {{1, true, false}, {2, true, false}, {3, true, false}, {4, true, true}};
    high(1, forever("h1"));
    high(2, forever("h2"));
    reader(3, forever("r3"));
    reader(4, forever("r4"));
    writer(4, forever("w4"));
    timer(0, forever("t"));  // in the next turn again, not in this one
    timer(0, note("once"));
    run_words(7);
    EXPECT_EQ(trace, (words{"t", "once", "h1", "r3", "t", "h2", "r4"}));
    // From then on the classes alternate, and within a class everybody has the same share.
    trace.clear();
    run_words(900);
    std::map<std::string, int> counts;
    for (const auto& word : trace) counts[word]++;
    for (const auto& [word, count] : counts)
        EXPECT_NEAR(count, word[0] == 't' ? 300 : word[0] == 'h' ? 150 : 100, 10) << word;
    EXPECT_EQ(counts.size(), 6u);
}

TEST_F(VirtualLoop, ReaderThatAlwaysHasMoreHidesNeitherTimersNorOthersNorNewReadiness) {
    int frames = 0, seen_at = 0, timer_at = 0;
    ready = {{3, true, false}};
    high(3, [&](thread* t) {
        now += 1000;
        if (++frames == 100) ready.push_back({9, true, false});
        again(t);
        thread_mark_ready(&ctx, t->fd);
    });
    reader(9, [&](thread*) { seen_at = frames; });
    timer(1, [&](thread*) { timer_at = frames; });
    EXPECT_TRUE(run_until([&] { return frames == 2000; }));
    EXPECT_GE(seen_at, 100);
    EXPECT_LE(seen_at, 118);  // the kernel is asked at least every 16 events
    EXPECT_NEAR(timer_at, 1000, 2);
    EXPECT_LT(waits.size(), 150u);  // and hardly more often than that
}

TEST_F(VirtualLoop, MarkCountsOnceAlsoWhenItComesBeforeTheEvent) {
    thread_mark_ready(&ctx, 8);
    high(8, note("a"));
    thread_mark_ready(&ctx, 8);
    run_dry();
    thread* next = high(8, note("spurious"));
    run_dry();
    EXPECT_EQ(trace, (words{"a"}));
    thread_cancel(next);
    thread_mark_ready(&ctx, 8);
    thread_cancel(high(8, note("cancelled")));
    reader(8, note("b"));  // what the reader holds did not go with the cancelled event
    run_dry();
    EXPECT_EQ(trace, (words{"a", "b"}));
    thread_mark_ready(&ctx, 8);
    thread_forget_fd(&ctx, 8);  // closed, with what the reader held
    reader(8, note("c"));
    run_dry();
    EXPECT_EQ(trace, (words{"a", "b"}));
}

TEST_F(VirtualLoop, ReportDoesNotOutliveACancel) {
    ready = {{2, true, true}};
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

// ---- the kernel's descriptors ----

TEST_F(Loop, DescriptorWithoutEventDoesNotMakeTheLoopSpin) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    reader(ends[0], note("read"));
    writer(ends[0], note("write"));
    ASSERT_EQ(write(ends[1], "x", 1), 1);
    ASSERT_TRUE(run_words(2));
    const auto turns = thread_get_stats(&ctx).turns;
    timer(10, note("half"));  // still readable and writable meanwhile, and nobody wants to know
    ASSERT_TRUE(run_words(3));
    thread_cancel(reader(ends[0], note("cancelled")));
    timer(10, note("over"));
    ASSERT_TRUE(run_words(4));
    EXPECT_LE(thread_get_stats(&ctx).turns - turns, 6u);
    reader(ends[0], note("again"));
    ASSERT_TRUE(run_words(5));
    thread_forget_fd(&ctx, ends[0]);
    const int same = dup(ends[1]);
    ASSERT_EQ(dup2(same, ends[0]), ends[0]);  // another file under the number
    writer(ends[0], note("of the new one"));
    ASSERT_TRUE(run_words(6));
    for (int fd : {ends[0], ends[1], same}) close(fd);
}

}  // namespace
