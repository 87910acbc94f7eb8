// A session's life, its descriptor and its buffers. wire.h says what goes over the wire; batch.cpp and
// interactive.cpp do what the octets ask for.
//
// A client that is slow only holds itself up: its next line, or the next part of a listing, is run when the
// output before it has gone out. What does not fit the buffer is cut.
#include "suite/terminal/session.h"

#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/base/slice.h"
#include "suite/command/explain.h"
#include "suite/editor/line_mark.h"
#include "suite/log/log.h"
#include "suite/terminal/password.h"
#include "suite/terminal/stages.h"
#include "suite/terminal/terminal.h"

namespace {

constexpr std::size_t FLUSH_EARLY = 32 * 1024;  // of unsent output within a command
constexpr std::size_t LOGIN_SPARE = 32;         // descriptors for the rest
constexpr std::size_t SCRIPT_COLUMNS = 80;
constexpr nanoseconds LOOK_EVERY = 250 * NS_PER_MS;
constexpr std::size_t CUT_SPARE = 256;  // of the limit: for what ends a command that was cut
constexpr char CUT_NOTE[] = "\r\n% The rest is too long to be shown\r\n";
constexpr char TOO_MANY[] = "% Too many sessions\r\n";

int on_readable(thread* event);
int on_writable(thread* event);
int on_timer(thread* event);

session* of(const thread* event) {
    return static_cast<session*>(event->arg);
}

int print_to_session(void* out_val, const char* format, ...) {
    auto* s = static_cast<session*>(out_val);
    char small[512];
    va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    int needed = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
    if (needed >= 0 && static_cast<std::size_t>(needed) < sizeof small) {
        session_write(s, {small, static_cast<std::size_t>(needed)});
    } else if (needed >= 0) {
        text_buffer large;
        if (text_vprintf(&large, format, again))
            session_write(s, large.view());
        else
            s->overrun = true;
        text_free(&large);
    }
    va_end(again);
    return needed;
}

std::size_t unsent(const session* s) {
    return s->out.length - s->sent;
}

bool is_full_of_output(const cli* c) {
    return unsent(session_of(c)) >= SESSION_PART;
}

void init_cli(session* s) {
    s->c.out_func = print_to_session;
    s->c.out_val = s;
    s->c.zg = s->ctx;
    s->c.ifm = s->ctx->ifm;
    s->c.mode = EXEC_MODE;
    s->c.privilege = PRIVILEGE_MAX;
    s->c.line = s;
    s->c.full = is_full_of_output;
}

std::size_t may_go(const session* s) {
    return s->stage == session_stage::paging ? s->released : s->out.length;
}

// Sends what may go. False when the client is gone.
bool send_some(session* s) {
    std::size_t end = may_go(s);
    while (s->sent < end) {
        ssize_t count = send(s->fd, s->out.data + s->sent, end - s->sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK;
        s->sent += static_cast<std::size_t>(count);
        s->active = thread_now(s->ctx);
        // A frame of which something has gone has told its length: what comes now begins another one.
        if (s->frame != NO_FRAME && s->sent > s->frame) s->frame = NO_FRAME;
    }
    return true;
}

// Gives the memory of sent octets back, or at least their place.
void tidy_output(session* s) {
    if (s->frame != NO_FRAME) return;
    if (s->sent == s->out.length) {
        if (s->out.room > FLUSH_EARLY)
            text_free(&s->out);
        else
            text_clear(&s->out);
        s->sent = s->released = 0;
    } else if (s->sent > s->out.length / 2) {
        text_consume(&s->out, s->sent);
        s->released -= s->released < s->sent ? s->released : s->sent;
        s->sent = 0;
    }
}

bool make_output_room(session* s) {
    bool pages = s->stage == session_stage::prompt && session_page_length(s) > 0;
    if (unsent(s) < FLUSH_EARLY || pages) return true;
    s->frame = NO_FRAME;
    bool alive = send_some(s);
    tidy_output(s);
    return alive;
}

// The daemon owes the client an answer, and takes nothing from it meanwhile.
bool is_waiting(const session* s) {
    return s->busy || s->stage == session_stage::held;
}

// A TCP client that has sent all it has to say looks like one that is gone. The one that is gone resets the
// connection when it gets something more, if only telnet's word for nothing.
void note_eof(session* s) {
    s->eof = true;
    if (s->kind != session_kind::tcp || session_logged_in(s)) return;
    const char nothing[] = {static_cast<char>(TELNET_IAC), static_cast<char>(TELNET_NOP)};
    session_write_raw(s, {nothing, sizeof nothing});
}

bool client_is_gone(const session* s) {
    pollfd state{s->fd, 0, 0};
    return poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLERR));
}

