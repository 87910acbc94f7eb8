// The platform's show commands. They read what the other units count; nothing here changes anything.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "suite/base/memory.h"
#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/host/state.h"
#include "suite/loop/thread.h"
#include "suite/ports/interface.h"
#include "suite/ports/slow_socket.h"
#include "suite/terminal/password.h"
#include "suite/terminal/session.h"

namespace {

int show_running(cli* terminal, int, char**) {
    cli_write_running(terminal->zg->ctree, terminal);
    return CLI_SUCCESS;
}

bool is_hash_line(const cli* terminal, std::string_view line) {
    cli_parsed parsed;
    cli_parse(terminal->zg->ctree, terminal, line, &parsed);
    return parsed.result == cli_result::ok && parsed.count == 3 &&
           cli_parsed_text(parsed, 1) == "encrypted" && password_is_hash(parsed.words[2]);
}

void print_line(cli* terminal, std::string_view line, std::size_t mark) {
    const cli config = host_plain_session(terminal->zg->host, CONFIG_MODE, nullptr, nullptr);
    const std::string_view content = slice(line, mark);
    const cli_visible visible = cli_visible_part(terminal->zg->ctree, &config, content);
    const bool whole = !visible.secret || is_hash_line(&config, content);
    const auto shown = static_cast<int>(whole ? line.size() : mark + visible.length);
    terminal->out_func(terminal->out_val, "%.*s%s", shown, line.data(), whole ? "" : " ...\n");
}

// The file's lines as they are, behind the `mark` octets that a difference puts in front. But octets that no
// terminal should get come as "?", and a password in clear, which only a file that was written by hand has,
// is left out.
void print_lines(cli* terminal, const text_buffer& text, std::size_t mark) {
    for (std::size_t i = 0; i < text.length; i++) {
        auto octet = static_cast<unsigned char>(text.data[i]);
        if ((octet < 0x20 && octet != '\n' && octet != '\t') || octet == 0x7f) text.data[i] = '?';
    }
    for (std::string_view rest = text.view(); !rest.empty();) {
        const std::size_t end = std::min(rest.find('\n'), rest.size() - 1) + 1;
        print_line(terminal, slice(rest, 0, end), mark);
        rest.remove_prefix(end);
    }
}

const char* config_path(const cli* terminal) {
    const char* path = terminal->zg->host->config_file;
    return path ? path : HOST_DEFAULT_CONFIG;
}

int show_startup(cli* terminal, int, char**) {
    const char* path = config_path(terminal);
    if (session_running(terminal)) return host_task_show(terminal, path);
    text_buffer text;
    int result = host_read_file(path, &text);
    if (result == 0)
        print_lines(terminal, text, 0);
    else if (result == -ENOENT)
        terminal->out_func(terminal->out_val, "%% No startup configuration\n");
    else
        terminal->out_func(terminal->out_val, "%% Can't read %s: %s\n", path, std::strerror(-result));
    text_free(&text);
    return result == 0 ? CLI_SUCCESS : CLI_ERROR;
}

int show_diff(cli* terminal, int, char**) {
    const char* path = config_path(terminal);
    if (session_running(terminal)) return host_task_show(terminal, path);
    host_state* host = terminal->zg->host;
    text_buffer before, now, out;
    int result = host_read_file(path, &before);
    bool good = result == 0 || result == -ENOENT;
    if (!good) terminal->out_func(terminal->out_val, "%% Can't read the file: %s\n", std::strerror(-result));
    if (good && !(host_running_text(host, &now) && host_diff(before.view(), now.view(), &out))) {
        terminal->out_func(terminal->out_val, "%% Out of memory\n");
        good = false;
    }
    if (good) print_lines(terminal, out, 1);
    text_free(&before);
    text_free(&now);
    text_free(&out);
    return good ? CLI_SUCCESS : CLI_ERROR;
}

int show_version(cli* terminal, int, char**) {
    terminal->out_func(terminal->out_val, "esmcd version %s\n", lib_version());
    return CLI_SUCCESS;
}

int show_interfaces(cli* terminal, int, char**) {
    terminal->out_func(terminal->out_val, "%-16s %5s %7s %-5s %-5s %-17s %10s %10s %8s\n", "Interface",
                       "Index", "Kernel", "Bound", "Link", "Address", "Frames in", "out", "errors");
    for (const interface* intf : if_list(terminal->ifm)) {
        slow_port_stats stats{};
        (void)slow_socket_port_stats(intf->ifindex, &stats);  // unknown there: nothing was counted
        const std::uint8_t* mac = intf->mac;
        terminal->out_func(terminal->out_val,
                           "%-16s %5u %7u %-5s %-5s %02x:%02x:%02x:%02x:%02x:%02x %10llu %10llu %8llu\n",
                           intf->name, intf->ifindex, intf->kernel_ifindex, intf->bound ? "yes" : "no",
                           intf->up ? "up" : "down", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5],
                           static_cast<unsigned long long>(stats.frames_in),
                           static_cast<unsigned long long>(stats.frames_out),
                           static_cast<unsigned long long>(stats.no_buffer + stats.again + stats.link_down +
                                                           stats.no_device + stats.other_errors));
    }
    return CLI_SUCCESS;
}

