// The local terminal: batch sessions, limits, slow and rude clients.
#include <algorithm>
#include <memory>

#include "unit/suite_terminal_support.h"

namespace {

using namespace host_support;

const std::string SHOW_VERSION = request("show version");

TEST_F(Terminal, BatchLinesAreAnsweredInOrderWithTheirStatus) {
    Client c;
    open_batch(&c);
    for (const char* line :
         {"show version", "", "configure terminal", "hostname x", "nonsense", "do sho ver", "end"})
        c.put(request(line));
    ASSERT_TRUE(answers(&c, 7));
    const std::string version = std::string("esmcd version ") + lib_version() + "\n";
    EXPECT_EQ(c.printed, version + "% Unknown command\n" + version);
    EXPECT_EQ(c.statuses, "0000100");
    c.put(request("exit") + SHOW_VERSION);
    ASSERT_TRUE(closes(&c));
    c.answered(8);
    EXPECT_EQ(c.statuses, "00001002") << "behind the end of the session nothing is run";
}

TEST_F(Terminal, RequestsMayComeInAnyPiecesAndOfAnySize) {
    Client c;
    ASSERT_TRUE(c.connect_local(socket_path));
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
    EXPECT_NE(c.printed.find("% Line too long\n"), std::string::npos);
}

int print_much(cli* session, int, char**) {
    const std::string line(1000, 'm');
    for (int i = 0; i < 5000; i++) session->out_func(session->out_val, "%s\n", line.c_str());
    return CLI_SUCCESS;
}
const cli_element print_much_cmd = {"show much", print_much};

std::uint64_t terminal_octets() {
    return memmgr_type_stats(MTYPE_TEXT).octets + memmgr_type_stats(MTYPE_CLI_SESSION).octets;
}

TEST_F(Terminal, ClientThatDoesNotReadIsBounded) {
    ASSERT_EQ(cli_install(ctx->ctree, EXEC_MODE, &print_much_cmd), 0);
    const std::uint64_t before = terminal_octets();
    std::uint64_t most = 0;
    Client c;
    open_batch(&c);
    c.put(request("show much"));
    ASSERT_TRUE(sessions_become(1));
    ASSERT_TRUE(pump([&] {
        most = std::max(most, terminal_octets() - before);
        return ctx->host->session_count == 0;
    })) << "more output than a session may hold, and nobody reads it";
    EXPECT_GT(most, 0u);
    EXPECT_LE(most, 256u * 1024 + 16 * 1024);
}

TEST_F(Terminal, ThirtyTwoSessionsAndNoMore) {
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < SESSION_MAX; i++) {
        open_batch(clients.emplace_back(std::make_unique<Client>()).get());
        ASSERT_TRUE(sessions_become(i + 1));
    }
    Client late;
    open_batch(&late);
    ASSERT_TRUE(closes(&late));
    EXPECT_EQ(late.got, "% Too many sessions\r\n");
    clients.clear();
    ASSERT_TRUE(sessions_become(0));
}

TEST_F(Terminal, UnknownKindOfClientIsSentAway) {
    for (const std::string& hello : {std::string("GET / HTTP/1.0\n"), std::string(1000, 'x')}) {
        Client c;
        ASSERT_TRUE(c.connect_local(socket_path));
        c.put(hello);
        EXPECT_TRUE(closes(&c));
    }
}

TEST_F(Terminal, SocketFileOfALiveDaemonStaysAndAStaleOneGoes) {
    EXPECT_EQ(permissions(socket_path), 0660u);
    const auto start_second = [&] {
        lib_globals* first = ctx;
        start();
        const int result = local_terminal_start(ctx->host, socket_path.c_str());
        stop();
        ctx = first;
        return result;
    };
    EXPECT_EQ(start_second(), -1);
    Client c;
    EXPECT_TRUE(c.connect_local(socket_path));
    // The name of a socket that nobody holds any more.
    const std::string kept = directory + "/kept";
    ASSERT_EQ(link(socket_path.c_str(), kept.c_str()), 0);
    local_terminal_stop(ctx->host);
    EXPECT_FALSE(exists(socket_path));
    ASSERT_EQ(rename(kept.c_str(), socket_path.c_str()), 0);
    EXPECT_EQ(start_second(), 0);
    write_file(socket_path, "no socket");
    EXPECT_EQ(start_second(), -1);
    EXPECT_EQ(read_file(socket_path), "no socket");
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

}  // namespace
