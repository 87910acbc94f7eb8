// Copper timing roles: what is asked of the kernel, and what is left alone.
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>

#include "nsmd_support.h"

namespace {

// The link modes of the port with kernel index 5. Requests are recorded as "get" and "set 4".
struct fake_ethtool : fake_family {
    std::uint8_t setting = MASTER_SLAVE_CFG_SLAVE_PREFERRED;  // 0: the port has none
    int refused = 0;

    explicit fake_ethtool(fake_kernel& k) : fake_family(k, ETHTOOL_GENL_NAME) {}

    int requested(std::uint8_t command, const_octets attributes, std::uint32_t sequence) override {
        nl_attr a, inner;
        EXPECT_TRUE(nl_next_attr(&attributes, &a) && nl_next_attr(&a.value, &inner));
        EXPECT_EQ(a.type, ETHTOOL_A_LINKMODES_HEADER);
        EXPECT_EQ(inner.type, ETHTOOL_A_HEADER_DEV_INDEX);
        EXPECT_EQ(nl_u32(inner.value), 5U);
        if (command == ETHTOOL_MSG_LINKMODES_GET) {
            add("get");
            nl_builder b = generic_message(ID, ETHTOOL_MSG_LINKMODES_GET_REPLY);
            if (setting) nl_put(&b, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG, &setting, 1);
            say(b, sequence);
            return 0;
        }
        EXPECT_TRUE(nl_next_attr(&attributes, &a));
        EXPECT_EQ(a.type, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG);
        add("set " + std::to_string(nl_u8(a.value)));
        if (!refused) setting = nl_u8(a.value);
        return refused;
    }
};

constexpr const char *SLAVE = "role 5 1 2", *MASTER = "role 5 1 1", *NONE = "role 5 0 0";

struct roles : testing::Test, nsmd_session {
    fake_ethtool driver{kernel};

    roles() {
        options.dpll = dpll_kind::none;
        act("quiet sw5 5");
        hardware = &driver;
        start();
    }
    ~roles() override { stop(); }
};

TEST_F(roles, a_role_is_forced_and_what_the_port_had_comes_back) {
    play({{NONE, 1, "", "get"},  // a port without a role keeps its own setting
          {SLAVE, 1, "", "get, set 5"},
          {MASTER, 1, "", "get, set 4"},
          {NONE, 1, "", "get, set 3"},
          {NONE, 1, "", "get"}});
    EXPECT_EQ(log.count("can't"), 0);
}

// Setting it would take the line down.
TEST_F(roles, a_role_that_is_stated_again_is_not_set_again) {
    play({{SLAVE, 1, "", "get, set 5"}, {SLAVE, 1, "", "get"}});
    stop();
    start();                                                     // the port kept its role
    play({{SLAVE, 1, "", "get"}, {NONE, 1, "", "get, set 2"}});  // nobody knows any more what it had
}

TEST_F(roles, what_can_not_be_set_is_said) {
    driver.setting = 0;
    play({{SLAVE, 1, "", "get"}});
    EXPECT_EQ(log.count("copper role of sw5 can't be set: its driver does not offer it"), 1);
    driver.setting = MASTER_SLAVE_CFG_MASTER_PREFERRED;
    driver.refused = EINVAL;
    play({{SLAVE, 1, "", "get, set 5"}, {"role 6 1 2", 1, "", ""}});  // no such port: said by the request
    EXPECT_EQ(log.count("copper role of sw5 can't be set: Invalid argument"), 1);
    EXPECT_NE(status().find("copper role of sw5: slave, not set"), std::string::npos);
    stop();
    kernel.on_generic = nullptr;  // no such interface in the kernel
    start();
    play({{SLAVE, 1, "", ""}});
    EXPECT_EQ(log.count("Protocol not supported"), 1);
    EXPECT_EQ(log.count("can't be set"), 3);
}

}  // namespace
