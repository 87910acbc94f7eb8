// Which links are ports, which index they get, and what is told of their changes.
#include "nsmd_support.h"

namespace {

struct ports : testing::Test {
    log_lines log;
    virtual_loop loop;  // for the memory that it begins with
    recorded_table reports{{"sw*", "x?"}};
    port_table* table = reports.table;

    void link(const fake_link& l) {
        const message data = link_octets(l);
        const_octets rest{data};
        nl_message m;
        link_info info;
        ASSERT_TRUE(nl_next_message(&rest, &m) && link_message_parse(m, &info));
        port_table_link(table, info);
    }
    void add(int index, const std::string& name) { link({.index = index, .name = name}); }
    void add(int first, int last, int offset) {
        for (int i = first; i <= last; ++i) add(i + offset, "sw" + std::to_string(i));
    }
    std::uint32_t index_of(const std::string& name) const {
        for (const nsmd_port* p = port_table_first(table); p; p = p->next)
            if (name == p->name) return p->ifindex;
        return 0;
    }
    texts take() { return reports.take(); }
};

TEST_F(ports, hardware_dsa_and_named_links_are_ports_others_are_not) {
    const struct {
        const char *name, *kind;
        unsigned short hardware;
        bool is_port;
    } cases[] = {{"eth0", "", ARPHRD_ETHER, true},       {"lan1", "dsa", ARPHRD_ETHER, true},
                 {"veth0", "veth", ARPHRD_ETHER, false}, {"sw9", "veth", ARPHRD_ETHER, true},
                 {"x1", "macvlan", ARPHRD_ETHER, true},  {"x12", "macvlan", ARPHRD_ETHER, false},
                 {"lo", "", ARPHRD_LOOPBACK, false},     {"sw8", "tun", ARPHRD_NONE, false},
                 {"sw7", "bridge", ARPHRD_ETHER, false}};
    int index = 0;
    for (const auto& c : cases) {
        link({.index = ++index, .name = c.name, .kind = c.kind, .hardware = c.hardware});
        EXPECT_EQ(index_of(c.name) != 0, c.is_port) << c.name;
    }
}

// --- indexes ---

TEST_F(ports, the_kernels_index_where_it_fits_else_the_lowest_free_one) {
    for (const int index : {7, 255, 256, 70000}) add(index, "sw" + std::to_string(index));
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
    EXPECT_EQ(take(), texts{});
    port_table_dump_end(table);
    EXPECT_EQ(reports.take_ports(), (texts{"sw1 1 added", "sw300 2 added"}));
}

TEST_F(ports, a_port_that_returns_finds_its_index) {
    add(300, "sw300");
    port_table_link_gone(table, 300);
    add(302, "sw302");
    EXPECT_EQ(index_of("sw302"), 2U);      // 1 is kept
    for (const int returned : {999, 9}) {  // also with a kernel index that would fit
        add(returned, "sw300");
        EXPECT_EQ(index_of("sw300"), 1U);
        port_table_link_gone(table, static_cast<std::uint32_t>(returned));
    }
}

TEST_F(ports, the_256th_port_waits_and_takes_the_place_of_one_that_leaves) {
    add(0, 255, 1000);
    add(1255, "sw255");
    EXPECT_EQ(index_of("sw255"), 0U);
    EXPECT_EQ(log.count("sw255 is left out"), 1);
    const std::string freed = std::to_string(index_of("sw100"));
    (void)take();
    port_table_link_gone(table, 1100);
    EXPECT_EQ(take(), (texts{"sw100 " + freed + " removed", "sw255 " + freed + " added"}));
}

TEST_F(ports, when_kept_indexes_run_out_the_one_left_longest_ago_is_given) {
    add(1, 255, 0);
    port_table_link_gone(table, 40);
    port_table_link_gone(table, 30);
    add(500, "sw500");
    EXPECT_EQ(index_of("sw500"), 40U);
    add(30, "sw30");
    EXPECT_EQ(index_of("sw30"), 30U);
}

TEST_F(ports, a_renamed_port_is_an_old_one_gone_and_a_new_one_come_under_its_index) {
    add(4, "sw4");
    add(4, "sw5");
    add(4, "other0");  // hardware: a port whatever its name
    EXPECT_EQ(reports.take_ports(),
              (texts{"sw4 4 added", "sw4 4 removed", "sw5 4 added", "sw5 4 removed", "other0 4 added"}));
    link({.index = 6, .name = "sw6", .kind = "veth"});
    link({.index = 6, .name = "other6", .kind = "veth"});  // no pattern any more
    EXPECT_EQ(take(), (texts{"sw6 6 added", "sw6 6 removed"}));
    // What the index is kept for is the last name.
    port_table_link_gone(table, 4);
    add(900, "sw5");
    EXPECT_EQ(index_of("sw5"), 1U);
    add(901, "other0");
    EXPECT_EQ(index_of("other0"), 4U);
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

// --- up and down ---

TEST_F(ports, a_flap_within_one_message_is_down_and_up) {
    link({});
    (void)take();
    link({.carrier_downs = 2});
    link({.carrier_downs = 2});  // the same state told again is no second flap
    EXPECT_EQ(take(), (texts{"sw1 1 down", "sw1 1 up"}));
    // Counted while it was down anyway: nothing came and went for those who use it.
    link({.up = false, .carrier_downs = 3});
    link({.up = false, .carrier_downs = 5});
    EXPECT_EQ(take(), texts{"sw1 1 down"});
    link({.carrier_downs = 6});
    EXPECT_EQ(take(), texts{"sw1 1 up"});
}

TEST_F(ports, a_flap_is_seen_by_the_common_counter_of_old_kernels) {
    link_info info{};
    info.kernel_ifindex = 1;
    info.hardware_type = ARPHRD_ETHER;
    std::strcpy(info.name, "eth0");
    info.flags = IFF_UP;
    info.operstate = IF_OPER_UP;
    info.carrier = true;
    const auto told_with = [&](std::uint32_t carrier_changes) {
        info.carrier_changes = carrier_changes;
        port_table_link(table, info);
        return take();
    };
    EXPECT_EQ(told_with(5), texts{"eth0 1 added"});
    EXPECT_EQ(told_with(6), texts{});  // the first up after the port was made
    EXPECT_EQ(told_with(8), (texts{"eth0 1 down", "eth0 1 up"}));
}

TEST_F(ports, what_a_whole_dump_leaves_out_is_gone) {
    add(1, 3, 0);
    (void)take();
    port_table_dump_begin(table);
    add(2, "sw2");
    add(9, "sw3");                 // deleted and made again while nobody looked
    port_table_dump_begin(table);  // the first one was spoiled: it proves nothing
    EXPECT_EQ(take(), texts{});
    add(9, "sw3");
    add(1, "sw1");
    port_table_dump_end(table);
    EXPECT_EQ(take(), (texts{"sw2 2 removed", "sw3 3 removed", "sw3 3 added"}));
}

// --- the switch's identity ---

TEST_F(ports, the_identity_is_the_lowest_bridge_with_a_port_of_ours) {
    const fake_link br20{.index = 20, .name = "br20", .kind = "bridge", .mac_last = 99};
    const fake_link br10{.index = 10, .name = "br10", .kind = "bridge", .mac_last = 77};
    fake_link moved = br10;
    moved.mac_last = 78;
    link(br20);
    EXPECT_EQ(take(), texts{});  // none while no port of ours is in it
    link({.index = 3, .name = "sw3", .mac_last = 30});
    EXPECT_EQ(take(), (texts{"sw3 3 added", "bridge sw3 30"}));
    link({.index = 3, .name = "sw3", .mac_last = 30, .master = 20});
    EXPECT_EQ(take(), texts{"bridge br20 99"});
    link(br10);
    EXPECT_EQ(take(), texts{});
    link({.index = 4, .name = "sw4", .mac_last = 30, .master = 10});
    EXPECT_EQ(take(), (texts{"sw4 4 added", "bridge br10 77"}));
    link(moved);
    EXPECT_EQ(take(), texts{"bridge br10 78"});
    port_table_link_gone(table, 10);
    EXPECT_EQ(take(), texts{"bridge br20 99"});
    // A switch that lost its last port keeps the identity that it had.
    port_table_link_gone(table, 20);
    (void)take();
    port_table_link_gone(table, 3);
    port_table_link_gone(table, 4);
    EXPECT_EQ(take(), (texts{"sw3 3 removed", "sw4 4 removed"}));
}

TEST_F(ports, without_a_bridge_the_lowest_address_of_a_port) {
    link({.index = 1, .name = "sw1", .mac_last = 5});
    link({.index = 2, .name = "sw2", .mac_last = 4});
    link({.index = 3, .name = "sw3", .mac_last = 6});
    EXPECT_EQ(take(), (texts{"sw1 1 added", "bridge sw1 5", "sw2 2 added", "bridge sw2 4", "sw3 3 added"}));
    link({.index = 3, .name = "sw3", .mac_last = 2});  // a changed address is told
    EXPECT_EQ(take(), (texts{"sw3 3 added", "bridge sw3 2"}));
}

// --- clock pins ---

TEST_F(ports, a_changed_clock_pin_is_told) {
    for (const int pin : {-1, 7, 7, 8, -1}) link({.pin = pin});
    EXPECT_EQ(reports.take_ports(), (texts{"sw1 1 added", "sw1 1 pin", "sw1 1 pin", "sw1 1 pin"}));
}

TEST_F(ports, a_port_for_which_there_is_no_memory_is_taken_by_the_next_message) {
    memmgr_fail_at(1);
    add(1, "sw1");
    EXPECT_EQ(index_of("sw1"), 0U);
    EXPECT_EQ(log.count("no memory for port sw1"), 1);
    add(1, "sw1");
    EXPECT_EQ(index_of("sw1"), 1U);
    memmgr_fail_at(0);
}

}  // namespace
