// What the tests of nsmd share: a kernel made of messages, a client of the NSM socket, and nsmd as a whole
// between the two, in virtual time. The code under test is the real one behind all of them.
#pragma once

#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "nsmd/links/port_table.h"
#include "nsmd/netlink/netlink.h"
#include "nsmd/nsmd.h"
#include "nsmd/server/server.h"
#include "suite/log/log.h"
#include "suite/manager/wire.h"
#include "unit/nsmd_loop.h"

using texts = std::vector<std::string>;

// Collects log lines while it lives.
struct log_lines {
    texts lines;
    log_lines() {
        log_open("test");
        log_use_sink(LOG_SINK_STDERR, false);
        log_set_level(LOG_LEVEL_DEBUG);
        EXPECT_EQ(log_add_tap(take, this), 0);
    }
    ~log_lines() { log_remove_tap(take, this); }
    static void take(void* arg, int, const char* line, std::size_t length) {
        static_cast<log_lines*>(arg)->lines.emplace_back(line, length);
    }
    long count(const std::string& part) const {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const auto& l) { return l.find(part) != std::string::npos; });
    }
};

// A port table that keeps what it reports: "sw1 1 up" for port 1, "bridge br0 7" for an identity that ends
// in 7.
struct recorded_table {
    std::vector<const char*> patterns;
    texts events;
    port_table* table;

    explicit recorded_table(std::vector<const char*> served)
        : patterns(std::move(served)),
          table(port_table_create(patterns.data(), patterns.size(), {on_port, on_bridge, this})) {}
    ~recorded_table() { port_table_free(table); }

    static void on_port(void* arg, const nsmd_port& p, port_event e) {
        static const char* const words[] = {"added", "removed", "up", "down", "pin"};
        static_cast<recorded_table*>(arg)->events.push_back(
            std::string(p.name) + " " + std::to_string(p.ifindex) + " " + words[static_cast<int>(e)]);
    }
    static void on_bridge(void* arg, const bridge_identity& b) {
        static_cast<recorded_table*>(arg)->events.push_back(std::string("bridge ") + b.name + " " +
                                                            std::to_string(b.mac[5]));
    }
    texts take() { return std::exchange(events, {}); }
    texts take_ports() {
        texts all = take();
        std::erase_if(all, [](const auto& e) { return e.starts_with("bridge "); });
        return all;
    }
};

// One link of the kernel that is made of messages.
struct fake_link {
    int index = 1;
    std::string name = "sw1";
    std::string kind = {};
    std::uint8_t mac_last = 1;
    bool up = true;
    std::uint32_t carrier_downs = 0;
    int master = 0;
    unsigned short hardware = ARPHRD_ETHER;
    int pin = -1;
    bool complete = true;
};

inline fake_link sw_link(int index, bool up = true) {
    return {.index = index,
            .name = "sw" + std::to_string(index),
            .mac_last = static_cast<std::uint8_t>(index),
            .up = up};
}

using message = std::vector<std::uint8_t>;

inline message octets_of(const nl_builder& b) {
    return {b.data, b.data + b.length};
}

// Whom the kernel answers: the sequence number of the request, and our address; zeros in what it says
// unasked.
struct answer_to {
    std::uint32_t sequence = 0, port = 0;
};

inline void address(nl_builder* b, answer_to to) {
    std::memcpy(b->data + 8, &to.sequence, sizeof to.sequence);
    std::memcpy(b->data + 12, &to.port, sizeof to.port);
}

