// Terminals: batch sessions, limits, slow and rude clients; interactive sessions with prompts, help,
// completion, pages and log lines; the TCP terminal and its passwords. The clients live in the process of the
// test: the loop is turned until what is waited for is there, or a deadline has passed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>

#include "suite/base/octets.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"
#include "unit/suite_host_support.h"

namespace {

struct Client {
    int fd = -1;
    std::string got;
    bool closed = false;
    std::string printed, statuses;  // of a batch session: all output, and a digit a line

    ~Client() { drop(); }
    void open(const void* address, socklen_t size) {
        const auto* to = static_cast<const sockaddr*>(address);
        fd = socket(to->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(connect(fd, to, size), 0);
        fcntl(fd, F_SETFL, O_NONBLOCK);
    }
    void open(const std::string& path) {
        sockaddr_un address{AF_UNIX, ""};
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        open(&address, sizeof address);
    }
    void drop() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    // Octets that the socket took.
    std::size_t put(std::string_view text) {
        const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        return sent < 0 ? 0 : static_cast<std::size_t>(sent);
    }
    void take() {
        char chunk[65536];
        const ssize_t count = recv(fd, chunk, sizeof chunk, 0);
        if (count > 0) got.append(chunk, static_cast<std::size_t>(count));
        if (count == 0 || (count < 0 && errno != EAGAIN)) closed = true;
    }
    bool has(const std::string& text) {
        take();
        return got.find(text) != std::string::npos;
    }
    // So many lines of the batch session have been answered.
    bool answered(std::size_t count) {
        for (take(); got.size() >= BATCH_FRAME_HEADER;) {
            const auto* head = reinterpret_cast<const std::uint8_t*>(got.data());
            const std::size_t length = get_be32({head, got.size()}, 1);
            if (got.size() < BATCH_FRAME_HEADER + length) break;
            const std::string body = got.substr(BATCH_FRAME_HEADER, length);
            if (head[0] == BATCH_OUTPUT) printed += body;
            if (head[0] == BATCH_STATUS) statuses += static_cast<char>('0' + body[0]);
            got.erase(0, BATCH_FRAME_HEADER + length);
        }
        return statuses.size() >= count;
    }
};

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}
// A line as a batch session takes it.
std::string request(const std::string& line) {
    std::uint8_t head[4];
    put_be32(head, 0, static_cast<std::uint32_t>(line.size()));
    return std::string(head, head + 4) + line;
}
const std::string SHOW_VERSION = request("show version");

const cli_element show_lines = {"show lines <1-100000>", [](cli* session, int, char** argv) {
                                    for (int i = 1; i <= std::atoi(argv[0]); i++)
                                        session->out_func(session->out_val, "line %d\n", i);
                                    return CLI_SUCCESS;
                                }};

class Terminal : public Host {
  protected:
    Terminal() {
        write_file(config, "hostname sw\n");
        read_from(config);
        EXPECT_EQ(local_terminal_start(ctx->terminals, socket_path.c_str()), 0);
        EXPECT_EQ(cli_install(ctx->ctree, EXEC_MODE, &show_lines), 0);
    }
    // Turns the loop until `done`; false after twenty seconds.
    bool pump(const std::function<bool()>& done) {
        const nanoseconds deadline = monotonic_now() + 20 * NS_PER_S;
        while (!done()) {
            if (monotonic_now() > deadline) return false;
            run_loop(ctx, 2, [n = 0]() mutable { return n++ > 0; });
        }
        return true;
    }
    bool closes(Client* c) {
        return pump([&] {
            c->take();
            return c->closed;
        });
    }
    bool sessions_become(std::size_t count) {
        return pump([&] { return ctx->terminals->session_count == count; });
    }
    void open_batch(Client* c, const char* hello = "batch\n") {
        c->open(socket_path);
        c->put(hello);
    }
    void open(Client* c, const char* hello = "interactive 24 80 xterm\n") {
        c->open(socket_path);
        talk(c, hello, "sw#");
    }
    // What came until `end` was there, `end` included.
    std::string talk(Client* c, std::string_view keys, const std::string& end) {
        c->got.clear();
        c->put(keys);
        EXPECT_TRUE(pump([&] { return c->has(end); })) << "[" << c->got << "]";
        return c->got;
    }
    // A talk, line by line: keys, what ends the answer, what it holds and what not.
    struct step {
        std::string keys, end, has, has_not = "\v";
    };
    void expect(Client* c, const std::vector<step>& steps) {
        for (const step& s : steps) {
            const std::string answer = talk(c, s.keys, s.end);
            EXPECT_TRUE(holds(answer, s.has)) << s.keys << ": " << answer;
            EXPECT_FALSE(holds(answer, s.has_not)) << s.keys << ": " << answer;
        }
    }

