// The watcher against a kernel that loses messages, refuses, interrupts, and holds news back.
#include "nsmd/link_watch.h"

#include "nsmd_support.h"

namespace {

struct watch : testing::Test {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    texts events;
    const char* pattern = "*";
    port_table* table = nullptr;
    link_watch* watcher = nullptr;

    void SetUp() override {
        kernel.attach(&loop);
        table = port_table_create(&pattern, 1, {on_port, [](void*, const bridge_identity&) {}, this});
    }
    void TearDown() override {
        link_watch_stop(watcher);
        port_table_free(table);
    }
    void start(link_poll poll = {50, 100}) {
        watcher = link_watch_start(&loop.ctx, table, kernel.edge(), poll);
        ASSERT_NE(watcher, nullptr);
    }
    static void on_port(void* arg, const nsmd_port& p, port_event e) {
        static const char* const words[] = {"added", "removed", "up", "down", "pin"};
        static_cast<watch*>(arg)->events.push_back(std::string(p.name) + " " + words[static_cast<int>(e)]);
    }
    static fake_link port(int index, bool up = true) {
        fake_link l;
        l.index = index;
        l.name = "sw" + std::to_string(index);
        l.up = up;
        return l;
    }
    texts take() { return std::exchange(events, {}); }
};

TEST_F(watch, starts_with_a_dump_and_follows_the_notifications) {
    kernel.links = {port(1), port(2, false)};
    start();
    EXPECT_FALSE(link_watch_ready(watcher));
    loop.run(1);
    EXPECT_TRUE(link_watch_ready(watcher));
    EXPECT_EQ(take(), (texts{"sw1 added", "sw2 added"}));
    kernel.set(port(2));
    kernel.set(port(3));
    loop.run(1);
    kernel.remove(1);
    loop.run(1);
    EXPECT_EQ(take(), (texts{"sw2 up", "sw3 added", "sw1 removed"}));
    EXPECT_EQ(kernel.dumps, 1);
}

TEST_F(watch, lost_messages_lead_to_a_dump_and_nothing_is_lost) {
    kernel.links = {port(1), port(2), port(3)};
    start();
    loop.run(1);
    take();
    kernel.remove(1, false);
    kernel.set(port(2, false), false);
    kernel.set(port(4), false);
    fake_link flapped = port(3);
    flapped.carrier_downs = 1;
    kernel.set(flapped, false);
    kernel.push_error(-ENOBUFS);
    kernel.push(link_octets(port(2, true)));  // old news that was queued before the loss
    kernel.push(link_octets(port(1, true)));  // and of a link whose end was among what was lost
    loop.run(1);
    auto got = take();
    std::sort(got.begin(), got.end());
    EXPECT_EQ(got, (texts{"sw1 removed", "sw2 down", "sw3 down", "sw3 up", "sw4 added"}));
    EXPECT_EQ(kernel.dumps, 2);
}

TEST_F(watch, an_interrupted_dump_is_not_believed) {
    kernel.links = {port(1), port(2)};
    kernel.interrupt_next_dump = true;
    kernel.during_dump = [this] {
        kernel.during_dump = nullptr;
        kernel.links.erase(kernel.links.begin());  // it was in the first answer
    };
    start();
    loop.run(1);
    EXPECT_EQ(kernel.dumps, 2);
    EXPECT_EQ(take(), (texts{"sw2 added"}));
}

TEST_F(watch, messages_lost_during_a_dump_spoil_it) {
    kernel.links = {port(1)};
    start();
    loop.run(1);
    take();
    kernel.push_error(-ENOBUFS);
    kernel.during_dump = [this] {
        kernel.during_dump = nullptr;
        kernel.push_error(-ENOBUFS);
        kernel.set(port(2), false);
    };
    loop.run(1);
    EXPECT_EQ(kernel.dumps, 3);
    EXPECT_EQ(take(), (texts{"sw2 added"}));
}

TEST_F(watch, refused_and_unanswered_dumps_are_repeated) {
    kernel.links = {port(1)};
    kernel.refuse_next_dump = true;
    start();
    loop.run(20);
    EXPECT_EQ(kernel.dumps, 1);
    loop.run(100);
    EXPECT_EQ(kernel.dumps, 2);
    EXPECT_TRUE(link_watch_ready(watcher));
    kernel.swallow_next_dump = true;
    kernel.push_error(-ENOBUFS);
    loop.run(3000);
    EXPECT_EQ(kernel.dumps, 4);
    kernel.set(port(2));
    loop.run(1);
    EXPECT_EQ(take(), (texts{"sw1 added", "sw2 added"}));
}

// The kernel says nothing about the lost carrier for a second. Any other message is the hint to ask.
TEST_F(watch, a_late_down_message_is_overtaken_by_asking) {
    kernel.links = {port(1), port(2, false)};
    start({50, 0});
    loop.run(2000);
    take();
    EXPECT_GT(kernel.questions, 10);  // the window after the start
    const int before = kernel.questions;
    loop.run(5000);
    EXPECT_EQ(kernel.questions, before);  // nothing happens: nothing is asked
    kernel.set(port(2));
    loop.run(10);
    kernel.set(port(1, false), false);
    loop.run(60);
    EXPECT_EQ(take(), (texts{"sw2 up", "sw1 down"}));
    kernel.push(link_octets(port(1, false)));  // the kernel's own word, at last
    loop.run(10);
    EXPECT_TRUE(take().empty());
}

TEST_F(watch, without_any_hint_a_lost_carrier_is_known_within_the_slow_interval) {
    kernel.links = {port(1)};
    start({50, 100});
    loop.run(5000);
    take();
    kernel.set(port(1, false), false);
    loop.run(101);
    EXPECT_EQ(take(), (texts{"sw1 down"}));
    const int before = kernel.questions;
    loop.run(5000);
    EXPECT_EQ(kernel.questions, before);  // a port that is down is not asked for: its up comes at once
}

TEST_F(watch, many_ports_are_asked_for_less_often) {
    for (int i = 1; i <= 255; ++i) kernel.links.push_back(port(i));
    start({50, 100});
    loop.run(3000);
    const int before = kernel.questions;
    loop.run(10000);
    EXPECT_GT(kernel.questions - before, 255 * 10);
    EXPECT_LT(kernel.questions - before, 255 * 15);
}

TEST_F(watch, a_message_with_few_attributes_is_a_question) {
    kernel.links = {port(1)};
    start({0, 0});
    loop.run(1);
    take();
    kernel.set(port(1, false), false);
    fake_link partial = port(1);
    partial.complete = false;
    kernel.push(link_octets(partial));
    loop.run(1);
    EXPECT_EQ(kernel.questions, 1);
    EXPECT_EQ(take(), (texts{"sw1 down"}));
}

TEST_F(watch, garbage_and_errors_of_the_socket_do_no_harm) {
    kernel.links = {port(1)};
    start();
    loop.run(1);
    take();
    kernel.push({});
    kernel.push({1, 2, 3});
    kernel.push(std::vector<std::uint8_t>(64, 0xff));
    kernel.push_error(-EINTR);
    kernel.push_error(-EMSGSIZE);  // as good as lost
    kernel.push(control_octets(NLMSG_ERROR, 0, 99, fake_kernel::PORT, -ENODEV));
    kernel.push(control_octets(NLMSG_DONE, 0, 99, fake_kernel::PORT, 0));  // of no dump of ours
    loop.run(10);
    EXPECT_EQ(kernel.dumps, 2);
    kernel.set(port(2));
    loop.run(1);
    EXPECT_EQ(take(), (texts{"sw2 added"}));
}

TEST_F(watch, a_kernel_without_the_socket_is_said_and_no_start) {
    netlink_edge edge = kernel.edge();
    edge.open = [](void*, int) { return -EPERM; };
    EXPECT_EQ(link_watch_start(&loop.ctx, table, edge, {}), nullptr);
    EXPECT_EQ(log.count("can't watch the kernel's links"), 1);
    edge = kernel.edge();
    edge.join = [](void*, int, unsigned) { return -EPERM; };
    EXPECT_EQ(link_watch_start(&loop.ctx, table, edge, {}), nullptr);
}

}  // namespace