inline message link_octets(const fake_link& l, std::uint16_t type = RTM_NEWLINK, std::uint16_t flags = 0,
                           answer_to to = {}, unsigned char family = 0) {
    nl_builder b;
    nl_begin(&b, type, flags, 0);
    address(&b, to);
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

// NLMSG_ERROR or NLMSG_DONE.
inline message control_octets(std::uint16_t type, std::uint16_t flags, answer_to to, int value) {
    nl_builder b;
    nl_begin(&b, type, flags, 0);
    address(&b, to);
    nl_put_raw(&b, &value, sizeof value);
    return octets_of(b);
}

// The kernel's side of the netlink sockets. Holds links, answers dumps and questions, and lets tests push
// notifications, errors and garbage; requests of generic netlink go to the test's own family.
struct fake_kernel {
    static constexpr int FD = 700, GENERIC_FD = 701;
    static constexpr std::uint32_t PORT = 4711;
    struct item {
        int error;  // 0, or what the read returns
        message data;
    };
    enum class dump { whole, interrupted, refused, swallowed };

    std::deque<item> queue, generic_queue;
    std::vector<fake_link> links;
    int dumps = 0, questions = 0;
    dump next_dump = dump::whole;
    std::function<void()> during_dump;                  // once
    std::function<void(const nl_message&)> on_generic;  // null: no generic netlink
    std::vector<unsigned> generic_groups;

    netlink_edge edge() {
        return {open_it, join_it, receive_it, send_it, [](void*, int) {}, this};
    }
    void attach(virtual_loop* v) {
        v->fake_ready = [this] {
            std::vector<int> ready;
            if (!queue.empty()) ready.push_back(FD);
            if (!generic_queue.empty()) ready.push_back(GENERIC_FD);
            return ready;
        };
    }
    fake_link* find(int index) {
        const auto at = std::find_if(links.begin(), links.end(), [&](auto& l) { return l.index == index; });
        return at == links.end() ? nullptr : &*at;
    }
    // Stores the link and says so, as the kernel does.
    void set(const fake_link& l, bool say = true) {
        if (fake_link* known = find(l.index))
            *known = l;
        else
            links.push_back(l);
        if (say) push(link_octets(l));
    }
    void remove(int index, bool say = true) {
        if (say) push(link_octets(*find(index), RTM_DELLINK));
        std::erase_if(links, [&](auto& l) { return l.index == index; });
    }
    void push(message data) { queue.push_back({0, std::move(data)}); }
    void push_error(int error) { queue.push_back({error, {}}); }

  private:
    void answer_dump(answer_to to) {
        ++dumps;
        const dump kind = std::exchange(next_dump, dump::whole);
        if (kind == dump::swallowed) return;
        if (kind == dump::refused) return push(control_octets(NLMSG_ERROR, 0, to, -EBUSY));
        const std::uint16_t flags = kind == dump::interrupted ? NLM_F_MULTI | NLM_F_DUMP_INTR : NLM_F_MULTI;
        message datagram;
        for (const auto& l : links) {
            const auto one = link_octets(l, RTM_NEWLINK, flags, to);
            datagram.insert(datagram.end(), one.begin(), one.end());
        }
        if (!datagram.empty()) push(datagram);
        if (const auto now = std::exchange(during_dump, nullptr)) now();
        push(control_octets(NLMSG_DONE, flags, to, 0));
    }
    void answer(const nl_message& m) {
        EXPECT_EQ(m.type, RTM_GETLINK);
        const answer_to to = {m.sequence, PORT};
        if ((m.flags & NLM_F_DUMP) == NLM_F_DUMP) return answer_dump(to);
        ++questions;
        ifinfomsg header{};
        std::memcpy(&header, m.body.data(), sizeof header);
        const fake_link* l = find(header.ifi_index);
        push(l ? link_octets(*l, RTM_NEWLINK, 0, to) : control_octets(NLMSG_ERROR, 0, to, -ENODEV));
    }
    static int open_it(void* arg, int protocol) {
        if (protocol == NETLINK_ROUTE) return FD;
        return static_cast<fake_kernel*>(arg)->on_generic ? GENERIC_FD : -EPROTONOSUPPORT;
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
        const item next = std::move(from.front());
        from.pop_front();
        if (next.error) return next.error;
        std::copy(next.data.begin(), next.data.end(), buffer.begin());
        return static_cast<int>(next.data.size());
    }
    static int send_it(void* arg, int fd, const_octets request) {
        auto* k = static_cast<fake_kernel*>(arg);
        nl_message m;
        EXPECT_TRUE(nl_next_message(&request, &m));
        fd == FD ? k->answer(m) : k->on_generic(m);
        return 0;
    }
};

// A family of generic netlink behind the kernel's second socket. Answers the lookup; requests of the family
// itself are the derived one's.
struct fake_family {
    static constexpr std::uint16_t ID = 31;
    static constexpr std::uint32_t GROUP = 9;
    fake_kernel& kernel;
    std::string name;
    bool there = true;

    fake_family(fake_kernel& k, std::string family) : kernel(k), name(std::move(family)) {
        kernel.on_generic = [this](const nl_message& m) {
            if (m.type == GENL_ID_CTRL) return answer_lookup(m);
            EXPECT_EQ(m.type, ID);
            requested(m.body[0], m.flags, m.body.subspan(4), m.sequence);
        };
    }
    virtual ~fake_family() = default;

    virtual void requested(std::uint8_t command, std::uint16_t flags, const_octets attributes,
                           std::uint32_t sequence) = 0;

    void say(nl_builder b, std::uint32_t sequence = 0) {
        address(&b, {sequence, fake_kernel::PORT});
        kernel.generic_queue.push_back({0, octets_of(b)});
    }
    void acknowledge(std::uint32_t sequence, int error) {
        kernel.generic_queue.push_back(
            {0, control_octets(NLMSG_ERROR, 0, {sequence, fake_kernel::PORT}, -error)});
    }

  private:
    void answer_lookup(const nl_message& m) {
        const_octets rest = m.body.subspan(4);
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&rest, &a));
        if (!there || nl_text(a.value) != name) return acknowledge(m.sequence, ENOENT);
        say(family_message(ID, GROUP, "monitor"), m.sequence);
        acknowledge(m.sequence, 0);
    }
};