    const std::string socket_path = folder + "/vty";
};

TEST_F(Terminal, BatchLinesAreAnsweredInOrderWithTheirStatus) {
    Client c, stranger;
    open_batch(&c);
    for (const char* l : {"show version", "", "configure terminal", "hostname x", "nonsense", "do sho ver"})
        c.put(request(l));
    ASSERT_TRUE(pump([&] { return c.answered(6); }));
    const std::string version = std::string("esmcd version ") + lib_version() + "\n";
    EXPECT_EQ(c.printed, version + "% Unknown command\n" + version);
    EXPECT_EQ(c.statuses, "000010");
    c.put(request("end") + request("exit") + SHOW_VERSION);
    ASSERT_TRUE(closes(&c));
    c.answered(8);
    EXPECT_EQ(c.statuses, "00001002") << "behind the end of the session nothing is run";
    open_batch(&stranger, "GET / HTTP/1.0\n");
    EXPECT_TRUE(closes(&stranger));
}

TEST_F(Terminal, RequestsMayComeInAnyPiecesAndOfAnySize) {
    Client c;
    c.open(socket_path);
    const std::string stream = "batch\n" + SHOW_VERSION + request(std::string(60'000, 'x')) +
                               request(std::string("\0\n\x1b", 3)) + request(std::string(200'000, 'y')) +
                               SHOW_VERSION + std::string("\0\0\0\x09half", 8);
    std::size_t sent = 0;
    ASSERT_TRUE(pump([&] {
        sent += c.put(std::string_view(stream).substr(sent, sent < 40 ? 1 : 5000));
        if (sent == stream.size()) shutdown(c.fd, SHUT_WR);
        return c.answered(5) && c.closed;
    }));
    EXPECT_EQ(c.statuses, "01110");
    EXPECT_TRUE(holds(c.printed, "% Line too long\n"));
}

TEST_F(Terminal, ClientThatDoesNotReadIsBounded) {
    Client c;
    open_batch(&c);
    for (int times = 0; times < 4; times++) c.put(request("show lines 100000"));
    ASSERT_TRUE(sessions_become(1));
    ASSERT_TRUE(sessions_become(0)) << "more output than a session may hold, and nobody reads it";
    EXPECT_LE(memmgr_type_stats(MTYPE_TEXT).peak_octets, 400u * 1024)
        << "256 KiB, and the half of it before it grew";
}

TEST_F(Terminal, MemoryMayBeShortAtAnyPoint) {
    for (std::uint64_t n = 1; n < 40; n++) {
        Client c;
        open_batch(&c);
        c.put(SHOW_VERSION + request("show interfaces | count"));
        memmgr_fail_at(n);
        ASSERT_TRUE(pump([&] {
            return c.answered(2) || c.closed || memmgr_type_stats(MTYPE_THREAD).failures > 3;
        })) << n;
        memmgr_fail_at(0);
        c.drop();
        ASSERT_TRUE(sessions_become(0)) << n;
    }
}

TEST_F(Terminal, PromptsHelpAndCompletionFollowTheModes) {
    bind("eth1", 1);
    bind("eth12", 2);
    Client c;
    open(&c);
    EXPECT_EQ(talk(&c, "show version\r", "#"),
              std::string("show version\r\nesmcd version ") + lib_version() + "\r\nsw#");
    expect(&c, {{"show ?", "sw#show ", "running-config", "% "},
                {"\x15show ver\t", "version ", ""},
                {"?", "sw#show version ", "<cr>"},
                {"\x03", "sw#", ""},
                {"nonsense ?", "% Unknown command", ""},
                {"\x15"
                 "configure terminal\r",
                 "sw(config)#", ""},
                {"hostname other\r", "other(config)#", ""},
                {"interface e\t", "eth1", ""},
                {"\t", "#interface eth1", "eth12"},  // both names are listed
                {"\r", "other(config-if)#", ""},
                {"\x04", "other(config)#", ""},
                {"\x1a", "other#", ""}});
    c.put("exit\r");
    EXPECT_TRUE(closes(&c));
}

TEST_F(Terminal, OutputComesInPages) {
    Client c;
    open(&c);
    expect(&c, {{"show lines 60\r", "--More--", "line 23\r\n", "line 24"},
                {"\r", "--More--", "line 24\r\n", "line 25"},
                {" ", "--More--", "line 47\r\n"},
                {" ", "sw#", "line 60\r\n"},
                {"show lines 60\r", "--More--", ""},
                {"q", "sw#", "", "line"},
                {"show lines 23\r", "line 23\r\nsw#", "", "More"},
                {"terminal length 0\r", "sw#", ""},
                {"show lines 900\r", "line 900\r\nsw#", "", "More"}});
    Client leaving, small;
    open(&leaving);
    leaving.put("show lines 100\rshow version\rshow ver");
    shutdown(leaving.fd, SHUT_WR);
    ASSERT_TRUE(closes(&leaving));
    EXPECT_TRUE(holds(leaving.got, "line 100\r\n")) << "a client that leaves gets the pages too";
    open(&small, "interactive 1 0 dumb\n");
    const std::string ten_rows("\xff\xfa\x1f\x00\x50\x00\x0a\xff\xf0", 9);
    expect(&small, {{"show lines 100\r", "sw#", "", "More"},  // one row is no page
                    {ten_rows + "show lines 100\r", "--More--", "line 9\r\n"}});
}

TEST_F(Terminal, LogLinesAtTheTerminal) {
    Client c;
    open(&c);
    talk(&c, "terminal monitor\r", "sw#");
    talk(&c, "show v", "show v");
    c.got.clear();
    log_suite(LOG_LEVEL_WARNING, "a link went away");
    ASSERT_TRUE(pump([&] { return c.has("show v"); })) << "the line that is being typed is shown again";
    EXPECT_TRUE(holds(c.got, "warning a link went away\r\n"));
    for (int i = 0; i < 20000; i++) log_suite(LOG_LEVEL_WARNING, "flood %d", i);
    const session* s = ctx->terminals->sessions;
    EXPECT_LE(s->out.room, 128u * 1024);
    ASSERT_TRUE(pump([&] { return c.has("flood 0") && s->out.length == 0; }));
    log_suite(LOG_LEVEL_WARNING, "after the flood");
    ASSERT_TRUE(pump([&] { return c.has("after the flood"); }));
    EXPECT_TRUE(holds(c.got, "log lines not shown"));
    talk(&c, "\x15no terminal monitor\r", "sw#");
    log_suite(LOG_LEVEL_WARNING, "another one");
    expect(&c, {{"show version\r", "version", "", "another"}});
}

TEST_F(Terminal, IdleTerminalIsClosed) {
    Client c, batch;
    ctx->terminals->exec_timeout_s = 1;
    open(&c);
    open_batch(&batch);
    ASSERT_TRUE(closes(&c));
    EXPECT_TRUE(holds(c.got, "% Idle for too long"));
    EXPECT_EQ(ctx->terminals->session_count, 1u) << "a script may think as long as it likes";
}

class Tcp : public Terminal {
  protected:
    void SetUp() override {
        if (!password_supported()) GTEST_SKIP() << "built without crypt(3)";
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        socklen_t size = sizeof address;
        ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), size), 0);
        ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size), 0);
        close(probe);
        ctx->terminals->vty_port = ntohs(address.sin_port);
        tcp_terminal_start(ctx->terminals);
    }
    void set_password(const std::string& word) {
        Client c;
        open(&c);
        expect(&c,
               {{"configure terminal\r", "(config)#", ""}, {"password " + word + "\r", "\nsw(config)#", ""}});
    }
    void knock(Client* c, const std::string& answer) {
        c->open(&address, sizeof address);
        EXPECT_TRUE(pump([&] { return c->has(answer); })) << c->got;
    }
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
};

