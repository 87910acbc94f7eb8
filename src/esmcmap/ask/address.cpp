// A thread that looks up a name is left to itself: nothing ends the system's resolver. What it shares lives
// as long as either side does.
#include "esmcmap/ask/address.h"

#include <netdb.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <system_error>
#include <thread>

namespace esmcmap {

namespace {

bool read_port(std::string_view text, std::uint16_t& port) {
    const char* end = text.data() + text.size();
    return !text.empty() && std::from_chars(text.data(), end, port).ptr == end && port != 0;
}

// 0, or an error of getnameinfo.
int add_peer(const addrinfo& found, std::uint16_t port, std::vector<std::string>& peers) {
    char host[NI_MAXHOST];
    if (const int error =
            getnameinfo(found.ai_addr, found.ai_addrlen, host, sizeof host, nullptr, 0, NI_NUMERICHOST))
        return error;
    const std::string digits = host, end = ':' + std::to_string(port);
    peers.push_back((found.ai_family == AF_INET6 ? "udp6:[" + digits + ']' : "udp:" + digits) + end);
    return 0;
}

// 0, or an error of getaddrinfo.
int find_peers(const agent_address& of, int flags, std::vector<std::string>& peers) {
    addrinfo hints = {}, *found = nullptr;
    hints.ai_socktype = SOCK_DGRAM;
    hints.ai_flags = flags;
    int error = getaddrinfo(of.host.c_str(), nullptr, &hints, &found);
    if (error) return error;
    for (const addrinfo* one = found; one && !error; one = one->ai_next)
        error = add_peer(*one, of.port, peers);
    freeaddrinfo(found);
    return error;
}

}  // namespace

std::optional<agent_address> read_agent_address(std::string_view text) {
    agent_address read;
    const bool bracket = text.starts_with('[');
    const std::size_t end = bracket ? text.find(']') : text.find(':');
    const bool six = !bracket && end != text.npos && text.find(':', end + 1) != text.npos;
    if (bracket && end == text.npos) return std::nullopt;
    read.host = text.substr(bracket, six ? text.npos : end - bracket);
    const std::string_view rest = six || end == text.npos ? std::string_view() : text.substr(end + bracket);
    if (!rest.empty() && (rest.front() != ':' || !read_port(rest.substr(1), read.port))) return std::nullopt;
    constexpr const char* OF_NAMES = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_:%";
    if (read.host.empty() || read.host.find_first_not_of(OF_NAMES) != std::string::npos) return std::nullopt;
    return read;
}

std::vector<std::string> numeric_peer(const agent_address& of) {
    std::vector<std::string> peers;
    if (find_peers(of, AI_NUMERICHOST, peers)) return {};
    return peers;
}

struct lookup::shared {
    agent_address of;
    int event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::atomic<bool> done = false;
    std::vector<std::string> peers;  // this and the next: the other side's before it is done
    std::string error;

    explicit shared(const agent_address& name) : of(name) {
        if (event < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    ~shared() { close(event); }
    shared(const shared&) = delete;
    shared& operator=(const shared&) = delete;

    void run() {
        const int failure = find_peers(of, 0, peers);
        if (failure == EAI_NONAME || failure == EAI_NODATA)
            error = "no such host: " + of.host;
        else if (failure)
            error = of.host + ": " + (failure == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(failure));
        done = true;
        (void)eventfd_write(event, 1);
    }
};

lookup::lookup(const agent_address& of) : with(std::make_shared<shared>(of)) {
    std::thread([shared = with] { shared->run(); }).detach();
}

int lookup::descriptor() const {
    return with->event;
}

bool lookup::done() const {
    return with->done;
}

const std::vector<std::string>& lookup::peers() const {
    return with->peers;
}

const std::string& lookup::error() const {
    return with->error;
}

}  // namespace esmcmap