void print_count(cli* terminal, const char* what, std::uint64_t value) {
    terminal->out_func(terminal->out_val, "%-22s: %llu\n", what, static_cast<unsigned long long>(value));
}

int show_events(cli* terminal, int, char**) {
    if (!terminal->zg->master) return CLI_SUCCESS;
    thread_stats stats = thread_get_stats(terminal->zg);
    print_count(terminal, "Turns", stats.turns);
    print_count(terminal, "Timers run", stats.timers_run);
    print_count(terminal, "High-class events run", stats.high_run);
    print_count(terminal, "Other events run", stats.others_run);
    print_count(terminal, "Longest run (us)", stats.longest_run / 1000);
    print_count(terminal, "Timers pending", stats.timers_pending);
    print_count(terminal, "Reads pending", stats.reads_pending);
    print_count(terminal, "Writes pending", stats.writes_pending);
    return CLI_SUCCESS;
}

int show_memory(cli* terminal, int, char**) {
    terminal->out_func(terminal->out_val, "%-24s %10s %12s %12s %10s\n", "Type", "Blocks", "Octets", "Peak",
                       "Failures");
    memmgr_stats total{};
    for (memory_type type = 0; type < 1024; type++) {
        memmgr_stats stats = memmgr_type_stats(type);
        if (!stats.blocks && !stats.peak_octets && !stats.failures) continue;
        terminal->out_func(terminal->out_val, "%-24s %10llu %12llu %12llu %10llu\n", memmgr_type_name(type),
                           static_cast<unsigned long long>(stats.blocks),
                           static_cast<unsigned long long>(stats.octets),
                           static_cast<unsigned long long>(stats.peak_octets),
                           static_cast<unsigned long long>(stats.failures));
        total.blocks += stats.blocks;
        total.octets += stats.octets;
    }
    terminal->out_func(terminal->out_val, "%-24s %10llu %12llu\n", "Total",
                       static_cast<unsigned long long>(total.blocks),
                       static_cast<unsigned long long>(total.octets));
    return CLI_SUCCESS;
}

const cli_element show_commands[] = {
    {"show running-config", show_running},
    {"show version", show_version},
    {"show interfaces", show_interfaces},
    {"show events", show_events},
};
const cli_element file_commands[] = {
    {"show startup-config", show_startup},
    {"show running-config diff", show_diff},
};
const cli_element show_memory_cmd = {"show memory", show_memory};

const cli_help help_texts[] = {
    {"running-config", "diff", "What a save would change"},
    {"", "show", "Show state and configuration"},
    {"show", "events", "The event loop: runs, longest run, what is pending"},
    {"show", "interfaces", "Ports, their state and frames"},
    {"show", "memory", "Memory by purpose"},
    {"show", "version", "Version of the program"},
};

}  // namespace

int host_show_install(cli_tree* tree) {
    int result = 0;
    for (const cli_element& element : show_commands) result |= cli_install(tree, EXEC_MODE, &element);
    for (const cli_element& element : file_commands)
        result |= cli_install_gen(tree, EXEC_MODE, PRIVILEGE_NORMAL, CLI_FLAG_INTERACTIVE, &element);
    return result | cli_install_help(tree, help_texts, std::size(help_texts));
}

int memmgr_cli_init(lib_globals* ctx) {
    return cli_install(ctx->ctree, EXEC_MODE, &show_memory_cmd);
}
