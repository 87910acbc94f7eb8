// Interactive sessions: keys to the line editor, lines to the commands, output in pages. One step takes keys
// up to the end of one line, so that a pasted screenful is run a line a turn.
//
// Paging: the output of a command, or of a listing's part, stands in `out`; `released` octets of it may go.
// "--More--" is put in at that place and wiped by what the next key lets go. Pages are counted in rows of the
// window. When a listing's part has run out within a page, the rows that are owed come from the next one,
// which is run as soon as the client has read what may go.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

#include "suite/base/slice.h"
#include "suite/command/completion.h"
#include "suite/command/parse.h"
#include "suite/log/log.h"
#include "suite/terminal/stages.h"
#include "suite/terminal/terminal.h"
namespace {

constexpr std::size_t KEYS_WAIT_ABOVE = 8 * 1024;  // octets that the client has not read yet
constexpr std::size_t ROW_MAX = 4096;              // octets of a row, whatever the window is said to hold
constexpr std::size_t NO_ROW = static_cast<std::size_t>(-1);
constexpr char KEY_CTRL_C = 3;
constexpr std::string_view MORE = "--More--", WIPE_MORE = "\r        \r";

std::size_t unsent(const session* s) {
    return s->out.length - s->sent;
}

bool is_read(const session* s) {
    const std::size_t may_go = s->stage == session_stage::paging ? s->released : s->out.length;
    return may_go - s->sent < KEYS_WAIT_ABOVE;
}

void start_line(session* s) {
    if (s->stage == session_stage::password) return line_editor_start(s->editor, "Password: ", &s->out);
    char prompt[LINE_EDITOR_PROMPT_MAX];
    const char* mode = s->c.mode == EXEC_MODE ? "" : s->c.mode == INTERFACE_MODE ? "(config-if)" : "(config)";
    std::snprintf(prompt, sizeof prompt, "%s%s#", host_name(s->ctx), mode);
    line_editor_start(s->editor, prompt, &s->out);
}

// Puts text in where the held back output begins, and lets it go.
void release_text(session* s, std::string_view text) {
    if (!text_append(&s->out, text.data(), text.size())) return;
    std::size_t behind = s->out.length - text.size() - s->released;
    std::memmove(s->out.data + s->released + text.size(), s->out.data + s->released, behind);
    std::memcpy(s->out.data + s->released, text.data(), text.size());
    s->released += text.size();
}

void end_paging(session* s) {
    s->stage = session_stage::prompt;
    if (!s->ending) start_line(s);
}

void end_listing(session* s) {
    s->more = false;
    s->owed = 0;
    cli_part_end(&s->c);
}

// Where the row that begins there ends: behind its newline, or where the window wraps it. NO_ROW: not yet.
std::size_t row_end(const session* s, std::size_t begin) {
    std::size_t column = 0;
    for (std::size_t i = begin; i < s->out.length; i++) {
        const char c = s->out.data[i];
        if (c == '\n') return i + 1;
        if (c == '\r' || (static_cast<unsigned char>(c) & 0xc0) == 0x80) continue;
        if ((s->columns && column == s->columns) || i - begin >= ROW_MAX) return i;
        column++;
    }
    return NO_ROW;
}

void release_rows(session* s, std::size_t rows) {
    for (; rows; rows--) {
        const std::size_t end = row_end(s, s->released);
        if (end == NO_ROW) break;
        s->released = end;
    }
    if (s->more && rows)
        s->owed = rows;
    else if (rows || s->released == s->out.length)
        end_paging(s);
    else
        release_text(s, MORE);
}

void drop_held(session* s) {
    end_listing(s);
    text_cut(&s->out, s->released);
    s->sent = s->sent < s->released ? s->sent : s->released;
}

void page_key(session* s, std::uint8_t key) {
    std::size_t page = session_page_length(s);
    if (key == ' ' || key == 'f' || key == '\r' || key == '\n') {
        release_text(s, WIPE_MORE);
        release_rows(s, key == ' ' || key == 'f' ? (page > 1 ? page - 1 : 1) : 1);
    } else if (key == 'q' || key == 'Q' || key == KEY_CTRL_C || key == 4) {
        drop_held(s);
        session_write_raw(s, WIPE_MORE);
        end_paging(s);
    }
}

bool fills_page(const session* s, std::size_t begin, std::size_t page) {
    for (; page && begin != NO_ROW; page--) begin = row_end(s, begin);
    return begin != NO_ROW;
}

// After a command: the prompt, or the first page.
void show_output(session* s, std::size_t start) {
    const std::size_t page = session_page_length(s);
    if (page && !s->ending && (s->more || fills_page(s, start, page))) {
        s->stage = session_stage::paging;
        s->released = start;
        release_rows(s, page - 1);
    } else if (!s->ending && !s->more) {
        start_line(s);
    }
}

void run_typed(session* s) {
    s->running = true;
    (void)session_run_line(s, line_editor_text(s->editor));  // it has said itself what went wrong
    s->running = false;
}

void run_line(session* s) {
    std::string_view line = line_editor_text(s->editor);
    if (s->stage == session_stage::password) return tcp_password_line(s, line);
    // Lines that may hold a password stay out of the history.
    if (!cli_visible_part(s->ctx->ctree, &s->c, line).secret) line_editor_remember(s->editor, line);
    std::size_t start = s->out.length;
    run_typed(s);
    // What was sent meanwhile may have given its place back.
    if (!s->busy) show_output(s, std::min(start, s->out.length));
}

void run_next_part(session* s) {
    run_typed(s);
    if (s->stage == session_stage::paging)
        release_rows(s, std::exchange(s->owed, 0));
    else if (!s->more && !s->ending)
        start_line(s);
}

void leave_mode(session* s, bool to_exec) {
    bool in_exec = s->c.mode == EXEC_MODE;
    if (s->stage == session_stage::password || (in_exec && !to_exec)) {
        s->ending = true;
        session_write(s, "\n");
        return;
    }
    session_write(s, "\n");
    if (!in_exec) (void)cli_run_line(s->ctx->ctree, &s->c, to_exec ? "end" : "exit");
    start_line(s);
}

void print_result(session* s, cli_result result) {
    session_write(s, result == cli_result::ambiguous ? "% Ambiguous command\n" : "% Unknown command\n");
}

void show_help(session* s) {
    completion_list list;
    completion_help(s->ctx->ctree, &s->c, line_editor_before_cursor(s->editor), &list);
    session_write(s, "?\n");
    bool none = list.count == 0 && !list.may_end;
    if (list.result != cli_result::ok || none) print_result(s, list.result);
    text_buffer text;
    completion_print_rows(list, &text);
    session_write(s, text.view());
    text_free(&text);
    line_editor_redraw(s->editor, &s->out);
}

void show_choices(session* s, completion_list* list) {
    text_buffer text;
    list->may_end = false;
    completion_print_columns(*list, s->editor->columns, &text);
    session_write(s, "\n");
    session_write(s, text.view());
    text_free(&text);
    line_editor_redraw(s->editor, &s->out);
}

void complete(session* s) {
    completion_list list;
    completion_words(s->ctx->ctree, &s->c, line_editor_before_cursor(s->editor), &list);
    std::string_view common = completion_common(list);
    if (list.count == 0) {
        session_write_raw(s, "\a");
    } else if (list.count == 1) {
        char rest[LINE_EDITOR_MAX];
        int length = std::snprintf(rest, sizeof rest, "%s ", list.items[0].text + list.partial.size());
        line_editor_insert(s->editor, {rest, static_cast<std::size_t>(length)}, &s->out);
    } else if (common.size() > list.partial.size()) {
        line_editor_insert(s->editor, slice(common, list.partial.size()), &s->out);
    } else {
        show_choices(s, &list);
    }
}

// True when the key ended a line: the step is over.
bool prompt_key(session* s, std::uint8_t key) {
    switch (line_editor_key(s->editor, key, &s->out)) {
        case editor_event::none:
            return false;
        case editor_event::line:
            run_line(s);
            return true;
        case editor_event::too_long:
            session_write(s, "% Line too long\n");
            start_line(s);
            return true;
        case editor_event::interrupt:
            if (s->stage == session_stage::password) {
                s->ending = true;
                return true;
            }
            start_line(s);
            return false;
        case editor_event::leave:
            leave_mode(s, false);
            return true;
        case editor_event::end_mode:
            leave_mode(s, true);
            return true;
        case editor_event::complete:
            if (s->stage == session_stage::prompt) complete(s);
            return false;
        case editor_event::help:
            show_help(s);
            return true;
    }
    return false;
}

void answer_telnet(session* s) {
    if (s->kind != session_kind::tcp || s->telnet.reply_length == 0) return;
    session_write_raw(s, {reinterpret_cast<const char*>(s->telnet.reply), s->telnet.reply_length});
}

void set_window(session* s, std::uint16_t rows, std::uint16_t columns) {
    s->rows = rows;
    s->columns = columns;
    line_editor_resize(s->editor, columns);
}

// Ctrl-C while output waits: the output is dropped, and with it the keys typed before.
void interrupt_output(session* s) {
    const std::size_t key = s->in.view().find(KEY_CTRL_C);
    if (key == std::string_view::npos) return;
    text_consume(&s->in, key + 1);
    text_cut(&s->out, s->sent);
    end_listing(s);
    s->stage = session_stage::prompt;
    session_write(s, "^C\n");
    start_line(s);
}

}  // namespace

