// The NSM client against a test that plays NSM on the other end of a socket pair, through the real loop.
#include "suite/nsm_client.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstring>
#include <string>
#include <vector>

#include "suite/cli.h"
#include "suite/lib.h"
#include "suite/log.h"
#include "suite/memory.h"
#include "suite/octets.h"
#include "suite/thread.h"

namespace {

using octet_string = std::vector<std::uint8_t>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

int server = -1;        // NSM's end of the current link
int opens;              // links asked for
bool reachable = true;  // whether a link can be opened
std::vector<std::string> events;
std::vector<std::string> warnings;
nsm_client* client;
int (*bind_action)(interface*);

int open_pair() {
    ++opens;
    if (!reachable) return -ECONNREFUSED;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
    if (server >= 0) close(server);
    server = ends[0];
    return ends[1];
}

int record(const char* what, const interface* intf) {
    events.push_back(std::string(what) + " " + intf->name);
    return 0;
}

int on_bind(interface* i) {
    record("bind", i);
    return bind_action ? bind_action(i) : 0;
}
int on_unbind(interface* i) {
    return record("unbind", i);
}
int on_up(interface* i) {
    return record("up", i);
}
int on_down(interface* i) {
    return record("down", i);
}

int on_bridge(void*, void*, void* message) {
    char text[32];
    const auto* m = static_cast<const std::uint8_t*>(message) + 24;
    std::snprintf(text, sizeof text, "bridge %02x%02x%02x%02x%02x%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    events.emplace_back(text);
    return 0;
}

int on_clock(void*, void*, void* message) {
    const auto* m = static_cast<const nsm_clock_state_message*>(message);
    events.push_back("clock " + std::to_string(m->state) + " " + std::to_string(m->source));
    return 0;
}

void tap(void*, int level, const char* line, std::size_t length) {
    if (level == LOG_LEVEL_WARNING) warnings.emplace_back(line, length);
}

struct message {
    octet_string data = octet_string(8);
    explicit message(std::uint16_t type) { put_be16(data, 0, type); }
    message& u32(std::uint32_t v) {
        data.resize(data.size() + 4);
        put_be32(data, data.size() - 4, v);
        return *this;
    }
    message& u16(std::uint16_t v) {
        data.resize(data.size() + 2);
        put_be16(data, data.size() - 2, v);
        return *this;
    }
    message& zeros(std::size_t count) {
        data.resize(data.size() + count);
        return *this;
    }
    message& text(const std::string& s, std::size_t size) {
        const std::size_t at = data.size();
        data.resize(at + size);
        std::copy(s.begin(), s.end(), data.begin() + static_cast<std::ptrdiff_t>(at));
        return *this;
    }
    const octet_string& done() {
        put_be16(data, 2, static_cast<std::uint16_t>(data.size()));
        return data;
    }
};

message link_add(std::uint32_t ifindex, const std::string& name, bool up = false, std::uint32_t kernel = 0,
                 std::uint8_t mac = 0) {
    message m(NSM_MSG_LINK_ADD);
    m.u32(ifindex).u32(kernel ? kernel : ifindex + 100).u16(2).u16(up ? 1 : 0);
    m.zeros(8).text(name, 16);
    m.data[8 + 12] = mac;
    return m;
}
message simple(std::uint16_t type) {
    return message(type);
}
message one(std::uint16_t type, std::uint32_t word) {
    message m(type);
    m.u32(word);
    return m;
}
message clock_state(std::uint32_t state, std::uint32_t source) {
    message m(NSM_MSG_SSM_SEND_BACK_CLOCK_STATE);
    m.u32(state).u32(source);
    return m;
}
message bridge(std::uint8_t last) {
    message m(NSM_MSG_BRIDGE_ADD);
    m.text("br0", 16).u32(1).u32(7).zeros(8);
    m.data[8 + 24 + 5] = last;
    return m;
}

void say(message m) {
    const octet_string& d = m.done();
    ASSERT_EQ(send(server, d.data(), d.size(), MSG_NOSIGNAL), static_cast<ssize_t>(d.size()));
}

std::string shown;  // by a command

int keep_output(void*, const char* format, ...) {
    char line[256];
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(line, sizeof line, format, args);
    va_end(args);
    shown += line;
    return n;
}

// Runs a line in the exec mode; what it printed is in `shown`.
cli_result run_line(lib_globals* ctx, const char* text) {
    shown.clear();
    cli session{};
    session.out_func = keep_output;
    session.zg = ctx;
    session.ifm = &ctx->ifm;
    session.mode = EXEC_MODE;
    session.privilege = PRIVILEGE_MAX;
    return cli_run_line(ctx->ctree, &session, text);
}

int on_tick(thread* event) {
    *static_cast<thread**>(event->arg) = nullptr;
    return 0;
}

struct NsmClient : testing::Test {
    lib_globals* ctx = nullptr;

    void SetUp() override {
        memory_init(36);
        ctx = lib_create("test");
        ctx->master = thread_master_create();
        events.clear();
        warnings.clear();
        opens = 0;
        reachable = true;
        bind_action = nullptr;
        server = -1;
        log_use_sink(LOG_SINK_STDERR, false);
        log_add_tap(tap, nullptr);
        nsm_client_set_link_open(open_pair);
        if_add_hook(&ctx->ifm, IF_CALLBACK_VR_BIND, on_bind);
        if_add_hook(&ctx->ifm, IF_CALLBACK_VR_UNBIND, on_unbind);
        if_add_hook(&ctx->ifm, IF_CALLBACK_UP, on_up);
        if_add_hook(&ctx->ifm, IF_CALLBACK_DOWN, on_down);
        make_client();
    }

    void make_client() {
        client = nsm_client_create(ctx, 0);
        nsm_client_set_version(client, 1);
        nsm_client_set_protocol(client, 36);
        nsm_client_set_service(client, 0);
        ASSERT_EQ(nsm_client_set_callback(client, NSM_MSG_BRIDGE_ADD, on_bridge), 0);
        ASSERT_EQ(nsm_client_set_callback(client, NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, on_clock), 0);
    }

    void TearDown() override {
        nsm_client_stop(client);
        client = nullptr;
        nsm_client_set_link_open(nullptr);
        memmgr_fail_at(0);
        log_remove_tap(tap, nullptr);
        if (server >= 0) close(server);
        lib_stop(ctx);
        EXPECT_EQ(memmgr_type_stats(MTYPE_NSM).blocks, 0u);
        EXPECT_EQ(memmgr_type_stats(MTYPE_SLOW).blocks, 0u);
    }

    // Runs the loop until the condition holds; false after the deadline.
    template <typename Condition>
    bool run_until(Condition holds, milliseconds limit = milliseconds(3000)) {
        const auto deadline = steady_clock::now() + limit;
        thread* tick = nullptr;
        bool held;
        while (!(held = holds()) && steady_clock::now() < deadline) {
            if (!tick) tick = thread_add_timer_msec(ctx, on_tick, &tick, 5);
            thread event;
            if (thread_fetch(ctx, &event)) thread_call(&event);
        }
        thread_cancel(tick);
        return held;
    }

    // Runs until the client has taken everything that was said so far.
    bool settle(std::uint64_t messages) {
        return run_until([=] { return nsm_client_get_stats(client).messages_in == messages; });
    }

    // The next message of the client; empty when there is none.
    octet_string heard() {
        octet_string d(512);
        const ssize_t n = recv(server, d.data(), d.size(), MSG_DONTWAIT);
        d.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return d;
    }
    // Types and words of everything that the client has sent: "206:1 210:3,1,2".
    std::string heard_all() {
        std::string all;
        for (octet_string d = heard(); !d.empty(); d = heard()) {
            EXPECT_EQ(get_be16(d, 2), d.size());
            if (!all.empty()) all += ' ';
            all += std::to_string(get_be16(d, 0));
            for (std::size_t at = 8; at < d.size(); at += 4)
                all += (at == 8 ? ":" : ",") + std::to_string(get_be32(d, at));
        }
        return all;
    }

    void connect() { ASSERT_EQ(nsm_client_start(client), 0); }
    void accept() {
        heard();  // HELLO
        say(one(NSM_MSG_HELLO_ACK, 0));
    }
    // Closes NSM's end and waits for the next link.
    void restart_server() {
        const int before = opens;
        close(server);
        server = -1;
        ASSERT_TRUE(run_until([=] { return opens > before && server >= 0; }));
        accept();
    }
    void sync() {
        say(simple(NSM_MSG_SYNC_DONE));
        ASSERT_TRUE(run_until([] { return nsm_client_get_stats(client).synchronised; }));
    }
    std::vector<std::string> taken() {
        std::vector<std::string> t;
        t.swap(events);
        return t;
    }
    using list = std::vector<std::string>;
};

TEST_F(NsmClient, GreetsFirstAndTakesNothingBeforeTheAnswer) {
    connect();
    const octet_string hello = heard();
    EXPECT_EQ(hello, (octet_string{0, 1, 0, 16, 0, 0, 0, 1, 0, 1, 0, 36, 0, 0, 0, 0}));
    say(link_add(1, "eth1"));
    say(one(NSM_MSG_HELLO_ACK, 0));
    say(link_add(2, "eth2"));
    ASSERT_TRUE(settle(3));
    EXPECT_EQ(taken(), list{"bind eth2"});
    EXPECT_TRUE(nsm_client_get_stats(client).connected);
    EXPECT_FALSE(nsm_client_get_stats(client).synchronised);
}

TEST_F(NsmClient, TakesTheDumpAsItComes) {
    connect();
    accept();
    say(bridge(0x55));
    say(link_add(7, "eth7", true, 42, 0xAA));
    say(link_add(3, "eth3"));
    say(link_add(2147483647, "sixteen-octets-x"));
    say(clock_state(2, 7));
    sync();
    EXPECT_EQ(taken(), (list{"bridge 000000000055", "bind eth7", "up eth7", "bind eth3",
                             "bind sixteen-octets-x", "clock 2 7"}));
    ASSERT_EQ(ctx->ifm.count, 3u);
    const interface* first = ctx->ifm.items[0];
    EXPECT_EQ(first->ifindex, 7u);
    EXPECT_EQ(first->kernel_ifindex, 42u);
    EXPECT_EQ(first->mac[0], 0xAA);
    EXPECT_TRUE(first->up);

    say(one(NSM_MSG_LINK_DOWN, 7));
    say(one(NSM_MSG_LINK_UP, 99));  // nobody knows it
    say(clock_state(2, 7));         // a change that NSM states again is delivered
    ASSERT_TRUE(settle(10));
    EXPECT_EQ(taken(), (list{"down eth7", "clock 2 7"}));
}

TEST_F(NsmClient, RefusesIndexesAndNamesThatCantBeUsed) {
    connect();
    accept();
    say(link_add(0, "zero"));
    say(link_add(9999, "marker"));
    say(link_add(2147483648u, "huge"));
    say(link_add(4, ""));
    say(link_add(5, "a b"));
    ASSERT_TRUE(settle(6));
    EXPECT_TRUE(taken().empty());
    EXPECT_EQ(ctx->ifm.count, 0u);
    EXPECT_EQ(nsm_client_get_stats(client).dropped, 5u);
}

TEST_F(NsmClient, DropsMalformedMessagesAndSaysEachKindOnce) {
    connect();
    accept();
    sync();
    warnings.clear();
    const std::uint8_t wrong_length[8] = {0, 3, 0, 9, 0, 0, 0, 1};
    const std::uint8_t shorter_than_header[3] = {0, 3, 0};
    for (int round = 0; round < 3; ++round) {
        send(server, wrong_length, sizeof wrong_length, 0);
        send(server, shorter_than_header, sizeof shorter_than_header, 0);
        send(server, "", 0, 0);  // a packet of no octets is not the end
        say(simple(999));
        say(one(NSM_MSG_HELLO, 1));  // of the other direction
        say(simple(NSM_MSG_LINK_UP));
        say(link_add(1, "eth1").zeros(0));
        message cut = link_add(2, "eth2");
        cut.data.pop_back();
        say(cut);
    }
    say(one(NSM_MSG_HELLO_ACK, 5));       // a second answer is ignored, whatever it says
    say(link_add(3, "eth3").zeros(400));  // later versions add fields
    ASSERT_TRUE(settle(2 + 3 * 8 + 2));
    EXPECT_EQ(warnings.size(), 4u);  // length, type, body, second answer
    EXPECT_EQ(taken(), (list{"bind eth1", "bind eth1", "bind eth1", "bind eth3"}));
    EXPECT_EQ(nsm_client_get_stats(client).dropped, 3u * 7 + 1);
    EXPECT_TRUE(nsm_client_get_stats(client).synchronised);
    EXPECT_EQ(opens, 1);
}

TEST_F(NsmClient, UnbindKeepsThePlaceInTheListAndGoneLeavesIt) {
    connect();
    accept();
    for (std::uint32_t i = 1; i <= 3; ++i) say(link_add(i, "eth" + std::to_string(i), true));
    sync();
    taken();
    say(one(NSM_MSG_LINK_DELETE, 1));
    message gone = one(NSM_MSG_LINK_DELETE, 2);
    gone.u32(1);
    say(gone);
    say(gone);  // not known any more
    ASSERT_TRUE(settle(8));
    EXPECT_EQ(taken(), (list{"unbind eth1", "unbind eth2"}));
    ASSERT_EQ(ctx->ifm.count, 2u);
    EXPECT_STREQ(ctx->ifm.items[0]->name, "eth1");
    EXPECT_FALSE(ctx->ifm.items[0]->bound);
    EXPECT_FALSE(ctx->ifm.items[0]->up);
    say(link_add(1, "eth1", true));
    ASSERT_TRUE(settle(9));
    EXPECT_EQ(taken(), (list{"bind eth1", "up eth1"}));
    EXPECT_EQ(ctx->ifm.items[0]->ifindex, 1u);
}

TEST_F(NsmClient, AddOfAKnownInterfaceBindsAgainOrReplacesIt) {
    connect();
    accept();
    say(link_add(1, "eth1", true));
    say(link_add(2, "eth2"));
    sync();
    taken();
    say(link_add(1, "eth1", true, 77, 0xBB));  // once more: bind, addresses taken over
    ASSERT_TRUE(settle(5));
    EXPECT_EQ(taken(), (list{"bind eth1", "up eth1"}));
    EXPECT_EQ(ctx->ifm.items[0]->kernel_ifindex, 77u);
    EXPECT_EQ(ctx->ifm.items[0]->mac[0], 0xBB);
    say(link_add(1, "lan1"));  // renamed: another interface
    ASSERT_TRUE(settle(6));
    EXPECT_EQ(taken(), (list{"unbind eth1", "bind lan1"}));
    say(link_add(5, "eth2"));  // the name moved to another index
    ASSERT_TRUE(settle(7));
    EXPECT_EQ(taken(), (list{"unbind eth2", "bind eth2"}));
    ASSERT_EQ(ctx->ifm.count, 2u);
    EXPECT_EQ(if_lookup_by_name(&ctx->ifm, "eth2")->ifindex, 5u);
}

TEST_F(NsmClient, ReconnectionDeliversDifferencesOnly) {
    connect();
    accept();
    say(bridge(1));
    for (std::uint32_t i = 1; i <= 5; ++i) say(link_add(i, "eth" + std::to_string(i), i != 2));
    say(clock_state(1, 3));
    sync();
    say(one(NSM_MSG_LINK_DELETE, 5));  // known, not bound
    ASSERT_TRUE(settle(10));
    taken();

    restart_server();
    EXPECT_TRUE(taken().empty()) << "the ports must not notice";
    EXPECT_EQ(ctx->ifm.count, 5u);
    say(bridge(1));
    say(link_add(1, "eth1", true));
    say(link_add(2, "eth2", true));
    say(link_add(3, "eth3", false, 333));
    say(link_add(6, "eth6", true));
    say(link_add(5, "eth5"));
    say(clock_state(1, 3));
    sync();
    EXPECT_EQ(taken(), (list{"up eth2", "down eth3", "bind eth6", "up eth6", "bind eth5", "unbind eth4"}));
    EXPECT_EQ(if_lookup_by_index(&ctx->ifm, 3)->kernel_ifindex, 333u);
    EXPECT_EQ(if_lookup_by_index(&ctx->ifm, 4), nullptr);

    say(clock_state(1, 3));  // not the first of this link
    ASSERT_TRUE(run_until([] { return !events.empty(); }));
    EXPECT_EQ(taken(), list{"clock 1 3"});

    restart_server();
    say(bridge(2));
    message gone = one(NSM_MSG_LINK_DELETE, 2);
    gone.u32(1);
    say(link_add(1, "eth1", true));
    say(link_add(2, "eth2", true));
    say(link_add(3, "eth3", false, 333));
    say(gone);  // a change in the midst of the dump
    say(one(NSM_MSG_LINK_DELETE, 5));
    say(one(NSM_MSG_LINK_UP, 6));
    say(clock_state(2, 0));
    sync();
    EXPECT_EQ(taken(), (list{"bridge 000000000002", "unbind eth2", "unbind eth5", "up eth6", "clock 2 0"}));
    EXPECT_EQ(ctx->ifm.count, 4u) << "what was mentioned by a change stays";
}

TEST_F(NsmClient, RestatesTheLastRequestsInTheirOrder) {
    EXPECT_LT(nsm_client_send_ssm_global_enable(client, {1}), 0) << "before there is a link";
    connect();
    accept();
    say(link_add(3, "eth3"));
    say(link_add(4, "eth4"));
    ASSERT_TRUE(settle(3));
    EXPECT_LT(nsm_client_send_ssm_set_gephy_role(client, {4, 1, 1}), 0) << "before SYNC_DONE";
    EXPECT_LT(nsm_client_send_ssm_set_gephy_role(client, {8, 1, 1}), 0);  // no such port in the dump
    sync();
    EXPECT_EQ(heard_all(), "206:1 210:4,1,1");

    EXPECT_EQ(nsm_client_send_ssm_holdover_enable(client, {0}), 0);
    EXPECT_EQ(nsm_client_send_ssm_selected_if_index(client, {3, 0}), 0);
    EXPECT_EQ(nsm_client_send_ssm_set_gephy_role(client, {3, 1, 2}), 0);
    EXPECT_EQ(nsm_client_send_ssm_clock_recovery_select(client, {2}), 0);
    EXPECT_EQ(nsm_client_send_ssm_holdover_enable(client, {1}), 0);
    EXPECT_EQ(nsm_client_send_ssm_set_gephy_role(client, {4, 1, 2}), 0);
    EXPECT_EQ(heard_all(), "208:0 209:3,0 210:3,1,2 207:2 208:1 210:4,1,2");

    reachable = false;
    close(server);
    server = -1;
    ASSERT_TRUE(run_until([] { return !nsm_client_get_stats(client).connected; }));
    EXPECT_LT(nsm_client_send_ssm_selected_if_index(client, {4, 0}), 0);
    reachable = true;
    ASSERT_TRUE(run_until([] { return server >= 0; }));
    const octet_string hello = heard();
    ASSERT_EQ(hello.size(), 16u);
    EXPECT_EQ(get_be32(hello, 4), 1u) << "the counter begins again";
    say(one(NSM_MSG_HELLO_ACK, 0));
    say(link_add(4, "eth4"));
    sync();  // eth3 is gone, and with it its gephy role
    EXPECT_EQ(heard_all(), "206:1 207:2 208:1 210:4,1,2 209:4,0");
    EXPECT_EQ(nsm_client_get_stats(client).requests_kept, 5u);

    say(one(NSM_MSG_LINK_DELETE, 4));
    ASSERT_TRUE(run_until([] { return nsm_client_get_stats(client).requests_kept == 4; }));
}

TEST_F(NsmClient, AFullLinkKeepsTheLastOfEachKindForLater) {
    connect();
    accept();
    sync();
    std::uint32_t sent = 0;
    while (sent < 100000 && nsm_client_send_ssm_holdover_enable(client, {sent}) == 0) ++sent;
    ASSERT_LT(sent, 100000u);
    EXPECT_LT(nsm_client_send_ssm_global_enable(client, {0}), 0);
    EXPECT_LT(nsm_client_send_ssm_selected_if_index(client, {9, 0}), 0);
    EXPECT_LT(nsm_client_send_ssm_global_enable(client, {1}), 0);
    std::string all;
    ASSERT_TRUE(run_until([&] {
        const std::string more = heard_all();
        if (!more.empty()) all += " " + more;
        return all.find(" 206:") != std::string::npos;
    }));
    const std::string tail = " 208:" + std::to_string(sent) + " 209:9,0 206:1";
    ASSERT_GE(all.size(), tail.size());
    EXPECT_EQ(all.substr(all.size() - tail.size()), tail);
}

TEST_F(NsmClient, TriesAgainAtLeastOnceASecond) {
    reachable = false;
    connect();
    const auto begin = steady_clock::now();
    ASSERT_TRUE(run_until([] { return opens == 4; }));
    EXPECT_LT(steady_clock::now() - begin, milliseconds(3000));
    EXPECT_EQ(warnings.size(), 1u) << "said once an outage";
    reachable = true;
    ASSERT_TRUE(run_until([] { return server >= 0; }));

    heard();
    say(one(NSM_MSG_HELLO_ACK, 3));  // refused: closed, tried again
    const int before = opens;
    ASSERT_TRUE(run_until([] { return !nsm_client_get_stats(client).connected; }));
    EXPECT_EQ(recv(server, nullptr, 0, 0), 0) << "the refused link is closed";
    ASSERT_TRUE(run_until([=] { return opens > before; }));
    accept();
    sync();
    EXPECT_EQ(warnings.size(), 2u);
}

// The real link: no server, then a server at its path. The path is fixed, so /run is one of the test's own.
TEST_F(NsmClient, FindsTheServerAtItsPath) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for a mount namespace";
    const int home = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(unshare(CLONE_NEWNS), 0);
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", "/run", "tmpfs", 0, nullptr), 0);
    nsm_client_set_link_open(nullptr);
    connect();
    EXPECT_FALSE(nsm_client_get_stats(client).connected);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, NSM_SOCKET_PATH);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    ASSERT_TRUE(run_until([&] {
        server = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK);
        return server >= 0;
    }));
    EXPECT_EQ(heard().size(), 16u);
    say(one(NSM_MSG_HELLO_ACK, 0));
    sync();
    close(listener);
    ASSERT_EQ(setns(home, CLONE_NEWNS), 0);
    close(home);
}

