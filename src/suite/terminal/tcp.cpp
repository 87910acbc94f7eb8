// The TCP terminal: listens on the loopback addresses only and asks for a password. Whoever is on this host
// can try as many connections and addresses as he likes, so all of them are one: wrong passwords are counted
// in sum, and answered one after the other, the more there were the later. A right one is answered as soon as
// it is known to be right, whatever else goes on.
//
// Nobody can be told from an operator before his password has been checked. What keeps the way open for him:
// many places for those who have not logged in, of which the wrong ones wait in theirs until they are
// answered; a limit on the time there; when all are taken, a newcomer every EVICT_EVERY_MS for the oldest who
// has been found wrong or says nothing, while the others wait in the kernel's queue; and the order of checks
// (password.h).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/log/log.h"
#include "suite/terminal/password.h"
#include "suite/terminal/session.h"
#include "suite/terminal/stages.h"
#include "suite/terminal/terminal.h"

namespace {

constexpr std::uint8_t TRIES = 3;  // of a connection
constexpr std::uint32_t ANSWER_FIRST_MS = 400, ANSWER_SLOWEST_MS = 5000;
constexpr std::uint32_t QUICK_ANSWERS = 3;
constexpr nanoseconds FORGOTTEN_AFTER = 3600 * NS_PER_S;
constexpr std::uint32_t EVICT_EVERY_MS = 50;
constexpr int QUEUE_LENGTH = 512;
constexpr std::uint32_t SAY_FIRST_S = 10, SAY_SLOWEST_S = 640;

}  // namespace

struct tcp_terminal {
    terminal_state* terminals;
    listener listeners[2];
    retry again;           // for those that are not open
    std::uint32_t misses;  // wrong passwords since there was an hour without one
    nanoseconds last_miss;
    thread* answer_event;
    // The log: the first miss at once, then sums, ever more seldom as long as it goes on.
    std::uint32_t unsaid, say_every_s;
    thread* say_event;
    log_limit full;
    char last_peer[sizeof session::peer];
};