void session_interactive_finish(session* s, std::size_t output_start) {
    show_output(s, std::min(output_start, s->out.length));
}

std::size_t session_page_length(const session* s) {
    std::size_t lines = s->page_length >= 0 ? static_cast<std::size_t>(s->page_length) : s->rows;
    return lines < 2 ? 0 : lines;
}

bool session_listing_goes_on(const session* s) {
    return s->more && (s->stage == session_stage::prompt || s->owed);
}

namespace {

bool has_interrupt(const session* s) {
    return s->in.view().find(KEY_CTRL_C) != std::string_view::npos;
}

// The client has to read first.
bool is_behind(const session* s) {
    return !is_read(s) && (s->stage != session_stage::paging || s->owed);
}

}  // namespace

bool session_interactive_ready(const session* s) {
    return !is_behind(s) || has_interrupt(s);
}

void session_interactive_step(session* s) {
    const bool goes_on = session_listing_goes_on(s);
    if (is_behind(s) || (goes_on && has_interrupt(s))) return interrupt_output(s);
    if (goes_on) return run_next_part(s);
    std::size_t used = 0;
    bool line_done = false;
    while (used < s->in.length && !line_done && !s->ending && !s->busy) {
        if (is_behind(s)) break;
        std::uint8_t key = 0;
        telnet_event event = telnet_take(&s->telnet, static_cast<std::uint8_t>(s->in.data[used++]), &key);
        answer_telnet(s);
        if (event == telnet_event::resized) set_window(s, s->telnet.rows, s->telnet.columns);
        if (event == telnet_event::alive) session_write(s, "\n[yes]\n");
        if (event != telnet_event::data) continue;
        if (s->stage == session_stage::paging) {
            page_key(s, key);
            break;
        }
        line_done = prompt_key(s, key);
    }
    text_consume(&s->in, used);
}

