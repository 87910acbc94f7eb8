// Sessions of the NSM server over socket pairs, its listening socket, and what it and the daemon's end say
// against docs/NSM-LINK.md, octet by octet.
#include "nsmd/server/server.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "nsmd_support.h"
#include "suite/manager/client.h"
#include "suite/ports/interface.h"

namespace {

struct server : testing::Test {
    log_lines log;
    virtual_loop loop;
    said calls;
    nsmd_server* s = make();

    ~server() override { nsmd_server_free(s); }
    nsmd_server* make() {
        const auto status = [](void*, text_buffer* out) { return text_printf(out, "clock: holdover\n"); };
        return nsmd_server_create(&loop.ctx, {dump, request, clients, status, this});
    }
    static void dump(void* arg, nsmd_peer* peer) {
        nsmd_server* s = static_cast<server*>(arg)->s;
        nsmd_server_send_bridge(s, peer, {true, "br0", 2, {2, 0, 0, 0, 0, 1}});
        nsmd_server_send_port(s, peer, port(true));
        nsmd_server_send_clock(s, peer, 2, 0);
    }
    static nsmd_port port(bool up) {
        nsmd_port p{};
        p.kernel_ifindex = 7;
        p.ifindex = 3;
        std::strcpy(p.name, "eth3");
        p.mac[0] = 2;
        p.mac[5] = 7;
        p.up = up;
        return p;
    }
    static void request(void* arg, std::uint16_t type, const std::uint32_t (&w)[NSM_REQUEST_WORDS]) {
        std::string words;
        for (const std::uint32_t word : w) words += " " + std::to_string(word);
        static_cast<server*>(arg)->calls.add("request " + std::to_string(type) + words);
    }
    static void clients(void* arg, std::uint32_t count, bool clean) {
        static_cast<server*>(arg)->calls.add("clients " + std::to_string(count) + (clean ? " clean" : ""));
    }
    bool adopt(nsm_test_client* c) { return nsmd_server_adopt(s, c->dial(&loop)) != nullptr; }
    void connect(nsm_test_client* c) {
        ASSERT_TRUE(adopt(c));
        c->hello();
        loop.run(1);
    }
    void send_clocks(std::uint32_t count, nsm_test_client* reader) {
        for (std::uint32_t i = 0; i < count; ++i) {
            nsmd_server_send_clock(s, nullptr, i, 0);
            if (i % 100 == 99) (void)reader->take_all();
        }
    }
    // What the owner was called for, once all that was sent has been read.
    std::string called() {
        loop.run(1);
        return calls.take();
    }
};

TEST_F(server, each_client_has_its_own_sequence_and_goes_alone) {
    nsm_test_client a, b, silent;
    connect(&a);
    ASSERT_TRUE(adopt(&silent));
    nsmd_server_send_clock(s, nullptr, 3, 0);
    connect(&b);
    nsmd_server_send_clock(s, nullptr, 4, 0);
    EXPECT_EQ(a.take_all(), "ack 0, bridge, add 3 7 1, clock 2 0, sync, clock 3 0, clock 4 0");
    EXPECT_EQ(b.take_all(), "ack 0, bridge, add 3 7 1, clock 2 0, sync, clock 4 0");
    a.hang_up();
    loop.run(1);
    nsmd_server_send_clock(s, nullptr, 2, 0);
    EXPECT_EQ(b.take_all(), "clock 2 0");
    EXPECT_EQ(silent.take_all(), "");  // it has not said HELLO
    b.say(NSM_MSG_BYE);
    b.hang_up();
    EXPECT_EQ(called(), "clients 1, clients 2, clients 1, clients 0 clean");
    silent.hello(2);
    loop.run(1);
    EXPECT_EQ(silent.take_all(), "ack 1, closed");  // another version
}

TEST_F(server, malformed_messages_are_dropped_said_once_a_minute_and_the_link_stays) {
    const std::pair<const char*, message> bad[] = {
        {"message shorter than a header", {0, 206, 0}},
        {"length field differs", {0, 206, 0, 13, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"body too short", {0, 206, 0, 10, 0, 0, 0, 1, 0, 0}},
        {"unknown message type", {3, 231, 0, 12, 0, 0, 0, 1, 0, 0, 0, 1}},
        {"unknown message type", {0, NSM_MSG_LINK_UP, 0, 12, 0, 0, 0, 1, 0, 0, 0, 1}},  // the server's own
        {"message too long", message(408)},
        {"HELLO a second time", {0, NSM_MSG_HELLO, 0, 16, 0, 0, 0, 1, 0, 1, 0, 36, 0, 0, 0, 0}}};
    nsm_test_client c;
    ASSERT_TRUE(adopt(&c));
    c.say(206, {1});
    loop.run(1);
    EXPECT_EQ(log.count("before HELLO"), 1);
    c.hello();
    EXPECT_EQ(called(), "clients 1");
    for (const int minute : {1, 2}) {
        for (int i = 0; i < 3; ++i)
            for (const auto& [said, octets] : bad) c.send_octets(octets);
        loop.run(1);
        for (const auto& [said, octets] : bad) EXPECT_EQ(log.count(said), minute) << said;
        loop.run(61000);
    }
    EXPECT_EQ(called(), "");
    c.say(206, {1, 77, 88, 99});  // later versions may add fields
    c.say(210, {3, 1, 2});
    EXPECT_EQ(called(), "request 206 1 0 0, request 210 3 1 2");
}

TEST_F(server, a_slow_client_loses_nothing_until_its_bounded_queue_is_full) {
    nsm_test_client slow, other;
    connect(&slow);
    connect(&other);
    send_clocks(5000, &other);
    std::string last;
    for (int i = 0; i < 5005; ++i) {
        if (i % 8 == 0) loop.run(1);
        last = slow.take();
    }
    EXPECT_EQ(last, "clock 4999 0");
    const auto before = memmgr_type_stats(MTYPE_TEXT).peak_octets;
    send_clocks(40000, &other);
    EXPECT_EQ(log.count("too slowly"), 1);
    EXPECT_LE(memmgr_type_stats(MTYPE_TEXT).peak_octets, before + 600 * 1024);  // doubling included
    EXPECT_EQ(called(), "clients 1, clients 2, clients 1");
    nsmd_server_send_clock(s, nullptr, 4, 0);
    EXPECT_EQ(other.take_all(), "clock 4 0");
}

TEST_F(server, too_many_clients_are_turned_away) {
    nsm_test_client c[17];
    for (int i = 0; i < 16; ++i) connect(&c[i]);
    EXPECT_FALSE(adopt(&c[16]));
    EXPECT_EQ(c[16].take(), "closed");
    c[0].hang_up();
    loop.run(1);
    connect(&c[16]);
    EXPECT_EQ(c[16].take(), "ack 0");
}

// --- docs/NSM-LINK.md ---

using conversation = std::map<std::string, std::map<std::uint32_t, message>>;  // by side and sequence number

conversation document() {
    std::ifstream in(NSM_LINK_DOC_PATH);
    conversation all;
    message m;
    std::string side;
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with("```")) side = line.starts_with("```hex ") ? line.substr(7) : "";
        std::istringstream digits(line);
        for (unsigned octet; !side.empty() && digits >> std::hex >> octet;) {
            m.push_back(static_cast<std::uint8_t>(octet));
            if (m.size() < NSM_HEADER_SIZE || m.size() != get_be16(m, 2)) continue;
            all[side][get_be32(m, 4)] = m;
            m.clear();
        }
    }
    EXPECT_TRUE(m.empty()) << "a length field does not fit";
    return all;
}

