// Sessions of the NSM server over socket pairs, and its listening socket.
#include "nsmd/server/server.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "nsmd_support.h"

namespace {

struct server : testing::Test {
    log_lines log;
    virtual_loop loop;
    said calls;
    nsmd_server* s = make();

    ~server() override { nsmd_server_free(s); }
    nsmd_server* make() {
        const auto status = [](void*, text_buffer*) { return true; };
        return nsmd_server_create(&loop.ctx, {dump, request, clients, status, this});
    }
    static void dump(void* arg, nsmd_peer* peer) {
        nsmd_server_send_clock(static_cast<server*>(arg)->s, peer, 2, 0);
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
    void send_clocks(std::uint32_t count, nsm_test_client* reader = nullptr) {
        for (std::uint32_t i = 0; i < count; ++i) {
            nsmd_server_send_clock(s, nullptr, i, 0);
            if (reader && i % 100 == 0) (void)reader->take_all();
        }
        if (reader) (void)reader->take_all();
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
    EXPECT_EQ(a.take_all(), "ack 0, clock 2 0, sync, clock 3 0, clock 4 0");
    EXPECT_EQ(b.take_all(), "ack 0, clock 2 0, sync, clock 4 0");
    a.hang_up();
    loop.run(1);
    nsmd_server_send_clock(s, nullptr, 2, 0);
    EXPECT_EQ(b.take_all(), "clock 2 0");
    EXPECT_EQ(silent.take_all(), "");  // it has not said HELLO
    b.say(NSM_MSG_BYE);
    b.hang_up();
    EXPECT_EQ(called(), "clients 1, clients 2, clients 1, clients 0 clean");
}

TEST_F(server, another_version_is_refused_and_closed) {
    nsm_test_client c;
    ASSERT_TRUE(adopt(&c));
    c.hello(2);
    EXPECT_EQ(called(), "");
    EXPECT_EQ(c.take_all(), "ack 1, closed");
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

TEST_F(server, a_slow_client_loses_nothing_until_its_queue_is_full) {
    nsm_test_client slow, other;
    connect(&slow);
    connect(&other);
    send_clocks(5000, &other);
    std::string last;
    for (int i = 0; i < 5003; ++i) {
        if (i % 8 == 0) loop.run(1);
        last = slow.take();
    }
    EXPECT_EQ(last, "clock 4999 0");
    EXPECT_EQ(log.count("too slowly"), 0);
}

TEST_F(server, a_client_that_never_reads_is_closed_and_costs_a_bounded_queue) {
    nsm_test_client slow, other;
    connect(&slow);
    connect(&other);
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

TEST_F(server, memory_that_runs_out_costs_the_session_only) {
    nsm_test_client c;
    for (std::uint64_t nth = 1; nth <= 6; ++nth) {
        memmgr_fail_at(nth);
        if (adopt(&c)) c.hello();
        loop.run(1);
        send_clocks(500);
        memmgr_fail_at(0);
        c.hang_up();
        loop.run(1);
    }
    connect(&c);
    EXPECT_EQ(c.take(), "ack 0");
}

// Clients come by the socket's file.
struct listening : server {
    char directory[32] = "/tmp/nsmdtest.XXXXXX";
    std::string path = std::string(mkdtemp(directory)) + "/sock";
    struct stat file {};

    listening() {
        for (int fd = 3; fd < 32; ++fd) loop.descriptors.push_back(fd);
    }
    ~listening() override {
        nsmd_server_free(std::exchange(s, nullptr));
        unlink(path.c_str());
        EXPECT_EQ(rmdir(directory), 0);
    }
    bool file_is_there() { return stat(path.c_str(), &file) == 0; }
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

TEST_F(listening, a_stale_file_is_replaced_a_live_server_is_not) {
    close(open_at_path(bind));  // a crash leaves the file
    EXPECT_EQ(nsmd_server_listen(s, path.c_str()), 0);
    ASSERT_TRUE(file_is_there());
    EXPECT_EQ(file.st_mode & 07777, 0660U);
    nsmd_server* second = make();
    EXPECT_LT(nsmd_server_listen(second, path.c_str()), 0);
    EXPECT_EQ(log.count("another server is there"), 1);
    nsmd_server_free(second);
    nsm_test_client c{open_at_path(::connect)};  // the refused one took nothing away
    c.hello();
    loop.run(1);
    EXPECT_EQ(c.take(), "ack 0");
    nsmd_server_free(std::exchange(s, nullptr));
    EXPECT_FALSE(file_is_there());
}

TEST_F(listening, the_end_leaves_a_successors_file_alone) {
    EXPECT_EQ(nsmd_server_listen(s, path.c_str()), 0);
    const std::string keep = path + "2";
    ASSERT_EQ(rename(path.c_str(), keep.c_str()), 0);  // its inode stays taken
    nsmd_server* successor = make();
    EXPECT_EQ(nsmd_server_listen(successor, path.c_str()), 0);
    nsmd_server_free(std::exchange(s, successor));
    EXPECT_TRUE(file_is_there());
    unlink(keep.c_str());
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
