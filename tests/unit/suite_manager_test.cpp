// The NSM client against a test that plays NSM on the other end of a socket pair, in virtual time.
#include "suite/manager/record.h"
#include "unit/suite_support.h"

namespace {

using octet_string = std::vector<std::uint8_t>;

// A message of 32-bit words; say() fills in its length.
octet_string message(std::uint16_t type, const std::vector<std::uint32_t>& words = {}) {
    octet_string m(NSM_HEADER_SIZE);
    put_be16(m, 0, type);
    for (const std::uint32_t word : words) {
        m.resize(m.size() + 4);
        put_be32(m, m.size() - 4, word);
    }
    return m;
}
octet_string link_add(std::uint32_t ifindex, const std::string& name, bool up = false,
                      std::uint32_t kernel = 42, std::uint8_t mac = 0) {
    octet_string m = message(NSM_MSG_LINK_ADD, {ifindex, kernel, 2U << 16 | up, 0, 0});
    m[NSM_HEADER_SIZE + nsm_link_body::MAC] = mac;
    m.insert(m.end(), name.begin(), name.end());
    m.resize(NSM_HEADER_SIZE + nsm_link_body::SIZE);
    return m;
}
octet_string link_delete(std::uint32_t ifindex, std::uint32_t flags = 0) {
    return message(NSM_MSG_LINK_DELETE, {ifindex, flags});
}
octet_string clock_state(std::uint32_t state, std::uint32_t source) {
    return message(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, {state, source});
}
octet_string bridge(std::uint32_t id) {
    return message(NSM_MSG_BRIDGE_ADD, {0, 0, 0, 0, 1, id, 0, 0});
}
const octet_string ACCEPTED = message(NSM_MSG_HELLO_ACK, {0}), SYNC_DONE = message(NSM_MSG_SYNC_DONE);

struct NsmClient : Suite {
    static NsmClient* current;
    lib_globals* ctx = lib_create("test");
    virtual_link link;
    nsm_client* client = nullptr;
    std::string events;  // since the last word to the client
    bool stops_in_bind = false;

    static int note(const std::string& what) {
        current->events += (current->events.empty() ? "" : ", ") + what;
        return 0;
    }
    static int note(const char* what, const interface* intf) {
        return note(std::string(what) + " " + intf->name);
    }
    static int on_bind(interface* intf) {
        note("bind", intf);
        if (current->stops_in_bind) current->stop();
        return 0;
    }
    static int on_bridge(void*, void*, void* m) {
        return note("bridge " + std::to_string(static_cast<nsm_bridge_message*>(m)->id));
    }
    static int on_clock(void*, void*, void* m) {
        const auto* state = static_cast<nsm_clock_state_message*>(m);
        return note("clock " + std::to_string(state->state) + " " + std::to_string(state->source));
    }

    NsmClient() {
        current = this;
        const thread_edges edges = link.edges();
        ctx->master = thread_master_create(&edges);
        link.ctx = ctx;
        nsm_client_set_link_open([] { return current->link.open(SOCK_SEQPACKET); });
        if_add_hook(ctx->ifm, IF_CALLBACK_VR_BIND, on_bind);
        if_add_hook(ctx->ifm, IF_CALLBACK_VR_UNBIND, [](interface* i) { return note("unbind", i); });
        if_add_hook(ctx->ifm, IF_CALLBACK_UP, [](interface* i) { return note("up", i); });
        if_add_hook(ctx->ifm, IF_CALLBACK_DOWN, [](interface* i) { return note("down", i); });
        client = nsm_client_create(ctx, 0);
        nsm_client_set_version(client, 1);
        nsm_client_set_protocol(client, 36);
        nsm_client_set_service(client, 0);
        EXPECT_EQ(nsm_client_set_callback(client, NSM_MSG_BRIDGE_ADD, on_bridge), 0);
        EXPECT_EQ(nsm_client_set_callback(client, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, on_clock), 0);
    }
    ~NsmClient() override {
        stop();
        nsm_client_set_link_open(nullptr);
        lib_stop(ctx);
    }
    void stop() {
        nsm_client_stop(client);
        client = nullptr;
    }