TEST_F(NsmClient, ShowsItsStateAndWhatItKeeps) {
    ASSERT_EQ(lib_start(ctx), 0);
    log_use_sink(LOG_SINK_STDERR, false);
    ASSERT_EQ(nsm_client_cli_init(ctx), 0);
    ASSERT_EQ(run_line(ctx, "show nsm"), cli_result::ok);
    EXPECT_EQ(shown.find("NSM link: not connected\n"), 0u);
    connect();
    accept();
    sync();
    (void)nsm_client_send_ssm_selected_if_index(client, {4, 0});
    ASSERT_EQ(run_line(ctx, "show nsm"), cli_result::ok);
    EXPECT_EQ(shown,
              "NSM link: synchronised\n"
              "  Connections 1, messages received 2, sent 2, dropped 0\n"
              "Requests kept: 1\n"
              "  selected interface     4 0\n");
}

TEST_F(NsmClient, MayBeStoppedInsideAHook) {
    connect();
    accept();
    say(link_add(1, "eth1", true));
    say(link_add(2, "eth2"));
    bind_action = [](interface*) {
        nsm_client_stop(client);
        client = nullptr;
        return 0;
    };
    ASSERT_TRUE(run_until([] { return client == nullptr; }));
    EXPECT_EQ(taken().front(), "bind eth1");
    EXPECT_EQ(memmgr_type_stats(MTYPE_NSM).blocks, 0u);
}

