// Batch half of the shell: lines as requests, answers in frames. Everything blocks; the shell has nothing
// else to do. A daemon that goes away in the middle is told from a line that failed by its exit status.
#include "esmcsh/client.h"

#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "suite/base/octets.h"
#include "suite/base/slice.h"
#include "suite/base/text.h"
#include "suite/base/unix_socket.h"
#include "suite/terminal/wire.h"

namespace {

constexpr int CONNECT_LIMIT_S = 10;  // a daemon that does not take connections is not reached

bool receive(int fd, void* to, std::size_t count) {
    auto* at = static_cast<char*>(to);
    while (count) {
        ssize_t got = recv(fd, at, count, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        at += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

using printer = void (*)(std::string_view data);

bool copy_output(int fd, std::size_t count, printer print) {
    char chunk[16384];
    while (count) {
        std::size_t part = count < sizeof chunk ? count : sizeof chunk;
        if (!receive(fd, chunk, part)) return false;
        print({chunk, part});
        count -= part;
    }
    return true;
}

bool send_request(int fd, std::string_view line) {
    std::uint8_t length[BATCH_REQUEST_HEADER];
    put_be32(length, 0, static_cast<std::uint32_t>(line.size()));
    return client_send(fd, {reinterpret_cast<const char*>(length), sizeof length}) && client_send(fd, line);
}

// What came is no frame: the daemon says why it does not serve us.
shell_status print_refusal(int fd, const std::uint8_t* header) {
    char rest[256];
    ssize_t count = recv(fd, rest, sizeof rest, MSG_DONTWAIT);
    std::fprintf(stderr, "esmcsh: %.*s%.*s\n", static_cast<int>(BATCH_FRAME_HEADER),
                 reinterpret_cast<const char*>(header),
                 count > 0 ? static_cast<int>(std::strcspn(rest, "\r\n")) : 0, rest);
    return SHELL_UNREACHABLE;
}

shell_status lost() {
    client_lost();
    return SHELL_UNREACHABLE;
}

void print_error(std::string_view data) {
    (void)fwrite(data.data(), 1, data.size(), stderr);  // a help, no more
}

// Where the line that failed goes wrong, as far as the daemon can tell. It is the last thing that the shell
// asks.
void print_explanation(int fd) {
    std::uint8_t header[BATCH_FRAME_HEADER];
    if (!send_request(fd, BATCH_EXPLAIN)) return;
    while (receive(fd, header, sizeof header) && header[0] == BATCH_OUTPUT)
        if (!copy_output(fd, get_be32(header, 1), print_error)) return;
}

}  // namespace

void client_lost() {
    std::fprintf(stderr, "esmcsh: the connection to esmcd is lost\n");
}

int client_connect(const char* path) {
    const int fd = unix_connect(path, SOCK_STREAM, CONNECT_LIMIT_S);
    if (fd < 0) std::fprintf(stderr, "esmcsh: can't reach esmcd at %s: %s\n", path, std::strerror(-fd));
    return fd;
}

bool client_send(int fd, std::string_view data) {
    while (!data.empty()) {
        ssize_t count = send(fd, data.data(), data.size(), MSG_NOSIGNAL);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return false;
        data.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

void client_print(std::string_view data) {
    while (!data.empty()) {
        ssize_t count = write(STDOUT_FILENO, data.data(), data.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) {
            std::fprintf(stderr, "esmcsh: standard output: %s\n", std::strerror(errno));
            std::exit(SHELL_LINE_FAILED);
        }
        data.remove_prefix(static_cast<std::size_t>(count));
    }
}

shell_status client_run(int fd, std::string_view line, bool* ended) {
    // A daemon that refuses us answers before it closes, so what it said is read even when sending failed.
    (void)send_request(fd, line);
    while (true) {
        std::uint8_t header[BATCH_FRAME_HEADER];
        if (!receive(fd, header, sizeof header)) return lost();
        std::size_t count = get_be32(header, 1);
        if (header[0] == BATCH_OUTPUT) {
            if (!copy_output(fd, count, client_print)) return lost();
        } else if (header[0] == BATCH_STATUS && count == 1) {
            std::uint8_t status = BATCH_FAILED;
            if (!receive(fd, &status, 1)) return lost();
            *ended = status == BATCH_ENDED;
            if (status != BATCH_FAILED) return SHELL_OK;
            print_explanation(fd);
            return SHELL_LINE_FAILED;
        } else {
            return print_refusal(fd, header);
        }
    }
}

shell_status client_run_input(int fd) {
    text_buffer input;
    shell_status status = SHELL_OK;
    bool ended = false, more = true;
    while (more && status == SHELL_OK && !ended) {
        char chunk[4096];
        ssize_t count = read(STDIN_FILENO, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR) continue;
        more = count > 0;
        if (more && !text_append(&input, chunk, static_cast<std::size_t>(count))) {
            std::fprintf(stderr, "esmcsh: out of memory\n");
            return SHELL_LINE_FAILED;
        }
        std::string_view rest = input.view();
        std::size_t end = rest.find('\n');
        while (status == SHELL_OK && !ended && (end != std::string_view::npos || (!more && !rest.empty()))) {
            std::string_view line = slice(rest, 0, end);
            status = client_run(fd, line, &ended);
            rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
            end = rest.find('\n');
        }
        text_consume(&input, input.length - rest.size());
    }
    text_free(&input);
    return status;
}
