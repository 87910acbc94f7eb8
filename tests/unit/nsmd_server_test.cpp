// Sessions of the NSM server over socket pairs, and its listening socket.
#include "nsmd/nsm_server.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "nsmd_support.h"

namespace {

struct server : testing::Test {
    log_lines log;
    virtual_loop loop;
    nsm_server* s = nullptr;
    texts calls;
    std::size_t status_size = 0;
    std::vector<nsmd_port> ports;

    void SetUp() override {
        s = nsm_server_create(&loop.ctx, {dump, request, clients, status, this});
        ASSERT_NE(s, nullptr);
    }
    void TearDown() override { nsm_server_free(s); }
    static void dump(void* arg, nsm_peer* peer) {
        auto* t = static_cast<server*>(arg);
        for (const auto& p : t->ports) nsm_server_send_port(t->s, peer, p);
        nsm_server_send_clock(t->s, peer, 2, 0);
    }
    static void request(void* arg, std::uint16_t type, const std::uint32_t (&w)[NSM_REQUEST_WORDS]) {
        static_cast<server*>(arg)->calls.push_back("request " + std::to_string(type) + " " +
                                                   std::to_string(w[0]) + " " + std::to_string(w[1]) + " " +
                                                   std::to_string(w[2]));
    }
    static void clients(void* arg, std::uint32_t count, bool clean) {
        static_cast<server*>(arg)->calls.push_back("clients " + std::to_string(count) +
                                                   (clean ? " clean" : ""));
    }
    static bool status(void* arg, text_buffer* out) {
        for (std::size_t i = 0; i < static_cast<server*>(arg)->status_size; ++i)
            if (!text_printf(out, "%c", static_cast<int>('a' + i % 26))) return false;
        return true;
    }
    void connect(nsm_test_client* c, bool hello = true) {
        const int fd = c->make_pair();
        loop.descriptors.push_back(fd);
        ASSERT_NE(nsm_server_adopt(s, fd), nullptr);
        if (!hello) return;
        c->hello();
        loop.run(1);
    }
    static nsmd_port port(std::uint32_t index, const char* name, bool up) {
        nsmd_port p{};
        p.ifindex = index;
        p.kernel_ifindex = index + 1000;
        p.up = up;
        std::strcpy(p.name, name);
        return p;
    }
    texts take() { return std::exchange(calls, {}); }
};

TEST_F(server, hello_is_answered_by_the_dump_and_then_changes_follow) {
    ports = {port(3, "sw3", true), port(4, "fifteen-octets-", false)};
    nsm_test_client c;
    connect(&c, false);
    nsm_server_send_clock(s, nullptr, 4, 1);  // before HELLO: not for this one
    c.hello();
    loop.run(1);
    EXPECT_EQ(c.take_all(),
              (texts{"ack 0", "add 3 1003 sw3 up", "add 4 1004 fifteen-octets- down", "clock 2 0", "sync"}));
    nsm_server_send_link(s, port(3, "sw3", false));
    nsm_server_send_port_gone(s, port(3, "sw3", false));
    bridge_identity b{};
    std::strcpy(b.name, "br0");
    b.mac[5] = 7;
    nsm_server_send_bridge(s, nullptr, b);
    EXPECT_EQ(c.take_all(), (texts{"down 3", "delete 3 1", "bridge br0 7"}));
    EXPECT_EQ(take(), (texts{"clients 1"}));
}

TEST_F(server, requests_arrive_with_their_words) {
    nsm_test_client c;
    connect(&c);
    take();
    c.say(206, {1});
    c.say(207, {2});
    c.say(208, {0});
    c.say(209, {3, 0});
    c.say(210, {3, 1, 2});
    c.say(206, {0, 77, 88, 99});  // later versions may add fields
    loop.run(1);
    EXPECT_EQ(take(), (texts{"request 206 1 0 0", "request 207 2 0 0", "request 208 0 0 0",
                             "request 209 3 0 0", "request 210 3 1 2", "request 206 0 0 0"}));
}

TEST_F(server, each_client_has_its_own_sequence_and_goes_alone) {
    nsm_test_client a, b;
    connect(&a);
    nsm_server_send_clock(s, nullptr, 3, 0);
    connect(&b);
    nsm_server_send_clock(s, nullptr, 4, 0);
    EXPECT_EQ(a.take_all(), (texts{"ack 0", "clock 2 0", "sync", "clock 3 0", "clock 4 0"}));
    EXPECT_EQ(b.take_all(), (texts{"ack 0", "clock 2 0", "sync", "clock 4 0"}));
    a.hang_up();
    loop.run(1);
    nsm_server_send_clock(s, nullptr, 2, 0);
    EXPECT_EQ(b.take_all(), (texts{"clock 2 0"}));
    b.say(NSM_MSG_BYE);
    b.hang_up();
    loop.run(1);
    EXPECT_EQ(take(), (texts{"clients 1", "clients 2", "clients 1", "clients 0 clean"}));
}

TEST_F(server, another_version_is_refused_and_closed) {
    nsm_test_client c;
    connect(&c, false);
    c.say(NSM_MSG_HELLO, {2U << 16 | 36, 0});
    loop.run(1);
    EXPECT_EQ(c.take_all(), (texts{"ack 1", "closed"}));
    EXPECT_TRUE(take().empty());
}

TEST_F(server, malformed_messages_are_dropped_said_once_a_minute_and_the_link_stays) {
    nsm_test_client c;
    connect(&c, false);
    c.say(206, {1});
    loop.run(1);
    EXPECT_EQ(log.count("before HELLO"), 1);
    c.hello();
    loop.run(1);
    take();
    const auto bad_round = [&] {
        c.send_octets({0, 206, 0});
        c.send_octets({0, 206, 0, 13, 0, 0, 0, 1, 0, 0, 0, 1});
        c.send_octets({0, 206, 0, 10, 0, 0, 0, 1, 0, 0});
        c.say(999, {1});
        c.say(NSM_MSG_LINK_UP, {1});  // the server's own message
        c.say(206, std::vector<std::uint32_t>(100, 1));
        c.hello();
        loop.run(1);
    };
    for (int i = 0; i < 3; ++i) bad_round();
    for (const char* text : {"message shorter than a header", "length field differs", "body too short",
                             "unknown message type", "message too long", "HELLO a second time"})
        EXPECT_EQ(log.count(text), 1) << text;
    loop.run(61000);
    bad_round();
    EXPECT_EQ(log.count("length field differs"), 2);
    EXPECT_TRUE(take().empty());
    c.say(206, {1});
    loop.run(1);
    EXPECT_EQ(take(), (texts{"request 206 1 0 0"}));
}

TEST_F(server, a_slow_client_loses_nothing_until_its_queue_is_full) {
    nsm_test_client slow, other;
    connect(&slow);
    connect(&other);
    for (std::uint32_t i = 0; i < 5000; ++i) {
        nsm_server_send_clock(s, nullptr, i, 0);
        if (i % 100 == 0) (void)other.take_all();
    }
    (void)other.take_all();
    texts got = slow.take_all();
    for (int i = 0; i < 100 && got.size() < 5003; ++i) {
        loop.run(1);
        const texts more = slow.take_all();
        got.insert(got.end(), more.begin(), more.end());
    }
    ASSERT_EQ(got.size(), 5003U);
    EXPECT_EQ(got.back(), "clock 4999 0");
    EXPECT_EQ(log.count("too slowly"), 0);
}

TEST_F(server, a_client_that_never_reads_is_closed_and_costs_a_bounded_queue) {
    nsm_test_client slow, other;
    connect(&slow);
    connect(&other);
    const auto before = memmgr_type_stats(MTYPE_TEXT).peak_octets;
    for (std::uint32_t i = 0; i < 40000; ++i) {
        nsm_server_send_clock(s, nullptr, i, 0);
        if (i % 100 == 0) (void)other.take_all();
    }
    EXPECT_EQ(log.count("too slowly"), 1);
    EXPECT_LE(memmgr_type_stats(MTYPE_TEXT).peak_octets, before + 600 * 1024);  // doubling included
    loop.run(1);
    EXPECT_EQ(take().back(), "clients 1");
    (void)other.take_all();
    nsm_server_send_clock(s, nullptr, 4, 0);
    EXPECT_EQ(other.take_all(), (texts{"clock 4 0"}));
}

TEST_F(server, status_is_given_in_pieces_also_without_hello) {
    status_size = 1000;
    nsm_test_client c;
    connect(&c, false);
    c.say(NSMD_MSG_STATUS_GET);
    loop.run(1);
    std::string all;
    for (std::string m; (m = c.take()) != "text ";) {
        ASSERT_EQ(m.substr(0, 5), "text ");
        all += m.substr(5);
    }
    EXPECT_EQ(all.size(), 1000U);
    EXPECT_EQ(all.substr(0, 3), "abc");
    EXPECT_TRUE(take().empty());  // no session began
}

TEST_F(server, too_many_clients_are_turned_away) {
    nsm_test_client c[17];
    for (int i = 0; i < 16; ++i) connect(&c[i]);
    const int fd = c[16].make_pair();
    EXPECT_EQ(nsm_server_adopt(s, fd), nullptr);
    EXPECT_EQ(c[16].take(), "closed");
    c[0].hang_up();
    loop.run(1);
    connect(&c[16]);
    EXPECT_EQ(c[16].take(), "ack 0");
}

TEST_F(server, memory_that_runs_out_costs_the_session_only) {
    for (std::uint64_t nth = 1; nth <= 6; ++nth) {
        nsm_test_client c;
        const int fd = c.make_pair();
        loop.descriptors.push_back(fd);
        memmgr_fail_at(nth);
        (void)nsm_server_adopt(s, fd);
        if (c.fd >= 0) {
            std::uint8_t hello[16] = {0, 1, 0, 16, 0, 0, 0, 1, 0, 1, 0, 36};
            (void)!send(c.fd, hello, sizeof hello, MSG_NOSIGNAL);
        }
        loop.run(1);
        for (std::uint32_t i = 0; i < 500; ++i) nsm_server_send_clock(s, nullptr, i, 0);
        memmgr_fail_at(0);
        c.hang_up();
        loop.run(1);
    }
    nsm_test_client c;
    connect(&c);
    EXPECT_EQ(c.take(), "ack 0");
}

// With the system's own loop: files, connections, descriptors.
struct listening : testing::Test {
    log_lines log;
    lib_globals ctx{};
    char directory[32] = "/tmp/nsmdtest.XXXXXX";
    std::string path;
    void SetUp() override {
        memory_init(0);
        ctx.master = thread_master_create();
        ASSERT_NE(mkdtemp(directory), nullptr);
        path = std::string(directory) + "/sock";
    }
    void TearDown() override {
        thread_master_finish(ctx.master);
        unlink(path.c_str());
        EXPECT_EQ(rmdir(directory), 0);
    }
    nsm_server* make() {
        return nsm_server_create(
            &ctx,
            {[](void*, nsm_peer*) {}, [](void*, std::uint16_t, const std::uint32_t(&)[NSM_REQUEST_WORDS]) {},
             [](void*, std::uint32_t, bool) {}, [](void*, text_buffer*) { return true; }, nullptr});
    }
    int dial() const {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strcpy(a.sun_path, path.c_str());
        if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
        close(fd);
        return -1;
    }
    // Turns the loop until a message is there for the client; the deadline is the test's.
    std::string await(nsm_test_client* c) {
        const nanoseconds deadline = monotonic_now() + 5 * NS_PER_S;
        for (;;) {
            const std::string m = c->take();
            if (!m.empty() || monotonic_now() > deadline) return m;
            thread event;
            thread_add_timer_msec(
                &ctx, [](thread*) { return 0; }, nullptr, 5);
            if (thread_fetch(&ctx, &event)) thread_call(&event);
        }
    }
};

TEST_F(listening, serves_with_mode_0660_and_removes_its_file) {
    nsm_server* s = make();
    ASSERT_EQ(nsm_server_listen(s, path.c_str()), 0);
    struct stat file {};
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 07777, 0660U);
    nsm_test_client c;
    c.fd = dial();
    ASSERT_GE(c.fd, 0);
    c.hello();
    EXPECT_EQ(await(&c), "ack 0");
    nsm_server_free(s);
    EXPECT_NE(stat(path.c_str(), &file), 0);
}