void session_interactive_start(session* s) {
    if (!s->editor) s->editor = line_editor_create();
    if (!s->editor) {
        s->ending = true;
        return;
    }
    s->stage = session_stage::prompt;
    set_window(s, s->rows, s->columns);
    start_line(s);
}

void session_pager_finish(session* s) {
    if (!std::exchange(s->owed, 0)) release_text(s, WIPE_MORE);
    s->released = s->out.length;
    s->stage = session_stage::prompt;
}

namespace {

// The tap of `terminal monitor`. It runs from within anything that logs, so it only appends; the session's
// own events send it. What there is no room for is left out and counted.
void show_log_line(void* arg, int, const char* line, std::size_t length) {
    auto* s = static_cast<session*>(arg);
    if (unsent(s) + length > SESSION_OUTPUT_MAX / 4) {
        s->monitor_lost++;
        return;
    }
    bool at_prompt = s->stage == session_stage::prompt && !s->running && !s->more && s->editor;
    if (at_prompt) line_editor_hide(s->editor, &s->out);
    if (s->monitor_lost) session_print(s, "%u log lines not shown\n", s->monitor_lost);
    s->monitor_lost = 0;
    session_write(s, {line, length});
    session_write(s, "\n");
    if (at_prompt) line_editor_redraw(s->editor, &s->out);
    session_want_send(s);
}

}  // namespace

bool session_monitor(session* s, bool on) {
    if (on == s->monitor) return true;
    if (on && log_add_tap(show_log_line, s) != 0) return false;
    if (!on) log_remove_tap(show_log_line, s);
    s->monitor = on;
    return true;
}
