// The watcher against a kernel that loses messages, refuses, interrupts, and holds news back.
#include "nsmd/links/watch.h"

#include "nsmd_support.h"

namespace {

struct watched {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    recorded_table ports{{"*"}};
    link_poll poll{50, 100};
    link_watch* watcher = nullptr;

    watched() { kernel.attach(&loop); }
    ~watched() { link_watch_stop(watcher); }
    // The watcher starts after what happens first.
    void play(const std::vector<step>& steps) {
        for (const step& s : steps) {
            for (const auto& one : parts_of(s.happens)) kernel.act(one);
            if (!watcher) {
                watcher = link_watch_start(&loop.ctx, ports.table, kernel.edge(), poll);
                ASSERT_NE(watcher, nullptr);
                EXPECT_FALSE(link_watch_ready(watcher));
            }
            loop.run(s.ms);
            EXPECT_EQ(ports.take(), s.told) << s.happens;
        }
        EXPECT_TRUE(link_watch_ready(watcher));
    }
    int questions_in(unsigned ms) {
        const int before = kernel.questions;
        loop.run(ms);
        return kernel.questions - before;
    }
};

const struct {
    const char* fault;  // what it would be
    std::vector<step> steps;
    int dumps;
} stories[] = {
    {"it does not begin with a dump, or does not follow the notifications",
     {{"quiet sw1 1, quiet sw2 2 down", 1, "sw1 1 added, sw2 2 added"},
      {"sw2 2, sw3 3", 1, "sw2 2 up, sw3 3 added"},
      {"gone 1", 1, "sw1 1 removed"}},
     1},
    {"lost messages lead to no dump, or something is lost",
     {{"quiet sw1 1, quiet sw2 2, quiet sw3 3", 1, "sw1 1 added, sw2 2 added, sw3 3 added"},
      {"lost 1, quiet sw2 2 down, quiet sw4 4, quiet sw3 3 downs 1, overrun, "
       "old sw2 2, "  // old news that was queued before the loss
       "old sw1 1",   // and of a link whose end was among what was lost
       1, "sw2 2 down, sw3 3 down, sw3 3 up, sw1 1 removed, sw4 4 added"}},
     2},
    {"a dump that was interrupted or overrun is believed",
     {{"quiet sw1 1, quiet sw2 2, interrupted, during lost 1", 1, "sw2 2 added"},
      {"cut-off, during overrun, during quiet sw3 3", 1, "sw3 3 added"}},  // as good as lost
     4},
    {"refused and unanswered dumps are not repeated, or at once",
     {{"quiet sw1 1, refused", 20, ""},
      {"", 100, "sw1 1 added"},
      {"swallowed, overrun", 3000, ""},
      {"sw2 2", 1, "sw2 2 added"}},
     4},
    {"a message with few attributes is believed, or no question",
     {{"quiet sw1 1", 1, "sw1 1 added"}, {"quiet sw1 1 down, old sw1 1 complete 0", 1, "sw1 1 down"}},
     1},
};

TEST(link_watch, stories) {
    for (const auto& story : stories) {
        SCOPED_TRACE(story.fault);
        watched w;
        w.play(story.steps);
        EXPECT_EQ(w.kernel.dumps, story.dumps);
    }
}

// The kernel says nothing about the lost carrier for a second. Any other message is the hint to ask.
TEST(link_watch, a_late_down_message_is_overtaken_by_asking) {
    watched w;
    w.poll = {50, 0};
    w.play({{"quiet sw1 1, quiet sw2 2 down", 2000, "sw1 1 added, sw2 2 added"}});
    EXPECT_GT(w.kernel.questions, 10);  // the window after the start
    EXPECT_EQ(w.questions_in(5000), 0);
    w.play({{"sw2 2", 10, "sw2 2 up"},
            {"quiet sw1 1 down", 60, "sw1 1 down"},
            {"old sw1 1 down", 10, ""}});  // the kernel's own word, at last
}

TEST(link_watch, without_any_hint_a_lost_carrier_is_known_within_the_slow_interval) {
    watched w;
    w.play({{"quiet sw1 1", 5000, "sw1 1 added"}, {"quiet sw1 1 down", 101, "sw1 1 down"}});
    EXPECT_EQ(w.questions_in(5000), 0);  // a port that is down is not asked for: its up comes at once
}

TEST(link_watch, many_ports_are_asked_for_less_often) {
    watched w;
    w.play({{"quiet sw1 1", 3000, "sw1 1 added"}});
    for (int i = 2; i <= 255; ++i) w.kernel.act("sw" + std::to_string(i) + " " + std::to_string(i));
    w.loop.run(3000);
    const int asked = w.questions_in(10000);
    EXPECT_GT(asked, 255 * 10);
    EXPECT_LT(asked, 255 * 15);
}

TEST(link_watch, garbage_and_foreign_answers_do_no_harm) {
    watched w;
    w.play({{"quiet sw1 1", 1, "sw1 1 added"}});
    for (const message& garbage : {message{}, message{1, 2, 3}, message(64, 0xff)}) w.kernel.push(garbage);
    w.kernel.push({}, -EINTR);
    w.kernel.push({}, -ENOBUFS);
    w.kernel.push(control_octets(NLMSG_ERROR, 0, {99, fake_kernel::PORT}, -ENODEV));
    w.kernel.push(control_octets(NLMSG_DONE, 0, {99, fake_kernel::PORT}, 0));  // of no dump of ours
    w.play({{"sw2 2", 10, "sw2 2 added"}});
    EXPECT_EQ(w.kernel.dumps, 2);
}

TEST(link_watch, a_kernel_without_the_socket_is_said_and_no_start) {
    watched w;
    netlink_edge no_socket = w.kernel.edge(), no_group = w.kernel.edge();
    no_socket.open = [](void*, int) { return -EPERM; };
    no_group.join = [](void*, int, unsigned) { return -EPERM; };
    EXPECT_EQ(link_watch_start(&w.loop.ctx, w.ports.table, no_socket, {}), nullptr);
    EXPECT_EQ(link_watch_start(&w.loop.ctx, w.ports.table, no_group, {}), nullptr);
    EXPECT_EQ(w.log.count("can't watch the kernel's links"), 2);
}

}  // namespace