// Whatever allocation fails, the client goes on, and states what it can; the next dump repairs the rest.
TEST_F(NsmClient, SurvivesAnyFailedAllocation) {
    const auto next_session = [this] {
        nsm_client_stop(client);
        make_client();
        connect();
        accept();
    };
    for (std::uint64_t nth = 1; nth <= 12; ++nth) {
        next_session();
        memmgr_fail_at(nth);
        for (std::uint32_t i = 1; i <= 80; ++i) say(link_add(i, "eth" + std::to_string(i)));
        say(simple(NSM_MSG_SYNC_DONE));
        ASSERT_TRUE(run_until([] {
            const nsm_client_stats s = nsm_client_get_stats(client);
            return s.synchronised || s.connects > 100;
        })) << "allocation "
            << nth;
        for (std::uint32_t i = 1; i <= 80; ++i) (void)nsm_client_send_ssm_set_gephy_role(client, {i, 1, 1});
        memmgr_fail_at(0);
        next_session();
        for (std::uint32_t i = 1; i <= 80; ++i) say(link_add(i, "eth" + std::to_string(i)));
        sync();
        EXPECT_EQ(ctx->ifm.count, 80u);
        next_session();
        sync();  // an empty dump: all gone
        EXPECT_EQ(ctx->ifm.count, 0u);
    }
}

}  // namespace