bool take_octets(session* s) {
    char chunk[SESSION_READ_SIZE];
    ssize_t count = recv(s->fd, chunk, sizeof chunk, MSG_DONTWAIT);
    if (count == 0) note_eof(s);
    if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    if (count > 0) s->active = thread_now(s->ctx);
    const bool kept = text_append(&s->in, chunk, static_cast<std::size_t>(count));
    explicit_bzero(chunk, static_cast<std::size_t>(count));  // may be a password
    return kept;
}

// Local clients say in a first line what they are.
void hello_step(session* s) {
    const void* newline = std::memchr(s->in.data, '\n', s->in.length);
    if (!newline) {
        s->ending = true;
        return;
    }
    auto length = static_cast<std::size_t>(static_cast<const char*>(newline) - s->in.data);
    unsigned rows = 0, columns = 0;
    std::string_view line{s->in.data, length};
    s->in.data[length] = 0;
    if (line == "batch" || line == "complete") {
        s->completes = line == "complete";
        s->stage = session_stage::batch;
    } else if (std::sscanf(s->in.data, "interactive %5u %5u", &rows, &columns) == 2) {
        s->rows = static_cast<std::uint16_t>(rows);
        s->columns = static_cast<std::uint16_t>(columns);
    } else {
        session_write(s, "% Unknown kind of session\n");
        s->ending = true;
    }
    text_consume(&s->in, length + 1);
    if (s->stage == session_stage::hello && !s->ending) session_interactive_start(s);
}

bool has_line(const session* s) {
    return s->in.length > 256 || (s->in.length && std::memchr(s->in.data, '\n', s->in.length));
}

// Is there something to do with the octets that came, without any more of them? No line is run while output
// of the one before is unsent.
bool is_ready(const session* s) {
    if (s->ending || s->overrun || s->busy) return false;
    if (s->in.length == 0 && !session_listing_goes_on(s)) return false;
    switch (s->stage) {
        case session_stage::hello:
            return has_line(s);
        case session_stage::batch:
            return unsent(s) == 0 && session_batch_ready(s);
        case session_stage::held:
            return false;
        default:
            return session_interactive_ready(s);
    }
}

void take_step(session* s) {
    switch (s->stage) {
        case session_stage::hello:
            return hello_step(s);
        case session_stage::batch:
            return session_batch_step(s);
        case session_stage::held:
            return;
        default:
            return session_interactive_step(s);
    }
}

std::size_t input_limit(const session* s) {
    return s->stage == session_stage::batch ? session_batch_input_limit(s) : SESSION_READ_SIZE;
}

int on_readable(thread* event) {
    session* s = of(event);
    s->read_event = nullptr;
    if (!s->eof && s->in.length < input_limit(s) && !take_octets(s)) {
        session_close(s);
        return 0;
    }
    if (is_ready(s)) take_step(s);
    session_settle(s);
    return 0;
}

int on_writable(thread* event) {
    session* s = of(event);
    s->write_event = nullptr;
    session_settle(s);
    return 0;
}

