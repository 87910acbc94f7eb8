// Which links are ports, which index they get, and what is told of their changes.
#include "nsmd/port_table.h"

#include "nsmd_support.h"

namespace {

struct ports : testing::Test {
    texts events;
    std::vector<const char*> patterns{"sw*", "x?"};
    port_table* table = nullptr;

    void SetUp() override { make(); }
    void TearDown() override { port_table_free(table); }
    void make() {
        port_table_free(table);
        table = port_table_create(patterns.data(), patterns.size(), {on_port, on_bridge, this});
        ASSERT_NE(table, nullptr);
    }
    static void on_port(void* arg, const nsmd_port& p, port_event e) {
        static const char* const words[] = {"added", "removed", "up", "down", "pin"};
        static_cast<ports*>(arg)->events.push_back(std::string(p.name) + " " + std::to_string(p.ifindex) +
                                                   " " + words[static_cast<int>(e)]);
    }
    static void on_bridge(void* arg, const bridge_identity& b) {
        static_cast<ports*>(arg)->events.push_back(std::string("bridge ") + b.name + " " +
                                                   std::to_string(b.mac[5]));
    }
    void link(const fake_link& l) {
        const auto data = link_octets(l);
        const_octets rest{data};
        nl_message m;
        link_info info;
        ASSERT_TRUE(nl_next_message(&rest, &m) && link_message_parse(m, &info));
        port_table_link(table, info);
    }
    void add(int index, const std::string& name) {
        fake_link l;
        l.index = index;
        l.name = name;
        l.mac_last = 0;
        link(l);
    }
    std::uint32_t index_of(const std::string& name) const {
        for (const nsmd_port* p = port_table_first(table); p; p = p->next)
            if (name == p->name) return p->ifindex;
        return 0;
    }
    texts take() { return std::exchange(events, {}); }
};

TEST_F(ports, hardware_dsa_and_named_links_are_ports_others_are_not) {
    fake_link l;
    const struct {
        const char *name, *kind;
        unsigned short hardware;
        bool is_port;
    } cases[] = {{"eth0", "", ARPHRD_ETHER, true},       {"lan1", "dsa", ARPHRD_ETHER, true},
                 {"veth0", "veth", ARPHRD_ETHER, false}, {"sw9", "veth", ARPHRD_ETHER, true},
                 {"x1", "macvlan", ARPHRD_ETHER, true},  {"x12", "macvlan", ARPHRD_ETHER, false},
                 {"lo", "", ARPHRD_LOOPBACK, false},     {"sw8", "tun", ARPHRD_NONE, false},
                 {"sw7", "bridge", ARPHRD_ETHER, false}};
    for (const auto& c : cases) {
        l.index++;
        l.name = c.name;
        l.kind = c.kind;
        l.hardware = c.hardware;
        link(l);
        EXPECT_EQ(index_of(c.name) != 0, c.is_port) << c.name;
    }
}

TEST_F(ports, the_kernels_index_where_it_fits_else_the_lowest_free_one) {
    add(7, "sw7");
    add(255, "sw255");
    add(256, "sw256");
    add(70000, "sw70000");
    EXPECT_EQ(index_of("sw7"), 7U);
    EXPECT_EQ(index_of("sw255"), 255U);
    EXPECT_EQ(index_of("sw256"), 1U);
    EXPECT_EQ(index_of("sw70000"), 2U);
    add(1, "sw1");  // taken by another meanwhile
    EXPECT_EQ(index_of("sw1"), 3U);
}

// A restart of nsmd must number as before, whatever the order of the kernel's list.
TEST_F(ports, in_a_dump_the_kernels_indexes_come_first) {
    port_table_dump_begin(table);
    add(300, "sw300");
    add(1, "sw1");
    EXPECT_TRUE(events.empty());
    port_table_dump_end(table);
    EXPECT_EQ(index_of("sw1"), 1U);
    EXPECT_EQ(index_of("sw300"), 2U);
}

TEST_F(ports, a_port_that_returns_finds_its_index) {
    add(300, "sw300");
    add(301, "sw301");
    port_table_link_gone(table, 300);
    add(302, "sw302");
    EXPECT_EQ(index_of("sw302"), 3U);  // 1 is kept
    add(999, "sw300");
    EXPECT_EQ(index_of("sw300"), 1U);
    // Also with a kernel index that would fit now.
    port_table_link_gone(table, 999);
    add(9, "sw300");
    EXPECT_EQ(index_of("sw300"), 1U);
}

TEST_F(ports, the_256th_port_waits_and_takes_the_place_of_one_that_leaves) {
    log_lines log;
    for (int i = 1000; i < 1256; ++i) add(i, "sw" + std::to_string(i));
    EXPECT_EQ(index_of("sw1255"), 0U);
    EXPECT_EQ(log.count("sw1255 is left out"), 1);
    fake_link again;
    again.index = 1255;
    again.name = "sw1255";
    link(again);
    EXPECT_EQ(log.count("sw1255 is left out"), 1);
    const std::uint32_t freed = index_of("sw1100");
    take();
    port_table_link_gone(table, 1100);
    EXPECT_EQ(index_of("sw1255"), freed);
    EXPECT_EQ(take(), (texts{"sw1100 " + std::to_string(freed) + " removed",
                             "sw1255 " + std::to_string(freed) + " added"}));
}

TEST_F(ports, when_kept_indexes_run_out_the_one_left_longest_ago_is_given) {
    for (int i = 1; i <= 255; ++i) add(i, "sw" + std::to_string(i));
    port_table_link_gone(table, 40);
    port_table_link_gone(table, 30);
    add(500, "sw500");
    EXPECT_EQ(index_of("sw500"), 40U);
    add(30, "sw30");
    EXPECT_EQ(index_of("sw30"), 30U);
}

TEST_F(ports, rename_keeps_the_index_and_is_an_old_one_gone_and_a_new_one_come) {
    add(4, "sw4");
    take();
    add(4, "sw5");
    EXPECT_EQ(take(), (texts{"sw4 4 removed", "sw5 4 added"}));
    add(4, "other0");  // hardware: a port whatever its name
    EXPECT_EQ(take(), (texts{"sw5 4 removed", "other0 4 added"}));
    fake_link l;
    l.index = 6;
    l.name = "sw6";
    l.kind = "veth";
    link(l);
    take();
    l.name = "other6";  // no pattern any more
    link(l);
    EXPECT_EQ(take(), (texts{"sw6 6 removed"}));
}

TEST_F(ports, two_ports_that_swap_their_names_swap_nothing_else) {
    add(1, "swA");
    add(2, "swB");
    add(1, "swtmp");
    add(2, "swA");
    add(1, "swB");
    EXPECT_EQ(index_of("swB"), 1U);
    EXPECT_EQ(index_of("swA"), 2U);
}

TEST_F(ports, up_and_down_are_told_once) {
    fake_link l;
    l.up = false;
    link(l);
    link(l);
    l.up = true;
    link(l);
    link(l);
    l.up = false;
    l.carrier_downs = 1;
    link(l);
    EXPECT_EQ(take(), (texts{"sw1 1 added", "bridge sw1 1", "sw1 1 up", "sw1 1 down"}));
}

TEST_F(ports, a_flap_within_one_message_is_down_and_up) {
    fake_link l;
    link(l);
    take();
    l.carrier_downs = 2;
    link(l);
    link(l);  // the same state told again is no second flap
    EXPECT_EQ(take(), (texts{"sw1 1 down", "sw1 1 up"}));
    // Counted while it was down anyway: nothing came and went for those who use it.
    l.up = false;
    l.carrier_downs = 3;
    link(l);
    l.carrier_downs = 5;
    link(l);
    EXPECT_EQ(take(), (texts{"sw1 1 down"}));
    l.up = true;
    link(l);
    EXPECT_EQ(take(), (texts{"sw1 1 up"}));
}

TEST_F(ports, a_flap_is_seen_by_the_common_counter_of_old_kernels) {
    link_info info{};
    info.kernel_ifindex = 1;
    info.hardware_type = ARPHRD_ETHER;
    std::strcpy(info.name, "eth0");
    info.flags = IFF_UP;
    info.operstate = IF_OPER_UP;
    info.carrier = true;
    info.carrier_changes = 5;
    port_table_link(table, info);
    take();
    info.carrier_changes = 6;  // the first up after the port was made
    port_table_link(table, info);
    EXPECT_TRUE(take().empty());
    info.carrier_changes = 8;
    port_table_link(table, info);
    EXPECT_EQ(take(), (texts{"eth0 1 down", "eth0 1 up"}));
}

TEST_F(ports, what_a_whole_dump_leaves_out_is_gone) {
    add(1, "sw1");
    add(2, "sw2");
    add(3, "sw3");
    take();
    port_table_dump_begin(table);
    add(2, "sw2");
    add(9, "sw3");                 // deleted and made again while nobody looked
    port_table_dump_begin(table);  // the first one was spoiled: it proves nothing
    EXPECT_TRUE(take().empty());
    add(9, "sw3");
    add(1, "sw1");
    port_table_dump_end(table);
    EXPECT_EQ(take(), (texts{"sw2 2 removed", "sw3 3 removed", "sw3 3 added"}));
}

TEST_F(ports, the_identity_is_the_lowest_bridge_with_a_port_of_ours) {
    fake_link port, bridge;
    port.index = 3;
    port.name = "sw3";
    port.mac_last = 30;
    bridge.kind = "bridge";
    bridge.index = 20;
    bridge.name = "br20";
    bridge.mac_last = 99;
    link(bridge);
    EXPECT_TRUE(take().empty());  // none while no port of ours is in it
    link(port);
    EXPECT_EQ(take(), (texts{"sw3 3 added", "bridge sw3 30"}));
    port.master = 20;
    link(port);
    EXPECT_EQ(take(), (texts{"bridge br20 99"}));
    fake_link other = bridge;
    other.index = 10;
    other.name = "br10";
    other.mac_last = 77;
    link(other);
    EXPECT_TRUE(take().empty());
    fake_link second = port;
    second.index = 4;
    second.name = "sw4";
    second.master = 10;
    link(second);
    EXPECT_EQ(take(), (texts{"sw4 4 added", "bridge br10 77"}));
    other.mac_last = 78;
    link(other);
    EXPECT_EQ(take(), (texts{"bridge br10 78"}));
    port_table_link_gone(table, 10);
    EXPECT_EQ(take(), (texts{"bridge br20 99"}));
    // A switch that lost its last port keeps the identity that it had.
    port_table_link_gone(table, 20);
    take();
    port_table_link_gone(table, 3);
    port_table_link_gone(table, 4);
    EXPECT_EQ(take(), (texts{"sw3 3 removed", "sw4 4 removed"}));
}

TEST_F(ports, without_a_bridge_the_lowest_address_of_a_port) {
    fake_link l;
    l.mac_last = 5;
    link(l);
    l.index = 2;
    l.name = "sw2";
    l.mac_last = 4;
    link(l);
    l.index = 3;
    l.name = "sw3";
    l.mac_last = 6;
    link(l);
    EXPECT_EQ(take(), (texts{"sw1 1 added", "bridge sw1 5", "sw2 2 added", "bridge sw2 4", "sw3 3 added"}));
    l.mac_last = 2;  // a changed address is told, and may change the identity
    link(l);
    EXPECT_EQ(take(), (texts{"sw3 3 added", "bridge sw3 2"}));
}

TEST_F(ports, a_port_for_which_there_is_no_memory_is_taken_by_the_next_message) {
    log_lines log;
    memmgr_fail_at(1);
    add(1, "sw1");
    EXPECT_EQ(index_of("sw1"), 0U);
    EXPECT_EQ(log.count("no memory for port sw1"), 1);
    add(1, "sw1");
    EXPECT_EQ(index_of("sw1"), 1U);
    memmgr_fail_at(0);
}

}  // namespace