namespace {

int answer_one(thread* event);
int say_misses(thread* event);

void ask_password(session* s) {
    s->editor->hidden = true;
    line_editor_start(s->editor, "Password: ", &s->out);
}

void say_later(tcp_terminal* tcp) {
    tcp->say_event = thread_add_timer_msec(tcp->terminals->ctx, say_misses, tcp, tcp->say_every_s * 1000);
}

int say_misses(thread* event) {
    auto* tcp = static_cast<tcp_terminal*>(event->arg);
    tcp->say_event = nullptr;
    if (tcp->unsaid == 0) return 0;
    log_suite(LOG_LEVEL_WARNING, "TCP terminal: %u more wrong passwords in %u s, the last from %s",
              tcp->unsaid, tcp->say_every_s, tcp->last_peer);
    tcp->unsaid = 0;
    tcp->say_every_s = std::min(tcp->say_every_s * 2, SAY_SLOWEST_S);
    say_later(tcp);
    return 0;
}

void say_miss(tcp_terminal* tcp, const session* s) {
    std::memcpy(tcp->last_peer, s->peer, sizeof tcp->last_peer);
    tcp->unsaid++;
    if (tcp->say_event) return;
    log_suite(LOG_LEVEL_WARNING, "TCP terminal: wrong password from %s", s->peer);
    tcp->unsaid = 0;
    tcp->say_every_s = SAY_FIRST_S;
    say_later(tcp);
}

std::uint32_t answer_gap_ms(std::uint32_t misses) {
    std::uint32_t gap = ANSWER_FIRST_MS;
    for (std::uint32_t i = QUICK_ANSWERS; i < misses && gap < ANSWER_SLOWEST_MS; i++) gap *= 2;
    return std::min(gap, ANSWER_SLOWEST_MS);
}

void answer_later(tcp_terminal* tcp) {
    tcp->answer_event =
        thread_add_timer_msec(tcp->terminals->ctx, answer_one, tcp, answer_gap_ms(tcp->misses));
}

session* longest_held(const tcp_terminal* tcp) {
    session* longest = nullptr;
    for (session* s = tcp->terminals->sessions; s; s = s->next)
        if (s->stage == session_stage::held && (!longest || s->held <= longest->held)) longest = s;
    return longest;
}

// One wrong password is answered; the next answer is due so much later, whoever gets it.
int answer_one(thread* event) {
    auto* tcp = static_cast<tcp_terminal*>(event->arg);
    tcp->answer_event = nullptr;
    session* s = longest_held(tcp);
    if (!s) return 0;
    answer_later(tcp);
    s->stage = session_stage::password;
    session_write(s, "% Wrong password\n");
    if (++s->wrong_passwords < TRIES)
        ask_password(s);
    else
        s->ending = true;
    session_settle(s);
    return 0;
}

void hold(tcp_terminal* tcp, session* s) {
    const nanoseconds now = thread_now(s->ctx);
    if (now > tcp->last_miss + FORGOTTEN_AFTER) tcp->misses = 0;
    if (tcp->misses < UINT32_MAX) tcp->misses++;
    tcp->last_miss = now;
    say_miss(tcp, s);
    s->stage = session_stage::held;
    s->held = now;
    if (!tcp->answer_event) answer_later(tcp);
    if (!tcp->answer_event) s->ending = true;  // no memory to wait
}

// Tells a client that can't be served, and closes.
void send_away(int fd, const char* text) {
    (void)send(fd, text, std::strlen(text), MSG_DONTWAIT | MSG_NOSIGNAL);  // closed in any case
    close(fd);
}

void keep_peer(session* s, const sockaddr_storage& peer) {
    char text[INET6_ADDRSTRLEN] = "?";
    unsigned port = 0;
    if (peer.ss_family == AF_INET6) {
        sockaddr_in6 address;
        std::memcpy(&address, &peer, sizeof address);
        inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
        port = ntohs(address.sin6_port);
    } else if (peer.ss_family == AF_INET) {
        sockaddr_in address;
        std::memcpy(&address, &peer, sizeof address);
        inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
        port = ntohs(address.sin_port);
    }
    std::snprintf(s->peer, sizeof s->peer, "%s port %u", text, port);
}

void open_session(tcp_terminal* tcp, int fd, const sockaddr_storage& peer) {
    session* s = session_create(tcp->terminals->ctx, fd, session_kind::tcp);
    if (!s) return;
    int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // only makes keys wait
    keep_peer(s, peer);
    s->editor = line_editor_create();
    if (s->editor) {
        session_write_raw(s, {reinterpret_cast<const char*>(TELNET_OPENING), sizeof TELNET_OPENING});
        ask_password(s);
    } else {
        s->ending = true;
    }
    session_settle(s);
}

bool has_place(void* arg) {
    return session_has_place(static_cast<tcp_terminal*>(arg)->terminals->ctx, session_kind::tcp);
}

// While all places are taken, newcomers come in one at a time, each when somebody can give way: an operator
// who has just come in has time to type.
void rest_when_full(tcp_terminal* tcp) {
    if (sessions_count(tcp->terminals->ctx, session_kind::tcp).outside < session_login_places()) return;
    log_limited(&tcp->full, thread_now(tcp->terminals->ctx),
                "TCP terminal: too many connections that have not logged in");
    for (listener& l : tcp->listeners) listener_rest(&l, EVICT_EVERY_MS);
}

void on_connection(void* arg, int fd, const sockaddr_storage& peer) {
    auto* tcp = static_cast<tcp_terminal*>(arg);
    if (!tcp->terminals->password[0])
        send_away(fd, "% No terminal password is configured\r\n");
    else
        open_session(tcp, fd, peer);
    rest_when_full(tcp);
}

int listen_at(int family, std::uint16_t port) {
    int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -errno;
    int on = 1, result;
    (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);  // without it a restart may have to wait
    // The loopback interface of a namespace may come up later than we do.
    if (family == AF_INET6) {
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
        (void)setsockopt(fd, IPPROTO_IPV6, IPV6_FREEBIND, &on, sizeof on);
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } else {
        (void)setsockopt(fd, IPPROTO_IP, IP_FREEBIND, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        result = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    }
    if (result == 0 && listen(fd, QUEUE_LENGTH) == 0) return fd;
    result = -errno;
    close(fd);
    return result;
}

void let_in(session* s) {
    log_suite(LOG_LEVEL_INFO, "terminal opened from %s", s->peer);
    s->editor->hidden = false;
    session_interactive_start(s);
}

void end_with(session* s, const char* text) {
    session_write(s, text);
    s->ending = true;
}

void on_checked(lib_globals* ctx, void* owner, const char* hash) {
    auto* s = static_cast<session*>(owner);
    const terminal_state* terminals = ctx->terminals;
    s->busy = false;
    if (!hash || !terminals->password[0])
        end_with(s, "% Passwords can't be checked now\n");
    else if (std::strcmp(hash, terminals->password) != 0)
        hold(terminals->tcp, s);
    else if (sessions_count(ctx, session_kind::tcp).inside >= SESSION_MAX)
        end_with(s, "% Too many sessions\n");
    else
        let_in(s);
    session_settle(s);
}

constexpr int FAMILIES[2] = {AF_INET, AF_INET6};

// Whether it is not worth another try.
bool try_listener(tcp_terminal* tcp, std::size_t i) {
    const std::uint16_t port = tcp->terminals->vty_port;
    const char* address = i ? "::1" : "127.0.0.1";
    int result = listen_at(FAMILIES[i], port);
    if (result >= 0)
        result = listener_start(&tcp->listeners[i], tcp->terminals->ctx, result, on_connection, tcp);
    tcp->listeners[i].has_place = has_place;
    const bool is_missing = FAMILIES[i] == AF_INET6 && result == -EAFNOSUPPORT;
    const bool is_first = tcp->again.delay_ms == 0;
    if (result == 0 && !is_first)
        log_suite(LOG_LEVEL_INFO, "TCP terminal on %s port %u: open now", address, port);
    if (result != 0 && is_first)
        log_suite(is_missing ? LOG_LEVEL_INFO : LOG_LEVEL_ERROR, "TCP terminal on %s port %u: %s%s", address,
                  port, std::strerror(-result), is_missing ? "" : "; trying again");
    return result == 0 || is_missing;
}

int try_again(thread* event);

void try_listeners(tcp_terminal* tcp) {
    bool is_done = true;
    for (std::size_t i = 0; i < 2; i++)
        if (!tcp->listeners[i].ctx && !try_listener(tcp, i)) is_done = false;
    if (is_done)
        retry_stop(&tcp->again);
    else
        retry_later(&tcp->again, tcp->terminals->ctx, try_again, tcp);
}

int try_again(thread* event) {
    auto* tcp = static_cast<tcp_terminal*>(event->arg);
    retry_begin(&tcp->again);
    try_listeners(tcp);
    return 0;
}

}  // namespace

void tcp_password_line(session* s, std::string_view line) {
    if (line.size() > PASSWORD_MAX) line = "";  // no password is empty: this one is wrong
    s->busy = password_start(s->ctx, line, s->ctx->terminals->password, on_checked, s);
    line_editor_clear(s->editor);
    if (!s->busy) end_with(s, "% Passwords can't be checked now\n");
}

void tcp_terminal_start(terminal_state* terminals) {
    if (terminals->vty_port == 0 || terminals->tcp) return;
    auto* tcp = static_cast<tcp_terminal*>(memmgr_calloc(sizeof(tcp_terminal), MTYPE_HOST));
    if (!tcp) {
        log_suite(LOG_LEVEL_ERROR, "TCP terminal: out of memory");
        return;
    }
    tcp->terminals = terminals;
    terminals->tcp = tcp;
    try_listeners(tcp);
}

void tcp_terminal_stop(terminal_state* terminals) {
    tcp_terminal* tcp = terminals->tcp;
    if (!tcp) return;
    for (listener& l : tcp->listeners) listener_stop(&l);
    retry_stop(&tcp->again);
    thread_cancel(tcp->answer_event);
    thread_cancel(tcp->say_event);
    memmgr_free(tcp, MTYPE_HOST);
    terminals->tcp = nullptr;
}