// INT64_MAX: nothing ever.
nanoseconds next_due(const session* s) {
    const nanoseconds idle_limit = s->ctx->terminals->exec_timeout_s * NS_PER_S;
    nanoseconds due = INT64_MAX;
    if (!session_logged_in(s))
        due = s->opened + LOGIN_LIMIT;
    else if (idle_limit && !s->busy)
        due = s->active + idle_limit;
    return is_waiting(s) ? std::min(due, thread_now(s->ctx) + LOOK_EVERY) : due;
}

void arm_timer(session* s) {
    const nanoseconds due = next_due(s), now = thread_now(s->ctx);
    if (due == INT64_MAX) return;
    const auto left = static_cast<std::uint32_t>(due > now ? (due - now + NS_PER_MS - 1) / NS_PER_MS : 0);
    if (s->timer && thread_timer_remaining_ms(s->timer) <= left) return;
    thread_cancel(s->timer);
    s->timer = thread_add_timer_msec(s->ctx, on_timer, s, left);
}

void close_with(session* s, const char* text) {
    session_write(s, text);
    (void)send_some(s);  // closed in any case
    session_close(s);
}

// A script may think as long as it likes, but not leave its output lying.
bool is_idle(session* s) {
    const nanoseconds limit = s->ctx->terminals->exec_timeout_s * NS_PER_S, now = thread_now(s->ctx);
    if (limit == 0 || s->busy || now < s->active + limit) return false;
    if (s->stage != session_stage::batch || unsent(s)) return true;
    s->active = now;
    return false;
}

void close_idle(session* s) {
    if (may_go(s) > s->sent)
        log_suite(LOG_LEVEL_WARNING, "terminal %s closed: its output is not read", s->peer);
    close_with(s, "\n% Idle for too long\n");
}

int on_timer(thread* event) {
    session* s = of(event);
    s->timer = nullptr;
    if (is_waiting(s) && client_is_gone(s))
        session_close(s);
    else if (!session_logged_in(s) && thread_now(s->ctx) >= s->opened + LOGIN_LIMIT)
        close_with(s, "\n% Login took too long\n");
    else if (session_logged_in(s) && is_idle(s))
        close_idle(s);
    else
        arm_timer(s);
    return 0;
}

// Who gives way: held sessions before others, the oldest of these.
session* find_victim(const lib_globals* ctx, session_kind kind) {
    session* victim = nullptr;
    for (session* s = ctx->terminals->sessions; s; s = s->next) {  // the youngest first
        if (s->kind != kind || session_logged_in(s) || s->busy) continue;
        const bool held = s->stage == session_stage::held;
        if (!victim || held || victim->stage != session_stage::held) victim = s;
    }
    return victim;
}

bool is_full(const lib_globals* ctx, session_kind kind) {
    const session_count count = sessions_count(ctx, kind);
    if (kind == session_kind::tcp) return count.outside >= session_login_places();
    return count.inside + count.outside >= SESSION_MAX;
}

bool make_place(lib_globals* ctx, session_kind kind) {
    if (sessions_count(ctx, kind).inside >= SESSION_MAX) return false;
    if (!is_full(ctx, kind)) return true;
    session* victim = find_victim(ctx, kind);
    if (victim) close_with(victim, TOO_MANY);
    return victim != nullptr;
}

}  // namespace

bool session_logged_in(const session* s) {
    return s->stage == session_stage::batch || s->stage == session_stage::prompt ||
           s->stage == session_stage::paging;
}

bool session_has_place(const lib_globals* ctx, session_kind kind) {
    return !is_full(ctx, kind) || find_victim(ctx, kind);
}

session_count sessions_count(const lib_globals* ctx, session_kind kind) {
    session_count count{};
    for (const session* s = ctx->terminals->sessions; s; s = s->next)
        if (s->kind == kind) ++(session_logged_in(s) ? count.inside : count.outside);
    return count;
}

