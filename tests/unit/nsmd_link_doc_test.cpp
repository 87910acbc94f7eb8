// The conversation in docs/NSM-LINK.md, octet by octet: nsmd's end must say what stands there for NSM when it
// is told what stands there for esmcd, and the other way round.
#include <fstream>
#include <map>
#include <sstream>

#include "nsmd/server/server.h"
#include "nsmd_support.h"
#include "suite/manager/client.h"
#include "suite/ports/interface.h"

namespace {

using texts = std::vector<std::string>;
using packets = std::vector<message>;

constexpr std::uint8_t PORT_MAC[6] = {2, 0, 0, 0, 0, 7}, BRIDGE_MAC[6] = {2, 0, 0, 0, 0, 1};

packets from_hex(std::istream& in) {
    packets found;
    message all;
    for (std::string line; std::getline(in, line) && line != "```";) {
        std::istringstream digits(line);
        for (std::string two; digits >> two;)
            all.push_back(static_cast<std::uint8_t>(std::stoul(two, nullptr, 16)));
    }
    for (std::size_t at = 0, size; at < all.size(); at += size) {
        size = at + NSM_HEADER_SIZE <= all.size() ? get_be16(all, at + 2) : 0;
        if (size < NSM_HEADER_SIZE || at + size > all.size()) {
            ADD_FAILURE() << "a length field does not fit";
            break;
        }
        found.emplace_back(&all[at], &all[at] + size);
    }
    return found;
}

// What each side says, in the order of its sequence numbers.
std::map<std::string, packets> examples() {
    std::ifstream in(NSM_LINK_DOC_PATH);
    EXPECT_TRUE(in.good()) << NSM_LINK_DOC_PATH;
    std::map<std::string, packets> by_side;
    for (std::string line; std::getline(in, line);)
        if (line.starts_with("```hex "))
            std::ranges::copy(from_hex(in), std::back_inserter(by_side[line.substr(7)]));
    for (auto& [side, said] : by_side)
        std::ranges::sort(said, {}, [](const message& m) { return get_be32(m, 4); });
    return by_side;
}

packets range(const packets& all, std::size_t from, std::size_t to) {
    return {all.begin() + static_cast<long>(std::min(from, all.size())),
            all.begin() + static_cast<long>(std::min(to, all.size()))};
}

struct link_doc : testing::Test {
    log_lines log;
    virtual_loop loop;
    nsm_test_client far;  // the end that the document plays
    std::map<std::string, packets> doc = examples();
    texts events;

