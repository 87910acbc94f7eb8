// Clients of a host's terminals, in the process of the test: the loop is turned until what is waited for is
// there, or a deadline has passed.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <functional>

#include "suite/octets.h"
#include "suite/session.h"
#include "suite/terminal.h"
#include "unit/suite_host_support.h"

namespace host_support {

class Terminal : public Host {
  protected:
    void SetUp() override {
        Host::SetUp();
        socket_path = directory + "/vty";
        ASSERT_EQ(local_terminal_start(ctx->host, socket_path.c_str()), 0);
    }
    // Turns the loop until `done`; false after five seconds.
    bool pump(const std::function<bool()>& done) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!done()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            thread* tick = thread_add_timer_msec(
                ctx, [](thread*) { return 0; }, nullptr, 2);
            thread event;
            if (!thread_fetch(ctx, &event)) return false;
            bool was_tick = event.func == nullptr || (event.fd < 0 && event.arg == nullptr);
            thread_call(&event);
            if (!was_tick) thread_cancel(tick);
        }
        return true;
    }
    std::size_t sessions() const { return ctx->host->session_count; }

    std::string socket_path;
};

struct Client {
    int fd = -1;
    std::string got;
    bool closed = false;

    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { drop(); }

    bool connect_local(const std::string& path) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        fcntl(fd, F_SETFL, O_NONBLOCK);
        return ok;
    }
    bool connect_tcp(std::uint16_t port) {
        fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bool ok = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
        fcntl(fd, F_SETFL, O_NONBLOCK);
        return ok;
    }
    void drop() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    // Octets that the socket took.
    std::size_t put(std::string_view text) {
        ssize_t count = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
        return count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    void request(std::string_view line) {
        std::uint8_t head[4];
        put_be32(head, 0, static_cast<std::uint32_t>(line.size()));
        put({reinterpret_cast<char*>(head), 4});
        put(line);
    }
    void take() {
        char chunk[65536];
        ssize_t count = recv(fd, chunk, sizeof chunk, 0);
        if (count > 0) got.append(chunk, static_cast<std::size_t>(count));
        if (count == 0 || (count < 0 && errno != EAGAIN)) closed = true;
    }
    bool has(const std::string& text) {
        take();
        return got.find(text) != std::string::npos;
    }
    bool is_closed() {
        take();
        return closed;
    }
    // Takes whole frames from `got`: output to *printed, statuses to *statuses.
    void frames(std::string* printed, std::string* statuses) {
        take();
        while (got.size() >= BATCH_FRAME_HEADER) {
            std::size_t length = get_be32({reinterpret_cast<const std::uint8_t*>(got.data()), got.size()}, 1);
            if (got.size() < BATCH_FRAME_HEADER + length) return;
            std::string body = got.substr(BATCH_FRAME_HEADER, length);
            if (static_cast<std::uint8_t>(got[0]) == BATCH_OUTPUT) *printed += body;
            if (static_cast<std::uint8_t>(got[0]) == BATCH_STATUS)
                *statuses += static_cast<char>('0' + body[0]);
            got.erase(0, BATCH_FRAME_HEADER + length);
        }
    }
};

}  // namespace host_support
