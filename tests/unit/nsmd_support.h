// What the tests of nsmd share: a loop in virtual time, a kernel made of messages, and a client of the NSM
// socket. The code under test is the real one behind all three.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "nsmd/netlink.h"
#include "nsmd/netlink_socket.h"
#include "suite/lib.h"
#include "suite/log.h"
#include "suite/memory.h"
#include "suite/nsm_wire.h"
#include "suite/thread.h"
#include "suite/thread_master.h"

// Collects log lines while it lives.
struct log_lines {
    std::vector<std::string> lines;
    log_lines() {
        log_open("test");
        log_use_sink(LOG_SINK_STDERR, false);
        log_set_level(LOG_LEVEL_DEBUG);
        EXPECT_EQ(log_add_tap(take, this), 0);
    }
    ~log_lines() { log_remove_tap(take, this); }
    log_lines(const log_lines&) = delete;
    log_lines& operator=(const log_lines&) = delete;
    static void take(void* arg, int, const char* line, std::size_t length) {
        static_cast<log_lines*>(arg)->lines.emplace_back(line, length);
    }
    long count(const std::string& part) const {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const auto& l) { return l.find(part) != std::string::npos; });
    }
};

// The event loop with a clock that only moves by waiting. Descriptors: real ones are polled, invented ones
// (from FIRST_FAKE on) are asked for through `fake_ready`.
struct virtual_loop {
    static constexpr int FIRST_FAKE = 700;
    lib_globals ctx{};
    nanoseconds clock = 1000 * NS_PER_S;
    std::vector<int> descriptors;  // the server's ends of socket pairs
    std::function<std::vector<int>()> fake_ready = [] { return std::vector<int>{}; };

    virtual_loop() {
        memory_init(0);
        const thread_edges edges = {now, wait, this};
        ctx.master = thread_master_create(&edges);
    }
    ~virtual_loop() { thread_master_finish(ctx.master); }
    virtual_loop(const virtual_loop&) = delete;
    virtual_loop& operator=(const virtual_loop&) = delete;

    static nanoseconds now(void* arg) { return static_cast<virtual_loop*>(arg)->clock; }

    static int wait(void* arg, int timeout_ms, thread_ready* out, int max) {
        auto* v = static_cast<virtual_loop*>(arg);
        int count = 0;
        for (const int fd : v->fake_ready())
            if (count < max) out[count++] = {fd, true, false};
        for (const int fd : v->descriptors) {
            // As the kernel does, report only what is waited for: else time would never move on.
            const thread_source* source = thread_source_find(v->ctx.master, fd);
            if (!source || count == max) continue;
            const auto events =
                static_cast<short>((source->read ? POLLIN : 0) | (source->write ? POLLOUT : 0));
            pollfd entry{fd, events, 0};
            if (!events || poll(&entry, 1, 0) <= 0) continue;
            out[count++] = {fd, (entry.revents & ~POLLOUT) != 0, (entry.revents & POLLOUT) != 0};
        }
        if (count || timeout_ms == 0) return count;
        if (timeout_ms > 0) v->clock += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return 0;
    }
    // Runs everything that happens within so many milliseconds of virtual time.
    void run(unsigned milliseconds) {
        const auto over = [](thread* event) {
            event->ctx->flags |= LIB_SHUTTING_DOWN;
            return 0;
        };
        ASSERT_NE(thread_add_timer_msec(&ctx, over, nullptr, milliseconds), nullptr);
        thread event;
        while (thread_fetch(&ctx, &event)) thread_call(&event);
        ctx.flags = 0;
    }
};

// One link of the kernel that is made of messages.
struct fake_link {
    int index = 1;
    std::string name = "sw1";
    std::string kind;
    std::uint8_t mac_last = 1;
    bool up = true;
    std::uint32_t carrier_downs = 0;
    int master = 0;
    unsigned short hardware = ARPHRD_ETHER;
    int pin = -1;
    bool complete = true;
};

inline std::vector<std::uint8_t> octets_of(const nl_builder& b) {
    return {b.data, b.data + b.length};
}

inline std::vector<std::uint8_t> link_octets(const fake_link& l, std::uint16_t type = RTM_NEWLINK,
                                             std::uint16_t flags = 0, std::uint32_t sequence = 0,
                                             std::uint32_t port = 0, unsigned char family = 0) {
    nl_builder b;
    nl_begin(&b, type, flags, sequence);
    std::memcpy(b.data + 12, &port, sizeof port);
    ifinfomsg header{};
    header.ifi_family = family;
    header.ifi_index = l.index;
    header.ifi_type = l.hardware;
    header.ifi_flags = l.up ? IFF_UP | IFF_RUNNING : IFF_UP;
    nl_put_raw(&b, &header, sizeof header);
    nl_put_text(&b, IFLA_IFNAME, l.name);
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, l.mac_last}, up = l.up;
    nl_put(&b, IFLA_ADDRESS, mac, sizeof mac);
    if (l.master) nl_put_u32(&b, IFLA_MASTER, static_cast<std::uint32_t>(l.master));
    if (l.complete) {
        const std::uint8_t state = l.up ? IF_OPER_UP : IF_OPER_DOWN;
        nl_put(&b, IFLA_OPERSTATE, &state, 1);
        nl_put(&b, IFLA_CARRIER, &up, 1);
    }
    nl_put_u32(&b, IFLA_CARRIER_CHANGES, 2 * l.carrier_downs);
    nl_put_u32(&b, 48, l.carrier_downs);
    if (!l.kind.empty()) {
        const std::size_t nest = nl_nest_begin(&b, IFLA_LINKINFO);
        nl_put_text(&b, IFLA_INFO_KIND, l.kind);
        nl_nest_end(&b, nest);
    }
    const std::size_t pin = nl_nest_begin(&b, 65);
    if (l.pin >= 0) nl_put_u32(&b, 1, static_cast<std::uint32_t>(l.pin));
    nl_nest_end(&b, pin);
    return octets_of(b);
}