// The client's end of a session.
struct nsm_test_client {
    int fd = -1;
    std::uint32_t sequence = 0, expected = 0;

    ~nsm_test_client() { hang_up(); }
    void hang_up() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    // Makes the pair and returns the server's end, of which the loop knows.
    int dial(virtual_loop* loop) {
        int pair[2] = {-1, -1};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, pair), 0);
        hang_up();
        sequence = expected = 0;
        fd = pair[0];
        loop->descriptors.push_back(pair[1]);
        return pair[1];
    }
    void send_octets(const message& packet) const {
        EXPECT_EQ(send(fd, packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
    }
    void say(std::uint16_t type, const std::vector<std::uint32_t>& words = {}) {
        message packet(NSM_HEADER_SIZE + words.size() * 4);
        put_be16(packet, 0, type);
        put_be16(packet, 2, static_cast<std::uint16_t>(packet.size()));
        put_be32(packet, 4, ++sequence);
        for (std::size_t i = 0; i < words.size(); ++i) put_be32(packet, NSM_HEADER_SIZE + 4 * i, words[i]);
        send_octets(packet);
    }
    void hello(std::uint32_t version = 1) { say(NSM_MSG_HELLO, {version << 16 | 36, 0}); }

    // Next message as text, e.g. "up 3", "clock 4 0"; "" when there is none, "closed" at the end. The header
    // is checked on the way.
    std::string take() {
        std::uint8_t buffer[512];
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN) return "";
        if (got <= 0) return "closed";
        const const_octets m{buffer, static_cast<std::size_t>(got)};
        EXPECT_GE(m.size(), NSM_HEADER_SIZE);
        EXPECT_EQ(get_be16(m, 2), m.size());
        EXPECT_EQ(get_be32(m, 4), ++expected);
        return describe(get_be16(m, 0), m.subspan(NSM_HEADER_SIZE));
    }
    texts take_all() {
        texts all;
        for (std::string m; !(m = take()).empty();) {
            all.push_back(m);
            if (m == "closed") break;
        }
        return all;
    }

  private:
    static std::string describe(unsigned type, const_octets body) {
        static const struct {
            unsigned type;
            const char* word;
            std::size_t numbers;
        } plain[] = {{NSM_MSG_HELLO_ACK, "ack", 1},      {NSM_MSG_SYNC_DONE, "sync", 0},
                     {NSM_MSG_LINK_UP, "up", 1},         {NSM_MSG_LINK_DOWN, "down", 1},
                     {NSM_MSG_LINK_DELETE, "delete", 2}, {NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, "clock", 2}};
        const auto number = [&](std::size_t at) { return " " + std::to_string(get_be32(body, at)); };
        const auto text = [&](std::size_t at) { return " " + std::string(nl_text(body.subspan(at))); };
        for (const auto& p : plain) {
            if (p.type != type) continue;
            std::string out = p.word;
            for (std::size_t i = 0; i < p.numbers; ++i) out += number(4 * i);
            return out;
        }
        if (type == NSMD_MSG_STATUS_TEXT) return "text" + text(0);
        if (type == NSM_MSG_BRIDGE_ADD) {
            EXPECT_EQ(body.size(), nsm_bridge_body::SIZE);
            return "bridge" + text(nsm_bridge_body::NAME) + " " +
                   std::to_string(body[nsm_bridge_body::MAC + 5]);
        }
        EXPECT_EQ(type, NSM_MSG_LINK_ADD);
        EXPECT_EQ(body.size(), nsm_link_body::SIZE);
        EXPECT_EQ(get_be16(body, nsm_link_body::TYPE), 2);
        return "add" + number(nsm_link_body::IFINDEX) + number(nsm_link_body::KERNEL_IFINDEX) +
               text(nsm_link_body::NAME) + (get_be16(body, nsm_link_body::FLAGS) ? " up" : " down");
    }
};

