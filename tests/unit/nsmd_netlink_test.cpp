// Netlink octets to records: what the kernel says is read right, and lengths that lie are not followed.
#include "nsmd/links/message.h"
#include "nsmd_support.h"

namespace {

bool parse(const message& data, link_info* out) {
    const_octets rest{data};
    nl_message m;
    return nl_next_message(&rest, &m) && link_message_parse(m, out);
}

TEST(nsmd_netlink, a_link_message_gives_its_fields) {
    fake_link l{.index = 300,
                .name = "port-with-15-ch",
                .kind = "dsa",
                .mac_last = 9,
                .carrier_downs = 3,
                .master = 70000,
                .pin = 0};  // a valid identity
    link_info info;
    ASSERT_TRUE(parse(link_octets(l), &info));
    EXPECT_EQ(info.kernel_ifindex, 300U);
    EXPECT_STREQ(info.name, "port-with-15-ch");
    EXPECT_STREQ(info.kind, "dsa");
    EXPECT_EQ(info.mac[0], 2);
    EXPECT_EQ(info.mac[5], 9);
    EXPECT_EQ(info.master, 70000U);
    EXPECT_EQ(info.carrier_changes, 6U);
    EXPECT_TRUE(info.has_carrier_downs && info.has_dpll_pin && info.complete);
    EXPECT_EQ(info.carrier_downs, 3U);
    EXPECT_EQ(info.dpll_pin, 0U);
    l.pin = -1;  // an empty nest is no pin
    ASSERT_TRUE(parse(link_octets(l), &info));
    EXPECT_FALSE(info.has_dpll_pin);
    // A bridge that speaks about its port is not the port.
    EXPECT_FALSE(parse(link_octets({}, RTM_DELLINK, 0, {}, AF_BRIDGE), &info));
}

TEST(nsmd_netlink, up_needs_administration_operation_and_carrier) {
    const auto is_up = [](unsigned flags, int operstate, bool carrier) {
        link_info l{};
        l.flags = flags;
        l.operstate = static_cast<std::uint8_t>(operstate);
        l.carrier = carrier;
        return link_is_up(l);
    };
    EXPECT_TRUE(is_up(IFF_UP, IF_OPER_UP, true));
    EXPECT_TRUE(is_up(IFF_UP, IF_OPER_UNKNOWN, true));  // drivers that do not tell
    EXPECT_FALSE(is_up(IFF_UP, IF_OPER_UP, false));     // the operational state lags behind
    EXPECT_FALSE(is_up(0, IF_OPER_UP, true));
    for (const int state :
         {IF_OPER_NOTPRESENT, IF_OPER_DOWN, IF_OPER_LOWERLAYERDOWN, IF_OPER_TESTING, IF_OPER_DORMANT})
        EXPECT_FALSE(is_up(IFF_UP, state, true)) << state;
}

TEST(nsmd_netlink, walking_ends_at_lengths_that_make_no_sense) {
    nl_message m;
    nl_attr a;
    const message zeros(32, 0);  // length 0: would turn for ever
    const_octets rest{zeros};
    EXPECT_FALSE(nl_next_message(&rest, &m));
    EXPECT_FALSE(nl_next_attr(&rest, &a));
    message cut = link_octets({});
    cut.pop_back();
    rest = cut;
    EXPECT_FALSE(nl_next_message(&rest, &m));
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
