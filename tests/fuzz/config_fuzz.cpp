// Configuration files of any octets: reading never fails the daemon, and what is written afterwards reads
// back to the same text. Ports appear in the middle, so lines wait, and run.
#include "fuzz/fuzz.h"
#include "suite/base/memory.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/start/lib.h"

namespace {

int accept_line(cli*, int, char**) {
    return CLI_SUCCESS;
}

int enter(cli* session, int, char** argv) {
    session->mode = INTERFACE_MODE;
    session->index = ifg_get_by_name(session->ifm, argv[0]);
    return CLI_SUCCESS;
}

const struct {
    std::int32_t mode;
    std::uint16_t flags;
    cli_element element;
} COMMANDS[] = {{CONFIG_MODE, 0, {"interface IFNAME", enter}},
                {CONFIG_MODE, 0, {"global (a|b|) <1-99>", accept_line}},
                {CONFIG_MODE, CLI_FLAG_AFTER_BIND, {"force IFNAME", accept_line}},
                {INTERFACE_MODE, 0, {"port (x|y)", accept_line}}};

// Reads `text` into a fresh host and returns its running configuration.
text_buffer read_back(std::string_view text, bool port) {
    const memory_file file(text);
    lib_globals* ctx = lib_create("fuzz");
    must(ctx && lib_start(ctx) == 0 && host_vty_init(ctx) == 0, "the host starts");
    log_use_sink(LOG_SINK_STDERR, false);
    for (const auto& c : COMMANDS) (void)cli_install_gen(ctx->ctree, c.mode, 1, c.flags, &c.element);
    host_config_start(ctx, file.path, 0);
    if (port) {
        interface* intf = if_add(ctx->ifm, "eth1", 1, IF_TYPE_SYNCE);
        if (intf) if_bind(ctx->ifm, intf);
    }
    text_buffer out;
    must(host_running_text(ctx->host, &out), "the configuration can be told");
    lib_stop(ctx);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string_view text{reinterpret_cast<const char*>(data), size};
    // Not for a fuzzer: files, and hashes that take their time. "do" lines are refused, "end" is harmless.
    for (const char* word : {"lo", "pas"})
        if (text.find(word) != std::string_view::npos) return 0;
    text_buffer first = read_back(text, false);
    text_buffer second = read_back(first.view(), false);
    must(first.view() == second.view(), "what is written reads back to the same");
    text_buffer bound = read_back(text, true);
    for (text_buffer* t : {&first, &second, &bound}) text_free(t);
    log_set_level(LOG_LEVEL_DEBUG);
    for (const memory_type type : {MTYPE_HOST, MTYPE_TEXT})
        must(memmgr_type_stats(type).blocks == 0, "no memory is left");
    return 0;
}
