// Interactive sessions: prompts, help, completion, pages, log lines; the TCP terminal and its passwords.
#include <sys/wait.h>

#include "unit/suite_terminal_support.h"

namespace {

using namespace host_support;

int print_lines(cli* session, int, char** argv) {
    const int count = std::atoi(argv[0]);
    for (int i = 1; i <= count; i++) session->out_func(session->out_val, "line %d\n", i);
    return CLI_SUCCESS;
}
const cli_element print_lines_cmd = {"show lines <1-100000>", print_lines};

bool holds(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class Interactive : public Terminal {
  protected:
    void SetUp() override {
        Terminal::SetUp();
        ASSERT_EQ(cli_install(ctx->ctree, EXEC_MODE, &print_lines_cmd), 0);
    }
    void open(Client* c, const char* hello = "interactive 24 80 xterm\n") {
        ASSERT_TRUE(c->connect_local(socket_path));
        talk(c, hello, "sw#");
    }
    // What came until `end` was there, `end` included.
    std::string talk(Client* c, std::string_view keys, const std::string& end) {
        c->got.clear();
        c->put(keys);
        EXPECT_TRUE(pump([&] { return c->has(end); })) << "[" << c->got << "]";
        return c->got;
    }
};

TEST_F(Interactive, PromptsFollowTheModes) {
    Client c;
    open(&c);
    EXPECT_EQ(talk(&c, "show version\r", "#"),
              std::string("show version\r\nesmcd version ") + lib_version() + "\r\nsw#");
    talk(&c, "configure terminal\r", "sw(config)#");
    talk(&c, "hostname other\r", "other(config)#");
    talk(&c, "interface eth1\r", "other(config-if)#");
    EXPECT_TRUE(holds(talk(&c, "port 1\r", "(config-if)#"), "% Cannot configure"));
    talk(&c, "\x1a", "other#");
    talk(&c, "conf t\rinterface eth1\r", "other(config-if)#");
    talk(&c, "exit\r", "other(config)#");
    talk(&c, "\x04", "other#");
    c.put("exit\r");
    EXPECT_TRUE(closes(&c));
}

TEST_F(Interactive, HelpAndCompletion) {
    bind("eth1", 1);
    bind("eth12", 2);
    Client c;
    open(&c);
    const std::string help = talk(&c, "show ?", "sw#show ");
    EXPECT_TRUE(holds(help, "running-config"));
    EXPECT_TRUE(holds(help, "Version of the program"));
    EXPECT_FALSE(holds(help, "% "));
    talk(&c, "ver\t", "version ");
    EXPECT_TRUE(holds(talk(&c, "?", "sw#show version "), "<cr>"));
    talk(&c, "\x03", "sw#");
    talk(&c, "nonsense ?", "% Unknown command");
    talk(&c, "\x15" + std::string("conf t\r"), "(config)#");
    talk(&c, "interface e\t", "eth1");
    EXPECT_TRUE(holds(talk(&c, "\t", "#interface eth1"), "eth12")) << "both names are listed";
}

TEST_F(Interactive, OutputComesInPages) {
    Client c;
    open(&c);
    std::string page = talk(&c, "show lines 60\r", "--More--");
    EXPECT_TRUE(holds(page, "line 23\r\n"));
    EXPECT_FALSE(holds(page, "line 24"));
    page = talk(&c, "\r", "--More--");
    EXPECT_TRUE(holds(page, "line 24\r\n"));
    EXPECT_FALSE(holds(page, "line 25"));
    EXPECT_TRUE(holds(talk(&c, " ", "--More--"), "line 47\r\n"));
    EXPECT_TRUE(holds(talk(&c, " ", "sw#"), "line 60\r\n"));
    for (const char* key : {"q", "\x03"}) {
        talk(&c, "show lines 60\r", "--More--");
        EXPECT_FALSE(holds(talk(&c, key, "sw#"), "line"));
    }
    EXPECT_FALSE(holds(talk(&c, "show lines 23\r", "line 23\r\nsw#"), "More"));
    talk(&c, "terminal length 0\r", "sw#");
    EXPECT_FALSE(holds(talk(&c, "show lines 900\r", "line 900\r\nsw#"), "More"));
    talk(&c, "terminal length 5\r", "sw#");
    EXPECT_TRUE(holds(talk(&c, "show lines 5\r", "--More--"), "line 4\r\n"));
}

TEST_F(Interactive, ClientThatLeavesGetsThePagesToo) {
    Client c;
    open(&c);
    c.put("show lines 100\rshow version\rshow ver");
    shutdown(c.fd, SHUT_WR);
    ASSERT_TRUE(closes(&c));
    EXPECT_TRUE(holds(c.got, "line 100\r\n"));
}

TEST_F(Interactive, WindowSizeIsTakenOver) {
    Client c;
    open(&c, "interactive 1 0 dumb\n");
    EXPECT_FALSE(holds(talk(&c, "show lines 100\r", "sw#"), "More")) << "one row is no page";
    c.put(std::string_view("\xff\xfa\x1f\x00\x50\x00\x0a\xff\xf0", 9));
    EXPECT_TRUE(holds(talk(&c, "show lines 100\r", "--More--"), "line 9\r\n"));
}

TEST_F(Interactive, InterruptDropsOutputThatWaits) {
    Client c;
    open(&c);
    talk(&c, "terminal length 0\r", "sw#");
    const session* s = ctx->host->sessions;
    const auto unsent = [s] { return s->out.length - s->sent; };
    c.put("show lines 30000\r");
    ASSERT_TRUE(pump([&] { return unsent() > 10'000; }));
    c.put("show lines 3\r\x03");
    ASSERT_TRUE(pump([&] { return unsent() < 10'000; })) << "nobody has read it meanwhile";
    EXPECT_FALSE(holds(talk(&c, "show version\r", "esmcd version"), "line 30000\r\n"));
}

TEST_F(Interactive, LogLinesAtTheTerminal) {
    Client c;
    open(&c);
    talk(&c, "terminal monitor\r", "sw#");
    talk(&c, "show v", "show v");
    c.got.clear();
    log_suite(LOG_LEVEL_WARNING, "a link went away");
    ASSERT_TRUE(pump([&] { return c.has("show v"); })) << "the line that is being typed is shown again";
    EXPECT_TRUE(holds(c.got, "warning a link went away\r\n"));
    talk(&c, "er\r", "version");
    for (int i = 0; i < 20000; i++) log_suite(LOG_LEVEL_WARNING, "flood %d", i);
    EXPECT_LE(ctx->host->sessions->out.room, 128u * 1024);
    ASSERT_TRUE(pump([&] { return c.has("flood 0") && ctx->host->sessions->out.length == 0; }));
    log_suite(LOG_LEVEL_WARNING, "after the flood");
    ASSERT_TRUE(pump([&] { return c.has("after the flood"); }));
    EXPECT_TRUE(holds(c.got, "log lines not shown"));
    talk(&c, "no terminal monitor\r", "sw#");
    log_suite(LOG_LEVEL_WARNING, "another one");
    EXPECT_FALSE(holds(talk(&c, "show version\r", "version"), "another"));
}

TEST_F(Interactive, IdleTerminalIsClosed) {
    Client c, batch;
    ctx->host->exec_timeout_s = 1;
    open(&c);
    open_batch(&batch);
    ASSERT_TRUE(closes(&c));
    EXPECT_TRUE(holds(c.got, "% Idle for too long"));
    EXPECT_EQ(ctx->host->session_count, 1u) << "a script may think as long as it likes";
}

class Tcp : public Interactive {
  protected:
    void SetUp() override {
        Interactive::SetUp();
        if (!password_supported()) GTEST_SKIP() << "built without crypt(3)";
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size), 0);
        close(probe);
        ctx->host->vty_port = ntohs(address.sin_port);
        tcp_terminal_start(ctx->host);
    }
    void set_password(const std::string& word) {
        Client c;
        open(&c);
        talk(&c, "configure terminal\r", "(config)#");
        talk(&c, "password " + word + "\r", "\nsw(config)#");
    }
    void knock(Client* c, const std::string& answer) {
        ASSERT_TRUE(c->connect_tcp(ctx->host->vty_port));
        EXPECT_TRUE(pump([&] { return c->has(answer); })) << c->got;
    }
};

TEST_F(Tcp, NoPasswordNoTerminal) {
    Client c;
    knock(&c, "% No terminal password is configured\r\n");
    EXPECT_TRUE(closes(&c));
}

TEST_F(Tcp, PasswordIsKeptAsAHashAndOpensTheTerminal) {
    set_password("s3cret");
    const std::string hash = ctx->host->password;
    EXPECT_TRUE(hash.starts_with("$y$")) << hash;
    EXPECT_EQ(running(), "hostname sw\npassword encrypted " + hash + "\n");
    set_password("s3cret");
    EXPECT_NE(hash, ctx->host->password) << "a new salt each time";
    Client c;
    knock(&c, "\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1fPassword: ");
    EXPECT_FALSE(holds(talk(&c, std::string_view("s3cret\r\0", 8), "sw#"), "s3cret"));
    talk(&c, std::string_view("show version\r\0", 14), "esmcd version");
    EXPECT_TRUE(holds(talk(&c, "\xff\xf4\xff\xfd\x06", "\xff\xfc\x06"), "^C"));
}

TEST_F(Tcp, ThreeWrongPasswordsCostTimeAndMoreEachTime) {
    set_password("right");
    for (nanoseconds delay : {1 * NS_PER_S, 2 * NS_PER_S}) {
        Client c, other;
        knock(&c, "Password: ");
        talk(&c, "wrong\r", "Password: ");
        talk(&c, std::string(1000, 'x') + "\r", "Password: ");
        c.put("wrong\r");
        ASSERT_TRUE(pump([&] { return ctx->host->sessions->stage == session_stage::delayed; }));
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

TEST_F(Tcp, CheckingAPasswordHoldsNothingUp) {
    set_password("right");
    Client c, other;
    open(&other);
    knock(&c, "Password: ");
    const session* asked = ctx->host->sessions;
    c.put("wrong\r");
    ASSERT_TRUE(pump([&] { return asked->busy; }));
    talk(&other, "show version\r", "esmcd version");
    EXPECT_TRUE(asked->busy) << "the other terminal is answered while the hash is computed";
    c.drop();
    ASSERT_TRUE(sessions_become(1));
    ASSERT_TRUE(pump([] { return waitpid(-1, nullptr, WNOHANG) < 0; })) << "no child is left behind";
}

TEST_F(Tcp, PasswordLines) {
    EXPECT_EQ(run("password encrypted plain", CONFIG_MODE), "% Not the hash of a password\n");
    EXPECT_STREQ(ctx->host->password, "");
    read_anew("password s3cret\n");
    EXPECT_TRUE(std::string(ctx->host->password).starts_with("$y$")) << "a clear one in the file is hashed";
    const std::string saved = running();
    EXPECT_FALSE(holds(saved, "s3cret"));
    read_anew(saved);
    EXPECT_EQ(running(), saved);
    EXPECT_EQ(run("no password", CONFIG_MODE), "");
    EXPECT_EQ(running(), "");
    read_anew("password two words\n");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_FALSE(holds(logged[0], "two")) << "a password is not for the log";
}

}  // namespace
