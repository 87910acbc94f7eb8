// Configuration files of any octets: reading never fails the daemon, and what is written afterwards reads
// back to the same text. Ports appear in the middle, so lines wait, and run.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/host/state.h"
#include "suite/log/log.h"

namespace {

int accept_line(cli*, int, char**) {
    return CLI_SUCCESS;
}

int enter(cli* session, int, char** argv) {
    session->mode = INTERFACE_MODE;
    session->index = ifg_get_by_name(session->ifm, argv[0]);
    return CLI_SUCCESS;
}

const cli_element interface_cmd = {"interface IFNAME", enter};
const cli_element global_cmd = {"global (a|b|) <1-99>", accept_line};
const cli_element force_cmd = {"force IFNAME", accept_line};
const cli_element port_cmd = {"port (x|y)", accept_line};

lib_globals* start() {
    lib_globals* ctx = lib_create("fuzz");
    if (!ctx || lib_start(ctx) != 0) std::abort();
    log_use_sink(LOG_SINK_STDERR, false);
    if (host_vty_init(ctx) != 0) std::abort();
    (void)cli_install(ctx->ctree, CONFIG_MODE, &interface_cmd);
    (void)cli_install(ctx->ctree, CONFIG_MODE, &global_cmd);
    (void)cli_install_gen(ctx->ctree, CONFIG_MODE, 1, CLI_FLAG_AFTER_BIND, &force_cmd);
    (void)cli_install(ctx->ctree, INTERFACE_MODE, &port_cmd);
    return ctx;
}

// Reads `text` into a fresh host and returns its running configuration.
text_buffer read_back(std::string_view text, bool port) {
    lib_globals* ctx = start();
    int fd = memfd_create("configuration", 0);
    if (write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) std::abort();
    char path[64];
    std::snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    host_config_start(ctx, path, 0);
    if (port) {
        interface* intf = if_add(&ctx->ifm, "eth1", 1, IF_TYPE_SYNCE);
        if (intf) if_bind(&ctx->ifm, intf);
    }
    text_buffer out;
    if (!host_running_text(ctx->host, &out)) std::abort();
    lib_stop(ctx);
    close(fd);
    return out;
}

bool has(std::string_view text, const char* word) {
    return text.find(word) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text{reinterpret_cast<const char*>(data), size};
    // Not for a fuzzer: files, and hashes that take their time. "do" lines are refused, "end" is harmless.
    if (has(text, "lo") || has(text, "pas")) return 0;
    text_buffer first = read_back(text, false);
    text_buffer second = read_back(first.view(), false);
    if (first.view() != second.view()) std::abort();
    text_buffer bound = read_back(text, true);
    text_free(&first);
    text_free(&second);
    text_free(&bound);
    log_set_level(LOG_LEVEL_DEBUG);
    if (memmgr_type_stats(MTYPE_HOST).blocks || memmgr_type_stats(MTYPE_TEXT).blocks) std::abort();
    return 0;
}
