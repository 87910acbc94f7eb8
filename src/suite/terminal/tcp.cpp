// The TCP terminal: listens on the loopback addresses only and asks for a password. Wrong passwords cost
// time: after three of them the answer is held back, longer with each session of that source, the session
// closed, and the source sent away until that time is over. A right password clears the source's record.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
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

constexpr std::size_t SOURCES = 16;  // loopback has few; the oldest record makes room
constexpr std::uint8_t TRIES = 3;
constexpr std::uint32_t DELAY_FIRST_S = 1, DELAY_LONGEST_S = 64;
constexpr nanoseconds FORGOTTEN_AFTER = 3600 * NS_PER_S;

struct bad_source {
    std::uint8_t address[16];
    std::uint32_t delay_s;  // the last one; 0: free record
    nanoseconds until;      // sent away until then
};

}  // namespace

struct tcp_terminal {
    terminal_state* terminals;
    listener listeners[2];
    bad_source sources[SOURCES];
};

namespace {

bad_source* find_source(tcp_terminal* tcp, const std::uint8_t* address) {
    for (bad_source& source : tcp->sources)
        if (source.delay_s && std::memcmp(source.address, address, sizeof source.address) == 0)
            return &source;
    return nullptr;
}

bad_source* make_source(tcp_terminal* tcp, const std::uint8_t* address) {
    bad_source* source = find_source(tcp, address);
    if (source) return source;
    source = &tcp->sources[0];
    for (bad_source& other : tcp->sources)
        if (other.until < source->until) source = &other;
    *source = {};
    std::memcpy(source->address, address, sizeof source->address);
    return source;
}

std::uint32_t next_delay(tcp_terminal* tcp, const std::uint8_t* address, nanoseconds now) {
    bad_source* source = make_source(tcp, address);
    bool fresh = source->delay_s == 0 || now > source->until + FORGOTTEN_AFTER;
    source->delay_s = fresh ? DELAY_FIRST_S : source->delay_s * 2;
    if (source->delay_s > DELAY_LONGEST_S) source->delay_s = DELAY_LONGEST_S;
    source->until = now + source->delay_s * NS_PER_S;
    return source->delay_s;
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
        std::memcpy(s->source, &address.sin6_addr, 16);
        inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text);
        port = ntohs(address.sin6_port);
    } else if (peer.ss_family == AF_INET) {
        sockaddr_in address;
        std::memcpy(&address, &peer, sizeof address);
        std::memcpy(s->source, &address.sin_addr, 4);
        inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
        port = ntohs(address.sin_port);
    }
    std::snprintf(s->peer, sizeof s->peer, "%s port %u", text, port);
}

void ask_password(session* s) {
    s->editor->hidden = true;
    line_editor_start(s->editor, "Password: ", &s->out);
}

void open_session(tcp_terminal* tcp, int fd, const sockaddr_storage& peer) {
    session* s = session_create(tcp->terminals->ctx, fd, session_kind::tcp);
    if (!s) return;
    int on = 1;
    (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);  // only makes keys wait
    keep_peer(s, peer);
    bad_source* source = find_source(tcp, s->source);
    s->editor = line_editor_create();
    if (source && thread_now(s->ctx) < source->until) {
        session_write(s, "% Too many wrong passwords, try again later\n");
        s->ending = true;
    } else if (s->editor) {
        session_write_raw(s, {reinterpret_cast<const char*>(TELNET_OPENING), sizeof TELNET_OPENING});
        ask_password(s);
    } else {
        s->ending = true;
    }
    session_settle(s);
}

void on_connection(void* arg, int fd, const sockaddr_storage& peer) {
    auto* tcp = static_cast<tcp_terminal*>(arg);
    if (!tcp->terminals->password[0])
        send_away(fd, "% No terminal password is configured\r\n");
    else
        open_session(tcp, fd, peer);
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
    if (result == 0 && listen(fd, static_cast<int>(SESSION_MAX)) == 0) return fd;
    result = -errno;
    close(fd);
    return result;
}

void on_checked(lib_globals* ctx, void* owner, const char* hash) {
    auto* s = static_cast<session*>(owner);
    if (!s) return;
    tcp_terminal* tcp = ctx->terminals->tcp;
    s->busy = false;
    if (hash && ctx->terminals->password[0] && std::strcmp(hash, ctx->terminals->password) == 0) {
        if (bad_source* source = find_source(tcp, s->source)) *source = {};
        log_suite(LOG_LEVEL_INFO, "terminal opened from %s", s->peer);
        s->editor->hidden = false;
        session_interactive_start(s);
    } else if (++s->wrong_passwords < TRIES) {
        session_write(s, "% Wrong password\n");
        ask_password(s);
    } else {
        std::uint32_t delay = next_delay(tcp, s->source, thread_now(ctx));
        log_suite(LOG_LEVEL_WARNING, "%u wrong passwords from %s, held for %u s", TRIES, s->peer, delay);
        session_delay_end(s, delay);
    }
    session_settle(s);
}

}  // namespace

void tcp_password_line(session* s, std::string_view line) {
    if (line.size() > PASSWORD_MAX) line = "";  // no password is empty: this one is wrong
    s->busy = password_start(s->ctx, line, s->ctx->terminals->password, on_checked, s) != nullptr;
    if (s->busy) return;
    session_write(s, "% Passwords can't be checked now\n");
    s->ending = true;
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
    constexpr int families[2] = {AF_INET, AF_INET6};
    for (std::size_t i = 0; i < 2; i++) {
        int result = listen_at(families[i], terminals->vty_port);
        if (result >= 0)
            result = listener_start(&tcp->listeners[i], terminals->ctx, result, on_connection, tcp);
        if (result == 0) continue;
        int level = families[i] == AF_INET6 && result == -EAFNOSUPPORT ? LOG_LEVEL_INFO : LOG_LEVEL_ERROR;
        log_suite(level, "TCP terminal on %s port %u: %s", i ? "::1" : "127.0.0.1", terminals->vty_port,
                  std::strerror(-result));
    }
}

void tcp_terminal_stop(terminal_state* terminals) {
    tcp_terminal* tcp = terminals->tcp;
    if (!tcp) return;
    for (listener& l : tcp->listeners) listener_stop(&l);
    memmgr_free(tcp, MTYPE_HOST);
    terminals->tcp = nullptr;
}
