// Interactive sessions: prompts, help, completion, pages, log lines; the TCP terminal and its passwords.
#include <sys/wait.h>

#include <memory>

#include "suite/cli_parse.h"
#include "suite/completion.h"
#include "unit/suite_terminal_support.h"

namespace {

using namespace host_support;

int print_lines(cli* session, int argc, char** argv) {
    int count = argc ? std::atoi(argv[0]) : 0;
    for (int i = 1; i <= count; i++) session->out_func(session->out_val, "line %d\n", i);
    return CLI_SUCCESS;
}
const cli_element print_lines_cmd = {"show lines <1-100000>", print_lines};

class Interactive : public Terminal {
  protected:
    void SetUp() override {
        Terminal::SetUp();
        read("hostname sw\n");
        ASSERT_EQ(cli_install(ctx->ctree, EXEC_MODE, &print_lines_cmd), 0);
    }
    void open(Client* c, const char* hello = "interactive 24 80 xterm\n") {
        ASSERT_TRUE(c->connect_local(socket_path));
        c->put(hello);
        ASSERT_TRUE(pump([&] { return c->has("sw#"); }));
        c->got.clear();
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
    talk(&c, "interface eth1\r", "sw(config-if)#");
    EXPECT_NE(talk(&c, "port 1\r", "(config-if)#").find("% Cannot configure"), std::string::npos);
    talk(&c, "exit\r", "sw(config)#");
    talk(&c, "hostname other\r", "other(config)#");
    talk(&c, "do show version\r", "other(config)#");
    talk(&c, "\x1a", "other#");
    talk(&c, "conf t\r", "other(config)#");
    talk(&c, "\x04", "other#");
    c.put("exit\r");
    EXPECT_TRUE(pump([&] { return c.is_closed(); }));
}

TEST_F(Interactive, HelpAndCompletion) {
    bind("eth1", 1);
    bind("eth12", 2);
    Client c;
    open(&c);
    std::string help = talk(&c, "show ?", "sw#show ");
    EXPECT_NE(help.find("running-config"), std::string::npos);
    EXPECT_NE(help.find("Version of the program"), std::string::npos);
    EXPECT_EQ(help.find("% "), std::string::npos);
    talk(&c, "ver\t", "version ");
    EXPECT_NE(talk(&c, "?", "sw#show version ").find("<cr>"), std::string::npos);
    talk(&c, "\x03", "sw#");
    talk(&c, "nonsense ?", "% Unknown command");
    talk(&c,
         "\x03"
         "conf t\r",
         "(config)#");
    talk(&c, "interface e\t", "eth1");
    EXPECT_NE(talk(&c, "\t", "#interface eth1").find("eth12"), std::string::npos) << "both names are listed";
    talk(&c,
         "\x15"
         "exec-timeout ?",
         "<0-35791>");
    EXPECT_EQ(ctx->host->exec_timeout_s, 600u) << "help runs nothing";
}

TEST_F(Interactive, OutputComesInPages) {
    Client c;
    open(&c);
    std::string page = talk(&c, "show lines 60\r", "--More--");
    EXPECT_NE(page.find("line 23\r\n"), std::string::npos);
    EXPECT_EQ(page.find("line 24"), std::string::npos);
    page = talk(&c, "\r", "--More--");
    EXPECT_NE(page.find("line 24\r\n"), std::string::npos);
    EXPECT_EQ(page.find("line 25"), std::string::npos);
    page = talk(&c, " ", "--More--");
    EXPECT_NE(page.find("line 47\r\n"), std::string::npos);
    page = talk(&c, " ", "sw#");
    EXPECT_NE(page.find("line 60\r\n"), std::string::npos);
    talk(&c, "show lines 60\r", "--More--");
    EXPECT_EQ(talk(&c, "q", "sw#").find("line"), std::string::npos);
    talk(&c, "show lines 60\r", "--More--");
    EXPECT_EQ(talk(&c, "\x03", "sw#").find("line"), std::string::npos);
    EXPECT_EQ(talk(&c, "show lines 23\r", "line 23\r\nsw#").find("More"), std::string::npos);
    talk(&c, "terminal length 0\r", "sw#");
    EXPECT_EQ(talk(&c, "show lines 900\r", "line 900\r\nsw#").find("More"), std::string::npos);
    talk(&c, "terminal length 5\r", "sw#");
    EXPECT_NE(talk(&c, "show lines 5\r", "--More--").find("line 4\r\n"), std::string::npos);
    talk(&c, "q", "sw#");
    talk(&c, "show lines 500 | include line 49\r", "--More--");
}

TEST_F(Interactive, ClientThatLeavesGetsThePagesToo) {
    Client c;
    open(&c);
    c.put("show lines 100\rshow version\rshow ver");
    shutdown(c.fd, SHUT_WR);
    ASSERT_TRUE(pump([&] { return c.is_closed(); }));
    EXPECT_NE(c.got.find("line 100"), std::string::npos);
}

TEST_F(Interactive, WindowSizeIsTakenOver) {
    Client c;
    open(&c, "interactive 0 0 dumb\n");
    EXPECT_EQ(talk(&c, "show lines 100\r", "sw#").find("More"), std::string::npos) << "no height, no pages";
    c.put(std::string_view("\xff\xfa\x1f\x00\x50\x00\x0a\xff\xf0", 9));
    EXPECT_NE(talk(&c, "show lines 100\r", "--More--").find("line 9\r\n"), std::string::npos);
}

TEST_F(Interactive, InterruptDropsOutputThatWaits) {
    Client c;
    open(&c);
    talk(&c, "terminal length 0\r", "sw#");
    c.put("show lines 20000\r");
    ASSERT_TRUE(pump([&] { return memmgr_type_stats(MTYPE_TEXT).octets > 10'000; }));
    c.put("show lines 3\r\x03");
    c.got.clear();
    ASSERT_TRUE(pump([&] { return c.has("^C\r\nsw#") || c.has("line 20000\r\n"); }));
    talk(&c, "show version\r", "esmcd version");
}

TEST_F(Interactive, LogLinesAtTheTerminal) {
    Client c;
    open(&c);
    talk(&c, "terminal monitor\r", "sw#");
    talk(&c, "show v", "show v");
    c.got.clear();
    log_suite(LOG_LEVEL_WARNING, "a link went away");
    ASSERT_TRUE(pump([&] { return c.has("show v"); }));
    EXPECT_NE(c.got.find("warning a link went away\r\n"), std::string::npos);
    talk(&c, "er\r", "version");
    talk(&c, "no terminal monitor\r", "sw#");
    log_suite(LOG_LEVEL_WARNING, "another one");
    EXPECT_EQ(talk(&c, "show version\r", "version").find("another"), std::string::npos);
    talk(&c, "terminal monitor\r", "sw#");
    for (int i = 0; i < 20000; i++) log_suite(LOG_LEVEL_WARNING, "flood %d", i);
    EXPECT_LE(ctx->host->sessions->out.room, 128u * 1024);
    ASSERT_TRUE(pump([&] { return c.has("flood 0") && ctx->host->sessions->out.length == 0; }));
    log_suite(LOG_LEVEL_WARNING, "after the flood");
    ASSERT_TRUE(pump([&] { return c.has("after the flood"); }));
    EXPECT_NE(c.got.find("log lines not shown"), std::string::npos);
}

TEST_F(Interactive, IdleTerminalIsClosed) {
    Client c, batch;
    ctx->host->exec_timeout_s = 1;
    open(&c);
    ASSERT_TRUE(batch.connect_local(socket_path));
    batch.put("batch\n");
    ASSERT_TRUE(pump([&] { return c.is_closed(); }));
    EXPECT_NE(c.got.find("% Idle for too long"), std::string::npos);
    EXPECT_EQ(sessions(), 1u) << "a script may think as long as it likes";
}

TEST_F(Interactive, LineThatIsTooLongIsNotRun) {
    Client c;
    open(&c);
    std::string keys = "show version " + std::string(5000, ' ') + "x\r";
    std::size_t sent = 0;
    ASSERT_TRUE(pump([&] {
        sent += c.put(std::string_view(keys).substr(sent));
        return c.has("% Line too long");
    }));
    EXPECT_EQ(c.got.find("esmcd version"), std::string::npos);
}

class Tcp : public Interactive {
  protected:
    void SetUp() override {
        Interactive::SetUp();
        if (!password_supported()) GTEST_SKIP() << "built without crypt(3)";
        int probe = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size), 0);
        close(probe);
        port = ntohs(address.sin_port);
        ctx->host->vty_port = port;
        tcp_terminal_start(ctx->host);
    }
    void set_password(const char* word) {
        Client c;
        open(&c);
        talk(&c, "configure terminal\r", "(config)#");
        talk(&c, std::string("password ") + word + "\r", "\nsw(config)#");
    }
    std::uint16_t port = 0;
};

TEST_F(Tcp, NoPasswordNoTerminal) {
    Client c;
    ASSERT_TRUE(c.connect_tcp(port));
    ASSERT_TRUE(pump([&] { return c.is_closed(); }));
    EXPECT_EQ(c.got, "% No terminal password is configured\r\n");
}

TEST_F(Tcp, PasswordIsKeptAsAHashAndOpensTheTerminal) {
    set_password("s3cret");
    std::string hash = ctx->host->password;
    EXPECT_TRUE(hash.starts_with("$y$")) << hash;
    EXPECT_EQ(running(), "hostname sw\npassword encrypted " + hash + "\n");
    set_password("s3cret");
    EXPECT_NE(hash, ctx->host->password) << "a new salt each time";
    Client c;
    ASSERT_TRUE(c.connect_tcp(port));
    ASSERT_TRUE(pump([&] { return c.has("Password: "); }));
    EXPECT_TRUE(c.got.starts_with(std::string("\xff\xfb\x01\xff\xfb\x03\xff\xfd\x1f", 9)));
    EXPECT_EQ(talk(&c, std::string_view("s3cret\r\0", 8), "sw#").find("s3cret"), std::string::npos);
    talk(&c, std::string_view("show version\r\0", 14), "esmcd version");
    EXPECT_NE(talk(&c, "\xff\xf4\xff\xfd\x06", "\xff\xfc\x06").find("^C"), std::string::npos);
}

TEST_F(Tcp, ThreeWrongPasswordsCostTimeAndMoreEachTime) {
    set_password("right");
    std::uint32_t seconds[2] = {1, 2};
    for (std::uint32_t expected : seconds) {
        Client c;
        ASSERT_TRUE(c.connect_tcp(port));
        ASSERT_TRUE(pump([&] { return c.has("Password: "); }));
        talk(&c, "wrong\r", "Password: ");
        talk(&c, std::string(1000, 'x') + "\r", "Password: ");
        c.got.clear();
        c.put("wrong\r");
        ASSERT_TRUE(pump([&] { return ctx->host->sessions->stage == session_stage::delayed; }));
        nanoseconds start = monotonic_now();
        Client other;
        ASSERT_TRUE(other.connect_tcp(port));
        ASSERT_TRUE(pump([&] { return other.is_closed(); }));
        EXPECT_NE(other.got.find("% Too many wrong passwords"), std::string::npos);
        c.put("right\r");
        ASSERT_TRUE(pump([&] { return c.is_closed(); }));
        EXPECT_EQ(c.got.find("sw#"), std::string::npos);
        EXPECT_GE(monotonic_now() - start, (expected * 1000 - 50) * NS_PER_MS);
    }
    Client c;
    ASSERT_TRUE(c.connect_tcp(port));
    ASSERT_TRUE(pump([&] { return c.has("Password: "); }));
    talk(&c, "right\r", "sw#");
}

TEST_F(Tcp, CheckingAPasswordHoldsNothingUp) {
    set_password("right");
    Client c, other;
    open(&other);
    ASSERT_TRUE(c.connect_tcp(port));
    ASSERT_TRUE(pump([&] { return c.has("Password: "); }));
    c.put("wrong\r");
    ASSERT_TRUE(pump([&] { return ctx->host->sessions->busy || ctx->host->sessions->next->busy; }));
    std::string answer = talk(&other, "show version\r", "esmcd version");
    EXPECT_TRUE(ctx->host->sessions->busy || ctx->host->sessions->next->busy)
        << "the other terminal is answered while the hash is computed";
    c.drop();
    ASSERT_TRUE(pump([&] { return sessions() == 1; }));
    pid_t child = waitpid(-1, nullptr, WNOHANG);
    ASSERT_TRUE(pump([&] { return child < 0 || waitpid(-1, nullptr, WNOHANG) < 0; }))
        << "no child is left behind";
}

TEST_F(Tcp, PasswordLines) {
    EXPECT_EQ(run("password encrypted plain", CONFIG_MODE), "% Not the hash of a password\n");
    EXPECT_EQ(run("password encrypted", CONFIG_MODE), "% Incomplete command\n");
    EXPECT_STREQ(ctx->host->password, "");
    stop();
    start();
    read("password s3cret\n");
    EXPECT_TRUE(std::string(ctx->host->password).starts_with("$y$")) << "a clear one in the file is hashed";
    std::string saved = running();
    EXPECT_EQ(saved.find("s3cret"), std::string::npos);
    stop();
    start();
    read(saved);
    EXPECT_EQ(running(), saved);
    EXPECT_EQ(run("no password", CONFIG_MODE), "");
    EXPECT_EQ(running(), "");
    logged.clear();
    stop();
    start();
    read("password two words\n");
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].find("two"), std::string::npos) << "a password is not for the log";
    ASSERT_EQ(local_terminal_start(ctx->host, socket_path.c_str()), 0);
}

TEST_F(Host, DifferenceOfConfigurations) {
    auto diff = [](std::string_view before, std::string_view now) {
        text_buffer out;
        EXPECT_TRUE(host_diff(before, now, &out));
        std::string result(out.view());
        text_free(&out);
        return result;
    };
    EXPECT_EQ(diff("", ""), "");
    EXPECT_EQ(diff("a\nb\n", "a\nb\n"), "");
    EXPECT_EQ(diff("a\nb\nc\n", "a\nc\nd\n"), "-b\n+d\n");
    EXPECT_EQ(diff("interface e1\n x\n y\n!\ninterface e2\n z\n!\n",
                   "interface e1\n x\n!\ninterface e2\n z\n w\n!\n"),
              " interface e1\n- y\n interface e2\n+ w\n");
    EXPECT_EQ(diff("", "g\ninterface e1\n x\n!\n"), "+g\n+interface e1\n+ x\n+!\n");
    EXPECT_EQ(diff("g\n", ""), "-g\n");
    std::string many, other;
    for (int i = 0; i < 3000; i++) {
        many += "line " + std::to_string(i) + "\n";
        other += "other " + std::to_string(i) + "\n";
    }
    std::string whole = diff(many, other);
    EXPECT_EQ(std::count(whole.begin(), whole.end(), '\n'), 6000);
    std::string changed = many;
    changed.replace(changed.find("line 17\n"), 8, "LINE 17\n");
    changed.replace(changed.find("line 2900\n"), 10, "");
    EXPECT_EQ(diff(many, changed), "-line 17\n+LINE 17\n-line 2900\n");
    read("hostname a\n");
    run("hostname b", CONFIG_MODE);
    EXPECT_EQ(run("show running-config diff"), "-hostname a\n+hostname b\n");
    run("write");
    EXPECT_EQ(run("show running-config diff"), "");
}

TEST_F(Host, EveryTokenOfThePlatformHasAHelpText) {
    memmgr_cli_init(ctx);
    cli_walk_tokens(
        ctx->ctree,
        [](void*, const cli_token_place& place) {
            for (const cli_element& own : commands)
                if (place.element == &own) return;
            EXPECT_NE(place.help, nullptr) << place.element->string << ": " << place.token;
        },
        nullptr);
}

}  // namespace
