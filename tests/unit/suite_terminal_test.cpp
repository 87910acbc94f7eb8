// The local terminal: batch sessions, limits, slow and rude clients, and the shell program itself.
#include <sys/wait.h>

#include <csignal>
#include <memory>

#include "unit/suite_terminal_support.h"

namespace {

using namespace host_support;

TEST_F(Terminal, BatchLinesAreAnsweredInOrderWithTheirStatus) {
    read("");
    Client c;
    ASSERT_TRUE(c.connect_local(socket_path));
    std::string printed, statuses;
    c.put("batch\n");
    for (const char* line :
         {"show version", "", "configure terminal", "hostname x", "nonsense", "do sho ver", "end"})
        c.request(line);
    ASSERT_TRUE(pump([&] {
        c.frames(&printed, &statuses);
        return statuses.size() == 7;
    }));
    std::string version = std::string("esmcd version ") + lib_version() + "\n";
    EXPECT_EQ(printed, version + "% Unknown command\n" + version);
    EXPECT_EQ(statuses, "0000100");
    c.request("exit");
    c.request("show version");
    ASSERT_TRUE(pump([&] {
        c.frames(&printed, &statuses);
        return c.closed;
    }));
    EXPECT_EQ(statuses, "00001002") << "behind the end of the session nothing is run";
}

TEST_F(Terminal, RequestsMayComeInAnyPiecesAndOfAnySize) {
    read("");
    Client c;
    ASSERT_TRUE(c.connect_local(socket_path));
    std::string stream = "batch\n";
    auto request = [&](const std::string& line) {
        std::uint8_t head[4];
        put_be32(head, 0, static_cast<std::uint32_t>(line.size()));
        stream.append(reinterpret_cast<char*>(head), 4) += line;
    };
    request("show version");
    request(std::string(60'000, 'x'));
    request(std::string("\0\n\x1b", 3));
    std::size_t sent = 0;
    std::string printed, statuses;
    std::size_t piece = 1;
    request(std::string(200'000, 'y'));
    request("show version");
    ASSERT_TRUE(pump([&] {
        sent += c.put(std::string_view(stream).substr(sent, sent < 40 ? piece : 5000));
        c.frames(&printed, &statuses);
        return statuses.size() == 5;
    }));
    EXPECT_EQ(statuses, "01110");
    EXPECT_NE(printed.find("% Line too long\n"), std::string::npos);
}

TEST_F(Terminal, ClientThatHasSaidAllStillGetsItsAnswers) {
    read("");
    Client c;
    ASSERT_TRUE(c.connect_local(socket_path));
    c.put("batch\n");
    for (int i = 0; i < 50; i++) c.request("show version");
    c.put(
        std::string("\0\0\0\x09"
                    "half",
                    8));
    shutdown(c.fd, SHUT_WR);
    std::string printed, statuses;
    ASSERT_TRUE(pump([&] {
        c.frames(&printed, &statuses);
        return c.closed;
    }));
    EXPECT_EQ(statuses, std::string(50, '0'));
}

TEST_F(Terminal, OneLineATurn) {
    read("");
    Client busy, other;
    ASSERT_TRUE(busy.connect_local(socket_path));
    ASSERT_TRUE(other.connect_local(socket_path));
    busy.put("batch\n");
    for (int i = 0; i < 100; i++) busy.request("show version");
    other.put("batch\n");
    std::string printed, busy_done, other_done;
    ASSERT_TRUE(pump([&] { return sessions() == 2; }));
    other.request("show version");
    ASSERT_TRUE(pump([&] {
        other.frames(&printed, &other_done);
        return other_done.size() == 1;
    }));
    busy.frames(&printed, &busy_done);
    EXPECT_LT(busy_done.size(), 50u) << "the busy client's lines were all run before the other one's";
}

int print_much(cli* session, int, char**) {
    std::string line(1000, 'm');
    for (int i = 0; i < 5000; i++) session->out_func(session->out_val, "%s\n", line.c_str());
    return CLI_SUCCESS;
}
const cli_element print_much_cmd = {"show much", print_much};

std::uint64_t terminal_octets() {
    return memmgr_type_stats(MTYPE_TEXT).octets + memmgr_type_stats(MTYPE_CLI_SESSION).octets;
}

TEST_F(Terminal, ClientThatDoesNotReadIsBounded) {
    read("");
    ASSERT_EQ(cli_install(ctx->ctree, EXEC_MODE, &print_much_cmd), 0);
    ctx->host->exec_timeout_s = 1;
    std::uint64_t before = terminal_octets(), most = 0;
    Client greedy, rude, other;
    ASSERT_TRUE(greedy.connect_local(socket_path));
    greedy.put("batch\n");
    greedy.request("show much");
    ASSERT_TRUE(pump([&] { return sessions() == 1; }));
    ASSERT_TRUE(pump([&] {
        most = std::max(most, terminal_octets() - before);
        return sessions() == 0;
    })) << "more output than a session may hold, and nobody reads it";
    EXPECT_GT(most, 0u);
    EXPECT_LE(most, 256u * 1024 + 16 * 1024);

    ASSERT_TRUE(rude.connect_local(socket_path));
    rude.put("batch\n");
    ASSERT_TRUE(pump([&] { return sessions() == 1; }));
    ASSERT_TRUE(other.connect_local(socket_path));
    other.put("batch\n");
    ASSERT_TRUE(pump([&] { return sessions() == 2; }));
    std::string printed, statuses;
    ASSERT_TRUE(pump([&] {
        while (rude.put(std::string("\0\0\0\x0cshow version", 16))) {
        }
        most = std::max(most, terminal_octets() - before);
        if (statuses.empty() && printed.empty()) other.request("show version");
        other.frames(&printed, &statuses);
        return sessions() == 1;
    })) << "output that is never read ends the session after the idle limit";
    EXPECT_LE(most, 256u * 1024 + 16 * 1024);
    EXPECT_FALSE(statuses.empty()) << "others are served meanwhile";
}

TEST_F(Terminal, ThirtyTwoSessionsAndNoMore) {
    read("");
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < SESSION_MAX; i++) {
        clients.push_back(std::make_unique<Client>());
        ASSERT_TRUE(clients.back()->connect_local(socket_path));
        ASSERT_TRUE(pump([&] { return sessions() == i + 1; }));
    }
    Client late;
    ASSERT_TRUE(late.connect_local(socket_path));
    ASSERT_TRUE(pump([&] { return late.is_closed(); }));
    EXPECT_EQ(late.got, "% Too many sessions\r\n");
    clients.clear();
    ASSERT_TRUE(pump([&] { return sessions() == 0; }));
}

TEST_F(Terminal, UnknownKindOfClientIsSentAway) {
    Client c, d;
    ASSERT_TRUE(c.connect_local(socket_path));
    c.put("GET / HTTP/1.0\n");
    ASSERT_TRUE(pump([&] { return c.is_closed(); }));
    ASSERT_TRUE(d.connect_local(socket_path));
    d.put(std::string(1000, 'x'));
    ASSERT_TRUE(pump([&] { return d.is_closed(); }));
}

TEST_F(Terminal, SocketFileOfALiveDaemonStaysAndAStaleOneGoes) {
    struct stat status {};
    ASSERT_EQ(stat(socket_path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0660u);
    lib_globals* first = ctx;
    log_remove_tap(keep_error, nullptr);
    start();
    EXPECT_EQ(local_terminal_start(ctx->host, socket_path.c_str()), -1);
    Client c;
    EXPECT_TRUE(c.connect_local(socket_path));
    stop();
    ctx = first;
    local_terminal_stop(ctx->host);
    EXPECT_NE(access(socket_path.c_str(), F_OK), 0);
    int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, socket_path.c_str());
    ASSERT_EQ(::bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    close(stale);
    EXPECT_EQ(local_terminal_start(ctx->host, socket_path.c_str()), 0);
    local_terminal_stop(ctx->host);
    write_file(socket_path, "no socket");
    EXPECT_EQ(local_terminal_start(ctx->host, socket_path.c_str()), -1);
    EXPECT_EQ(read_file(socket_path), "no socket");
    log_add_tap(keep_error, nullptr);
}

TEST_F(Terminal, MemoryMayBeShortAtAnyPoint) {
    read("");
    for (std::uint64_t n = 1; n < 40; n++) {
        Client c;
        ASSERT_TRUE(c.connect_local(socket_path));
        c.put("batch\n");
        c.request("show version");
        c.request("show interfaces | count");
        memmgr_fail_at(n);
        std::string printed, statuses;
        ASSERT_TRUE(pump([&] {
            c.frames(&printed, &statuses);
            return c.closed || statuses.size() == 2 || memmgr_type_stats(MTYPE_THREAD).failures > 3;
        })) << n;
        memmgr_fail_at(0);
        c.drop();
        ASSERT_TRUE(pump([&] { return sessions() == 0; })) << n;
    }
}

// The shell as a program, beside the loop.
class Shell : public Terminal {
  protected:
    void SetUp() override {
        Terminal::SetUp();
        char self[4096];
        ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
        ASSERT_GT(length, 0);
        std::string path(self, static_cast<std::size_t>(length));
        path = path.substr(0, path.rfind('/'));
        for (std::string place : {path + "/../bin/esmcsh", path + "/esmcsh"})
            if (access(place.c_str(), X_OK) == 0) program = place;
        if (program.empty()) GTEST_SKIP() << "esmcsh is not built";
        read("");
    }
    // Runs esmcsh through a system shell; its exit status.
    int run_shell(const std::string& arguments) {
        std::string command = "ASAN_OPTIONS=detect_leaks=0 " + program + " -s " + socket_path + " " +
                              arguments + " >" + directory + "/out 2>" + directory + "/err";
        pid_t child = fork();
        if (child == 0) {
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            _exit(99);
        }
        int status = -1;
        EXPECT_TRUE(pump([&] { return waitpid(child, &status, WNOHANG) == child; }));
        out = read_file(directory + "/out");
        err = read_file(directory + "/err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    std::string program, out, err;
};

TEST_F(Shell, PrintsWhatTheCommandsPrintAndNothingElse) {
    std::string version = std::string("esmcd version ") + lib_version() + "\n";
    EXPECT_EQ(run_shell("-c 'show version'"), 0);
    EXPECT_EQ(out, version);
    EXPECT_EQ(err, "");
    EXPECT_EQ(run_shell("-c 'configure terminal' -c 'hostname sw' -c 'do show running-config'"), 0);
    EXPECT_EQ(out, "hostname sw\n");
    EXPECT_EQ(run_shell("-c 'hostname sw'"), 1) << "each call starts in the exec mode";
    EXPECT_EQ(out, "% Unknown command\n");
}

TEST_F(Shell, StopsAtTheFirstLineThatFails) {
    EXPECT_EQ(run_shell("-c 'show version' -c 'show nothing' -c 'show version'"), 1);
    EXPECT_EQ(out, std::string("esmcd version ") + lib_version() + "\n% Unknown command\n");
    EXPECT_EQ(run_shell("-c exit -c nonsense"), 0) << "the session was ended by its own command";
}

TEST_F(Shell, LinesOfStandardInput) {
    std::string arguments = "<" + directory + "/in";
    write_file(directory + "/in", "! comment\n\nconfigure terminal\nhostname y\nend\nshow running-config\n");
    EXPECT_EQ(run_shell(arguments), 0);
    EXPECT_EQ(out, "hostname y\n");
    EXPECT_EQ(run_shell("</dev/null"), 0);
    write_file(directory + "/in", "show nothing\nconfigure terminal\nhostname z\n");
    EXPECT_EQ(run_shell(arguments), 1);
    EXPECT_STREQ(host_name(ctx), "y");
    write_file(directory + "/in", "show version | count");
    EXPECT_EQ(run_shell(arguments), 0) << "a last line without a newline counts";
    EXPECT_EQ(out, "1\n");
}

TEST_F(Shell, ADaemonThatIsNotThere) {
    EXPECT_EQ(run_shell("-s /tmp/there-is-none/vty -c 'show version'"), 2);
    EXPECT_EQ(out, "");
    EXPECT_NE(err.find("/tmp/there-is-none/vty"), std::string::npos);
    EXPECT_EQ(run_shell("-x"), 1);
    EXPECT_EQ(run_shell("-h"), 0);
    EXPECT_NE(out.find("Exit status"), std::string::npos);
}

int die(cli* session, int, char**) {
    shutdown(session_of(session)->fd, SHUT_RDWR);
    return CLI_SUCCESS;
}
const cli_element die_cmd = {"show death", die};

TEST_F(Shell, ADaemonThatGoesAwayInTheMiddle) {
    ASSERT_EQ(cli_install(ctx->ctree, EXEC_MODE, &die_cmd), 0);
    EXPECT_EQ(run_shell("-c 'show death' -c 'show version'"), 2);
    EXPECT_NE(err.find("lost"), std::string::npos);
}

}  // namespace