// The test passes on what both ends say.
struct link_doc : server {
    nsm_test_client to_nsmd, to_esmcd;
    conversation talk;

    bool pass(int from, const char* side, int to) {
        message m(NSM_MESSAGE_MAX);
        const ssize_t got = recv(from, m.data(), m.size(), MSG_DONTWAIT);
        if (got <= 0) return false;
        m.resize(static_cast<std::size_t>(got));
        (void)send(to, m.data(), m.size(), MSG_NOSIGNAL);
        talk[side][get_be32(m, 4)] = m;
        return true;
    }
    void pass_all() {
        do loop.run(1);
        while (pass(to_esmcd.fd, "esmcd", to_nsmd.fd) | pass(to_nsmd.fd, "NSM", to_esmcd.fd));
    }
};

TEST_F(link_doc, both_ends_say_what_the_document_has) {
    static link_doc* test;
    test = this;
    if_master list{};
    loop.ctx.ifm = &list;
    nsm_client_set_link_open([] { return test->to_esmcd.dial(&test->loop); });
    nsm_client* client = nsm_client_create(&loop.ctx, 0);
    nsm_client_set_protocol(client, 36);
    ASSERT_TRUE(adopt(&to_nsmd));
    ASSERT_EQ(nsm_client_start(client), 0);
    pass_all();
    const interface* known = if_lookup_by_name(&list, "eth3");
    EXPECT_TRUE(known && known->mac[5] == 7);
    nsm_client_send_ssm_global_enable(client, {1});
    nsm_client_send_ssm_clock_recovery_select(client, {0});
    nsm_client_send_ssm_holdover_enable(client, {1});
    nsm_client_send_ssm_selected_if_index(client, {3, 0});
    nsm_client_send_ssm_set_gephy_role(client, {3, 1, 2});
    pass_all();
    EXPECT_EQ(called(),
              "clients 1, request 206 1 0 0, request 207 0 0 0, request 208 1 0 0, "
              "request 209 3 0 0, request 210 3 1 2");
    nsmd_server_send_clock(s, nullptr, 4, 0);
    nsmd_server_send_link(s, port(false));
    nsmd_server_send_link(s, port(true));
    nsmd_server_send_port_gone(s, port(true));
    nsmd_server_send_detail(s, nullptr, {0, nsm_detail_body::HAS_ERROR, 3, 0, 0, 0, 0, {}});
    pass_all();
    EXPECT_EQ(nsm_client_get_stats(client).dropped, 0U);
    EXPECT_EQ(if_lookup_by_name(&list, "eth3"), nullptr);
    nsm_client_stop(client);
    pass_all();
    if_finish(&list);
    nsm_client_set_link_open(nullptr);

    conversation doc = document();
    ASSERT_TRUE(adopt(&to_nsmd));
    talk["asker"] = doc["asker"];
    to_nsmd.send_octets(doc["asker"][1]);
    do loop.run(1);
    while (pass(to_nsmd.fd, "status", -1));
    EXPECT_EQ(talk, doc);
}

