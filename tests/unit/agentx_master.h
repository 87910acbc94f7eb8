// An AgentX master that a test plays: what it writes and reads, made apart from the codec under test, and its
// end of the sub-agent's link.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "suite/agentx/record.h"
#include "unit/suite_support.h"

using bytes = std::vector<std::uint8_t>;
using oid = std::vector<snmp_oid>;

// The payload of a PDU, in the byte order that was asked for.
struct pdu_writer {
    bool big = true;
    bytes payload;

    void number(std::uint64_t v, int size) {
        for (int i = 0; i < size; ++i)
            payload.push_back(static_cast<std::uint8_t>(v >> (8 * (big ? size - 1 - i : i))));
    }
    void u8(unsigned v) { number(v, 1); }
    void u16(unsigned v) { number(v, 2); }
    void u32(std::uint64_t v) { number(v, 4); }
    void name(const oid& id, bool include = false) {
        const bool shorter = id.size() > 4 && id[0] == 1 && id[1] == 3 && id[2] == 6 && id[3] == 1;
        const std::size_t skip = shorter ? 5 : 0;
        u8(static_cast<unsigned>(id.size() - skip));
        u8(shorter ? id[4] : 0);
        u8(include);
        u8(0);
        for (std::size_t i = skip; i < id.size(); ++i) u32(id[i]);
    }
    void range(const oid& start, const oid& end = {}, bool include = false) {
        name(start, include);
        name(end);
    }
    void variable(unsigned type, const oid& id) {
        u16(type);
        u16(0);
        name(id);
    }
    bytes pdu(unsigned type, std::uint32_t session, std::uint32_t transaction, std::uint32_t packet) const {
        pdu_writer whole;
        whole.big = big;
        for (unsigned v : {1U, type, big ? unsigned{AGENTX_FLAG_BIG_ENDIAN} : 0U, 0U}) whole.u8(v);
        for (std::uint32_t v : {session, transaction, packet}) whole.u32(v);
        whole.u32(payload.size());
        whole.payload.insert(whole.payload.end(), payload.begin(), payload.end());
        return whole.payload;
    }
};

// What stands in an answer or a notification.
struct variable {
    unsigned type;
    oid name;
    std::int32_t number;
    std::string text;
    oid id;
};

struct pdu_reader {
    const bytes& data;
    bool big;
    std::size_t at = 0;

    std::uint32_t number(std::size_t size) {
        std::uint32_t v = 0;
        for (std::size_t i = 0; i < size; ++i)
            v |= std::uint32_t{data.at(at + i)} << (8 * (big ? size - 1 - i : i));
        at += size;
        return v;
    }
    oid name() {
        const std::uint32_t count = number(1), prefix = number(1);
        at += 2;
        oid id = prefix ? oid{1, 3, 6, 1, prefix} : oid{};
        for (std::uint32_t i = 0; i < count; ++i) id.push_back(number(4));
        return id;
    }
    variable next() {
        variable v{number(2), {}, 0, {}, {}};
        at += 2;
        v.name = name();
        if (v.type == AGENTX_INTEGER) v.number = static_cast<std::int32_t>(number(4));
        if (v.type == AGENTX_OBJECT_ID) v.id = name();
        if (v.type == AGENTX_OCTET_STRING) {
            const std::size_t length = number(4);
            for (std::size_t i = 0; i < length; ++i) v.text += static_cast<char>(data.at(at + i));
            at += (length + 3) / 4 * 4;
        }
        return v;
    }
};

// A PDU of the sub-agent.
struct pdu {
    unsigned type = 0;
    bool big = false;
    std::uint32_t session = 0, transaction = 0, packet = 0;
    bytes payload;

    unsigned error() const { return pdu_reader{payload, big, 4}.number(2); }
    unsigned index() const { return pdu_reader{payload, big, 6}.number(2); }
    oid registered() const { return pdu_reader{payload, big, 4}.name(); }
    // From an octet of the payload on: behind the head of an answer, or 0 for a notification.
    std::vector<variable> variables(std::size_t from = 8) const {
        std::vector<variable> all;
        for (pdu_reader r{payload, big, from}; r.at < payload.size();) all.push_back(r.next());
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
    void send(const bytes& data) const {
        ASSERT_EQ(::send(far, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
    }
    // The next PDU of the sub-agent, within `ms`.
    bool next(pdu* out, std::uint32_t ms = 100) {
        std::size_t whole = 0;
        const auto is_whole = [&] {
            std::uint8_t chunk[65536];
            const ssize_t count = recv(far, chunk, sizeof chunk, MSG_DONTWAIT);
            if (count > 0) received.insert(received.end(), chunk, chunk + count);
            if (received.size() < AGENTX_HEADER_SIZE) return false;
            out->type = received[1];
            out->big = (received[2] & AGENTX_FLAG_BIG_ENDIAN) != 0;
            whole = AGENTX_HEADER_SIZE + pdu_reader{received, out->big, 16}.number(4);
            return received.size() >= whole;
        };
        if (!run(ms, is_whole)) return false;
        pdu_reader head{received, out->big, 4};
        for (std::uint32_t* field : {&out->session, &out->transaction, &out->packet}) *field = head.number(4);
        const auto end = received.begin() + static_cast<std::ptrdiff_t>(whole);
        out->payload.assign(received.begin() + AGENTX_HEADER_SIZE, end);
        received.erase(received.begin(), end);
        return true;
    }
    void answer(const pdu& request, unsigned error = 0) const {
        pdu_writer w{big, {}};
        w.u32(1234);  // its up-time
        w.u16(error);
        w.u16(0);
        w.u32(0);  // what a master appends
        send(w.pdu(AGENTX_RESPONSE, SESSION, request.transaction, request.packet));
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
        EXPECT_EQ(p.registered(), root);
        answer(p);
        run(1);
    }
};