// nsmd as a whole, with one session of the daemon.
struct nsmd_session : testing::Test {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    nsmd_options options{};
    nsmd* n = nullptr;
    nsm_test_client c;

    void SetUp() override {
        kernel.attach(&loop);
        options.grace_s = 10;
    }
    void TearDown() override { stop(); }
    void stop() { nsmd_stop(std::exchange(n, nullptr)); }
    // Without what the session begins with.
    void start() {
        start_alone();
        (void)connect(&c);
    }
    void start_alone() {
        kernel.queue.clear();
        n = nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000});
        ASSERT_NE(n, nullptr);
        loop.run(1);
    }
    // What the client is told at the beginning.
    texts connect(nsm_test_client* client) {
        EXPECT_NE(nsmd_server_adopt(nsmd_server_of(n), client->dial(&loop)), nullptr);
        client->hello();
        loop.run(1);
        return client->take_all();
    }
    // What the daemon is told within so many milliseconds.
    texts after(unsigned ms) {
        loop.run(ms);
        return c.take_all();
    }

    // As it is asked for over the session, in pieces.
    std::string status() {
        c.say(NSMD_MSG_STATUS_GET);
        std::string all;
        for (const auto& piece : after(1)) all += piece.substr(std::strlen("text "));
        return all;
    }

    void enable(bool on) { c.say(NSM_MSG_SSM_GLOBAL_ENABLE, {on}); }
    void recover_from(std::uint32_t input) { c.say(NSM_MSG_SSM_CLOCK_RECOVERY_SELECT, {input}); }
    // The value is inverted on the wire.
    void hold(bool on) { c.say(NSM_MSG_SSM_HOLDOVER_ENABLE, {on ? 0U : 1U}); }
    void select(std::uint32_t ifindex) { c.say(NSM_MSG_SSM_SELECTED_IF_INDEX, {ifindex, 0}); }
};
