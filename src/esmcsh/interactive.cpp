// Interactive half of the shell: a raw terminal joined to the daemon's line editor, nothing more. The
// window's size is told at the start and whenever it changes. Octets 255 of the keyboard are sent twice.
//
// A daemon that turns the shell away says why and closes; what it says begins with "% ", as no prompt does.
// So what comes first is looked at before it is printed.
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "esmcsh/client.h"
#include "suite/terminal/telnet.h"

namespace {

termios saved_terminal;
volatile sig_atomic_t window_changed;
volatile sig_atomic_t stop_asked;

void on_window_change(int) {
    window_changed = 1;
}

void on_stop(int) {
    stop_asked = 1;
}

void restore_terminal() {
    tcsetattr(STDIN_FILENO, TCSADRAIN, &saved_terminal);
}

winsize window_size() {
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) size = {};
    return size;
}

bool send_escaped(int fd, const std::uint8_t* octets, std::size_t count) {
    std::uint8_t out[2 * 256];
    std::size_t used = 0;
    for (std::size_t i = 0; i < count; i++) {
        out[used++] = octets[i];
        if (octets[i] == TELNET_IAC) out[used++] = TELNET_IAC;
    }
    return client_send(fd, {reinterpret_cast<const char*>(out), used});
}

bool send_window(int fd) {
    winsize size = window_size();
    const std::uint8_t body[4] = {
        static_cast<std::uint8_t>(size.ws_col >> 8), static_cast<std::uint8_t>(size.ws_col),
        static_cast<std::uint8_t>(size.ws_row >> 8), static_cast<std::uint8_t>(size.ws_row)};
    static constexpr char head[] = {static_cast<char>(TELNET_IAC), static_cast<char>(TELNET_SB),
                                    TELNET_OPTION_NAWS};
    static constexpr char tail[] = {static_cast<char>(TELNET_IAC), static_cast<char>(TELNET_SE)};
    return client_send(fd, {head, sizeof head}) && send_escaped(fd, body, sizeof body) &&
           client_send(fd, {tail, sizeof tail});
}

bool send_hello(int fd) {
    winsize size = window_size();
    const char* term = std::getenv("TERM");
    char hello[160];
    int length = std::snprintf(hello, sizeof hello, "interactive %u %u %.100s\n", size.ws_row, size.ws_col,
                               term ? term : "unknown");
    return client_send(fd, {hello, static_cast<std::size_t>(length)});
}

void catch_signal(int signal_number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigaction(signal_number, &action, nullptr);
}

// The signals are let in only while waiting, so none is missed between test and wait.
void prepare_signals(sigset_t* while_waiting) {
    sigset_t held;
    sigemptyset(&held);
    for (int number : {SIGWINCH, SIGTERM, SIGHUP, SIGINT, SIGQUIT}) sigaddset(&held, number);
    sigprocmask(SIG_BLOCK, &held, while_waiting);
    catch_signal(SIGWINCH, on_window_change);
    for (int number : {SIGTERM, SIGHUP, SIGINT, SIGQUIT}) catch_signal(number, on_stop);
}

void raw_terminal() {
    tcgetattr(STDIN_FILENO, &saved_terminal);
    termios raw = saved_terminal;
    cfmakeraw(&raw);
    tcsetattr(STDIN_FILENO, TCSADRAIN, &raw);
    std::atexit(restore_terminal);
}

// Keys to the daemon. False when there will be no more, or nobody who takes them.
bool pass_keys(int fd) {
    std::uint8_t keys[256];
    ssize_t count = read(STDIN_FILENO, keys, sizeof keys);
    if (count < 0 && errno == EINTR) return true;
    if (count > 0) return send_escaped(fd, keys, static_cast<std::size_t>(count));
    shutdown(fd, SHUT_WR);  // the daemon finishes what it has and closes
    return false;
}

constexpr std::string_view REFUSAL = "% ";

// What came before it was known to be a session.
struct first_octets {
    bool is_session;
    std::size_t length;
    char text[4096];
    std::string_view view() const { return {text, length}; }
};

// False when nothing more will come.
bool pass_output(int fd, first_octets* first) {
    const std::size_t kept = first->is_session ? 0 : first->length;
    const ssize_t count = recv(fd, first->text + kept, sizeof first->text - 1 - kept, 0);
    if (count < 0 && errno == EINTR) return true;
    if (count <= 0) return false;
    first->length = kept + static_cast<std::size_t>(count);
    const std::size_t told = first->length < REFUSAL.size() ? first->length : REFUSAL.size();
    first->is_session = first->is_session || std::memcmp(first->text, REFUSAL.data(), told) != 0;
    if (first->is_session) client_print(first->view());
    return first->is_session || first->length < sizeof first->text - 1;
}

shell_status turned_away(const first_octets& first) {
    const auto length = static_cast<int>(std::strcspn(first.text, "\r\n"));
    if (first.length == 0)
        client_lost();
    else
        std::fprintf(stderr, "esmcsh: %.*s\n", length, first.text);
    return SHELL_UNREACHABLE;
}

}  // namespace

shell_status client_interactive(int fd) {
    sigset_t while_waiting;
    prepare_signals(&while_waiting);
    raw_terminal();
    // A daemon that sends us away says why before it closes, so what comes is read whether sending works or
    // not.
    bool keyboard = send_hello(fd), alive = true;
    first_octets first{};
    while (alive && !stop_asked) {
        if (window_changed && keyboard) keyboard = send_window(fd);
        window_changed = 0;
        pollfd ready[2] = {{fd, POLLIN, 0}, {keyboard ? STDIN_FILENO : -1, POLLIN, 0}};
        if (ppoll(ready, 2, nullptr, &while_waiting) < 0) continue;  // a signal
        if (ready[0].revents) alive = pass_output(fd, &first);
        if (alive && ready[1].revents) keyboard = pass_keys(fd);
    }
    restore_terminal();
    return first.is_session || stop_asked ? SHELL_OK : turned_away(first);
}
