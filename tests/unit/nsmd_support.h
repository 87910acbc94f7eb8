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
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "nsmd/links/message.h"
#include "nsmd/links/port_table.h"
#include "nsmd/netlink/netlink.h"
#include "nsmd/nsmd.h"
#include "nsmd/server/server.h"
#include "suite/log/log.h"
#include "suite/manager/wire.h"
#include "unit/nsmd_loop.h"

// What was said one after the other, as one text: "down 26, clock 3 0".
struct said {
    std::string all;
    void add(const std::string& one) {
        if (!all.empty() && !one.empty()) all += ", ";
        all += one;
    }
    std::string take() { return std::exchange(all, {}); }
};

// Its parts.
inline std::vector<std::string> parts_of(const std::string& all) {
    std::vector<std::string> parts;
    std::istringstream in(all);
    for (std::string one; std::getline(in >> std::ws, one, ',');) parts.push_back(one);
    return parts;
}

inline std::string content_of(const std::string& path) {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

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
    static void take(void* arg, int, const char* line, std::size_t length) {
        static_cast<log_lines*>(arg)->lines.emplace_back(line, length);
    }
    long count(const std::string& part) const {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const auto& l) { return l.find(part) != std::string::npos; });
    }
};

// A port table that keeps what it reports: "sw1 1 up" for port 1, and where it is asked for "bridge br0 7"
// for an identity that ends in 7.
struct recorded_table : said {
    std::vector<const char*> patterns;
    bool with_bridges = false;
    port_table* table = nullptr;

    explicit recorded_table(std::vector<const char*> served) : patterns(std::move(served)) { restart(); }
    ~recorded_table() { port_table_free(table); }
    void restart() {
        port_table_free(table);
        table = port_table_create(patterns.data(), patterns.size(), {on_port, on_bridge, this});
    }
    static void on_port(void* arg, const nsmd_port& p, port_event e) {
        static const char* const words[] = {"added", "removed", "up", "down", "pin"};
        static_cast<recorded_table*>(arg)->add(std::string(p.name) + " " + std::to_string(p.ifindex) + " " +
                                               words[static_cast<int>(e)]);
    }
    static void on_bridge(void* arg, const bridge_identity& b) {
        auto* t = static_cast<recorded_table*>(arg);
        if (t->with_bridges) t->add(std::string("bridge ") + b.name + " " + std::to_string(b.mac[5]));
    }
};

using message = std::vector<std::uint8_t>;

// Whom the kernel answers: the sequence number of the request, and our address; zeros in what it says
// unasked.
struct answer_to {
    std::uint32_t sequence = 0, port = 0;
};

inline message addressed(nl_builder b, answer_to to) {
    std::memcpy(b.data + 8, &to.sequence, sizeof to.sequence);
    std::memcpy(b.data + 12, &to.port, sizeof to.port);
    return {b.data, b.data + b.length};
}

