// Terminals: batch sessions, limits, slow and rude clients; interactive sessions with prompts, help,
// completion, pages and log lines; the TCP terminal and its passwords. The clients live in the process of the
// test: the loop is turned until what is waited for is there, or a deadline has passed.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <algorithm>

#include "suite/base/octets.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"
#include "unit/suite_host_support.h"

namespace {

// The system's clock, which a test can make jump, and its descriptors.
nanoseconds jumped = 0;
int wait_for_ready(void* arg, int timeout_ms, thread_ready* out, int max);
lib_globals* looped = nullptr;
const thread_edges jumping = {[](void*) { return monotonic_now() + jumped; }, wait_for_ready, nullptr};
const auto* const set_edges = host_edges = &jumping;

int wait_for_ready(void*, int timeout_ms, thread_ready* out, int max) {
    std::vector<pollfd> all;
    for (std::size_t fd = 0; fd < looped->master->source_room; fd++) {
        const thread_source& s = looped->master->sources[fd];
        const int events = (s.read ? POLLIN : 0) | (s.write ? POLLOUT : 0);
        if (events) all.push_back({static_cast<int>(fd), static_cast<short>(events), 0});
    }
    int count = 0;
    if (poll(all.data(), all.size(), timeout_ms) > 0)
        for (const pollfd& p : all)
            if (p.revents && count < max)
                out[count++] = {p.fd, (p.revents & ~POLLOUT) != 0, (p.revents & ~POLLIN) != 0};
    return count;
}

struct Client {
    int fd = -1;
    std::string got;
    bool closed = false;
    std::string printed, statuses;  // of a batch session: all output, and a digit a line