    nsm_client_stats stats() const { return nsm_client_get_stats(client); }

    // Says all of it, and runs until it was taken; the events that come of it.
    std::string say(const std::vector<octet_string>& messages) {
        const std::uint64_t before = stats().messages_in;
        events.clear();
        for (octet_string m : messages) {
            put_be16(m, 2, static_cast<std::uint16_t>(m.size()));
            say_raw(m);
        }
        EXPECT_TRUE(
            link.run(100, [&] { return !client || stats().messages_in == before + messages.size(); }));
        return events;
    }
    void say_raw(const octet_string& packet) const {
        ASSERT_EQ(send(link.far, packet.data(), packet.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(packet.size()));
    }
    // Types and words of what the client has sent: "206:1 210:3,1,2".
    std::string heard() {
        std::string all;
        octet_string d(512);
        for (ssize_t n = 0; (n = recv(link.far, d.data(), d.size(), MSG_DONTWAIT)) > 0;) {
            EXPECT_EQ(get_be16(d, 2), n);
            if (!all.empty()) all += ' ';
            all += std::to_string(get_be16(d, 0));
            for (std::size_t at = NSM_HEADER_SIZE; at < static_cast<std::size_t>(n); at += 4)
                all += (at == NSM_HEADER_SIZE ? ":" : ",") + std::to_string(get_be32(d, at));
        }
        return all;
    }
    bool connects() {
        return link.run(1000, [this] { return stats().connected; });
    }
    // A link on which NSM has accepted the client.
    void connect() {
        ASSERT_EQ(nsm_client_start(client), 0);
        heard();  // HELLO
        say({ACCEPTED});
    }
    void restart_server() {
        link.hang_up();
        events.clear();
        ASSERT_TRUE(link.reopens(1000));
        EXPECT_EQ(say({ACCEPTED}), "") << "the ports must not notice";
    }
    // Name, index, kernel index, last octet of the address, whether bound and up, in the list's order.
    std::string interfaces() const {
        std::string all;
        for (const interface* i : if_list(ctx->ifm))
            all += std::string(i->name) + " " + std::to_string(i->ifindex) + " " +
                   std::to_string(i->kernel_ifindex) + " " + std::to_string(i->mac[0]) +
                   (i->bound ? " bound" : "") + (i->up ? " up" : "") + "\n";
        return all;
    }
};
NsmClient* NsmClient::current;

TEST_F(NsmClient, GreetsThenTakesTheDumpAsItComes) {
    ASSERT_EQ(nsm_client_start(client), 0);
    octet_string hello(32);
    hello.resize(static_cast<std::size_t>(recv(link.far, hello.data(), hello.size(), MSG_DONTWAIT)));
    EXPECT_EQ(hello, (octet_string{0, 1, 0, 16, 0, 0, 0, 1, 0, 1, 0, 36, 0, 0, 0, 0}));
    EXPECT_EQ(say({link_add(1, "early"), ACCEPTED, bridge(5), link_add(7, "eth7", true, 42, 0xAA),
                   link_add(3, "eth3"), link_add(2147483647, "sixteen-octets-x"), clock_state(2, 7)}),
              "bridge 5, bind eth7, up eth7, bind eth3, bind sixteen-octets-x, clock 2 7");
    EXPECT_FALSE(stats().synchronised);
    say({SYNC_DONE});
    EXPECT_TRUE(stats().synchronised);
    EXPECT_EQ(interfaces(),
              "eth7 7 42 170 bound up\neth3 3 42 0 bound\nsixteen-octets-x 2147483647 42 0 bound\n");
    const auto unheard = [this] {
        const auto lines = logged(LOG_LEVEL_WARNING);
        return std::count_if(lines.begin(), lines.end(), [](const auto& l) {
            return l.find("sixteen-octets-x can't carry SSM: its index 2147483647 is above 255") != l.npos;
        });
    };
    say({link_add(2147483647, "sixteen-octets-x"), link_add(256, "x", true), link_add(255, "y", true),
         link_delete(256, NSM_LINK_GONE), link_delete(255, NSM_LINK_GONE)});
    EXPECT_EQ(unheard(), 1) << "once for each";
    // Of an interface that nobody knows nothing is told; what NSM states again is.
    EXPECT_EQ(say({message(NSM_MSG_LINK_DOWN, {7}), message(NSM_MSG_LINK_UP, {99}), clock_state(2, 7)}),
              "down eth7, clock 2 7");
    EXPECT_EQ(say({link_delete(7), link_add(7, "eth7"), link_add(7, "lan7"), link_add(9, "eth3")}),
              "unbind eth7, bind eth7, unbind eth7, bind lan7, unbind eth3, bind eth3")
        << "another name or another index is another interface";
}

TEST_F(NsmClient, DropsWhatItCantUse) {
    connect();
    say({SYNC_DONE});
    octet_string cut = link_add(2, "eth2"), later = link_add(3, "eth3");
    cut.pop_back();
    later.resize(400);  // later versions add fields
    for (const octet_string& packet : {octet_string{0, 3, 0, 9, 0, 0, 0, 1}, octet_string{0, 3, 0}, {}})
        say_raw(packet);  // another length, no header: not the link's end
    link.run(1);
    EXPECT_EQ(say({message(999), message(NSM_MSG_LINK_UP), cut, message(NSM_MSG_HELLO_ACK, {5}),
                   link_add(0, "zero"), link_add(9999, "marker"), link_add(2147483648u, "huge"),
                   link_add(4, ""), link_add(5, "a b"), later}),
              "bind eth3");
    EXPECT_EQ(logged(LOG_LEVEL_WARNING).size(), 5u) << "length, type, body, second answer, name or index";
    EXPECT_EQ(stats().dropped, 12u);
    EXPECT_EQ(link.opens, 1);
}

TEST_F(NsmClient, ReconnectionDeliversDifferencesOnly) {
    connect();
    say({bridge(1)});
    for (std::uint32_t i = 1; i <= 5; ++i) say({link_add(i, "eth" + std::to_string(i), i != 2)});
    say({clock_state(1, 3), SYNC_DONE, link_delete(5)});  // known, not bound

    restart_server();
    EXPECT_EQ(
        say({bridge(1), link_add(1, "eth1", true), link_add(2, "eth2", true), link_add(3, "eth3", false, 333),
             link_add(6, "eth6", true), link_add(5, "eth5"), clock_state(1, 3), SYNC_DONE}),
        "up eth2, down eth3, bind eth6, up eth6, bind eth5, unbind eth4");
    EXPECT_EQ(interfaces(),
              "eth1 1 42 0 bound up\neth2 2 42 0 bound up\neth3 3 333 0 bound\n"
              "eth5 5 42 0 bound\neth6 6 42 0 bound up\n");
    EXPECT_EQ(say({clock_state(1, 3)}), "clock 1 3") << "not the first of this link";

    restart_server();  // changes in the midst of the dump: what they mention stays
    EXPECT_EQ(say({bridge(2), link_add(1, "eth1", true), ACCEPTED, link_add(2, "eth2", true),
                   link_add(3, "eth3", false, 333), link_delete(2, NSM_LINK_GONE), link_delete(5),
                   message(NSM_MSG_LINK_UP, {6}), clock_state(2, 0), SYNC_DONE}),
              "bridge 2, unbind eth2, unbind eth5, up eth6, clock 2 0");
    EXPECT_EQ(ctx->ifm->count, 4u);
}

TEST_F(NsmClient, RestatesTheLastRequestsInTheirOrder) {
    EXPECT_LT(nsm_client_send_ssm_global_enable(client, {1}), 0) << "before there is a link";
    connect();
    say({link_add(3, "eth3"), link_add(4, "eth4")});
    EXPECT_LT(nsm_client_send_ssm_set_gephy_role(client, {4, 1, 1}), 0) << "before SYNC_DONE";
    EXPECT_LT(nsm_client_send_ssm_set_gephy_role(client, {8, 1, 1}), 0);  // no such port in the dump
    say({SYNC_DONE});
    EXPECT_EQ(heard(), "206:1 210:4,1,1");

    EXPECT_EQ(nsm_client_send_ssm_holdover_enable(client, {0}), 0);
    EXPECT_EQ(nsm_client_send_ssm_selected_if_index(client, {3, 0}), 0);
    EXPECT_EQ(nsm_client_send_ssm_set_gephy_role(client, {3, 1, 2}), 0);
    EXPECT_EQ(nsm_client_send_ssm_clock_recovery_select(client, {2}), 0);
    EXPECT_EQ(nsm_client_send_ssm_holdover_enable(client, {1}), 0);
    EXPECT_EQ(heard(), "208:0 209:3,0 210:3,1,2 207:2 208:1");

    link.hang_up();
    ASSERT_TRUE(link.run(100, [&] { return !stats().connected; }));
    EXPECT_LT(nsm_client_send_ssm_selected_if_index(client, {4, 0}), 0);
    ASSERT_TRUE(connects());
    heard();
    say({ACCEPTED, link_add(4, "eth4"), SYNC_DONE});  // eth3 is gone, and with it its gephy role
    EXPECT_EQ(heard(), "206:1 210:4,1,1 207:2 208:1 209:4,0");
    EXPECT_EQ(stats().requests_kept, 5u);
    say({link_delete(4)});
    EXPECT_EQ(stats().requests_kept, 4u);
    say({link_add(5, "eth5")});
    EXPECT_EQ(nsm_client_send_ssm_set_gephy_role(client, {5, 1, 1}), 0);
    say({link_delete(5, NSM_LINK_GONE)});
    EXPECT_EQ(stats().requests_kept, 4u) << "the next port of this index would get the role";
}

TEST_F(NsmClient, AFullLinkKeepsTheLastOfEachKindForLater) {
    connect();
    say({SYNC_DONE});
    std::uint32_t sent = 0;
    while (sent < 100000 && nsm_client_send_ssm_holdover_enable(client, {sent}) == 0) ++sent;
    EXPECT_LT(nsm_client_send_ssm_selected_if_index(client, {9, 0}), 0);
    heard();
    link.run(100);
    EXPECT_EQ(heard(), "208:" + std::to_string(sent) + " 209:9,0");
}

TEST_F(NsmClient, TriesAgainAtLeastOnceASecond) {
    link.open_error = ECONNREFUSED;
    ASSERT_EQ(nsm_client_start(client), 0);
    link.run(3000);
    EXPECT_GE(link.opens, 4);
    EXPECT_EQ(logged(LOG_LEVEL_WARNING).size(), 1u) << "said once an outage";
    link.open_error = 0;
    ASSERT_TRUE(connects());
    say({message(NSM_MSG_HELLO_ACK, {3})});
    heard();
    EXPECT_EQ(recv(link.far, nullptr, 0, 0), 0) << "the refused link is closed";
    ASSERT_TRUE(connects());
    say({ACCEPTED, SYNC_DONE});
    EXPECT_EQ(logged(LOG_LEVEL_WARNING).size(), 2u);
}

TEST_F(NsmClient, MayBeStoppedInsideAHook) {
    connect();
    stops_in_bind = true;
    say({link_add(1, "eth1", true)});
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(memmgr_type_stats(MTYPE_NSM).blocks, 0u);
}

}  // namespace