// A link from its text: name, index, and what is special, as "sw1 1 down" or "br0 20 kind bridge mac 99". The
// address ends in the index unless told; of kind "-" is hardware; an old kernel counts all changes only.
inline message link_octets(const std::string& text, std::uint16_t type = RTM_NEWLINK, std::uint16_t flags = 0,
                           answer_to to = {}) {
    std::map<std::string, int> is = {
        {"admin", IFF_UP},          {"oper", IF_OPER_UP}, {"carrier", 1}, {"complete", 1},
        {"hardware", ARPHRD_ETHER}, {"downs", 0},         {"pin", -1},    {"old", 0}};
    std::istringstream words(text);
    std::string name, kind = "veth";
    words >> name >> is["index"];
    is["mac"] = is["index"];
    for (std::string key; words >> key;)
        if (key == "kind")
            words >> kind;
        else if (key != "down")
            words >> is[key];
        else
            is["carrier"] = 0;
    nl_builder b;
    const auto u8 = [&](std::uint16_t attr, int value) {
        const auto octet = static_cast<std::uint8_t>(value);
        nl_put(&b, attr, &octet, 1);
    };
    const auto u32 = [&](std::uint16_t attr, int value) {
        nl_put_u32(&b, attr, static_cast<std::uint32_t>(value));
    };
    nl_begin(&b, type, flags, 0);
    ifinfomsg header{};
    header.ifi_family = static_cast<unsigned char>(is["family"]);
    header.ifi_type = static_cast<unsigned short>(is["hardware"]);
    header.ifi_index = is["index"];
    header.ifi_flags = static_cast<unsigned>(is["admin"]);
    nl_put_raw(&b, &header, sizeof header);
    nl_put_text(&b, IFLA_IFNAME, name);
    const std::uint8_t mac[6] = {2, 0, 0, 0, 0, static_cast<std::uint8_t>(is["mac"])};
    nl_put(&b, IFLA_ADDRESS, mac, sizeof mac);
    if (is["master"]) u32(IFLA_MASTER, is["master"]);
    if (is["complete"]) u8(IFLA_OPERSTATE, is["oper"]);
    if (is["complete"]) u8(IFLA_CARRIER, is["carrier"]);
    u32(IFLA_CARRIER_CHANGES, is["old"] ? is["old"] : 2 * is["downs"]);
    if (!is["old"]) u32(48, is["downs"]);
    const std::size_t info = nl_nest_begin(&b, IFLA_LINKINFO);
    if (kind != "-") nl_put_text(&b, IFLA_INFO_KIND, kind);
    nl_nest_end(&b, info);
    const std::size_t pin = nl_nest_begin(&b, 65);
    if (is["pin"] >= 0) u32(1, is["pin"]);
    nl_nest_end(&b, pin);
    return addressed(b, to);
}

// NLMSG_ERROR or NLMSG_DONE.
inline message control_octets(std::uint16_t type, std::uint16_t flags, answer_to to, int value) {
    nl_builder b;
    nl_begin(&b, type, flags, 0);
    nl_put_raw(&b, &value, sizeof value);
    return addressed(b, to);
}

// The kernel's side of the netlink sockets. Holds links, answers dumps and questions, and lets tests push
// notifications, errors and garbage; requests of generic netlink go to the test's own family.
struct fake_kernel {
    static constexpr int FD = 700, GENERIC_FD = 701;
    static constexpr std::uint32_t PORT = 4711;
    // By descriptor: what is read, or the error instead.
    std::map<int, std::deque<std::pair<message, int>>> queues;
    std::map<int, std::string> links;  // by index, their texts
    int dumps = 0, questions = 0;
    std::string next_dump;                              // how it fails, once
    std::vector<std::string> during_dump;               // once
    std::function<void(const nl_message&)> on_generic;  // null: no generic netlink
    std::vector<unsigned> generic_groups;