    ~Client() { drop(); }
    void open(const void* address, socklen_t size, std::uint32_t from = 0) {
        const auto* to = static_cast<const sockaddr*>(address);
        fd = socket(to->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in source{AF_INET, 0, {htonl(from)}, {}};
        if (from) {
            ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&source), sizeof source), 0);
        }
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

// The same as a listing in parts, in one line without an end or in many.
template <char End>
int list_in_parts(cli* c, int, char** argv) {
    while (c->part.passed < static_cast<std::uint32_t>(std::atoi(argv[0]))) {
        c->out_func(c->out_val, "line %u%c", ++c->part.passed, End);
        if (cli_is_full(c)) return CLI_MORE;
    }
    return CLI_SUCCESS;
}
const cli_element show_listing = {"show listing <1-100000>", list_in_parts<'\n'>},
                  show_row = {"show row <1-100000>", list_in_parts<' '>};

class Terminal : public Host {
  protected:
    Terminal() {
        looped = ctx;
        write_file(config, "hostname sw\n");
        read_from(config);
        EXPECT_EQ(local_terminal_start(ctx->terminals, socket_path.c_str()), 0);
        for (const cli_element* show : {&show_lines, &show_listing, &show_row})
            EXPECT_EQ(cli_install(ctx->ctree, EXEC_MODE, show), 0);
    }
    // Turns the loop until `done`; false after twenty seconds.
    bool pump(const std::function<bool()>& done) {
        looped = ctx;
        const nanoseconds deadline = monotonic_now() + 20 * NS_PER_S;
        while (!done()) {
            if (monotonic_now() > deadline) return false;
            run_loop(ctx, 2, [n = 0]() mutable { return n++ > 0; });
        }
        return true;
    }
    // Runs what is due and ready now.
    void pump_some() {
        run_loop(ctx, 20, [] { return false; });
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
    Client c, asks, stranger;
    open_batch(&c);
    for (const char* l :
         {"show version", "", "configure terminal", "hostname x", "no hostname x", "!?", "!?", "do sho ver"})
        c.put(request(l));
    ASSERT_TRUE(pump([&] { return c.answered(8); }));
    const std::string version = std::string("esmcd version ") + lib_version() + "\n";
    EXPECT_EQ(c.printed, version + "% Unknown command\n  no hostname x\n              ^\n  <cr>\n" + version);
    EXPECT_EQ(c.statuses, "00001000");
    c.put(request("end") + request("exit") + SHOW_VERSION);
    ASSERT_TRUE(closes(&c));
    c.answered(10);
    EXPECT_EQ(c.statuses, "0000100002") << "behind the end of the session nothing is run";
    open_batch(&asks, "complete\n");
    for (const char* l :
         {"configure terminal", "do show ver\t", "host\t", "hostname\t \t", "nonsense \t", "hostname y\t "})
        asks.put(request(l));
    ASSERT_TRUE(pump([&] { return asks.answered(6); }));
    EXPECT_EQ(asks.printed, "version\nhostname\n") << "words are listed, and no line that asks is run";
    EXPECT_EQ(asks.statuses, "000010");
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

TEST_F(Terminal, ClientThatDoesNotReadIsBoundedAndClosedInTheEnd) {
    Client listing, whole, other;
    ctx->terminals->exec_timeout_s = 1;
    open_batch(&listing);
    listing.put(request("show listing 100000"));
    open_batch(&other);
    ASSERT_TRUE(sessions_become(2));
    pump_some();
    EXPECT_LE(memmgr_type_stats(MTYPE_TEXT).peak_octets, 100u * 1024)
        << "a part waits: 64 KiB, and the half of it before it grew";
    open_batch(&whole);
    for (int times = 0; times < 4; times++) whole.put(request("show lines 100000"));
    ASSERT_TRUE(sessions_become(3));
    other.put(SHOW_VERSION);
    EXPECT_TRUE(pump([&] { return other.answered(1); })) << "the others are served";
    EXPECT_TRUE(sessions_become(1)) << "nobody reads it";
    EXPECT_LE(memmgr_type_stats(MTYPE_TEXT).peak_octets, 500u * 1024)
        << "256 KiB, the half of it before it grew, and the listing's";
}

TEST_F(Terminal, ListingOfAnyLengthReachesWhoReadsIt) {
    Client batch, c;
    std::string expected, screen;
    for (int i = 1; i <= 100'000; i++) expected += "line " + std::to_string(i) + "\n";
    open_batch(&batch);
    for (const char* line : {"show listing 100000", "show listing 100000 | count", "show version"})
        batch.put(request(line));
    ASSERT_TRUE(pump([&] { return batch.answered(3); }));
    EXPECT_EQ(batch.statuses, "000");
    EXPECT_TRUE(batch.printed == expected + "100000\nesmcd version " + lib_version() + "\n");
    open(&c, "interactive 400 80 xterm\n");
    c.got.clear();
    c.put("show listing 100000\r");
    for (std::size_t pages = 0; !holds(c.got, "sw#"); pages++) {
        ASSERT_TRUE(pump([&] { return c.has("--More--") || holds(c.got, "sw#"); })) << pages;
        EXPECT_LE(std::ranges::count(c.got, '\n'), 401);
        screen += std::exchange(c.got, holds(c.got, "sw#") ? "sw#" : "");
        c.put(" ");
    }
    for (const char* part : {"\r\nline 1\r\nline 2\r\n", "\nline 99999\r\nline 100000\r\nsw#"})
        EXPECT_TRUE(holds(screen, part)) << part;
    EXPECT_EQ(std::ranges::count(screen, '\n'), 100'001);
    // Rows of the window are counted, not ends of lines; q drops what has not been made yet, Ctrl-C too.
    expect(&c, {{" \x15show row 100000\r", "--More--", "line 2000 ", "line 4000 "},
                {"q", "sw#", "", "line"},
                {"show listing 100000\r", "--More--", ""},
                {"q", "sw#", "", "line"},
                {"terminal length 0\r", "sw#", ""},
                {"show listing 100000\r\x03", "^C\r\nsw#", "line 1\r\n", "line 100000"},
                {"show version\r", "sw#", "esmcd version", "line"}});
}

// The limit holds for what is unread, and a frame that is still open is no exception in either direction.
TEST_F(Terminal, LongAnswerInPiecesIsWholeAndOnlyUnreadOutputCounts) {
    static const cli_element work = {"work", [](cli* c, int, char**) {
                                         session_write(session_of(c), "begun\n");
                                         session_of(c)->busy = true;
                                         return CLI_SUCCESS;
                                     }};
    EXPECT_EQ(cli_install(ctx->ctree, EXEC_MODE, &work), 0);
    Client c;
    open_batch(&c);
    c.put(request("work"));
    ASSERT_TRUE(pump([&] { return !c.answered(1) && c.printed == "begun\n"; }));
    session* s = ctx->terminals->sessions;
    std::string expected = c.printed;
    for (int piece = 0; piece < 50; piece++) {
        const std::string text = std::string(10'000, static_cast<char>('a' + piece % 26)) + "\n";
        session_write(s, text);
        ASSERT_TRUE(session_settle(s)) << "what has been read does not count";
        expected += text;
        ASSERT_TRUE(pump([&] { return !c.answered(1) && c.printed.size() == expected.size(); })) << piece;
    }
    session_finish(s, true);
    ASSERT_TRUE(pump([&] { return c.answered(1); }));
    EXPECT_EQ(c.printed, expected);
    c.put(request("work"));
    ASSERT_TRUE(pump([&] { return s->busy; }));
    for (int line = 0; line < 100'000 && !s->cut; line++) session_write(s, "0123456789\n");
    EXPECT_TRUE(s->cut) << "what is unread does";
    session_finish(s, true);
    ASSERT_TRUE(pump([&] { return c.answered(2); }));
    EXPECT_EQ(c.statuses, "01");
    EXPECT_TRUE(c.printed.ends_with("\n% The rest is too long to be shown\n"));
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
                {"do  shw ver | i x\r", "command\r\nother(config)#", "\r\n                  ^\r\n  c"},
                {"show lines 1\r", "other(config)#", "line 1\r\n"},
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

// A child reads and saves; the session gets its answer as from any other command.
TEST_F(Terminal, CommandsOnFilesAnswerWhenTheyAreDone) {
    Client batch, gone;
    std::string text = "hostname sw\n";
    for (int i = 0; i < 100; i++) text += "! " + std::to_string(i) + "\n";
    write_file(config, text);
    open_batch(&batch);
    for (const char* line : {"show startup-config | count", "configure terminal", "sh sta | include ! 57",
                             "hostname other", "do write", "do show running-config diff", "do show version"})
        batch.put(request(line));
    ASSERT_TRUE(pump([&] { return batch.answered(7); }));
    EXPECT_EQ(batch.statuses, "0000000");
    EXPECT_TRUE(batch.printed.starts_with("101\n! 57\nesmcd version")) << batch.printed;
    EXPECT_EQ(read_file(config), "hostname other\n");
    unlink(config.c_str());
    batch.put(request("do show startup-config"));
    ASSERT_TRUE(pump([&] { return batch.answered(8); }));
    EXPECT_EQ(batch.statuses.back(), '1');
    EXPECT_TRUE(batch.printed.ends_with("% No startup configuration\n")) << batch.printed;
    open_batch(&gone);
    gone.put(request("write"));
    gone.drop();
    EXPECT_TRUE(pump([&] { return read_file(config) == "hostname other\n"; })) << "it is saved all the same";
    EXPECT_TRUE(pump([&] { return ctx->host->tasks == nullptr; }));
}

TEST_F(Terminal, FileIsShownInPages) {
    Client c;
    write_file(config, "hostname sw\n!a\n!b\n!c\n!d\n!e\n");
    open(&c, "interactive 4 80 xterm\n");
    expect(&c, {{"show startup-config\r", "--More--", "!b", "!c"}, {"q", "sw#", "", "!c"}});
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

// To check against it would take hours.
const std::string SLOW_PASSWORD =
    "password encrypted $6$rounds=999999999$saltsaltsalt$" + std::string(86, 'x');

// Somebody else's place that becomes free: tried again, and said once each way.
TEST_F(Terminal, SocketThatIsTakenIsTriedAgain) {
    local_terminal_stop(ctx->terminals);
    unix_file theirs;
    const int other = unix_listen(socket_path.c_str(), SOCK_STREAM, 0660, &theirs);
    ASSERT_GE(other, 0);
    EXPECT_EQ(local_terminal_start(ctx->terminals, socket_path.c_str()), -1);
    pump([&] { return ctx->terminals->local_retry.delay_ms > 250; });
    close(other);
    EXPECT_TRUE(pump([&] { return ctx->terminals->local.ctx != nullptr; }));
    EXPECT_EQ(logged().size(), 1u);
}

class Tcp : public Terminal {
  protected:
    void SetUp() override {
        if (!password_supported()) GTEST_SKIP() << "built without crypt(3)";
        const int probe = socket(AF_INET, SOCK_STREAM, 0);
        socklen_t size = sizeof address;
        ASSERT_EQ(::bind(probe, reinterpret_cast<sockaddr*>(&address), size), 0);
        ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size), 0);
        ctx->terminals->vty_port = ntohs(address.sin_port);
        tcp_terminal_start(ctx->terminals);
        close(probe);
        ASSERT_TRUE(pump([&] { return !logged(LOG_LEVEL_INFO).empty(); })) << "the port is free again";
    }
    void set_password(const std::string& word) {
        Client c;
        open(&c);
        expect(&c,
               {{"configure terminal\r", "(config)#", ""}, {"password " + word + "\r", "\nsw(config)#", ""}});
    }
    void knock(Client* c, const std::string& answer, std::uint32_t from = 0) {
        c->open(&address, sizeof address, from);
        EXPECT_TRUE(pump([&] { return c->has(answer); })) << c->got;
    }
    // Sessions whose wrong password waits for its answer.
    std::size_t held() const {
        return count([](const session* s) { return s->stage == session_stage::held; });
    }
    std::size_t count(bool (*wanted)(const session*)) const {
        std::size_t found = 0;
        for (const session* s = ctx->terminals->sessions; s; s = s->next) found += wanted(s);
        return found;
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
                // Nobody knows where the line stands of who echoes himself.
                {"show x\r", "sw#", "\r\n  show x\r\n       ^\r\n"},
                {"\xff\xfd\x01show x\r", "sw#", "show x\r\n        ^\r\n"},
                {"\xff\xf4\xff\xfd\x06", "\xff\xfc\x06", "^C"}});
}

TEST_F(Tcp, WrongPasswordsAreAnsweredEverSlowerWhereverTheyComeFrom) {
    // Cheap to check: "right".
    run("password encrypted $5$rounds=1000$saltsaltsalt$/wzlLVdzX9UXqHn7OB3gzlBzcq/2w8Ba9rOGjhsiGNA",
        CONFIG_MODE);
    Client guessers[12], again, operators[2];
    std::uint32_t from = INADDR_LOOPBACK;
    for (Client& c : guessers) knock(&c, "Password: ", ++from);
    for (Client& c : guessers) c.put("wrong\r");
    const auto answered = [&] {
        return std::count_if(std::begin(guessers), std::end(guessers),
                             [](Client& c) { return c.has("% Wrong password"); });
    };
    ASSERT_TRUE(pump([&] { return held() + static_cast<std::size_t>(answered()) == std::size(guessers); }));
    for (int s = 0; s < 11; s++) {
        jumped += NS_PER_S;
        pump_some();
    }
    EXPECT_GE(answered(), 2) << "slow is not never";
    EXPECT_LE(answered(), 5) << "in all, as all of them are one";
    knock(&operators[0], "Password: ");
    talk(&operators[0], "right\r", "sw#");
    ASSERT_FALSE(operators[0].closed) << "and the right one is not answered slowly";
    EXPECT_EQ(logged(LOG_LEVEL_WARNING).size(), 2u) << "the first one, and the others in sum";
    EXPECT_TRUE(holds(logged(LOG_LEVEL_WARNING).back(), " 11 more wrong passwords in 10 s"));
    jumped += 3601 * NS_PER_S;
    ASSERT_TRUE(sessions_become(0));
    knock(&again, "Password: ");
    expect(&again, {{std::string(5000, 'x') + "\r", "Password: ", "% Line too long"}});
    for (int tries = 0; tries < 2; tries++)
        talk(&again, tries ? std::string(1000, 'x') + "\r" : "wrong\r", "Password: ");
    again.put("wrong\r");
    ASSERT_TRUE(closes(&again)) << "three tries a connection";
}

TEST_F(Tcp, WhoLeavesTakesItsHashAlong) {
    ctx->terminals->exec_timeout_s = 0;
    run(SLOW_PASSWORD, CONFIG_MODE);
    const std::string before = ctx->terminals->password;
    const auto children = [] {
        return read_file("/proc/self/task/" + std::to_string(gettid()) + "/children");
    };
    const auto one_child = [&] {
        const std::string all = children();
        return std::count(all.begin(), all.end(), ' ') == 1;
    };
    Client reset, gone, slow, command;
    for (Client* c : {&reset, &gone, &slow}) {
        knock(c, "Password: ");
        talk(c, "wrong\r", "\n");
    }
    open(&command);
    expect(&command, {{"configure terminal\r", "(config)#", ""}, {"password other\r", "\n", ""}});
    const std::string first = children();
    EXPECT_TRUE(one_child()) << first;
    gone.drop();
    command.drop();
    EXPECT_TRUE(sessions_become(2));
    EXPECT_EQ(children(), first);
    const linger hard{1, 0};
    setsockopt(reset.fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    reset.drop();
    EXPECT_TRUE(pump([&] { return one_child() && children() != first; })) << "it is the next one's turn";
    EXPECT_EQ(ctx->terminals->session_count, 1u);
    jumped += 20 * NS_PER_S;
    ASSERT_TRUE(closes(&slow)) << "a login that is not over by then";
    EXPECT_TRUE(holds(slow.got, "% Login took too long"));
    EXPECT_TRUE(pump([&] { return children().empty(); }));
    EXPECT_EQ(ctx->terminals->password, before);
}

TEST_F(Tcp, WhoSaysNothingKeepsNobodyOut) {
    set_password("right");
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit small{128, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &small);
    ASSERT_EQ(session_login_places(), SESSION_MAX);
    {
        Client silent[SESSION_MAX + 1], operators[2], local, late, patient;
        for (std::size_t i = 0; i < SESSION_MAX; i++) knock(&silent[i], "Password: ");
        silent[20].put("wrong\r");
        ASSERT_TRUE(pump([&] { return held() == 1; }));
        for (Client* gives_way : {&silent[20], &silent[0]}) {
            Client* c = &operators[gives_way == silent];
            knock(c, "Password: ");
            EXPECT_TRUE(closes(gives_way)) << "who was wrong, then the oldest";
            talk(c, "right\r", "sw#");
            if (gives_way != silent) knock(&silent[SESSION_MAX], "Password: ");  // the place that is free now
        }
        open(&local);
        EXPECT_EQ(ctx->terminals->session_count, SESSION_MAX + 2);
        run(SLOW_PASSWORD, CONFIG_MODE);
        knock(&late, "Password: ");
        for (Client& c : silent) c.put("wrong\r");
        late.put("wrong\r");
        ASSERT_TRUE(pump([&] { return count([](const session* s) { return s->busy; }) == SESSION_MAX; }));
        patient.open(&address, sizeof address);
        for (int rests = 0; rests < 3; rests++) {
            jumped += 100 * NS_PER_MS;
            pump_some();
        }
        EXPECT_FALSE(patient.has("%")) << "who comes while nobody can give way is not refused, but waits";
        jumped += 20 * NS_PER_S;
        EXPECT_TRUE(pump([&] { return patient.has("Password: "); }));
        EXPECT_EQ(ctx->terminals->session_count, 4u) << "he, and those who are inside";
    }
    setrlimit(RLIMIT_NOFILE, &limit);
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
