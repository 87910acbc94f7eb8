// What a chain of switches is held against: a bare loop that sends each slow-protocol frame of one port out
// of its others at once, and decides nothing. tools/network --bare runs one in each switch's namespace.
//
// usage: bare_relay PORT...
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>

namespace {

constexpr std::uint16_t ETHERTYPE_SLOW = 0x8809;
constexpr int PORTS_MAX = 16;

void relay_one(int fd, const int* ports, int count) {
    std::uint8_t frame[64];
    sockaddr_ll from = {};
    socklen_t size = sizeof from;
    const ssize_t length =
        recvfrom(fd, frame, sizeof frame, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &size);
    if (length <= 0) return;
    for (int i = 0; i < count; ++i) {
        if (ports[i] == from.sll_ifindex) continue;
        sockaddr_ll to = {};
        to.sll_family = AF_PACKET;
        to.sll_ifindex = ports[i];
        (void)sendto(fd, frame, static_cast<std::size_t>(length), MSG_DONTWAIT,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
}

}  // namespace

int main(int argc, char** argv) {
    int ports[PORTS_MAX];
    int count = 0;
    for (int i = 1; i < argc && count < PORTS_MAX; ++i)
        ports[count++] = static_cast<int>(if_nametoindex(argv[i]));

    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETHERTYPE_SLOW));
    const int poll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event wanted = {};
    wanted.events = EPOLLIN;
    if (fd < 0 || poll < 0 || epoll_ctl(poll, EPOLL_CTL_ADD, fd, &wanted) != 0) {
        std::perror("bare_relay");
        return 1;
    }
    for (epoll_event ready;;)
        if (epoll_wait(poll, &ready, 1, -1) == 1) relay_one(fd, ports, count);
}