    netlink_edge edge() {
        const auto open = [](void* k, int protocol) {
            const bool generic = protocol != NETLINK_ROUTE;
            return !generic ? FD : static_cast<fake_kernel*>(k)->on_generic ? GENERIC_FD : -EPROTONOSUPPORT;
        };
        const auto join = [](void* k, int fd, unsigned group) {
            if (fd == FD) return group == RTNLGRP_LINK ? 0 : -EINVAL;
            static_cast<fake_kernel*>(k)->generic_groups.push_back(group);
            return 0;
        };
        const auto receive = [](void* k, int fd, octets buffer) {
            auto& queue = static_cast<fake_kernel*>(k)->queues[fd];
            if (queue.empty()) return -EAGAIN;
            const auto [data, error] = queue.front();
            queue.pop_front();
            std::copy(data.begin(), data.end(), buffer.begin());
            return error ? error : static_cast<int>(data.size());
        };
        const auto send = [](void* k, int fd, const_octets request) {
            nl_message m;
            EXPECT_TRUE(nl_next_message(&request, &m));
            fd == FD ? static_cast<fake_kernel*>(k)->answer(m) : static_cast<fake_kernel*>(k)->on_generic(m);
            return 0;
        };
        return {open, join, receive, send, [](void*, int) {}, this};
    }
    void attach(virtual_loop* v) {
        v->fake_ready = [this] {
            std::vector<int> ready;
            for (const auto& [fd, queue] : queues)
                if (!queue.empty()) ready.push_back(fd);
            return ready;
        };
    }
    // What happens in it, by its words: a link that is so now, of which the kernel says so, or one of these.
    void act(const std::string& text) {
        std::istringstream words(text);
        std::string verb, rest;
        int index = 0;
        std::getline(words >> verb >> std::ws, rest);
        if (verb == "old") return push(link_octets(rest));
        if (verb == "overrun") return push({}, -ENOBUFS);
        if (verb == "cut-off") return push({}, -EMSGSIZE);
        if (verb == "interrupted" || verb == "refused" || verb == "swallowed") return void(next_dump = verb);
        if (verb == "during") return during_dump.push_back(rest);
        const bool says = verb != "quiet" && verb != "lost";  // else the message is lost
        const bool goes = verb == "gone" || verb == "lost";
        const std::string link = goes ? "any " + rest : says ? text : rest;
        std::istringstream(link) >> verb >> index;
        if (says) push(goes ? link_octets(links[index], RTM_DELLINK) : link_octets(link));
        links.erase(index);
        if (!goes) links[index] = link;
    }
    void push(message data, int error = 0) { queues[FD].push_back({std::move(data), error}); }

  private:
    void answer_dump(answer_to to) {
        ++dumps;
        const std::string how = std::exchange(next_dump, "");
        if (how == "swallowed") return;
        if (how == "refused") return push(control_octets(NLMSG_ERROR, 0, to, -EBUSY));
        const std::uint16_t flags = how == "interrupted" ? NLM_F_MULTI | NLM_F_DUMP_INTR : NLM_F_MULTI;
        message datagram;
        for (const auto& [index, link] : links) {
            const auto one = link_octets(link, RTM_NEWLINK, flags, to);
            datagram.insert(datagram.end(), one.begin(), one.end());
        }
        push(datagram);
        for (const auto& text : std::exchange(during_dump, {})) act(text);
        push(control_octets(NLMSG_DONE, flags, to, 0));
    }
    void answer(const nl_message& m) {
        EXPECT_EQ(m.type, RTM_GETLINK);
        const answer_to to = {m.sequence, PORT};
        if ((m.flags & NLM_F_DUMP) == NLM_F_DUMP) return answer_dump(to);
        ++questions;
        ifinfomsg header{};
        std::memcpy(&header, m.body.data(), sizeof header);
        const auto l = links.find(header.ifi_index);
        push(l != links.end() ? link_octets(l->second, RTM_NEWLINK, 0, to)
                              : control_octets(NLMSG_ERROR, 0, to, -ENODEV));
    }
};

// A family of generic netlink behind the kernel's second socket. Answers the lookup; requests of the family
// itself are the derived one's, which says its part and returns the errno of the acknowledgement.
struct fake_family : said {
    static constexpr std::uint16_t ID = 31;
    static constexpr std::uint32_t GROUP = 9;
    fake_kernel& kernel;
    std::string name;

    fake_family(fake_kernel& k, std::string family) : kernel(k), name(std::move(family)) {
        kernel.on_generic = [this](const nl_message& m) {
            const bool is_dump = (m.flags & NLM_F_DUMP) == NLM_F_DUMP;
            const const_octets attributes = m.body.subspan(4);
            std::uint16_t flags = 0;
            const int error = m.type == GENL_ID_CTRL ? look_up(attributes, m.sequence)
                              : is_dump              ? dumped(m.body[0], m.sequence, &flags)
                                                     : requested(m.body[0], attributes, m.sequence);
            const answer_to to = {m.sequence, fake_kernel::PORT};
            push(control_octets(is_dump ? NLMSG_DONE : NLMSG_ERROR, flags, to, -error));
        };
    }
    virtual ~fake_family() = default;