inline std::vector<std::uint8_t> control_octets(std::uint16_t type, std::uint16_t flags,
                                                std::uint32_t sequence, std::uint32_t port, int value) {
    nl_builder b;
    nl_begin(&b, type, flags, sequence);
    std::memcpy(b.data + 12, &port, sizeof port);
    nl_put_raw(&b, &value, sizeof value);
    return octets_of(b);
}

// The link side of a kernel: holds links, answers dumps and questions, lets tests push notifications, errors
// and garbage.
struct fake_kernel {
    static constexpr int FD = virtual_loop::FIRST_FAKE;
    static constexpr std::uint32_t PORT = 4711;
    struct item {
        int error;  // 0, or what the read returns
        std::vector<std::uint8_t> data;
    };
    std::deque<item> queue;
    std::vector<fake_link> links;
    int dumps = 0, questions = 0;
    bool interrupt_next_dump = false, refuse_next_dump = false, swallow_next_dump = false;
    std::function<void()> during_dump;
    // A generic netlink socket beside it, for tests that bring one.
    static constexpr int GENERIC_FD = FD + 1;
    std::deque<item> generic_queue;
    std::function<int(const_octets)> generic_send;
    std::vector<unsigned> generic_groups;

    netlink_edge edge() { return {open_it, join_it, receive_it, send_it, close_it, this}; }
    void attach(virtual_loop* v) {
        v->fake_ready = [this] {
            std::vector<int> ready;
            if (!queue.empty()) ready.push_back(FD);
            if (!generic_queue.empty()) ready.push_back(GENERIC_FD);
            return ready;
        };
    }
    fake_link* find(int index) {
        for (auto& l : links)
            if (l.index == index) return &l;
        return nullptr;
    }
    // Stores the link and says so, as the kernel does.
    void set(const fake_link& l, bool say = true) {
        if (fake_link* known = find(l.index))
            *known = l;
        else
            links.push_back(l);
        if (say) queue.push_back({0, link_octets(l)});
    }
    void remove(int index, bool say = true) {
        fake_link* known = find(index);
        ASSERT_NE(known, nullptr);
        if (say) queue.push_back({0, link_octets(*known, RTM_DELLINK)});
        links.erase(links.begin() + (known - links.data()));
    }
    void push(std::vector<std::uint8_t> data) { queue.push_back({0, std::move(data)}); }
    void push_error(int error) { queue.push_back({error, {}}); }

    void answer_dump(std::uint32_t sequence) {
        ++dumps;
        if (std::exchange(swallow_next_dump, false)) return;
        if (std::exchange(refuse_next_dump, false))
            return push(control_octets(NLMSG_ERROR, 0, sequence, PORT, -EBUSY));
        const std::uint16_t flags =
            std::exchange(interrupt_next_dump, false) ? NLM_F_MULTI | NLM_F_DUMP_INTR : NLM_F_MULTI;
        std::vector<std::uint8_t> datagram;
        for (const auto& l : links) {
            const auto one = link_octets(l, RTM_NEWLINK, flags, sequence, PORT);
            datagram.insert(datagram.end(), one.begin(), one.end());
        }
        if (!datagram.empty()) push(datagram);
        if (during_dump) during_dump();
        push(control_octets(NLMSG_DONE, flags, sequence, PORT, 0));
    }
    void answer_question(std::uint32_t sequence, int index) {
        ++questions;
        if (const fake_link* l = find(index))
            push(link_octets(*l, RTM_NEWLINK, 0, sequence, PORT));
        else
            push(control_octets(NLMSG_ERROR, 0, sequence, PORT, -ENODEV));
    }

