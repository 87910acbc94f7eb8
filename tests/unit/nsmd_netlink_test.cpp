// Netlink octets to records: what the kernel says is read right, and whatever else comes is survived.
#include <random>

#include "nsmd/link_message.h"
#include "nsmd_support.h"

namespace {

bool parse(const std::vector<std::uint8_t>& data, link_info* out) {
    const_octets rest{data};
    nl_message m;
    return nl_next_message(&rest, &m) && link_message_parse(m, out);
}

TEST(nsmd_netlink, a_link_message_gives_its_fields) {
    fake_link l;
    l.index = 300;
    l.name = "port-with-15-ch";
    l.kind = "dsa";
    l.mac_last = 9;
    l.master = 70000;
    l.carrier_downs = 3;
    l.pin = 0;  // a valid identity
    link_info info;
    ASSERT_TRUE(parse(link_octets(l), &info));
    EXPECT_EQ(info.kernel_ifindex, 300U);
    EXPECT_STREQ(info.name, "port-with-15-ch");
    EXPECT_STREQ(info.kind, "dsa");
    EXPECT_EQ(info.mac[0], 2);
    EXPECT_EQ(info.mac[5], 9);
    EXPECT_EQ(info.master, 70000U);
    EXPECT_EQ(info.carrier_changes, 6U);
    EXPECT_TRUE(info.has_carrier_downs);
    EXPECT_EQ(info.carrier_downs, 3U);
    EXPECT_TRUE(info.has_dpll_pin);
    EXPECT_EQ(info.dpll_pin, 0U);
    EXPECT_TRUE(info.complete);
    l.pin = -1;  // an empty nest is no pin
    ASSERT_TRUE(parse(link_octets(l), &info));
    EXPECT_FALSE(info.has_dpll_pin);
}

TEST(nsmd_netlink, a_bridge_speaking_about_its_port_is_not_the_port) {
    link_info info;
    EXPECT_FALSE(parse(link_octets({}, RTM_DELLINK, 0, 0, 0, AF_BRIDGE), &info));
}

TEST(nsmd_netlink, up_needs_administration_operation_and_carrier) {
    link_info l{};
    l.flags = IFF_UP;
    l.carrier = true;
    l.operstate = IF_OPER_UP;
    EXPECT_TRUE(link_is_up(l));
    l.operstate = IF_OPER_UNKNOWN;  // drivers that do not tell
    EXPECT_TRUE(link_is_up(l));
    l.carrier = false;  // the operational state lags behind
    EXPECT_FALSE(link_is_up(l));
    l.operstate = IF_OPER_UP;
    EXPECT_FALSE(link_is_up(l));
    l.carrier = true;
    for (const int state :
         {IF_OPER_NOTPRESENT, IF_OPER_DOWN, IF_OPER_LOWERLAYERDOWN, IF_OPER_TESTING, IF_OPER_DORMANT}) {
        l.operstate = static_cast<std::uint8_t>(state);
        EXPECT_FALSE(link_is_up(l)) << state;
    }
    l.operstate = IF_OPER_UP;
    l.flags = 0;
    EXPECT_FALSE(link_is_up(l));
}

// Under the address sanitizer: reading beyond what is there fails.
TEST(nsmd_netlink, every_truncation_and_random_damage_is_survived) {
    fake_link l;
    l.kind = "veth";
    l.pin = 7;
    const auto whole = link_octets(l);
    link_info info;
    for (std::size_t length = 0; length < whole.size(); ++length) {
        std::vector<std::uint8_t> cut(whole.begin(), whole.begin() + static_cast<long>(length));
        EXPECT_FALSE(parse(cut, &info)) << length;  // the header's length does not hold
        if (length < 16) continue;
        const auto size = static_cast<std::uint32_t>(length);
        std::memcpy(cut.data(), &size, sizeof size);
        (void)parse(cut, &info);
    }
    std::mt19937 random(7);
    for (int round = 0; round < 20000; ++round) {
        auto bad = whole;
        for (int i = 0; i < 4; ++i) bad[random() % bad.size()] = static_cast<std::uint8_t>(random());
        (void)parse(bad, &info);
        EXPECT_EQ(info.name[15], 0);
        EXPECT_EQ(info.kind[15], 0);
    }
}

TEST(nsmd_netlink, walking_ends_at_lengths_that_make_no_sense) {
    nl_message m;
    nl_attr a;
    std::vector<std::uint8_t> data(32, 0);  // length 0: would turn for ever
    const_octets rest{data};
    EXPECT_FALSE(nl_next_message(&rest, &m));
    rest = data;
    EXPECT_FALSE(nl_next_attr(&rest, &a));
    // The last attribute may lack its padding.
    const std::uint8_t odd[] = {5, 0, 1, 0, 42};
    rest = odd;
    ASSERT_TRUE(nl_next_attr(&rest, &a));
    EXPECT_EQ(nl_u8(a.value), 42);
    EXPECT_EQ(nl_u32(a.value), 0U);  // too short for its type
    EXPECT_TRUE(rest.empty());
}

TEST(nsmd_netlink, a_request_too_long_is_marked_and_stays_within_its_buffer) {
    nl_builder b;
    nl_begin(&b, 1, 0, 1);
    for (int i = 0; i < 200; ++i) nl_put_u32(&b, 1, 7);
    EXPECT_TRUE(b.overflow);
    EXPECT_LE(b.length, sizeof b.data);
}

}  // namespace
