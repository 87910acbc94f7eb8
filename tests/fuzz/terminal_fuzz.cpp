// Whole terminal sessions: what a client sends over the local socket, from its first line on, in pieces of
// any size. The first octet says how large the pieces are. Whatever comes, the session ends when the client
// has gone, its output stays within its limit, and no memory is left behind.
#include <sys/socket.h>

#include <cstring>

#include "fuzz/fuzz.h"
#include "suite/base/memory.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/start/lib.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"

namespace {

nanoseconds now;
int server, client;
input in;
std::size_t piece;
unsigned rounds;
lib_globals* ctx;

// Each wait is a chance for the client: it sends a piece, or reads, or is gone.
int wait(void*, int, thread_ready* out, int) {
    char scratch[4096];
    now += NS_PER_MS;
    must(++rounds <= 200'000, "the session ends");
    while (recv(client, scratch, sizeof scratch, MSG_DONTWAIT) > 0) {
    }
    if (in.left) {
        const ssize_t sent = send(client, in.at, std::min(in.left, piece), MSG_DONTWAIT | MSG_NOSIGNAL);
        (void)in.take(sent > 0 ? static_cast<std::size_t>(sent) : 0);
    }
    if (in.left == 0) shutdown(client, SHUT_WR);
    out[0] = {server, true, true};
    return 1;
}

int print_many(cli* session, int, char** argv) {
    for (int i = std::atoi(argv[0]); i > 0; i--) session->out_func(session->out_val, "line %d\n", i);
    return CLI_SUCCESS;
}
const cli_element print_many_cmd = {"show lines <1-50000>", print_many};

void make_context() {
    static const thread_edges edges = {[](void*) { return now; }, wait, nullptr};
    ctx = lib_create("fuzz");
    must(ctx && lib_start(ctx) == 0, "the library starts");
    log_use_sink(LOG_SINK_STDERR, false);
    ctx->master = thread_master_create(&edges);
    must(ctx->master && host_vty_init(ctx) == 0, "the host starts");
    (void)cli_install(ctx->ctree, EXEC_MODE, &print_many_cmd);
    (void)if_add(ctx->ifm, "eth1", 1, IF_TYPE_SYNCE);
}

std::uint64_t blocks() {
    return memmgr_type_stats(MTYPE_TEXT).blocks + memmgr_type_stats(MTYPE_CLI_SESSION).blocks;
}

// Lines that reach beyond the process are not for a fuzzer.
bool harmless(const std::uint8_t* data, std::size_t size) {
    for (const char* word : {"wr", "co", "log", "pas"})
        if (memmem(data, size, word, std::strlen(word))) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (!ctx) make_context();
    if (size < 2 || !harmless(data, size)) return 0;
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) != 0) return 0;
    server = ends[0];
    client = ends[1];
    in = {data + 1, size - 1};
    piece = data[0] < 128 ? data[0] + 1u : 4096;
    rounds = 0;
    const std::uint64_t before = blocks();
    session* s = session_create(ctx, ends[0], session_kind::local);
    if (s) session_settle(s);
    thread event;
    while (ctx->terminals->session_count && thread_fetch(ctx, &event)) {
        thread_call(&event);
        const session* open = ctx->terminals->sessions;
        must(!open || open->out.length <= SESSION_OUTPUT_MAX, "output stays within its limit");
    }
    must(ctx->terminals->session_count == 0 && blocks() == before, "nothing is left of the session");
    close(ends[1]);
    return 0;
}