TEST_F(listening, a_stale_file_is_replaced_a_live_server_is_not) {
    const int dead = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::strcpy(a.sun_path, path.c_str());
    ASSERT_EQ(bind(dead, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    close(dead);  // a crash leaves the file
    nsm_server* first = make();
    ASSERT_EQ(nsm_server_listen(first, path.c_str()), 0);
    nsm_server* second = make();
    EXPECT_LT(nsm_server_listen(second, path.c_str()), 0);
    EXPECT_EQ(log.count("another server is there"), 1);
    nsm_server_free(second);
    const int fd = dial();  // the refused one took nothing away
    EXPECT_GE(fd, 0);
    close(fd);
    nsm_server_free(first);
}

TEST_F(listening, the_end_leaves_a_successors_file_alone) {
    nsm_server* s = make();
    ASSERT_EQ(nsm_server_listen(s, path.c_str()), 0);
    const std::string keep = path + "2";
    ASSERT_EQ(rename(path.c_str(), keep.c_str()), 0);  // its inode stays taken
    nsm_server* successor = make();
    ASSERT_EQ(nsm_server_listen(successor, path.c_str()), 0);
    nsm_server_free(s);
    struct stat file {};
    EXPECT_EQ(stat(path.c_str(), &file), 0);
    nsm_server_free(successor);
    unlink(keep.c_str());
}

TEST_F(listening, a_directory_that_is_not_there_is_said) {
    nsm_server* s = make();
    EXPECT_LT(nsm_server_listen(s, "/nonexistent/x/sock"), 0);
    EXPECT_EQ(log.count("can't listen on /nonexistent/x/sock"), 1);
    nsm_server_free(s);
}

TEST_F(listening, descriptors_that_run_out_are_waited_for) {
    nsm_server* s = make();
    ASSERT_EQ(nsm_server_listen(s, path.c_str()), 0);
    nsm_test_client c;
    c.fd = dial();
    ASSERT_GE(c.fd, 0);
    c.hello();
    rlimit old{}, none{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    none = {3, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const nanoseconds deadline = monotonic_now() + 5 * NS_PER_S;
    thread event;
    while (log.count("can't take a client") == 0 && monotonic_now() < deadline) {
        thread_add_timer_msec(
            &ctx, [](thread*) { return 0; }, nullptr, 5);
        if (thread_fetch(&ctx, &event)) thread_call(&event);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(log.count("can't take a client"), 1);
    EXPECT_EQ(await(&c), "ack 0");
    nsm_server_free(s);
}

}  // namespace
