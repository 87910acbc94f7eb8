// Copper timing roles: what is asked of the kernel, and what is left alone.
#include "nsmd/clock/copper.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>

#include "nsmd_support.h"

namespace {

// The link modes of one port, the one with kernel index 5. Requests are recorded as "get" and "set 4".
struct fake_ethtool : fake_family {
    texts asked;
    std::uint8_t setting = MASTER_SLAVE_CFG_SLAVE_PREFERRED;  // 0: the port has none
    int refused = 0;

    explicit fake_ethtool(fake_kernel& k) : fake_family(k, ETHTOOL_GENL_NAME) {}

    void requested(std::uint8_t command, std::uint16_t, const_octets attributes,
                   std::uint32_t sequence) override {
        nl_attr a, inner;
        EXPECT_TRUE(nl_next_attr(&attributes, &a) && nl_next_attr(&a.value, &inner));
        EXPECT_EQ(a.type, ETHTOOL_A_LINKMODES_HEADER);
        EXPECT_EQ(inner.type, ETHTOOL_A_HEADER_DEV_INDEX);
        EXPECT_EQ(nl_u32(inner.value), 5U);
        if (command == ETHTOOL_MSG_LINKMODES_GET) {
            asked.push_back("get");
            nl_builder b = generic_message(ID, ETHTOOL_MSG_LINKMODES_GET_REPLY);
            if (setting) nl_put(&b, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG, &setting, 1);
            say(b, sequence);
            return acknowledge(sequence, 0);
        }
        EXPECT_TRUE(nl_next_attr(&attributes, &a));
        EXPECT_EQ(a.type, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG);
        asked.push_back("set " + std::to_string(nl_u8(a.value)));
        if (!refused) setting = nl_u8(a.value);
        acknowledge(sequence, refused);
    }
};

struct roles : testing::Test {
    log_lines log;
    fake_kernel kernel;
    fake_ethtool driver{kernel};
    recorded_table ports{{}};
    copper* c = nullptr;

    roles() {
        link_info l{};
        l.kernel_ifindex = 5;
        l.hardware_type = ARPHRD_ETHER;
        std::strcpy(l.name, "eth5");
        port_table_link(ports.table, l);
        restart();
    }
    ~roles() override { copper_free(c); }
    void restart() {
        copper_free(c);
        c = copper_create(ports.table, kernel.edge());
    }
    // What the kernel is asked for that role.
    texts set(const copper_role& role) {
        copper_set(c, role);
        return std::exchange(driver.asked, {});
    }
};

constexpr copper_role SLAVE = {5, true, true}, MASTER = {5, true, false}, NONE = {5, false, false};

TEST_F(roles, a_role_is_forced_and_what_the_port_had_comes_back) {
    EXPECT_EQ(set(NONE), texts{"get"});  // a port without a role keeps its own setting
    EXPECT_EQ(set(SLAVE), (texts{"get", "set 5"}));
    EXPECT_EQ(set(MASTER), (texts{"get", "set 4"}));
    EXPECT_EQ(set(NONE), (texts{"get", "set 3"}));
    EXPECT_EQ(set(NONE), texts{"get"});
    EXPECT_EQ(log.lines, texts{});
}

// Setting it would take the line down.
TEST_F(roles, a_role_that_is_stated_again_is_not_set_again) {
    (void)set(SLAVE);
    EXPECT_EQ(set(SLAVE), texts{"get"});
    restart();  // the port kept its role
    EXPECT_EQ(set(SLAVE), texts{"get"});
    EXPECT_EQ(set(NONE), (texts{"get", "set 2"}));  // nobody knows any more what it had
}

TEST_F(roles, what_can_not_be_set_is_said) {
    driver.setting = 0;
    EXPECT_EQ(set(SLAVE), texts{"get"});
    EXPECT_EQ(log.count("copper role of eth5 can't be set: its driver does not offer it"), 1);
    driver.setting = MASTER_SLAVE_CFG_MASTER_PREFERRED;
    driver.refused = EINVAL;
    (void)set(SLAVE);
    EXPECT_EQ(log.count("copper role of eth5 can't be set: Invalid argument"), 1);
    EXPECT_EQ(set({6, true, true}), texts{});  // no such port: said where the request was
    EXPECT_EQ(log.lines.size(), 2U);
    kernel.on_generic = nullptr;
    restart();  // no such interface in the kernel
    (void)set(SLAVE);
    EXPECT_EQ(log.count("Protocol not supported"), 1);
}

}  // namespace