std::size_t session_login_places() {
    rlimit limit{};
    (void)getrlimit(RLIMIT_NOFILE, &limit);  // 0 when it fails: the least
    const auto most = std::min<rlim_t>(limit.rlim_cur / 2, LOGIN_MAX + LOGIN_SPARE);
    return std::max(static_cast<std::size_t>(most), SESSION_MAX + LOGIN_SPARE) - LOGIN_SPARE;
}

session* session_create(lib_globals* ctx, int fd, session_kind kind) {
    terminal_state* terminals = ctx->terminals;
    if (!make_place(ctx, kind)) {
        (void)send(fd, TOO_MANY, sizeof TOO_MANY - 1, MSG_DONTWAIT | MSG_NOSIGNAL);  // closed in any case
        close(fd);
        return nullptr;
    }
    auto* s = static_cast<session*>(memmgr_calloc(sizeof(session), MTYPE_CLI_SESSION));
    if (!s) {
        close(fd);
        return nullptr;
    }
    s->ctx = ctx;
    s->fd = fd;
    s->kind = kind;
    s->stage = kind == session_kind::local ? session_stage::hello : session_stage::password;
    s->frame = NO_FRAME;
    s->page_length = -1;
    s->out.limit = SESSION_OUTPUT_MAX;
    s->opened = s->active = thread_now(ctx);
    init_cli(s);
    s->next = terminals->sessions;
    terminals->sessions = s;
    terminals->session_count++;
    return s;
}

void session_close(session* s) {
    terminal_state* terminals = s->ctx->terminals;
    for (session** at = &terminals->sessions; *at; at = &(*at)->next) {
        if (*at != s) continue;
        *at = s->next;
        terminals->session_count--;
        break;
    }
    (void)session_monitor(s, false);  // taking a tap away can't fail
    password_cancel(s);
    if (s->left) s->left(s);
    thread_cancel(s->read_event);
    thread_cancel(s->write_event);
    thread_cancel(s->timer);
    thread_forget_fd(s->ctx, s->fd);
    close(s->fd);
    line_editor_free(s->editor);
    cli_part_end(&s->c);
    text_free(&s->in);
    text_free(&s->out);
    text_free(&s->explanation);
    memmgr_free(s, MTYPE_CLI_SESSION);
}

void session_end(cli* c) {
    if (c->line) session_of(c)->ending = true;
}

namespace {

void append(session* s, std::string_view octets) {
    s->overrun = s->overrun || !text_append(&s->out, octets.data(), octets.size());
}

}  // namespace

void session_write_raw(session* s, std::string_view octets) {
    if (s->overrun) return;
    s->overrun = !make_output_room(s);
    append(s, octets);
}

namespace {

// How much of a text that long is taken; the rest of what its command prints is dropped then.
std::size_t take_or_cut(session* s, std::size_t length) {
    if (s->overrun || s->cut) return 0;
    s->overrun = !make_output_room(s);  // here, and not for each piece: the client may not be reading
    const std::size_t used = std::min(s->out.length + CUT_SPARE, SESSION_OUTPUT_MAX);
    s->cut = length > SESSION_OUTPUT_MAX - used;
    return s->overrun ? 0 : std::min(length, SESSION_OUTPUT_MAX - used);
}

// Says so where output was cut, behind which the line did not succeed.
bool end_cut(session* s) {
    if (!s->cut) return false;
    s->cut = false;
    if (s->stage != session_stage::batch)
        session_write_raw(s, CUT_NOTE);
    else
        session_batch_output(s, "\n% The rest is too long to be shown\n");
    return true;
}

}  // namespace

void session_write(session* s, std::string_view text) {
    if (s->stage == session_stage::batch)
        return session_batch_output(s, slice(text, 0, take_or_cut(s, text.size())));
    while (!text.empty() && !s->overrun && !s->cut) {
        const std::size_t newline = text.find('\n');
        const std::string_view line = slice(text, 0, newline);
        append(s, slice(line, 0, take_or_cut(s, line.size() + 2)));
        if (newline == std::string_view::npos) return;
        if (!s->cut) append(s, "\r\n");
        text.remove_prefix(newline + 1);
    }
}

