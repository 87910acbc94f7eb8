// Messages to the service manager: one datagram each, over a socket that lives for it alone, so that a
// manager that has started anew is reached as well. One whose queue is full, or that is gone, is not waited
// for: the next feed comes soon. The feed is a timer of the event loop, so a loop that hangs does not feed,
// and the manager ends and restarts the process. Called by the programs' start-up and end.
#include "suite/process/service.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "suite/base/unix_socket.h"
#include "suite/log/log.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::uint64_t US_PER_MS = 1000;
constexpr std::uint64_t FEEDS_PER_LIMIT = 4;  // one that comes late, or is lost, does not count
constexpr std::uint64_t FEED_MAX_MS = 60'000;

std::uint32_t feed_ms;  // 0: no watchdog

// 0, also when there is nobody to tell, or a negative errno.
int tell(std::string_view message) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (!path || !*path) return 0;
    const int fd = unix_connect(path, SOCK_DGRAM | SOCK_NONBLOCK);
    if (fd < 0) return fd;
    const int result = send(fd, message.data(), message.size(), MSG_NOSIGNAL) < 0 ? -errno : 0;
    close(fd);
    return result;
}

// The watchdog may be meant for another process that has handed its environment down.
bool is_for_us() {
    const char* process = std::getenv("WATCHDOG_PID");
    return !process || std::strtol(process, nullptr, 10) == getpid();
}

std::uint32_t feed_interval() {
    const char* limit = std::getenv("WATCHDOG_USEC");
    if (!limit || !is_for_us()) return 0;
    const std::uint64_t ms = std::strtoull(limit, nullptr, 10) / US_PER_MS / FEEDS_PER_LIMIT;
    return static_cast<std::uint32_t>(ms < FEED_MAX_MS ? ms : FEED_MAX_MS);
}

int feed_due(thread* event) {
    (void)tell("WATCHDOG=1");
    (void)thread_add_timer_msec(event->ctx, feed_due, nullptr, feed_ms);  // said there; the manager acts
    return 0;
}

}  // namespace

void service_ready(lib_globals* ctx) {
    const int result = tell("READY=1");
    if (result < 0)
        log_suite(LOG_LEVEL_WARNING, "the service manager can't be told that the start is over: %s",
                  std::strerror(-result));
    feed_ms = feed_interval();
    if (feed_ms) (void)thread_add_timer_msec(ctx, feed_due, nullptr, feed_ms);
}

void service_stopping() {
    (void)tell("STOPPING=1");
}
