// The library reads a line to its end, however long it is, and each of its waits begins anew with every
// octet. So it is given a stream that comes to an end by itself.
#include "esmcmap/serve/bounded_http.h"

#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace esmcmap {

namespace {

using std::chrono::steady_clock;

bool ready(int socket, short events, int milliseconds) {
    pollfd one = {socket, events, 0};
    int count = 0;
    while ((count = poll(&one, 1, milliseconds)) < 0 && errno == EINTR) {
    }
    return count > 0 && (one.revents & events);
}

class bounded_stream final : public httplib::Stream {
  public:
    explicit bounded_stream(int connected) : fd(connected) {}

    void begin_request() {
        left = MOST_REQUEST;
        end = steady_clock::now() + std::chrono::milliseconds(REQUEST_MS);
    }

    bool is_readable() const override { return left > 0 && ready(fd, POLLIN, milliseconds_left()); }

    // Nothing that a viewer would say while it is sent a stream is awaited: what can be read is its end.
    bool is_writable() const override {
        char unused = 0;
        const bool ended = ready(fd, POLLIN, 0) && recv(fd, &unused, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
        return !ended && ready(fd, POLLOUT, WRITE_MS);
    }

    ssize_t read(char* into, std::size_t size) override {
        if (!is_readable()) return -1;
        const ssize_t count = recv(fd, into, std::min(size, left), 0);
        if (count > 0) left -= static_cast<std::size_t>(count);
        return count;
    }

    ssize_t write(const char* from, std::size_t size) override {
        if (!ready(fd, POLLOUT, WRITE_MS)) return -1;
        return send(fd, from, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    // For logs, which there are none of.
    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return fd; }

  private:
    int fd;
    std::size_t left = 0;
    steady_clock::time_point end;

    int milliseconds_left() const {
        const auto time = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now()).count();
        return static_cast<int>(std::max<decltype(time)>(0, time));
    }
};

// Threads that take the newest task first.
class newest_first final : public httplib::TaskQueue {
  public:
    explicit newest_first(unsigned count) {
        for (unsigned i = 0; i < count; ++i) threads.emplace_back([this] { work(); });
    }

    void enqueue(std::function<void()> task) override {
        const std::unique_lock held(lock);
        tasks.push_back(std::move(task));
        news.notify_one();
    }

    void shutdown() override {
        {
            const std::unique_lock held(lock);
            ending = true;
            news.notify_all();
        }
        for (std::thread& one : threads) one.join();
    }

  private:
    std::mutex lock;
    std::condition_variable news;
    std::vector<std::function<void()>> tasks;
    std::vector<std::thread> threads;
    bool ending = false;

    void work() {
        std::unique_lock held(lock);
        for (;;) {
            news.wait(held, [this] { return ending || !tasks.empty(); });
            if (tasks.empty()) return;
            const std::function<void()> task = std::move(tasks.back());
            tasks.pop_back();
            held.unlock();
            task();
            held.lock();
        }
    }
};

}  // namespace

bounded_server::bounded_server(unsigned threads) {
    new_task_queue = [threads] { return new newest_first(threads); };
}

void bounded_server::lengthen_queue() {
    (void)::listen(svr_sock_, SOMAXCONN);
}

bool bounded_server::process_and_close_socket(socket_t socket) {
    bounded_stream stream(socket);
    bool closed = false, well = true;
    for (std::size_t left = keep_alive_max_count_; left > 0 && well && !closed; --left) {
        if (svr_sock_ == INVALID_SOCKET || !ready(socket, POLLIN, IDLE_MS)) break;
        stream.begin_request();
        well = process_request(stream, left == 1, closed, nullptr);
    }
    ::shutdown(socket, SHUT_RDWR);
    close(socket);
    return well;
}

}  // namespace esmcmap
