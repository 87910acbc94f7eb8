// `configure replace startup-config`: afterwards the running configuration is what the file says, as after a
// start with it, and what both say is not touched in between.
//
// Two lines are about one setting when one command with "no" undoes both: "clock synce priority 3" and "clock
// synce priority 5" of one port. Settings that the file has no line about are undone, the last ones first;
// then the file's lines are run, all of them, since a setting that is given again changes nothing. Where that
// is refused because of what a port has or had (a quality of the other option, say), everything is undone
// first. A file with a line that fits no command is not begun with.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "suite/base/memory.h"
#include "suite/base/overwrite.h"
#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/terminal/session.h"

namespace {

constexpr std::size_t FILE_MAX = 4 * 1024 * 1024;
constexpr std::uint32_t READ_LIMIT_S = 30;
constexpr unsigned REFUSED_SHOWN = 10;

// Texts, each with a zero behind it; once all are there, where they begin.
struct text_list {
    text_buffer text;
    std::size_t count = 0;
    const char** items = nullptr;
};

bool add(text_list* list, std::string_view item) {
    if (!text_append(&list->text, item.data(), item.size()) || !text_append(&list->text, "", 1)) return false;
    list->count++;
    return true;
}

bool find_items(text_list* list) {
    list->items = static_cast<const char**>(memmgr_calloc((list->count + 1) * sizeof(char*), MTYPE_HOST));
    if (!list->items) return false;
    const char* at = list->text.c_str();
    for (std::size_t i = 0; i < list->count; i++, at += std::strlen(at) + 1) list->items[i] = at;
    return true;
}

void free_list(text_list* list) {
    memmgr_free(list->items, MTYPE_HOST);
    text_free(&list->text);
    *list = {};
}

int compare(const void* a, const void* b) {
    return std::strcmp(*static_cast<const char* const*>(a), *static_cast<const char* const*>(b));
}

struct replacement {
    host_state* host;
    text_buffer* answer;
    bool from_nothing = false;  // everything is undone first
    text_list wanted = {};      // settings that the file has lines about, sorted
    text_list undone = {};      // lines that undo the others: name of the interface, newline, line
    std::size_t undone_count = 0;
    unsigned refused = 0;
    bool good = true;  // memory has sufficed
};

// ---- What a line is about ----

bool append(text_buffer* out, std::string_view text) {
    return text_append(out, text.data(), text.size());
}

bool parse_as(const host_config_line& line, const replacement* r, const text_buffer& text, cli_parsed* out) {
    cli_parse(r->host->ctx->ctree, line.terminal, text.view(), out);
    return out->result == cli_result::ok && out->mode == line.parsed->mode;
}

// "no" and the longest beginning of the line that such a command takes; empty when none does.
bool find_undo(const replacement* r, const host_config_line& line, cli_parsed* found, text_buffer* undo) {
    const std::string_view* words = line.parsed->words;
    for (std::size_t count = line.parsed->count; count > 0; count--) {
        text_clear(undo);
        bool good = append(undo, "no");
        for (std::size_t i = 0; i < count; i++) good = good && append(undo, " ") && append(undo, words[i]);
        if (!good) return false;
        if (parse_as(line, r, *undo, found)) return true;
    }
    text_clear(undo);
    return true;
}

// Of what is on unless a line with "no" switches it off.
bool find_opposite(const replacement* r, const host_config_line& line, text_buffer* undo) {
    cli_parsed found;
    const char* rest = line.parsed->words[1].data();
    if (!append(undo, slice(line.text, static_cast<std::size_t>(rest - line.text.data())))) return false;
    if (!parse_as(line, r, *undo, &found)) text_clear(undo);
    return true;
}

bool put_part(text_buffer* out, std::string_view part) {
    return append(out, part) && append(out, "\n");
}

// Interface, command, and its arguments in full.
bool put_setting(const host_config_line& line, const cli_parsed& parsed, text_buffer* out) {
    bool good = put_part(out, line.block) && put_part(out, parsed.command->element->string);
    for (std::size_t i = 0; i < parsed.count; i++)
        if (parsed.command->tokens[parsed.tokens[i]].argument)
            good = good && put_part(out, cli_parsed_text(parsed, i));
    return good;
}

struct setting {
    text_buffer name;
    text_buffer undo;  // empty: nothing undoes it
    ~setting() {
        text_free(&name);
        text_free(&undo);
    }
};

bool read_setting(const replacement* r, const host_config_line& line, setting* out) {
    if (cli_parsed_text(*line.parsed, 0) == "no")
        return find_opposite(r, line, &out->undo) && put_setting(line, *line.parsed, &out->name);
    cli_parsed found;
    if (!find_undo(r, line, &found, &out->undo)) return false;
    return put_setting(line, out->undo.length ? found : *line.parsed, &out->name);
}

// ---- The two configurations ----

void say_refused(replacement* r, const host_config_line& line) {
    if (++r->refused > REFUSED_SHOWN) return;
    constexpr std::size_t LONGEST = 256;
    const std::size_t visible = cli_visible_part(r->host->ctx->ctree, line.terminal, line.text).length;
    // That something is refused is said at the end anyway.
    (void)text_printf(r->answer, "%% %s:%u: refused: %.*s%s\n", r->host->config_file, line.number,
                      static_cast<int>(std::min(visible, LONGEST)), line.text.data(),
                      visible < line.text.size() ? " ..." : "");
}

void note_wanted(void* arg, const host_config_line& line) {
    auto* r = static_cast<replacement*>(arg);
    if (!line.parsed) return say_refused(r, line);
    setting s;
    r->good = r->good && read_setting(r, line, &s) && add(&r->wanted, s.name.view());
}

bool is_wanted(const replacement* r, const setting& s) {
    const char* name = s.name.c_str();
    return std::bsearch(&name, r->wanted.items, r->wanted.count, sizeof name, compare);
}

void note_unwanted(void* arg, const host_config_line& line) {
    auto* r = static_cast<replacement*>(arg);
    if (!line.parsed) return;
    setting s;
    r->good = r->good && read_setting(r, line, &s);
    if (!r->good || !s.undo.length || (!r->from_nothing && is_wanted(r, s))) return;
    text_buffer item;
    r->good = put_part(&item, line.block) && append(&item, s.undo.view()) && add(&r->undone, item.view());
    text_free(&item);
}

bool look_at_file(replacement* r, std::string_view file) {
    host_config_take(r->host, file, {note_wanted, r, false});
    r->good = r->good && find_items(&r->wanted);
    if (r->good) std::qsort(r->wanted.items, r->wanted.count, sizeof(char*), compare);
    return r->good && r->refused == 0;
}

bool look_at_running(replacement* r) {
    text_buffer running;
    r->good = host_running_text(r->host, &running);
    if (r->good) host_config_take(r->host, running.view(), {note_unwanted, r, false});
    text_free(&running);
    r->good = r->good && find_items(&r->undone);
    return r->good;
}

// ---- From the one to the other ----

bool run_undo(host_state* host, std::string_view block, std::string_view line) {
    cli terminal = host_plain_session(host, CONFIG_MODE, host_discard, nullptr);
    text_buffer entry;
    bool good = block.empty() || (append(&entry, "interface ") && append(&entry, block));
    if (good && entry.length)
        good = cli_run_line(host->ctx->ctree, &terminal, entry.view()) == cli_result::ok;
    text_free(&entry);
    return good && cli_run_line(host->ctx->ctree, &terminal, line) == cli_result::ok;
}

void undo_all(replacement* r) {
    for (std::size_t i = r->undone.count; i > 0; i--) {
        const std::string_view item = r->undone.items[i - 1], block = slice(item, 0, item.find('\n'));
        const std::string_view line = slice(item, block.size() + 1);
        if (run_undo(r->host, block, line)) continue;
        r->refused++;
        if (r->from_nothing)
            r->good =
                text_printf(r->answer, "%% Refused: %.*s\n", static_cast<int>(line.size()), line.data());
    }
    r->undone_count += r->undone.count;
}

void count_refused(void* arg, const host_config_line&) {
    static_cast<replacement*>(arg)->refused++;
}

void tell_refused(void* arg, const host_config_line& line) {
    auto* r = static_cast<replacement*>(arg);
    say_refused(r, line);
    host_log_refused(r->host, line.number, line.text);
}

// Lines that wait for their interface go, all of them, and wait anew.
bool go_over(replacement* r, std::string_view file) {
    free_list(&r->wanted);
    free_list(&r->undone);
    if (!look_at_file(r, file)) return false;
    pending_free(r->host);
    r->host->lossy = true;  // until they are there again
    if (!look_at_running(r)) return false;
    undo_all(r);
    r->host->lossy = r->host->unreadable = false;
    host_config_take(r->host, file, {r->from_nothing ? tell_refused : count_refused, r, true});
    return true;
}

void say_end(const replacement& r, bool is_done) {
    if (!r.good)
        (void)text_printf(r.answer, "%% Out of memory\n");
    else if (!is_done)
        (void)text_printf(r.answer, "%% Nothing was changed: %u lines are refused\n", r.refused);
    else
        log_suite(LOG_LEVEL_INFO, "%s is in force again, %zu settings were undone", r.host->config_file,
                  r.undone_count);
}

}  // namespace

