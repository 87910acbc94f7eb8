// An AgentX master that a test plays: its end of the sub-agent's link. It writes and reads by the sub-agent's
// own codec; that the octets are right is shown by a real master in the system tests.
#pragma once

#include "suite/agentx/record.h"
#include "unit/suite_support.h"

using bytes = std::vector<std::uint8_t>;
using oid = std::vector<snmp_oid>;
// On big-endian machines the vector's own comparison, as GCC 12 has it, looks at a quarter of the octets.
struct oid_before {
    bool operator()(const oid& a, const oid& b) const {
        for (std::size_t i = 0; i < a.size() && i < b.size(); ++i)
            if (a[i] != b[i]) return a[i] < b[i];
        return a.size() < b.size();
    }
};

// What stands in an answer or a notification.
struct variable {
    unsigned type;
    oid name;
    std::int64_t number;
    std::string text;
    oid id;
};

// A PDU of the sub-agent.
struct pdu : agentx_header {
    bytes payload;

    agentx_reader reader(std::size_t at) const { return {payload, at, agentx_is_big_endian(*this), false}; }
    // Error and index of an answer, from octet 4 on.
    std::pair<unsigned, unsigned> status() const {
        agentx_reader r = reader(4);
        const unsigned error = agentx_take_u16(&r);
        return {error, agentx_take_u16(&r)};
    }
    // From an octet of the payload on: behind the head of an answer, or 0 for a notification.
    std::vector<variable> variables(std::size_t from = 8) const {
        std::vector<variable> all;
        agentx_reader r = reader(from);
        while (!agentx_at_end(&r)) {
            agentx_variable v{};
            agentx_take_variable(&r, &v);
            const std::string text(reinterpret_cast<const char*>(v.value), v.value_length);
            all.push_back({v.type, oid(v.name.id, v.name.id + v.name.length),
                           v.type == AGENTX_COUNTER64 ? static_cast<std::int64_t>(v.number)
                                                      : static_cast<std::int32_t>(v.cell),
                           text, oid(v.oid.id, v.oid.id + v.oid.length)});
        }
        EXPECT_FALSE(r.bad);
        return all;
    }
};

struct agentx_master : virtual_link {
    static constexpr std::uint32_t SESSION = 5;
    bool big = true;  // the order in which it writes
    bytes received;

    int open() {
        received.clear();
        return virtual_link::open(SOCK_STREAM);
    }
    using put_payload = std::function<void(agentx_writer*)>;
    bytes make(
        unsigned type, std::uint32_t transaction, std::uint32_t packet,
        const put_payload& put = [](agentx_writer*) {}) const {
        text_buffer out{};
        const std::uint8_t flags = big ? AGENTX_FLAG_BIG_ENDIAN : 0;
        agentx_writer w =
            agentx_begin(&out, {1, static_cast<std::uint8_t>(type), flags, SESSION, transaction, packet, 0});
        put(&w);
        EXPECT_TRUE(agentx_end(&w));
        const std::string text = take_text(&out);
        return {text.begin(), text.end()};
    }
    void send(const bytes& data) const {
        ASSERT_EQ(::send(far, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
    }
    // The next PDU of the sub-agent, within `ms`.
    bool next(pdu* out, std::uint32_t ms = 100) {
        const auto is_whole = [&] {
            std::uint8_t chunk[65536];
            const ssize_t count = recv(far, chunk, sizeof chunk, MSG_DONTWAIT);
            if (count > 0) received.insert(received.end(), chunk, chunk + count);
            return received.size() >= AGENTX_HEADER_SIZE && agentx_read_header(received, out) &&
                   received.size() >= AGENTX_HEADER_SIZE + out->length;
        };
        if (!run(ms, is_whole)) return false;
        const auto payload = received.begin() + AGENTX_HEADER_SIZE, end = payload + out->length;
        out->payload.assign(payload, end);
        received.erase(received.begin(), end);
        return true;
    }
    void answer(const pdu& request, unsigned error = 0) const {
        send(make(AGENTX_RESPONSE, request.transaction, request.packet, [=](agentx_writer* w) {
            agentx_put_u32(w, 1234);  // its up-time
            agentx_put_u16(w, static_cast<std::uint16_t>(error));
            agentx_put_u16(w, 0);
            agentx_put_u32(w, 0);  // what a master appends
        }));
    }
    // Lets the sub-agent open its session and register `root`.
    void establish(const oid& root) {
        pdu p;
        ASSERT_TRUE(next(&p, 5000));
        ASSERT_EQ(p.type, unsigned{AGENTX_OPEN});
        EXPECT_EQ(p.session, 0U);
        answer(p);
        ASSERT_TRUE(next(&p));
        ASSERT_EQ(p.type, unsigned{AGENTX_REGISTER});
        EXPECT_EQ(p.session, SESSION);
        agentx_reader r = p.reader(4);
        agentx_oid registered;
        agentx_take_oid(&r, &registered);
        EXPECT_EQ(oid(registered.id, registered.id + registered.length), root);
        answer(p);
        run(1);
    }
};
