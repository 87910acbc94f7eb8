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
    nsmd_server* s = nullptr;
    texts calls;

    void SetUp() override {
        const auto status = [](void*, text_buffer*) { return true; };
        s = nsmd_server_create(&loop.ctx, {dump, request, clients, status, this});
        ASSERT_NE(s, nullptr);
    }
    void TearDown() override { nsmd_server_free(s); }
    static void dump(void* arg, nsmd_peer* peer) {
        nsmd_server_send_clock(static_cast<server*>(arg)->s, peer, 2, 0);
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
    texts called() {
        loop.run(1);
        return std::exchange(calls, {});
    }
};

TEST_F(server, each_client_has_its_own_sequence_and_goes_alone) {
    nsm_test_client a, b, silent;
    connect(&a);
    ASSERT_TRUE(adopt(&silent));
    nsmd_server_send_clock(s, nullptr, 3, 0);
    connect(&b);
    nsmd_server_send_clock(s, nullptr, 4, 0);
    EXPECT_EQ(a.take_all(), (texts{"ack 0", "clock 2 0", "sync", "clock 3 0", "clock 4 0"}));
    EXPECT_EQ(b.take_all(), (texts{"ack 0", "clock 2 0", "sync", "clock 4 0"}));
    a.hang_up();
    loop.run(1);
    nsmd_server_send_clock(s, nullptr, 2, 0);
    EXPECT_EQ(b.take_all(), texts{"clock 2 0"});
    EXPECT_EQ(silent.take_all(), texts{});  // it has not said HELLO
    b.say(NSM_MSG_BYE);
    b.hang_up();
    EXPECT_EQ(called(), (texts{"clients 1", "clients 2", "clients 1", "clients 0 clean"}));
}

TEST_F(server, another_version_is_refused_and_closed) {
    nsm_test_client c;
    ASSERT_TRUE(adopt(&c));
    c.hello(2);
    EXPECT_EQ(called(), texts{});
    EXPECT_EQ(c.take_all(), (texts{"ack 1", "closed"}));
}

TEST_F(server, malformed_messages_are_dropped_said_once_a_minute_and_the_link_stays) {
    nsm_test_client c;
    ASSERT_TRUE(adopt(&c));
    c.say(206, {1});
    loop.run(1);
    EXPECT_EQ(log.count("before HELLO"), 1);
    c.hello();
    (void)called();
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
    EXPECT_EQ(called(), texts{});
    c.say(206, {1, 77, 88, 99});  // later versions may add fields
    c.say(210, {3, 1, 2});
    EXPECT_EQ(called(), (texts{"request 206 1 0 0", "request 210 3 1 2"}));
}

TEST_F(server, a_slow_client_loses_nothing_until_its_queue_is_full) {
    nsm_test_client slow, other;
    connect(&slow);
    connect(&other);
    send_clocks(5000, &other);
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
    send_clocks(40000, &other);
    EXPECT_EQ(log.count("too slowly"), 1);
    EXPECT_LE(memmgr_type_stats(MTYPE_TEXT).peak_octets, before + 600 * 1024);  // doubling included
    EXPECT_EQ(called().back(), "clients 1");
    (void)other.take_all();
    nsmd_server_send_clock(s, nullptr, 4, 0);
    EXPECT_EQ(other.take_all(), texts{"clock 4 0"});
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

// With the system's own loop: files, connections, descriptors.
struct listening : testing::Test {
    log_lines log;
    lib_globals ctx{};
    char directory[32] = "/tmp/nsmdtest.XXXXXX";
    std::string path;
    struct stat file {};

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
    nsmd_server* make() {
        return nsmd_server_create(
            &ctx,
            {[](void*, nsmd_peer*) {}, [](void*, std::uint16_t, const std::uint32_t(&)[NSM_REQUEST_WORDS]) {},
             [](void*, std::uint32_t, bool) {}, [](void*, text_buffer*) { return true; }, nullptr});
    }
    nsmd_server* serve() {
        nsmd_server* s = make();
        EXPECT_EQ(nsmd_server_listen(s, path.c_str()), 0);
        return s;
    }
    bool file_is_there() { return stat(path.c_str(), &file) == 0; }
    sockaddr_un address() const {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strcpy(a.sun_path, path.c_str());
        return a;
    }
    bool dial(nsm_test_client* c) const {
        const sockaddr_un a = address();
        c->fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0);
        return connect(c->fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    }
    // Turns the loop until it is so; the deadline is the test's.
    void await(const std::function<bool()>& is_so) {
        const nanoseconds deadline = monotonic_now() + 5 * NS_PER_S;
        const auto nothing = [](thread*) { return 0; };
        thread event;
        while (!is_so() && monotonic_now() < deadline) {
            thread_add_timer_msec(&ctx, nothing, nullptr, 5);
            if (thread_fetch(&ctx, &event)) thread_call(&event);
        }
    }
    void expect_served(nsm_test_client* c) {
        std::string answer;
        await([&] { return !(answer = c->take()).empty(); });
        EXPECT_EQ(answer, "ack 0");
    }
};

TEST_F(listening, a_stale_file_is_replaced_a_live_server_is_not) {
    const int dead = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    const sockaddr_un a = address();
    ASSERT_EQ(bind(dead, reinterpret_cast<const sockaddr*>(&a), sizeof a), 0);
    close(dead);  // a crash leaves the file
    nsmd_server *first = serve(), *second = make();
    ASSERT_TRUE(file_is_there());
    EXPECT_EQ(file.st_mode & 07777, 0660U);
    EXPECT_LT(nsmd_server_listen(second, path.c_str()), 0);
    EXPECT_EQ(log.count("another server is there"), 1);
    nsmd_server_free(second);
    nsm_test_client c;  // the refused one took nothing away
    ASSERT_TRUE(dial(&c));
    c.hello();
    expect_served(&c);
    nsmd_server_free(first);
    EXPECT_FALSE(file_is_there());
}

TEST_F(listening, the_end_leaves_a_successors_file_alone) {
    nsmd_server* s = serve();
    const std::string keep = path + "2";
    ASSERT_EQ(rename(path.c_str(), keep.c_str()), 0);  // its inode stays taken
    nsmd_server* successor = serve();
    nsmd_server_free(s);
    EXPECT_TRUE(file_is_there());
    nsmd_server_free(successor);
    unlink(keep.c_str());
}

TEST_F(listening, descriptors_that_run_out_are_waited_for) {
    nsmd_server* s = serve();
    nsm_test_client c;
    ASSERT_TRUE(dial(&c));
    c.hello();
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    const rlimit none = {3, old.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    await([&] { return log.count("can't take a client") > 0; });
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_EQ(log.count("can't take a client"), 1);
    expect_served(&c);
    nsmd_server_free(s);
}

}  // namespace