    virtual int requested(std::uint8_t command, const_octets attributes, std::uint32_t sequence) = 0;
    virtual int dumped(std::uint8_t, std::uint32_t, std::uint16_t*) { return EOPNOTSUPP; }

    void push(message data, int error = 0) {
        kernel.queues[fake_kernel::GENERIC_FD].push_back({std::move(data), error});
    }
    void say(const nl_builder& b, std::uint32_t sequence = 0) {
        push(addressed(b, {sequence, fake_kernel::PORT}));
    }

  private:
    int look_up(const_octets attributes, std::uint32_t sequence) {
        nl_attr a;
        EXPECT_TRUE(nl_next_attr(&attributes, &a));
        if (nl_text(a.value) != name) return ENOENT;
        say(family_message(ID, GROUP, "monitor"), sequence);
        return 0;
    }
};

// The client's end of a session.
struct nsm_test_client {
    int fd = -1;
    std::uint32_t sequence = 0, expected = 0;
    said details = {};  // what is told of the clock hardware beyond its state, apart

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

    // Next message as text, e.g. "up 3", "clock 4 0"; "" when there is none, "closed" at the end.
    std::string take() {
        std::uint8_t buffer[512];
        const ssize_t got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || fd < 0)) return "";
        if (got <= 0) return "closed";
        const const_octets m{buffer, static_cast<std::size_t>(got)};
        EXPECT_GE(m.size(), NSM_HEADER_SIZE);
        EXPECT_EQ(get_be16(m, 2), m.size());
        EXPECT_EQ(get_be32(m, 4), ++expected);
        if (get_be16(m, 0) == NSM_MSG_SSM_CLOCK_DETAIL) {
            details.add(describe_detail(m.subspan(NSM_HEADER_SIZE)));
            return take();
        }
        return describe(get_be16(m, 0), m.subspan(NSM_HEADER_SIZE));
    }
    std::string take_all() {
        said all;
        for (std::string m = "-"; !m.empty() && m != "closed"; all.add(m)) m = take();
        return all.all;
    }

  private:
    // "11: error 3 state 1 offset -5 frequency 7 SWP0", of what is known.
    static std::string describe_detail(const_octets body) {
        const std::uint32_t known = get_be32(body, nsm_detail_body::KNOWN);
        std::string out = std::to_string(get_be32(body, nsm_detail_body::SUBJECT)) + ":";
        const auto tell = [&](std::uint32_t bit, const char* word, auto value) {
            if (known & bit) out += std::string(" ") + word + " " + std::to_string(value);
        };
        tell(nsm_detail_body::HAS_ERROR, "error", get_be32(body, nsm_detail_body::ERROR));
        tell(nsm_detail_body::HAS_QUALITY, "quality", get_be32(body, nsm_detail_body::QUALITY));
        tell(nsm_detail_body::HAS_STATE, "state", get_be32(body, nsm_detail_body::STATE));
        tell(nsm_detail_body::HAS_OFFSET, "offset",
             static_cast<std::int64_t>(get_be64(body, nsm_detail_body::OFFSET)));
        tell(nsm_detail_body::HAS_FREQUENCY, "frequency", get_be64(body, nsm_detail_body::FREQUENCY));
        const std::string label(nl_text(body.subspan(nsm_detail_body::LABEL, nsm_detail_body::LABEL_SIZE)));
        return label.empty() ? out : out + " " + label;
    }
    static std::string describe(unsigned type, const_octets body) {
        if (type == NSMD_MSG_STATUS_TEXT) return "text " + std::string(nl_text(body));
        // How many of its words matter; they are small numbers.
        static const std::map<unsigned, std::pair<const char*, std::size_t>> forms = {
            {NSM_MSG_HELLO_ACK, {"ack", 1}},    {NSM_MSG_SYNC_DONE, {"sync", 0}},
            {NSM_MSG_LINK_UP, {"up", 1}},       {NSM_MSG_LINK_DOWN, {"down", 1}},
            {NSM_MSG_LINK_DELETE, {"gone", 2}}, {NSM_MSG_BRIDGE_ADD, {"bridge", 0}},
            {NSM_MSG_LINK_ADD, {"add", 3}},     {NSM_MSG_SSM_SEND_BACK_CLOCK_STATE, {"clock", 2}}};
        const auto& [word, count] = forms.at(type);
        std::string out = word;
        for (std::size_t i = 0; i < count; ++i) out += " " + std::to_string(get_be16(body, 4 * i + 2));
        return out;
    }
};

