// Clients of a host's terminals, in the process of the test: the loop is turned until what is waited for is
// there, or a deadline has passed.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <functional>

#include "suite/base/octets.h"
#include "suite/terminal/session.h"
#include "suite/terminal/terminal.h"
#include "unit/suite_host_support.h"

namespace host_support {

struct Client {
    int fd = -1;
    std::string got;
    bool closed = false;
    std::string printed, statuses;  // of a batch session: all output, and a digit a line

    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    ~Client() { drop(); }

    bool connect_local(const std::string& path) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        return open(address);
    }
    bool connect_tcp(std::uint16_t number) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(number);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return open(address);
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
    bool has(const std::string& text) {
        take();
        return got.find(text) != std::string::npos;
    }
    bool is_closed() {
        take();
        return closed;
    }
    // So many lines of the batch session have been answered.
    bool answered(std::size_t count) {
        for (take(); got.size() >= BATCH_FRAME_HEADER;) {
            std::size_t length = get_be32({reinterpret_cast<const std::uint8_t*>(got.data()), got.size()}, 1);
            if (got.size() < BATCH_FRAME_HEADER + length) break;
            const std::string body = got.substr(BATCH_FRAME_HEADER, length);
            if (got[0] == static_cast<char>(BATCH_OUTPUT)) printed += body;
            if (got[0] == static_cast<char>(BATCH_STATUS)) statuses += static_cast<char>('0' + body[0]);
            got.erase(0, BATCH_FRAME_HEADER + length);
        }
        return statuses.size() >= count;
    }

  private:
    template <typename Address>
    bool open(const Address& address) {
        fd = socket(reinterpret_cast<const sockaddr&>(address).sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool ok = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        return fcntl(fd, F_SETFL, O_NONBLOCK) == 0 && ok;
    }
    void take() {
        char chunk[65536];
        ssize_t count = recv(fd, chunk, sizeof chunk, 0);
        if (count > 0) got.append(chunk, static_cast<std::size_t>(count));
        if (count == 0 || (count < 0 && errno != EAGAIN)) closed = true;
    }
};

// A line as a batch session takes it.
inline std::string request(const std::string& line) {
    std::uint8_t head[4];
    put_be32(head, 0, static_cast<std::uint32_t>(line.size()));
    return std::string(head, head + 4) + line;
}

class Terminal : public Host {
  protected:
    void SetUp() override {
        Host::SetUp();
        socket_path = directory + "/vty";
        ASSERT_EQ(local_terminal_start(ctx->host, socket_path.c_str()), 0);
        read("hostname sw\n");
    }
    // Turns the loop until `done`; false after twenty seconds.
    bool pump(const std::function<bool()>& done) {
        const nanoseconds deadline = monotonic_now() + 20 * NS_PER_S;
        const auto tick = [](thread*) { return 0; };
        while (!done()) {
            if (monotonic_now() > deadline) return false;
            thread* timer = thread_add_timer_msec(ctx, tick, nullptr, 2);
            thread event;
            if (!thread_fetch(ctx, &event)) return false;
            const bool was_tick = event.func == static_cast<thread_func>(tick);
            thread_call(&event);
            if (!was_tick) thread_cancel(timer);
        }
        return true;
    }
    bool closes(Client* c) {
        return pump([&] { return c->is_closed(); });
    }
    bool answers(Client* c, std::size_t count) {
        return pump([&] { return c->answered(count); });
    }
    bool sessions_become(std::size_t count) {
        return pump([&] { return ctx->host->session_count == count; });
    }
    void open_batch(Client* c) {
        ASSERT_TRUE(c->connect_local(socket_path));
        c->put("batch\n");
    }

    std::string socket_path;
};

}  // namespace host_support
