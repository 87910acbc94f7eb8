// The watcher against a kernel that loses messages, refuses, interrupts, and holds news back.
#include "nsmd/links/watch.h"

#include "nsmd_support.h"

namespace {

struct watch : testing::Test {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    recorded_table ports{{"*"}};
    link_watch* watcher = nullptr;

    void SetUp() override {
        kernel.attach(&loop);
        kernel.links = {sw_link(1)};
    }
    void TearDown() override { link_watch_stop(watcher); }
    // Started; what the first `ms` milliseconds told is taken.
    void start(link_poll poll = {50, 100}, unsigned ms = 1) {
        watcher = link_watch_start(&loop.ctx, ports.table, kernel.edge(), poll);
        ASSERT_NE(watcher, nullptr);
        (void)after(ms);
    }
    // What is told of ports within so many milliseconds.
    texts after(unsigned ms) {
        loop.run(ms);
        return ports.take_ports();
    }
    int questions_in(unsigned ms) {
        const int before = kernel.questions;
        loop.run(ms);
        return kernel.questions - before;
    }
};

TEST_F(watch, starts_with_a_dump_and_follows_the_notifications) {
    kernel.links = {sw_link(1), sw_link(2, false)};
    start({50, 100}, 0);
    EXPECT_FALSE(link_watch_ready(watcher));
    EXPECT_EQ(after(1), (texts{"sw1 1 added", "sw2 2 added"}));
    EXPECT_TRUE(link_watch_ready(watcher));
    kernel.set(sw_link(2));
    kernel.set(sw_link(3));
    loop.run(1);
    kernel.remove(1);
    EXPECT_EQ(after(1), (texts{"sw2 2 up", "sw3 3 added", "sw1 1 removed"}));
    EXPECT_EQ(kernel.dumps, 1);
}

TEST_F(watch, lost_messages_lead_to_a_dump_and_nothing_is_lost) {
    kernel.links = {sw_link(1), sw_link(2), sw_link(3)};
    start();
    fake_link flapped = sw_link(3);
    flapped.carrier_downs = 1;
    kernel.remove(1, false);
    for (const auto& l : {sw_link(2, false), sw_link(4), flapped}) kernel.set(l, false);
    kernel.push_error(-ENOBUFS);
    kernel.push(link_octets(sw_link(2)));  // old news that was queued before the loss
    kernel.push(link_octets(sw_link(1)));  // and of a link whose end was among what was lost
    texts got = after(1);
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (texts{"sw1 1 removed", "sw2 2 down", "sw3 3 down", "sw3 3 up", "sw4 4 added"}));
    EXPECT_EQ(kernel.dumps, 2);
}

TEST_F(watch, a_dump_that_was_interrupted_or_overrun_is_not_believed) {
    kernel.links = {sw_link(1), sw_link(2)};
    kernel.next_dump = fake_kernel::dump::interrupted;
    kernel.during_dump = [this] { kernel.remove(1, false); };  // it was in the first answer
    start({50, 100}, 0);
    EXPECT_EQ(after(1), texts{"sw2 2 added"});
    EXPECT_EQ(kernel.dumps, 2);
    kernel.push_error(-EMSGSIZE);  // as good as lost
    kernel.during_dump = [this] {
        kernel.push_error(-ENOBUFS);
        kernel.set(sw_link(3), false);
    };
    EXPECT_EQ(after(1), texts{"sw3 3 added"});
    EXPECT_EQ(kernel.dumps, 4);
}

TEST_F(watch, refused_and_unanswered_dumps_are_repeated) {
    kernel.next_dump = fake_kernel::dump::refused;
    start({50, 100}, 20);
    EXPECT_EQ(kernel.dumps, 1);
    EXPECT_EQ(after(100), texts{"sw1 1 added"});
    EXPECT_EQ(kernel.dumps, 2);
    kernel.next_dump = fake_kernel::dump::swallowed;
    kernel.push_error(-ENOBUFS);
    loop.run(3000);
    EXPECT_EQ(kernel.dumps, 4);
    kernel.set(sw_link(2));
    EXPECT_EQ(after(1), texts{"sw2 2 added"});
}

// The kernel says nothing about the lost carrier for a second. Any other message is the hint to ask.
TEST_F(watch, a_late_down_message_is_overtaken_by_asking) {
    kernel.links = {sw_link(1), sw_link(2, false)};
    start({50, 0}, 2000);
    EXPECT_GT(kernel.questions, 10);  // the window after the start
    EXPECT_EQ(questions_in(5000), 0);
    kernel.set(sw_link(2));
    loop.run(10);
    kernel.set(sw_link(1, false), false);
    EXPECT_EQ(after(60), (texts{"sw2 2 up", "sw1 1 down"}));
    kernel.push(link_octets(sw_link(1, false)));  // the kernel's own word, at last
    EXPECT_EQ(after(10), texts{});
}

TEST_F(watch, without_any_hint_a_lost_carrier_is_known_within_the_slow_interval) {
    start({50, 100}, 5000);
    kernel.set(sw_link(1, false), false);
    EXPECT_EQ(after(101), texts{"sw1 1 down"});
    EXPECT_EQ(questions_in(5000), 0);  // a port that is down is not asked for: its up comes at once
}

TEST_F(watch, many_ports_are_asked_for_less_often) {
    for (int i = 2; i <= 255; ++i) kernel.links.push_back(sw_link(i));
    start({50, 100}, 3000);
    const int asked = questions_in(10000);
    EXPECT_GT(asked, 255 * 10);
    EXPECT_LT(asked, 255 * 15);
}

TEST_F(watch, a_message_with_few_attributes_is_a_question) {
    start({0, 0});
    kernel.set(sw_link(1, false), false);
    fake_link partial = sw_link(1);
    partial.complete = false;
    kernel.push(link_octets(partial));
    EXPECT_EQ(after(1), texts{"sw1 1 down"});
    EXPECT_EQ(kernel.questions, 1);
}

TEST_F(watch, garbage_and_foreign_answers_do_no_harm) {
    start();
    kernel.push({});
    kernel.push({1, 2, 3});
    kernel.push(message(64, 0xff));
    kernel.push_error(-EINTR);
    kernel.push_error(-ENOBUFS);
    kernel.push(control_octets(NLMSG_ERROR, 0, {99, fake_kernel::PORT}, -ENODEV));
    kernel.push(control_octets(NLMSG_DONE, 0, {99, fake_kernel::PORT}, 0));  // of no dump of ours
    kernel.set(sw_link(2));
    EXPECT_EQ(after(10), texts{"sw2 2 added"});
    EXPECT_EQ(kernel.dumps, 2);
}

TEST_F(watch, a_kernel_without_the_socket_is_said_and_no_start) {
    netlink_edge no_socket = kernel.edge(), no_group = kernel.edge();
    no_socket.open = [](void*, int) { return -EPERM; };
    no_group.join = [](void*, int, unsigned) { return -EPERM; };
    EXPECT_EQ(link_watch_start(&loop.ctx, ports.table, no_socket, {}), nullptr);
    EXPECT_EQ(link_watch_start(&loop.ctx, ports.table, no_group, {}), nullptr);
    EXPECT_EQ(log.count("can't watch the kernel's links"), 2);
}

}  // namespace