using numbers = std::vector<std::uint32_t>;

// One step of a story: what happens, how long is waited, what the daemon is told meanwhile, and, where that
// is looked at, what the hardware is asked for.
struct step {
    const char* happens;  // verbs with their numbers, and the kernel's: "enable 1, sw1 1 down"
    unsigned ms;
    const char* told;
    const char* asked = nullptr;
};

// nsmd as a whole, with one session of the daemon.
struct nsmd_session {
    log_lines log;
    virtual_loop loop;
    fake_kernel kernel;
    nsmd_options options{};
    nsmd* n = nullptr;
    nsm_test_client c;
    said told;
    std::map<std::string, std::function<void(numbers)>> verbs;
    said* hardware = nullptr;  // what it was asked for

    nsmd_session() {
        kernel.attach(&loop);
        options.grace_s = 10;
        options.patterns[0] = "sw*";
        options.pattern_count = 1;
        // "holdover" is inverted on the wire: 0 enters it.
        static const char* const requests[] = {"enable", "recover", "holdover", "select", "role"};
        for (std::uint16_t i = 0; i < std::size(requests); ++i)
            verbs[requests[i]] = [=, this](auto words) {
                words.resize(NSM_REQUEST_WORDS);
                c.say(static_cast<std::uint16_t>(NSM_MSG_SSM_GLOBAL_ENABLE + i), words);
            };
        verbs["bye"] = [this](const auto&) { c.say(NSM_MSG_BYE); };
        verbs["hang-up"] = [this](const auto&) { c.hang_up(); };
        // Of what a session begins with, the clock is told.
        verbs["connect"] = [this](const auto&) {
            const std::string all = connect();
            const std::size_t at = all.find("clock");
            told.add(all.substr(at, all.find(", sync") - at));
        };
    }
    ~nsmd_session() { stop(); }
    void stop() { nsmd_stop(std::exchange(n, nullptr)); }
    // Without what the session begins with.
    void start() {
        start_alone();
        (void)connect();
    }
    void start_alone() {
        kernel.queues.clear();
        n = nsmd_start(&loop.ctx, options, {kernel.edge(), nullptr, 1000});
        ASSERT_NE(n, nullptr);
        loop.run(1);
    }
    // What the client is told at the beginning.
    std::string connect() {
        EXPECT_NE(nsmd_server_adopt(nsmd_server_of(n), c.dial(&loop)), nullptr);
        c.hello();
        loop.run(1);
        return c.take_all();
    }
    void act(const char* happens) {
        for (const auto& one : parts_of(happens)) {
            std::istringstream words(one);
            std::string verb;
            words >> verb;
            const auto at = verbs.find(verb);
            if (at == verbs.end()) kernel.act(one);
            if (at != verbs.end()) at->second({std::istream_iterator<std::uint32_t>(words), {}});
        }
    }
    void play(const std::vector<step>& story) {
        for (const step& s : story) {
            act(s.happens);
            loop.run(s.ms);
            told.add(c.take_all());
            EXPECT_EQ(told.take(), s.told) << s.happens;
            const std::string asked = hardware ? hardware->take() : "";
            EXPECT_EQ(asked, s.asked ? s.asked : asked) << s.happens;
        }
    }

    // As it is asked for over the session, in pieces.
    std::string status() {
        c.say(NSMD_MSG_STATUS_GET);
        loop.run(1);
        std::string all;
        for (std::string piece; !(piece = c.take()).empty();) all += piece.substr(std::strlen("text "));
        return all;
    }
};