bool host_config_replace(host_state* host, std::string_view file, text_buffer* answer) {
    replacement r{host, answer};
    bool is_done = go_over(&r, file);
    if (is_done && std::exchange(r.refused, 0)) {
        r.from_nothing = true;
        is_done = go_over(&r, file);
    }
    say_end(r, is_done);
    free_list(&r.wanted);
    free_list(&r.undone);
    return is_done && answer->length == 0;
}

// ---- The command ----

namespace {

int read_in_child(const void* arg, int out) {
    log_silence();
    text_buffer text;
    const int result = host_read_file(static_cast<const char*>(arg), &text);
    if (result != 0) return -result;  // an errno is below 256
    return write_all(out, text.view()) == 0 ? 0 : EIO;
}

void on_read(lib_globals* ctx, void* owner, int status, std::string_view file) {
    auto* t = static_cast<host_task*>(owner);
    text_buffer answer;
    bool good = false;
    if (status != 0)
        (void)text_printf(&answer, "%% %s: %s\n", host_task_what(t),
                          status < 0 ? "too long, or no answer" : std::strerror(status));
    else if (host_task_awaited(t))  // who was told that it failed must not find it done later
        good = host_config_replace(ctx->host, file, &answer);
    (void)host_task_end(t, good, answer.view());
    text_free(&answer);
}

}  // namespace

int host_replace(cli* terminal, int, char**) {
    const host_state* host = host_of(terminal);
    if (host_task_saves(host)) return cli_refuse(terminal, "The configuration is being saved");
    const char* path = host->config_file ? host->config_file : HOST_DEFAULT_CONFIG;
    host_task* t = host_task_create(terminal, "Can't read", path);
    if (!t) return CLI_ERROR;
    return host_task_start(t, terminal, {read_in_child, path, nullptr, 0, FILE_MAX, READ_LIMIT_S, on_read, t},
                           false);
}