// Clients come by the socket's file.
struct listening : server {
    const std::string path = "/tmp/nsmdtest." + std::to_string(getpid()), kept = path + "2";

    listening() {
        for (int fd = 3; fd < 32; ++fd) loop.descriptors.push_back(fd);
    }
    ~listening() override { unlink(kept.c_str()); }
    // A socket that is bound to the file (or connected to it).
    int open_at_path(decltype(::connect)* how) const {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strcpy(a.sun_path, path.c_str());
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
        EXPECT_EQ(how(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
        return fd;
    }
};

TEST_F(listening, a_stale_file_is_replaced_that_of_another_server_stays) {
    close(open_at_path(bind));  // a crash leaves the file
    EXPECT_EQ(nsmd_server_listen(s, path.c_str()), 0);
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0660U);
    nsmd_server* second = make();
    EXPECT_LT(nsmd_server_listen(second, path.c_str()), 0);
    EXPECT_EQ(rename(path.c_str(), kept.c_str()), 0);  // its inode stays taken
    EXPECT_EQ(nsmd_server_listen(second, path.c_str()), 0);
    nsmd_server_free(std::exchange(s, second));
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    nsmd_server_free(std::exchange(s, nullptr));
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST_F(listening, descriptors_that_run_out_are_waited_for) {
    EXPECT_EQ(nsmd_server_listen(s, path.c_str()), 0);
    nsm_test_client c{open_at_path(::connect)};
    c.hello();
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit none = {3, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    loop.run(10);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(log.count("can't take a client"), 1);
    loop.run(5000);
    EXPECT_EQ(c.take(), "ack 0");
}

}  // namespace