TEST_F(Tcp, PasswordIsKeptAsAHashAndOpensTheTerminal) {
    Client early, c;
    knock(&early, "% No terminal password is configured\r\n");
    EXPECT_TRUE(closes(&early));
    set_password("s3cret");
    const std::string hash = ctx->terminals->password;
    EXPECT_EQ(running(), "hostname sw\npassword encrypted " + hash + "\n");
    set_password("s3cret");
    EXPECT_NE(hash, ctx->terminals->password) << "a new salt each time";
    knock(&c, "\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1fPassword: ");
    expect(&c, {{{"s3cret\r\0", 8}, "sw#", "", "s3cret"},
                {{"show version\r\0", 14}, "esmcd version", ""},
                {"\xff\xf4\xff\xfd\x06", "\xff\xfc\x06", "^C"}});
}

TEST_F(Tcp, ThreeWrongPasswordsCostTimeAndMoreEachTime) {
    set_password("right");
    for (nanoseconds delay : {1 * NS_PER_S, 2 * NS_PER_S}) {
        Client c, other;
        knock(&c, "Password: ");
        for (const std::string& wrong : {std::string("wrong"), std::string(1000, 'x')})
            talk(&c, wrong + "\r", "Password: ");
        c.put("wrong\r");
        ASSERT_TRUE(pump([&] { return ctx->terminals->sessions->stage == session_stage::delayed; }));
        const nanoseconds start = monotonic_now();
        knock(&other, "% Too many wrong passwords");
        EXPECT_TRUE(closes(&other));
        c.put("right\r");
        ASSERT_TRUE(closes(&c));
        EXPECT_FALSE(holds(c.got, "sw#"));
        EXPECT_GE(monotonic_now() - start, delay - 50 * NS_PER_MS);
    }
    Client c;
    knock(&c, "Password: ");
    talk(&c, "right\r", "sw#");
}

TEST_F(Tcp, PasswordLines) {
    EXPECT_EQ(run("password encrypted plain", CONFIG_MODE), "% Not the hash of a password\n");
    EXPECT_STREQ(ctx->terminals->password, "");
    read("password s3cret\n");  // a clear one in the file is hashed
    const std::string saved = running();
    EXPECT_TRUE(saved.starts_with("password encrypted $y$")) << saved;
    read(saved);
    EXPECT_EQ(running(), saved);
    run("no password", CONFIG_MODE);
    EXPECT_EQ(running(), "");
    read("password two words\n");
    ASSERT_EQ(logged().size(), 1u);
    EXPECT_FALSE(holds(logged()[0], "two")) << "a password is not for the log";
}

}  // namespace
