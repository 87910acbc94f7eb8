// Configuration files of any octets, with all commands of the daemon: reading never fails it, and what is
// written afterwards reads back to the same text, also in the place of another configuration. Ports appear in
// the middle, so lines wait, and run.
#include "esmcd/board.h"
#include "esmcd/install.h"
#include "suite/host/host.h"
#include "suite/host/state.h"
#include "world.h"

namespace {

// Reads `text` into a fresh daemon, puts `other`, if any, in its place, and returns the running
// configuration.
std::string read_back(std::string_view text, bool ports, const std::string* other = nullptr) {
    const memory_file file(text), board("synce_support 1\n");
    ssm_board_use_file(board.path);
    virtual_daemon d;
    d.start(false);
    must(host_vty_init(g_p_esmcd) == 0 && ssm_install_commands(g_p_esmcd->ctree) == 0,
         "the daemon can be configured");
    d.in_event([&] { host_config_start(g_p_esmcd, file.path, 0); });
    if (ports)
        for (const char* name : {"eth1", "eth2"})
            d.deliver(NSM_MSG_LINK_ADD, link_body(static_cast<std::uint32_t>(name[3] - '0'), true, name));
    text_buffer answer;
    if (other)
        d.in_event([&] { must(host_config_replace(g_p_esmcd->host, *other, &answer), "it is replaced"); });
    text_free(&answer);
    d.check_records();
    text_buffer out;
    must(host_running_text(g_p_esmcd->host, &out), "the configuration can be told");
    std::string told(out.view());
    text_free(&out);
    d.stop();
    return told;
}

// Not for a fuzzer: files, and hashes that take their time. "do" lines are refused, "end" is harmless.
bool is_harmless(std::string_view line) {
    const auto skip = [&](std::string_view word) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t\r"), line.size()));
        if (line.starts_with(word)) line.remove_prefix(word.size());
    };
    skip("no");
    skip("");
    return !line.starts_with("lo") && line.find("pas") == line.npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text{reinterpret_cast<const char*>(data), size};
    for (std::size_t at = 0, end; at < size; at = end + 1) {
        end = std::min(text.find('\n', at), size);
        if (!is_harmless(text.substr(at, end - at))) return 0;
    }
    for (const bool ports : {false, true}) {
        const std::string first = read_back(text, ports);
        must(first == read_back(first, ports), "what is written reads back to the same");
        must(first == read_back("", ports, &first), "... in the place of nothing");
        const std::string nothing = read_back("", ports);
        must(nothing == read_back(text, ports, &nothing), "and nothing in its place");
    }
    return 0;
}