void session_print(session* s, const char* format, ...) {
    text_buffer text;
    va_list args;
    va_start(args, format);
    if (text_vprintf(&text, format, args))
        session_write(s, text.view());
    else
        s->overrun = true;
    va_end(args);
    text_free(&text);
}

namespace {

// Arms what the session waits for. False when there is no memory for an event: it would never be served
// again.
bool arm_events(session* s, bool drained, bool ready) {
    if (!drained && !s->write_event) {
        s->write_event = thread_add_write(s->ctx, on_writable, s, s->fd);
        if (!s->write_event) return false;
    }
    bool wants = !s->eof && !s->ending && s->in.length < input_limit(s);
    if ((ready || wants) && !s->read_event) {
        s->read_event = thread_add_read(s->ctx, on_readable, s, s->fd);
        if (!s->read_event) return false;
    }
    if (ready) thread_mark_ready(s->ctx, s->fd);
    arm_timer(s);
    return true;
}

}  // namespace

void sessions_rearm(session* list) {
    for (session* s = list; s; s = s->next) {
        thread_cancel(s->timer);
        s->timer = nullptr;
        arm_timer(s);
    }
}

session* session_running(const cli* c) {
    session* s = c->zg->terminals ? c->zg->terminals->sessions : nullptr;
    while (s && (s != c->line || s->line.empty())) s = s->next;
    return s;
}

cli_result session_run_line(session* s, std::string_view line) {
    s->line = line;
    s->line_mode = s->c.mode;
    cli_result result = cli_run_line(s->ctx->ctree, &s->c, line);
    s->line = {};
    if (end_cut(s)) result = cli_result::failed;
    s->more = result == cli_result::more;
    return result;
}

void session_explain(cli* c) {
    session* s = session_running(c);
    if (!s) return;
    cli as_typed = s->c;
    as_typed.mode = s->line_mode;
    cli_explanation found;
    if (!cli_explain(s->ctx->ctree, &as_typed, s->line, &found)) return;
    const bool on_screen = s->editor && (s->kind == session_kind::local || s->telnet.echoes);
    const std::size_t columns = s->editor ? s->editor->columns : SCRIPT_COLUMNS;
    text_buffer text;
    if (on_screen)
        line_mark(s->editor, found.at, &text);
    else
        line_mark_anew(s->line, found.at, columns, &text);
    cli_print_possible(found.possible, columns, &text);
    if (s->stage == session_stage::batch) {
        s->explanation = text;
        return;
    }
    session_write(s, text.view());
    text_free(&text);
}

void session_finish(session* s, bool good, std::string_view output) {
    s->busy = false;
    s->left = nullptr;
    const std::size_t start = s->out.length;
    session_write(s, output);
    good = !end_cut(s) && good;
    if (s->stage == session_stage::batch)
        session_batch_finish(s, good);
    else
        session_interactive_finish(s, start);
    session_settle(s);
}

void session_want_send(session* s) {
    if (!s->write_event) s->write_event = thread_add_write(s->ctx, on_writable, s, s->fd);
}

bool session_settle(session* s) {
    bool alive = send_some(s);
    s->cut = s->cut && s->busy;  // what is cut outside a command is no great loss
    if (alive && s->overrun) {
        log_suite(LOG_LEVEL_WARNING, "terminal %s closed: out of memory", s->peer);
        alive = false;
    }
    if (s->eof && s->stage == session_stage::paging && s->in.length == 0) {
        session_pager_finish(s);  // nobody will turn the page
        alive = alive && send_some(s);
    }
    bool drained = s->sent == may_go(s);
    bool ready = is_ready(s);
    bool over = s->ending || (s->eof && !ready && !is_waiting(s));
    if (drained && over) alive = false;
    if (alive) {
        tidy_output(s);
        alive = arm_events(s, drained, ready);
    }
    if (!alive) session_close(s);
    return alive;
}