    void note(const std::string& what) { events.push_back(what); }
    texts noted() {
        loop.run(1);
        return std::exchange(events, {});
    }
    void say(const packets& all) const {
        for (const message& m : all) far.send_octets(m);
    }
    packets heard() {
        loop.run(1);
        packets all;
        std::uint8_t packet[NSM_MESSAGE_MAX];
        for (ssize_t got; (got = recv(far.fd, packet, sizeof packet, MSG_DONTWAIT)) > 0;)
            all.emplace_back(packet, packet + got);
        return all;
    }
};

TEST_F(link_doc, nsmd_says_and_understands_what_the_document_has) {
    struct owner {
        link_doc* test;
        nsmd_server* server;
        nsmd_port port;
    } o{this, nullptr, {}};
    o.port.ifindex = 3;
    o.port.kernel_ifindex = 7;
    o.port.up = true;
    std::ranges::copy("eth3", o.port.name);
    std::ranges::copy(PORT_MAC, o.port.mac);
    nsmd_server_sink sink{};
    sink.arg = &o;
    sink.dump = [](void* arg, nsmd_peer* peer) {
        auto* w = static_cast<owner*>(arg);
        bridge_identity bridge{};
        std::ranges::copy("br0", bridge.name);
        std::ranges::copy(BRIDGE_MAC, bridge.mac);
        bridge.id = 2;
        nsmd_server_send_bridge(w->server, peer, bridge);
        nsmd_server_send_port(w->server, peer, w->port);
        nsmd_server_send_clock(w->server, peer, 2, 0);
    };
    sink.request = [](void* arg, std::uint16_t type, const std::uint32_t(&w)[NSM_REQUEST_WORDS]) {
        std::ostringstream out;
        out << type << ' ' << w[0] << ' ' << w[1] << ' ' << w[2];
        static_cast<owner*>(arg)->test->note(out.str());
    };
    sink.clients = [](void* arg, std::uint32_t count, bool clean) {
        static_cast<owner*>(arg)->test->note(std::to_string(count) + (clean ? " clean" : ""));
    };
    sink.status = [](void*, text_buffer* out) { return text_printf(out, "clock: holdover\n"); };
    o.server = nsmd_server_create(&loop.ctx, sink);
    ASSERT_NE(o.server, nullptr);

    ASSERT_NE(nsmd_server_adopt(o.server, far.dial(&loop)), nullptr);
    say(range(doc["esmcd"], 0, 1));
    EXPECT_EQ(heard(), range(doc["NSM"], 0, 5));
    say(range(doc["esmcd"], 1, 99));
    EXPECT_EQ(noted(), (texts{"1", "206 1 0 0", "207 0 0 0", "208 1 0 0", "209 3 0 0", "210 3 1 2"}));
    nsmd_server_send_clock(o.server, nullptr, 4, 0);
    o.port.up = false;
    nsmd_server_send_link(o.server, o.port);
    o.port.up = true;
    nsmd_server_send_link(o.server, o.port);
    nsmd_server_send_port_gone(o.server, o.port);
    EXPECT_EQ(heard(), range(doc["NSM"], 5, 99));
    far.hang_up();
    EXPECT_EQ(noted(), texts{"0 clean"});

    ASSERT_NE(nsmd_server_adopt(o.server, far.dial(&loop)), nullptr);
    say(doc["asker"]);
    EXPECT_EQ(heard(), doc["status"]);
    nsmd_server_free(o.server);
}

TEST_F(link_doc, esmcd_says_and_understands_what_the_document_has) {
    static link_doc* test;
    test = this;
    if_master list{};
    if_master* ifm = loop.ctx.ifm = &list;
    nsm_client_set_link_open([] { return test->far.dial(&test->loop); });
    if_add_hook(ifm, IF_CALLBACK_VR_BIND, [](interface* i) { return test->note("bind"), i->port ? -1 : 0; });
    if_add_hook(ifm, IF_CALLBACK_VR_UNBIND, [](interface*) { return test->note("unbind"), 0; });
    if_add_hook(ifm, IF_CALLBACK_UP, [](interface*) { return test->note("up"), 0; });
    if_add_hook(ifm, IF_CALLBACK_DOWN, [](interface*) { return test->note("down"), 0; });
    nsm_client* client = nsm_client_create(&loop.ctx, 0);
    ASSERT_NE(client, nullptr);
    nsm_client_set_protocol(client, 36);
    nsm_client_set_callback(client, NSM_MSG_BRIDGE_ADD, [](void*, void*, void* m) {
        const auto* bridge = static_cast<nsm_bridge_message*>(m);
        test->note(std::string("bridge ") + bridge->name);
        EXPECT_TRUE(std::ranges::equal(bridge->mac, BRIDGE_MAC));
        return 0;
    });
    nsm_client_set_callback(client, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, [](void*, void*, void* m) {
        test->note("clock " + std::to_string(static_cast<nsm_clock_state_message*>(m)->state));
        return 0;
    });

    ASSERT_EQ(nsm_client_start(client), 0);
    EXPECT_EQ(heard(), range(doc["esmcd"], 0, 1));
    say(range(doc["NSM"], 0, 5));
    EXPECT_EQ(noted(), (texts{"bridge br0", "bind", "up", "clock 2"}));
    EXPECT_TRUE(nsm_client_get_stats(client).synchronised);
    const interface* port = if_lookup_by_name(ifm, "eth3");
    ASSERT_NE(port, nullptr);
    EXPECT_EQ(port->ifindex, 3U);
    EXPECT_EQ(port->kernel_ifindex, 7U);
    EXPECT_EQ(port->type, IF_TYPE_SYNCE);
    EXPECT_TRUE(std::ranges::equal(port->mac, PORT_MAC));

    EXPECT_EQ(nsm_client_send_ssm_global_enable(client, {1}), 0);
    EXPECT_EQ(nsm_client_send_ssm_clock_recovery_select(client, {0}), 0);
    EXPECT_EQ(nsm_client_send_ssm_holdover_enable(client, {1}), 0);
    EXPECT_EQ(nsm_client_send_ssm_selected_if_index(client, {3, 0}), 0);
    EXPECT_EQ(nsm_client_send_ssm_set_gephy_role(client, {3, 1, 2}), 0);
    EXPECT_EQ(heard(), range(doc["esmcd"], 1, 6));

    say(range(doc["NSM"], 5, 99));
    EXPECT_EQ(noted(), (texts{"clock 4", "down", "up", "unbind"}));
    EXPECT_EQ(if_lookup_by_name(ifm, "eth3"), nullptr);
    EXPECT_EQ(nsm_client_get_stats(client).dropped, 0U);
    nsm_client_stop(client);
    EXPECT_EQ(heard(), range(doc["esmcd"], 6, 99));
    nsm_client_set_link_open(nullptr);
}

}  // namespace
