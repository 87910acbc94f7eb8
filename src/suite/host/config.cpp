// Reads the configuration file, line by line, through the commands that are installed. A line that is refused
// is logged with file and line number, and reading goes on. Lines for an interface that is not bound yet are
// kept (suite/host/pending.cpp). Lines may be of any length and hold any octets; one that is longer than a
// command can be is refused without being kept in memory.
//
// A configuration can be looked at in the same way, without a line being run (suite/host/replace.cpp).
#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/command/parse.h"
#include "suite/host/file.h"
#include "suite/host/state.h"
#include "suite/log/log.h"

namespace {

constexpr std::size_t LINE_MAX_OCTETS = 64 * 1024;
constexpr std::size_t LOGGED_MAX = 256;

struct config_reader {
    host_state* host;
    cli terminal;
    std::uint32_t number;  // of the line at hand, from 1
    text_buffer block;     // name of the interface whose block this is; empty: none
    bool refused_block;    // the block's own first line was refused: so are its lines
    text_buffer line;
    bool too_long;
    const host_config_look* look;  // null: lines are run, refusals logged
};

void leave_block(config_reader* r) {
    r->terminal.mode = CONFIG_MODE;
    r->terminal.index = nullptr;
    r->terminal.name[0] = 0;
    r->refused_block = false;
    text_clear(&r->block);
}

void show(const config_reader* r, std::string_view line, const cli_parsed* parsed) {
    r->look->visit(r->look->arg, {r->block.view(), line, r->number, &r->terminal, parsed});
}

void refuse(const config_reader* r, std::string_view line) {
    if (r->look) return show(r, line, nullptr);
    host_log_refused(r->host, r->number, line);
}

void keep(config_reader* r, std::string_view name, std::string_view line, const cli_command* command) {
    // It will be shown and saved as it is. What is refused here fits no command of an interface.
    const bool is_secret = cli_visible_part(r->host->ctx->ctree, &r->terminal, line).secret;
    if (!cli_is_plain(line) || is_secret) return refuse(r, line);
    if (pending_keep(r->host, name, line, r->number, command)) return;
    r->host->lossy = true;
    log_suite(LOG_LEVEL_ERROR, "%s:%u: no memory to keep this line", r->host->config_file, r->number);
}

bool is_bound(const config_reader* r, std::string_view name) {
    char text[IF_NAME_SIZE];
    if (name.size() >= sizeof text) return false;
    std::memcpy(text, name.data(), name.size());
    text[name.size()] = 0;
    const interface* intf = if_lookup_by_name(r->host->ctx->ifm, text);
    return intf && intf->bound;
}

void run(config_reader* r, std::string_view line, const cli_parsed& parsed) {
    bool starts_block = line.starts_with("interface");
    cli_result result = cli_run_line(r->host->ctx->ctree, &r->terminal, line);
    if (result != cli_result::ok) {
        refuse(r, line);
        r->refused_block = starts_block;
        return;
    }
    if (r->terminal.mode != INTERFACE_MODE) {
        if (r->terminal.mode != CONFIG_MODE) leave_block(r);  // "end", "exit"
        return;
    }
    if (parsed.command->mode == INTERFACE_MODE) return;
    std::string_view name = cli_parsed_last_argument(parsed);
    text_clear(&r->block);
    if (!text_append(&r->block, name.data(), name.size())) {
        r->host->lossy = true;
        refuse(r, line);
        leave_block(r);
        r->refused_block = true;
    }
}

// Commands that do no more than lead from one mode to another are run all the same.
bool only_moves(const cli_parsed& parsed) {
    const std::string_view string = parsed.command->element->string;
    return string == "interface IFNAME" || string == "exit" || string == "end";
}

void look_at(config_reader* r, std::string_view line, const cli_parsed& parsed) {
    const bool in_block = r->terminal.mode == INTERFACE_MODE;
    if (parsed.result != cli_result::ok) {
        if (!in_block || is_bound(r, r->block.view())) refuse(r, line);
        return;
    }
    if (only_moves(parsed)) return run(r, line, parsed);
    if (in_block && parsed.mode == CONFIG_MODE) leave_block(r);
    show(r, line, &parsed);
}

void take_content(config_reader* r, std::string_view line) {
    cli_parsed parsed;
    cli_parse(r->host->ctx->ctree, &r->terminal, line, &parsed);
    if (r->look && !r->look->runs) return look_at(r, line, parsed);
    bool ok = parsed.result == cli_result::ok;
    if (r->terminal.mode == INTERFACE_MODE && !is_bound(r, r->block.view())) {
        // A global command ends the block here as it would at a terminal.
        if (!ok || parsed.mode != CONFIG_MODE) return keep(r, r->block.view(), line, nullptr);
    }
    if (ok && (parsed.command->flags & CLI_FLAG_AFTER_BIND)) {
        std::string_view name = cli_parsed_last_argument(parsed);
        if (!is_bound(r, name)) {
            if (parsed.mode == CONFIG_MODE) leave_block(r);
            return keep(r, name, line, parsed.command);
        }
    }
    run(r, line, parsed);
}

void take_line(config_reader* r, std::string_view line) {
    bool first_column = !line.empty() && !cli_is_blank(line[0]);
    while (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::string_view content = line;
    while (!content.empty() && cli_is_blank(content[0])) content.remove_prefix(1);
    if (content.empty()) return;
    if (first_column || content[0] == '!') leave_block(r);
    if (content[0] == '!' || content[0] == '#') return;
    if (r->refused_block) return refuse(r, line);
    take_content(r, line);
}

void end_line(config_reader* r) {
    r->number++;
    if (r->too_long) {
        if (r->line.length && !cli_is_blank(r->line.data[0])) leave_block(r);
        refuse(r, r->line.view());
    } else {
        take_line(r, r->line.view());
    }
    text_clear(&r->line);
    r->too_long = false;
}

void take_octets(config_reader* r, const char* data, std::size_t count) {
    if (r->too_long) return;
    std::size_t fits = LINE_MAX_OCTETS - r->line.length;
    if (!text_append(&r->line, data, count < fits ? count : fits)) {
        r->too_long = true;
        r->host->lossy = true;
        log_suite(LOG_LEVEL_ERROR, "%s:%u: no memory for this line", r->host->config_file, r->number + 1);
    }
    if (count > fits) r->too_long = true;
}

void take_chunk(config_reader* r, const char* data, std::size_t count) {
    while (count) {
        const void* newline = std::memchr(data, '\n', count);
        if (!newline) return take_octets(r, data, count);
        auto length = static_cast<std::size_t>(static_cast<const char*>(newline) - data);
        take_octets(r, data, length);
        end_line(r);
        data += length + 1;
        count -= length + 1;
    }
}

// 0 at the end of the file, or a negative errno.
int read_lines(config_reader* r, int fd) {
    char chunk[4096];
    while (true) {
        ssize_t count = read(fd, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -errno;
        if (count == 0) break;
        take_chunk(r, chunk, static_cast<std::size_t>(count));
    }
    explicit_bzero(chunk, sizeof chunk);  // may hold a password
    return 0;
}

config_reader begin_reading(host_state* host, const host_config_look* look) {
    config_reader r{};
    r.host = host;
    r.terminal = host_plain_session(host, CONFIG_MODE, host_discard, nullptr);
    r.look = look;
    return r;
}

void end_reading(config_reader* r) {
    if (r->line.length || r->too_long) end_line(r);
    text_free(&r->line);
    text_free(&r->block);
}

// A line that was refused for want of memory alone would be lost by the next save.
std::uint64_t failed_allocations() {
    std::uint64_t failures = 0;
    for (memory_type type = 0; type < 1024; type++) failures += memmgr_type_stats(type).failures;
    return failures;
}

}  // namespace

void host_log_refused(host_state* host, std::uint32_t number, std::string_view line) {
    while (!line.empty() && cli_is_blank(line[0])) line.remove_prefix(1);
    while (!line.empty() && cli_is_blank(line.back())) line.remove_suffix(1);
    const cli terminal = host_plain_session(host, CONFIG_MODE, nullptr, nullptr);
    const std::size_t length =
        std::min(cli_visible_part(host->ctx->ctree, &terminal, line).length, LOGGED_MAX);
    log_suite(LOG_LEVEL_ERROR, "%s:%u: refused: %.*s%s%s", host->config_file, number,
              static_cast<int>(length), line.data(), length && length < line.size() ? " " : "",
              length < line.size() ? "..." : "");
}

void host_config_read(host_state* host) {
    std::uint64_t failures_before = failed_allocations();
    if (host_file_settle(host->config_file) != 0) host->unreadable = true;
    int fd = open(host->config_file, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0 && errno == ENOENT) {
        log_suite(LOG_LEVEL_INFO, "no configuration file %s", host->config_file);
        return;
    }
    config_reader r = begin_reading(host, nullptr);
    int result = fd < 0 ? -errno : read_lines(&r, fd);
    end_reading(&r);
    if (result < 0) {
        host->unreadable = true;
        log_suite(LOG_LEVEL_ERROR, "configuration file %s can't be read: %s", host->config_file,
                  std::strerror(-result));
    }
    if (fd >= 0) close(fd);
    if (failed_allocations() != failures_before) host->lossy = true;
}

void host_config_take(host_state* host, std::string_view text, const host_config_look& look) {
    const std::uint64_t failures_before = failed_allocations();
    config_reader r = begin_reading(host, &look);
    take_chunk(&r, text.data(), text.size());
    end_reading(&r);
    if (look.runs && failed_allocations() != failures_before) host->lossy = true;
}