    static int open_it(void* arg, int protocol) {
        if (protocol == NETLINK_ROUTE) return FD;
        return static_cast<fake_kernel*>(arg)->generic_send ? GENERIC_FD : -EPROTONOSUPPORT;
    }
    static int join_it(void* arg, int fd, unsigned group) {
        if (fd == FD) return group == RTNLGRP_LINK ? 0 : -EINVAL;
        static_cast<fake_kernel*>(arg)->generic_groups.push_back(group);
        return 0;
    }
    static int receive_it(void* arg, int fd, octets buffer) {
        auto* k = static_cast<fake_kernel*>(arg);
        auto& from = fd == FD ? k->queue : k->generic_queue;
        if (from.empty()) return -EAGAIN;
        const item next = from.front();
        from.pop_front();
        if (next.error) return next.error;
        const std::size_t size = std::min(buffer.size(), next.data.size());
        if (size) std::memcpy(buffer.data(), next.data.data(), size);
        return static_cast<int>(size);
    }
    static int send_it(void* arg, int fd, const_octets message) {
        auto* k = static_cast<fake_kernel*>(arg);
        if (fd == GENERIC_FD) return k->generic_send(message);
        nl_message m;
        EXPECT_TRUE(nl_next_message(&message, &m));
        EXPECT_EQ(m.type, RTM_GETLINK);
        ifinfomsg header{};
        std::memcpy(&header, m.body.data(), sizeof header);
        if ((m.flags & NLM_F_DUMP) == NLM_F_DUMP)
            k->answer_dump(m.sequence);
        else
            k->answer_question(m.sequence, header.ifi_index);
        return 0;
    }
    static void close_it(void*, int) {}
};

// The client's end of a session.
struct nsm_test_client {
    int fd = -1;
    std::uint32_t sequence = 0, expected = 0;

    nsm_test_client() = default;
    nsm_test_client(const nsm_test_client&) = delete;
    nsm_test_client& operator=(const nsm_test_client&) = delete;
    ~nsm_test_client() { hang_up(); }
    void hang_up() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    // Makes the pair and returns the server's end.
    int make_pair() {
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        fd = pair[0];
        return pair[1];
    }
    void send_octets(const std::vector<std::uint8_t>& packet) const {
        EXPECT_EQ(send(fd, packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
    }
    void say(std::uint16_t type, const std::vector<std::uint32_t>& words = {}) {
        std::vector<std::uint8_t> packet(NSM_HEADER_SIZE + words.size() * 4);
        put_be16(packet, 0, type);
        put_be16(packet, 2, static_cast<std::uint16_t>(packet.size()));
        put_be32(packet, 4, ++sequence);
        for (std::size_t i = 0; i < words.size(); ++i) put_be32(packet, NSM_HEADER_SIZE + 4 * i, words[i]);
        send_octets(packet);
    }
    void hello() { say(NSM_MSG_HELLO, {1U << 16 | 36, 0}); }

    // Next message as text, e.g. "up 3", "clock 4 0"; "" when there is none, "closed" at the end. The header
    // is checked on the way.
    std::string take() {
        std::uint8_t buffer[512];
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0) return errno == EAGAIN ? "" : "closed";
        if (got == 0) return "closed";
        const const_octets m{buffer, static_cast<std::size_t>(got)};
        EXPECT_GE(m.size(), NSM_HEADER_SIZE);
        EXPECT_EQ(get_be16(m, 2), m.size());
        EXPECT_EQ(get_be32(m, 4), ++expected);
        return describe(get_be16(m, 0), m.subspan(NSM_HEADER_SIZE));
    }
    static std::string describe(unsigned type, const_octets body) {
        const auto word = [&](std::size_t at) { return std::to_string(get_be32(body, at)); };
        switch (type) {
            case NSM_MSG_HELLO_ACK:
                return "ack " + word(0);
            case NSM_MSG_SYNC_DONE:
                return "sync";
            case NSM_MSG_LINK_ADD:
                EXPECT_EQ(body.size(), nsm_link::SIZE);
                EXPECT_EQ(get_be16(body, nsm_link::TYPE), 2);
                return "add " + word(nsm_link::IFINDEX) + " " + word(nsm_link::KERNEL_IFINDEX) + " " +
                       reinterpret_cast<const char*>(body.data() + nsm_link::NAME) +
                       (get_be16(body, nsm_link::FLAGS) ? " up" : " down");
            case NSM_MSG_LINK_DELETE:
                return "delete " + word(0) + " " + word(4);
            case NSM_MSG_LINK_UP:
                return "up " + word(0);
            case NSM_MSG_LINK_DOWN:
                return "down " + word(0);
            case NSM_MSG_BRIDGE_ADD:
                EXPECT_EQ(body.size(), nsm_bridge::SIZE);
                return std::string("bridge ") + reinterpret_cast<const char*>(body.data()) + " " +
                       std::to_string(body[nsm_bridge::MAC + 5]);
            case NSM_MSG_SSM_SEND_BACK_CLOCK_STATE:
                return "clock " + word(0) + " " + word(4);
            case 301:
                return "text " + std::string(reinterpret_cast<const char*>(body.data()), body.size());
            default:
                return "type " + std::to_string(type);
        }
    }
    std::vector<std::string> take_all() {
        std::vector<std::string> all;
        for (std::string m; !(m = take()).empty();) {
            all.push_back(m);
            if (m == "closed") break;
        }
        return all;
    }
};
using texts = std::vector<std::string>;
