// Copper timing roles: what is asked of the kernel, and what is left alone.
#include "nsmd/copper.h"

#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>

#include "nsmd_support.h"

namespace {

struct roles : testing::Test {
    log_lines log;
    fake_kernel kernel;
    port_table* table = nullptr;
    copper* c = nullptr;
    texts asked;
    int setting = MASTER_SLAVE_CFG_SLAVE_PREFERRED;  // 0: the port has none
    int refuse = 0;

    void SetUp() override {
        memory_init(0);
        table = port_table_create(
            nullptr, 0,
            {[](void*, const nsmd_port&, port_event) {}, [](void*, const bridge_identity&) {}, nullptr});
        link_info l{};
        l.kernel_ifindex = 5;
        l.hardware_type = ARPHRD_ETHER;
        std::strcpy(l.name, "eth5");
        port_table_link(table, l);
        kernel.generic_send = [this](const_octets m) { return request(m); };
    }
    void TearDown() override {
        copper_free(c);
        port_table_free(table);
    }
    void start() {
        copper_free(c);
        c = copper_create(table, kernel.edge());
        ASSERT_NE(c, nullptr);
    }
    void answer(nl_builder& b, std::uint32_t sequence) {
        std::memcpy(b.data + 8, &sequence, 4);
        kernel.generic_queue.push_back({0, octets_of(b)});
    }
    int request(const_octets message) {
        nl_message m;
        EXPECT_TRUE(nl_next_message(&message, &m));
        nl_builder b;
        const std::uint16_t family = 40;
        int error = 0;
        if (m.type == GENL_ID_CTRL) {
            nl_begin(&b, GENL_ID_CTRL, 0, 0);
            const std::uint8_t header[4] = {CTRL_CMD_NEWFAMILY, 2, 0, 0};
            nl_put_raw(&b, header, 4);
            nl_put(&b, CTRL_ATTR_FAMILY_ID, &family, 2);
            answer(b, m.sequence);
        } else if (m.body[0] == ETHTOOL_MSG_LINKMODES_GET) {
            check_header(m);
            asked.push_back("get");
            nl_begin(&b, family, 0, 0);
            const std::uint8_t header[4] = {ETHTOOL_MSG_LINKMODES_GET_REPLY, 1, 0, 0};
            nl_put_raw(&b, header, 4);
            const auto value = static_cast<std::uint8_t>(setting);
            if (setting) nl_put(&b, ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG, &value, 1);
            answer(b, m.sequence);
        } else {
            check_header(m);
            const_octets rest = m.body.subspan(4);
            nl_attr a;
            while (nl_next_attr(&rest, &a))
                if (a.type == ETHTOOL_A_LINKMODES_MASTER_SLAVE_CFG) {
                    asked.push_back("set " + std::to_string(nl_u8(a.value)));
                    if (!refuse) setting = nl_u8(a.value);
                }
            error = refuse;
        }
        kernel.generic_queue.push_back({0, control_octets(NLMSG_ERROR, 0, m.sequence, 0, -error)});
        return 0;
    }
    static void check_header(const nl_message& m) {
        const_octets rest = m.body.subspan(4);
        nl_attr a, inner;
        ASSERT_TRUE(nl_next_attr(&rest, &a));
        EXPECT_EQ(a.type, ETHTOOL_A_LINKMODES_HEADER);
        ASSERT_TRUE(nl_next_attr(&a.value, &inner));
        EXPECT_EQ(inner.type, ETHTOOL_A_HEADER_DEV_INDEX);
        EXPECT_EQ(nl_u32(inner.value), 5U);
    }
    texts take() { return std::exchange(asked, {}); }
};

TEST_F(roles, a_role_is_forced_and_what_the_port_had_comes_back) {
    start();
    copper_set(c, {5, true, true});
    EXPECT_EQ(take(), (texts{"get", "set 5"}));
    copper_set(c, {5, true, false});
    EXPECT_EQ(take(), (texts{"get", "set 4"}));
    copper_set(c, {5, false, false});
    EXPECT_EQ(take(), (texts{"get", "set 3"}));
    copper_set(c, {5, false, false});
    EXPECT_EQ(take(), (texts{"get"}));
}

// Setting it would take the line down.
TEST_F(roles, a_role_that_is_stated_again_is_not_set_again) {
    start();
    copper_set(c, {5, true, true});
    take();
    copper_set(c, {5, true, true});
    EXPECT_EQ(take(), (texts{"get"}));
    start();  // nsmd restarted; the port kept its role
    copper_set(c, {5, true, true});
    EXPECT_EQ(take(), (texts{"get"}));
    copper_set(c, {5, false, false});  // nobody knows any more what it had
    EXPECT_EQ(take(), (texts{"get", "set 2"}));
}

TEST_F(roles, a_port_without_a_role_keeps_its_own_setting) {
    start();
    copper_set(c, {5, false, false});
    EXPECT_EQ(take(), (texts{"get"}));
    EXPECT_EQ(log.lines.size(), 0U);
}

TEST_F(roles, what_can_not_be_set_is_said) {
    setting = 0;
    start();
    copper_set(c, {5, true, true});
    EXPECT_EQ(take(), (texts{"get"}));
    EXPECT_EQ(log.count("copper role of eth5 can't be set: its driver does not offer it"), 1);
    setting = MASTER_SLAVE_CFG_MASTER_PREFERRED;
    refuse = EINVAL;
    copper_set(c, {5, true, true});
    EXPECT_EQ(log.count("copper role of eth5 can't be set: Invalid argument"), 1);
    copper_set(c, {6, true, true});  // no such port: said where the request was
    EXPECT_EQ(log.lines.size(), 2U);
    kernel.generic_send = nullptr;
    start();  // no such interface in the kernel
    copper_set(c, {5, true, true});
    EXPECT_EQ(log.count("Protocol not supported"), 1);
}

}  // namespace
