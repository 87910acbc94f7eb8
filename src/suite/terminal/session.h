// Terminal sessions: one connected client each, local (Unix socket) or TCP. A session owns its descriptor,
// its input and output buffers and the `cli` that handlers see; the terminals' record owns the list of
// sessions. At most one line is run a loop event, and none while the output of the former one has not gone
// out, so a session can neither hold the loop nor grow: its output is limited. A long listing is made in
// parts (CLI_MORE), the next one when the client, or who turns its pages, has taken the last one; a client
// that reads nothing at all is closed as an idle one. What a command prints beyond the limit that does not
// know parts is cut, which is said.
#pragma once

#include <cstdint>
#include <string_view>

#include "suite/base/clock.h"
#include "suite/base/text.h"
#include "suite/command/cli.h"
#include "suite/editor/line_editor.h"
#include "suite/loop/thread.h"
#include "suite/terminal/telnet.h"
#include "suite/terminal/wire.h"

constexpr std::size_t SESSION_MAX = 32;  // of each kind, logged in
// TCP, not logged in yet; fewer where so many descriptors are more than half of what the process may have.
constexpr std::size_t LOGIN_MAX = 512;
constexpr nanoseconds LOGIN_LIMIT = 20 * NS_PER_S;
constexpr std::size_t SESSION_OUTPUT_MAX = 256 * 1024 - 1;  // with the closing zero: 256 KiB of memory
constexpr std::size_t SESSION_PART = 40 * 1024;             // of unsent output: enough of a listing for now
constexpr std::size_t SESSION_READ_SIZE = 4096;

enum class session_kind : std::uint8_t { local, tcp };
enum class session_stage : std::uint8_t {
    hello,  // local: the first line is awaited
    batch,
    password,  // TCP: the password is awaited
    held,      // TCP: the password was wrong, and its answer waits for its time
    prompt,    // interactive: keys go to the line editor
    paging,    // interactive: "--More--" stands at the bottom of the screen
};

struct session {
    cli c;  // what handlers see; c.line points to this record
    lib_globals* ctx;
    session* next;  // list of terminal_state
    int fd;
    session_kind kind;
    session_stage stage;
    bool eof;      // the client has sent its last octet
    bool ending;   // closes when the output has gone out
    bool overrun;  // no memory for output: what follows is dropped, the session closes
    bool cut;      // output did not fit: the rest of the command's is dropped
    bool more;     // the line that was run last is a listing of which there is more
    bool monitor;  // log lines are shown (terminal monitor)
    bool running;  // a command is running: no prompt stands on the screen
    bool busy;     // a child process works for the session: nothing more is taken from the client
    // Told when the session goes while it is busy; null: nobody is.
    void (*left)(session* s);
    std::string_view line;  // that is running, and the mode that it began in
    std::int32_t line_mode;
    std::uint32_t monitor_lost;  // log lines that there was no room for
    text_buffer in;
    text_buffer out;
    std::size_t sent;         // octets of `out` that have gone
    std::size_t released;     // paging: octets of `out` that may go
    std::size_t owed;         // paging: rows that are still to be let go, once the listing goes on
    std::size_t frame;        // batch: place of the open output frame in `out`, or NO_FRAME
    bool completes;           // batch: a line that ends with a TAB asks for words
    std::size_t to_skip;      // batch: octets still to be passed over
    text_buffer explanation;  // batch: of the last line's refusal, for who asks
    thread* read_event;
    thread* write_event;
    thread* timer;  // what is due first of: limit of the login, idle limit, look for a client that left
    nanoseconds opened;
    nanoseconds active;   // last time that the client did something
    nanoseconds held;     // since then the answer waits
    line_editor* editor;  // interactive only
    telnet_decoder telnet;
    std::uint16_t rows, columns;
    std::int32_t page_length;  // lines a page; -1: the window's height; 0: no pages
    std::uint8_t wrong_passwords;
    char peer[64];  // for the log
};

constexpr std::size_t NO_FRAME = static_cast<std::size_t>(-1);

// Takes the descriptor over (closed on failure). Null when memory is exhausted or there is no place; the
// client is told in the second case. Where all places are taken, the oldest session that has not logged in
// gives way: one that is held first, one whose password is being checked never.
session* session_create(lib_globals* ctx, int fd, session_kind kind);
bool session_has_place(const lib_globals* ctx, session_kind kind);  // one is free, or gives way
bool session_logged_in(const session* s);
std::size_t session_login_places();  // of TCP sessions that have not logged in
struct session_count {
    std::size_t inside, outside;  // logged in, and not
};
session_count sessions_count(const lib_globals* ctx, session_kind kind);
// Frees the record at once. Only from the loop's own handlers, never from inside a command.
void session_close(session* s);

// A command's wish to end the session (exit); ignored without a session.
void session_end(cli* c);
inline session* session_of(const cli* c) {
    return static_cast<session*>(c->line);
}

// The session whose line is running; null when it runs for none (a configuration file).
session* session_running(const cli* c);

// A command left the session busy (see `busy`) and is at its end now, with that output. The session may be
// gone behind it.
void session_finish(session* s, bool good, std::string_view output = {});

// The idle limit is another one: from now on it holds for all sessions of the list.
void sessions_rearm(session* list);

// `terminal monitor`: log lines at the terminal. False when there is no room for one more.
bool session_monitor(session* s, bool on);

// The running line is about to be refused: what is wrong with it is shown, or kept for a script's shell.
void session_explain(cli* c);

// Appends to the output. Interactive sessions get CR LF for LF; batch sessions a frame.
void session_print(session* s, const char* format, ...) __attribute__((format(printf, 2, 3)));
void session_write(session* s, std::string_view text);
// Octets as they are.
void session_write_raw(session* s, std::string_view octets);
// Sends soon: for what appends to the output outside the session's own events.
void session_want_send(session* s);
// Sends what may go; arms the events that are needed now. False when the session has been closed.
bool session_settle(session* s);
