// The SNMP sub-agent: its codec against octets written by hand, and the whole of it (session, lookup, sets,
// notifications, commands) against a master that the test plays at the other end of a socket pair, in virtual
// time. Both byte orders run through the same cases.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "suite/agentx_record.h"
#include "suite/cli.h"
#include "suite/cli_tree.h"
#include "suite/log.h"
#include "suite/memory.h"
#include "suite/thread.h"

namespace {

using bytes = std::vector<std::uint8_t>;
using oid = std::vector<snmp_oid>;

const oid ROOT = {1, 3, 6, 1, 4, 1, 32473, 99};

oid below(std::initializer_list<snmp_oid> tail) {
    oid whole = ROOT;
    whole.insert(whole.end(), tail);
    return whole;
}

// A module of two scalars and a table. The rows are those of `rows`; a row of value 0 has no value. The steps
// object behaves like a counter of directions: a SET adds, only a restore sets.
struct model {
    std::int32_t level = 10, steps = 1;
    std::vector<std::pair<snmp_oid, std::int32_t>> rows;
    std::vector<std::string> calls;
    int refuse_level = 0;  // status
    bool stuck = false;    // the level can't be set back
} m;

std::int32_t cell;

int write_level(int action, const std::uint8_t* value, std::uint8_t type, std::size_t length,
                const std::uint8_t* state, const snmp_oid*, std::size_t, const snmp_variable*) {
    if (type != SNMP_TYPE_INTEGER) return SNMP_WRONG_TYPE;
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(state != nullptr, action == SNMP_ACTION_SET);
    std::int32_t v = 0;
    std::memcpy(&v, value, 4);
    if (m.stuck && action == SNMP_ACTION_RESTORE) return SNMP_GEN_ERR;
    if (m.refuse_level && action == SNMP_ACTION_SET) return m.refuse_level;
    m.level = v;
    m.calls.push_back("level " + std::to_string(v));
    return SNMP_NO_ERROR;
}

const void* read_level(const snmp_variable* v, snmp_oid* name, std::size_t* length, int exact,
                       std::size_t* size, snmp_write_handler* write) {
    if (snmp_header_generic(v, name, length, exact, size, write) != 0) return nullptr;
    *write = write_level;
    cell = m.level;
    return &cell;
}

const void* read_text(const snmp_variable* v, snmp_oid* name, std::size_t* length, int exact,
                      std::size_t* size, snmp_write_handler* write) {
    if (snmp_header_generic(v, name, length, exact, size, write) != 0) return nullptr;
    *size = 5;
    return "hello";
}

int write_steps(int action, const std::uint8_t* value, std::uint8_t, std::size_t, const std::uint8_t*,
                const snmp_oid*, std::size_t, const snmp_variable*) {
    std::int32_t v = 0;
    std::memcpy(&v, value, 4);
    m.steps = action == SNMP_ACTION_RESTORE ? v : m.steps + v;
    m.calls.push_back("steps " + std::to_string(v));
    return SNMP_NO_ERROR;
}

const void* read_steps(const snmp_variable* v, snmp_oid* name, std::size_t* length, int exact,
                       std::size_t* size, snmp_write_handler* write) {
    if (snmp_header_generic(v, name, length, exact, size, write) != 0) return nullptr;
    *write = write_steps;
    cell = m.steps;
    return &cell;
}

int write_row(int, const std::uint8_t*, std::uint8_t, std::size_t, const std::uint8_t*, const snmp_oid*,
              std::size_t, const snmp_variable*) {
    return SNMP_NO_SUCH_NAME;
}

const void* read_row(const snmp_variable* v, snmp_oid* name, std::size_t* length, int exact,
                     std::size_t* size, snmp_write_handler* write) {
    *size = 4;
    *write = write_row;
    const snmp_oid index = *length > v->suffix_length ? name[v->suffix_length] : 0;
    if (exact && *length != v->suffix_length + 1U) return nullptr;
    const std::pair<snmp_oid, std::int32_t>* best = nullptr;
    for (const auto& row : m.rows)
        if (exact ? row.first == index : row.first > index && (!best || row.first < best->first)) best = &row;
    if (!best) return nullptr;
    name[v->suffix_length] = best->first;
    *length = v->suffix_length + 1U;
    cell = best->second;
    return best->second ? &cell : nullptr;
}

const snmp_variable TABLE[] = {
    {1, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_level, {1}},
    {2, SNMP_TYPE_OCTET_STRING, SNMP_READ_ONLY, 1, read_text, {2}},
    {30, SNMP_TYPE_INTEGER, SNMP_NOT_ACCESSIBLE, 3, read_row, {3, 1, 1}},
    {31, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 3, read_row, {3, 1, 2}},
    {5, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_steps, {5}},
};
const snmp_oid BASE[] = {32473, 99};

// What a master writes, in the byte order that was asked for. Written apart from the codec under test.
struct pdu_writer {
    bool big = true;
    bytes payload;
    void u8(unsigned v) { payload.push_back(static_cast<std::uint8_t>(v)); }
    void number(std::uint64_t v, int octets) {
        for (int i = 0; i < octets; ++i)
            u8(static_cast<unsigned>(v >> (8 * (big ? octets - 1 - i : i))) & 0xff);
    }
    void u16(unsigned v) { number(v, 2); }
    void u32(std::uint64_t v) { number(v, 4); }
    void name(const oid& id, bool include = false, bool prefix = true) {
        const bool shorter = prefix && id.size() > 4 && id[0] == 1 && id[1] == 3 && id[2] == 6 && id[3] == 1;
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
    void integer(const oid& id, std::int32_t v, unsigned type = AGENTX_INTEGER) {
        u16(type);
        u16(0);
        name(id);
        u32(static_cast<std::uint32_t>(v));
    }
    bytes pdu(unsigned type, std::uint32_t session, std::uint32_t transaction, std::uint32_t packet) const {
        pdu_writer h;
        h.big = big;
        h.u8(1);
        h.u8(type);
        h.u8(big ? AGENTX_FLAG_BIG_ENDIAN : 0);
        h.u8(0);
        h.u32(session);
        h.u32(transaction);
        h.u32(packet);
        h.u32(payload.size());
        h.payload.insert(h.payload.end(), payload.begin(), payload.end());
        return h.payload;
    }
};

struct variable {
    unsigned type;
    oid name;
    std::int64_t number;
    std::string text;
    oid id;
};

// What a master reads: also apart from the codec.
struct pdu_reader {
    bytes data;
    bool big = true;
    std::size_t at = 0;
    std::uint64_t number(int octets) {
        std::uint64_t v = 0;
        for (int i = 0; i < octets; ++i)
            v |= std::uint64_t{data.at(at + static_cast<std::size_t>(i))} << (8 * (big ? octets - 1 - i : i));
        at += static_cast<std::size_t>(octets);
        return v;
    }
    oid name() {
        const auto count = number(1);
        const auto prefix = static_cast<snmp_oid>(number(1));
        at += 2;
        oid id = prefix ? oid{1, 3, 6, 1, prefix} : oid{};
        for (std::uint64_t i = 0; i < count; ++i) id.push_back(static_cast<snmp_oid>(number(4)));
        return id;
    }
    variable next() {
        variable v{};
        v.type = static_cast<unsigned>(number(2));
        at += 2;
        v.name = name();
        if (v.type == AGENTX_INTEGER) v.number = static_cast<std::int32_t>(number(4));
        if (v.type == AGENTX_OBJECT_ID) v.id = name();
        if (v.type == AGENTX_OCTET_STRING) {
            const auto length = number(4);
            v.text.assign(data.begin() + static_cast<std::ptrdiff_t>(at),
                          data.begin() + static_cast<std::ptrdiff_t>(at + length));
            at += (length + 3) / 4 * 4;
        }
        return v;
    }
};

struct pdu {
    unsigned type = 0, flags = 0;
    std::uint32_t session = 0, transaction = 0, packet = 0;
    bytes payload;
    pdu_reader reader() const { return {payload, (flags & AGENTX_FLAG_BIG_ENDIAN) != 0, 0}; }
    unsigned error() const {
        pdu_reader r = reader();
        r.at = 4;
        return static_cast<unsigned>(r.number(2));
    }
    unsigned index() const {
        pdu_reader r = reader();
        r.at = 6;
        return static_cast<unsigned>(r.number(2));
    }
    std::vector<variable> variables() const {
        std::vector<variable> all;
        pdu_reader r = reader();
        for (r.at = 8; r.at < payload.size();) all.push_back(r.next());
        return all;
    }
};

// ---------------------------------------------------------------------------------------------------- codec

TEST(agentx_codec, reads_and_writes_the_same_octets_in_both_orders) {
    for (bool big : {true, false}) {
        pdu_writer expected;
        expected.big = big;
        expected.integer(below({1, 0}), -5);
        expected.u16(AGENTX_OCTET_STRING), expected.u16(0), expected.name(below({2, 0}));
        expected.u32(5);
        for (char c : std::string("hello")) expected.u8(static_cast<unsigned char>(c));
        expected.u8(0), expected.u8(0), expected.u8(0);

        text_buffer out{};
        agentx_writer w{};
        w.out = &out;
        const auto flags = static_cast<std::uint8_t>(big ? AGENTX_FLAG_BIG_ENDIAN : 0);
        agentx_begin(&w, {1, AGENTX_RESPONSE, flags, 7, 8, 9, 0});
        const oid one = below({1, 0}), two = below({2, 0});
        agentx_put_number(&w, AGENTX_INTEGER, one.data(), one.size(), static_cast<std::uint32_t>(-5));
        agentx_put_text(&w, two.data(), two.size(), "hello", 5);
        ASSERT_TRUE(agentx_end(&w));
        const bytes whole = expected.pdu(AGENTX_RESPONSE, 7, 8, 9);
        EXPECT_EQ(bytes(out.data, out.data + out.length), whole);

        agentx_header h{};
        ASSERT_TRUE(agentx_read_header(whole, &h));
        EXPECT_EQ(h.session, 7U);
        EXPECT_EQ(h.packet, 9U);
        agentx_reader r{const_octets(whole).subspan(AGENTX_HEADER_SIZE), 0, big, false};
        agentx_variable v;
        agentx_take_variable(&r, &v);
        std::int32_t number = 0;
        std::memcpy(&number, v.value, sizeof number);
        EXPECT_EQ(number, -5);
        EXPECT_EQ(oid(v.name.id, v.name.id + v.name.length), one);
        agentx_take_variable(&r, &v);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(v.value), v.value_length), "hello");
        EXPECT_TRUE(agentx_at_end(&r));
        EXPECT_FALSE(r.bad);
        text_free(&out);
    }
}

TEST(agentx_codec, every_truncation_is_noticed_and_none_reads_past_the_end) {
    pdu_writer w;
    w.integer(below({1, 0}), 1, AGENTX_GAUGE32);
    w.u16(AGENTX_OBJECT_ID), w.u16(0), w.name(below({4})), w.name(ROOT);
    w.u16(AGENTX_COUNTER64), w.u16(0), w.name({}), w.u32(1), w.u32(2);
    w.u16(AGENTX_OPAQUE), w.u16(0), w.name({}), w.u32(2), w.u32(0);
    w.u16(AGENTX_END_OF_MIB_VIEW), w.u16(0), w.name(ROOT);
    const auto variables_in = [](const bytes& data, bool* bad) {
        agentx_reader r{data, 0, true, false};
        int count = 0;
        for (agentx_variable v; !agentx_at_end(&r);) {
            agentx_take_variable(&r, &v);
            count += !r.bad;
        }
        *bad = r.bad;
        return count;
    };
    bool bad = false;
    EXPECT_EQ(variables_in(w.payload, &bad), 5);
    EXPECT_FALSE(bad);
    int clean = 0;
    for (std::size_t size = 0; size < w.payload.size(); ++size) {
        const bytes cut(w.payload.begin(),
                        w.payload.begin() + static_cast<std::ptrdiff_t>(size));  // exact heap block
        EXPECT_LT(variables_in(cut, &bad), 5);
        clean += !bad;
    }
    EXPECT_EQ(clean, 5);  // only between two variables
}

TEST(agentx_codec, refuses_what_lengths_alone_would_allow) {
    const auto bad = [](const std::function<void(pdu_writer&)>& fill) {
        pdu_writer w;
        fill(w);
        agentx_reader r{w.payload, 0, true, false};
        agentx_variable v;
        agentx_take_variable(&r, &v);
        return r.bad;
    };
    EXPECT_TRUE(bad([](pdu_writer& w) { w.integer(ROOT, 1, 99); }))
        << "an unknown type has an unknown length";
    EXPECT_TRUE(bad([](pdu_writer& w) { w.integer(oid(129, 1), 1); })) << "a name has 128 sub-identifiers";
    EXPECT_FALSE(bad([](pdu_writer& w) { w.integer(oid(128, 2), 1); }));
    EXPECT_TRUE(bad([](pdu_writer& w) {
        w.u16(AGENTX_OCTET_STRING), w.u16(0), w.name(ROOT), w.u32(0xfffffffe), w.u32(0);
    })) << "length and padding must not wrap around";
    agentx_header h{};
    for (const auto& [at, value] : {std::pair{0, 2}, {1, 0}, {1, 19}, {19, 3}}) {
        bytes whole = pdu_writer{}.pdu(AGENTX_PING, 1, 2, 3);
        ASSERT_TRUE(agentx_read_header(whole, &h));
        whole[static_cast<std::size_t>(at)] = static_cast<std::uint8_t>(value);
        EXPECT_FALSE(agentx_read_header(whole, &h)) << at;
    }
}

TEST(agentx_codec, an_exhausted_writer_leaves_the_buffer_as_it_was) {
    text_buffer out{};
    out.limit = 60;
    ASSERT_TRUE(text_append(&out, "before", 6));
    agentx_writer w{};
    w.out = &out;
    agentx_begin(&w, {1, AGENTX_RESPONSE, 0, 0, 0, 0, 0});
    for (int i = 0; i < 20; ++i) agentx_put_u32(&w, 1);
    EXPECT_FALSE(agentx_end(&w));
    EXPECT_EQ(out.view(), "before");
    text_free(&out);
}

// -------------------------------------------------------------------------------------------------- session

class agentx : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        m = {};
        current = this;
        log_use_sink(LOG_SINK_STDERR, false);
        ctx.ctree = cli_tree_create();
        const thread_edges edges = {[](void* a) { return static_cast<agentx*>(a)->now; }, wait, this};
        ctx.master = thread_master_create(&edges);
        agentx_set_link_open([](const agentx_target*) { return current->open_link(); });
        ASSERT_EQ(agentx_register_mib(&ctx, "test", TABLE, sizeof TABLE[0], std::size(TABLE), BASE, 2, 0, 0,
                                      0, 0, 0),
                  0);
        const snmp_notifier notifier = {[] { current->trace += "start "; },
                                        [] { current->trace += "check "; },
                                        [] { current->trace += "stop "; }};
        ASSERT_EQ(snmp_set_notifier(&ctx, &notifier), 0);
        ASSERT_EQ(snmp_start(&ctx), 0);
        session.out_func = record;
        session.out_val = this;
        session.zg = &ctx;
        session.ifm = &ctx.ifm;
        session.mode = CONFIG_MODE;
        session.privilege = PRIVILEGE_MAX;
    }
    void TearDown() override {
        memmgr_fail_at(0);
        snmp_stop(&ctx);
        agentx_set_link_open(nullptr);
        thread_master_finish(ctx.master);
        cli_tree_free(ctx.ctree);
        if (far >= 0) close(far);
    }

    int open_link() {
        ++opens;
        if (open_error) return -open_error;
        int fds[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
        if (far >= 0) close(far);
        far = fds[1];
        received.clear();
        return fds[0];
    }
    static int wait(void* arg, int timeout_ms, thread_ready* out, int) {
        auto* t = static_cast<agentx*>(arg);
        const snmp_agent* a = t->ctx.snmp;
        if (a && a->fd >= 0) {
            pollfd p{a->fd, static_cast<short>((a->read ? POLLIN : 0) | (a->write ? POLLOUT : 0)), 0};
            if (poll(&p, 1, 0) > 0) {
                *out = {a->fd, (p.revents & (POLLIN | POLLHUP)) != 0, (p.revents & (POLLOUT | POLLHUP)) != 0};
                return 1;
            }
        }
        if (timeout_ms > 0) t->now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return 0;
    }

    // Runs what is ready, and what comes within `ms`, until `done`.
    bool run(
        std::uint32_t ms, const std::function<bool()>& done = [] { return false; }) {
        bool over = false;
        thread* limit = thread_add_timer_msec(
            &ctx,
            [](thread* e) {
                *static_cast<bool*>(e->arg) = true;
                return 0;
            },
            &over, ms);
        while (!over && !done()) {
            thread event;
            if (!thread_fetch(&ctx, &event)) break;
            (void)thread_call(&event);
        }
        const bool ended = over;
        if (!ended) thread_cancel(limit);
        return done();
    }
    void send_bytes(const bytes& data) {
        ASSERT_EQ(::send(far, data.data(), data.size(), MSG_NOSIGNAL), static_cast<ssize_t>(data.size()));
    }
    // The next PDU from the sub-agent, within `ms` of virtual time.
    bool next(pdu* out, std::uint32_t ms = 100) {
        const auto whole = [&] {
            std::uint8_t chunk[65536];
            const ssize_t count = recv(far, chunk, sizeof chunk, MSG_DONTWAIT);
            if (count > 0) received.insert(received.end(), chunk, chunk + count);
            if (received.size() < 20) return false;
            pdu_reader r{received, (received[2] & AGENTX_FLAG_BIG_ENDIAN) != 0, 16};
            return received.size() >= 20 + r.number(4);
        };
        if (!run(ms, whole)) return false;
        pdu_reader r{received, (received[2] & AGENTX_FLAG_BIG_ENDIAN) != 0, 4};
        out->type = received[1];
        out->flags = received[2];
        out->session = static_cast<std::uint32_t>(r.number(4));
        out->transaction = static_cast<std::uint32_t>(r.number(4));
        out->packet = static_cast<std::uint32_t>(r.number(4));
        const auto length = static_cast<std::ptrdiff_t>(r.number(4));
        out->payload.assign(received.begin() + 20, received.begin() + 20 + length);
        received.erase(received.begin(), received.begin() + 20 + length);
        return true;
    }
    void answer(const pdu& request, unsigned error = 0, std::uint32_t session_id = 5) {
        pdu_writer w;
        w.big = GetParam();
        w.u32(1234);
        w.u16(error);
        w.u16(0);
        w.u32(0);  // what a master appends
        send_bytes(w.pdu(AGENTX_RESPONSE, session_id, request.transaction, request.packet));
    }
    void establish() {
        pdu p;
        ASSERT_TRUE(next(&p, 5000));
        ASSERT_EQ(p.type, unsigned{AGENTX_OPEN});
        EXPECT_EQ(p.session, 0U);
        answer(p);
        ASSERT_TRUE(next(&p));
        ASSERT_EQ(p.type, unsigned{AGENTX_REGISTER});
        EXPECT_EQ(p.session, 5U);
        pdu_reader r = p.reader();
        r.at = 4;
        EXPECT_EQ(r.name(), ROOT);
        answer(p);
        ASSERT_TRUE(run(100, [&] { return ctx.snmp->phase == agentx_phase::serving; }));
    }
    pdu ask(unsigned type, const std::function<void(pdu_writer&)>& fill, std::uint32_t transaction = 1,
            std::uint32_t packet = 0) {
        pdu_writer w;
        w.big = GetParam();
        fill(w);
        const std::uint32_t number = packet ? packet : ++packets;
        send_bytes(w.pdu(type, 5, transaction, number));
        pdu reply;
        if (type == AGENTX_CLEANUP_SET) {
            run(1);
            return reply;
        }
        EXPECT_TRUE(next(&reply));
        EXPECT_EQ(reply.type, unsigned{AGENTX_RESPONSE});
        EXPECT_EQ(reply.packet, number);
        EXPECT_EQ(reply.transaction, transaction);
        EXPECT_EQ((reply.flags & AGENTX_FLAG_BIG_ENDIAN) != 0, GetParam()) << "the order of the request";
        return reply;
    }
    static void nothing(pdu_writer&) {}
    std::vector<oid> walk(const oid& end = {}) {
        std::vector<oid> seen;
        oid at = ROOT;
        while (seen.size() < 100) {
            const auto v = ask(AGENTX_GET_NEXT, [&](pdu_writer& w) { w.range(at, end); }).variables();
            if (v.size() != 1 || v[0].type == AGENTX_END_OF_MIB_VIEW) break;
            seen.push_back(at = v[0].name);
        }
        return seen;
    }
    std::string output() { return std::exchange(printed, {}); }
    static int record(void* arg, const char* format, ...) {
        char text[512];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        static_cast<agentx*>(arg)->printed += text;
        return 0;
    }

    static agentx* current;
    lib_globals ctx{};
    cli session{};
    nanoseconds now = NS_PER_S;
    int far = -1, opens = 0, open_error = 0;
    std::uint32_t packets = 100;
    bytes received;
    std::string trace, printed;
};
agentx* agentx::current;

INSTANTIATE_TEST_SUITE_P(orders, agentx, ::testing::Bool(),
                         [](const auto& order) { return order.param ? "big_endian" : "little_endian"; });

TEST_P(agentx, gets_say_what_is_there_and_what_kind_of_nothing_there_is) {
    establish();
    m.rows = {{7, 70}};
    const auto v = ask(AGENTX_GET, [](pdu_writer& w) {
                       w.range(below({1, 0}));
                       w.range(below({2, 0}));
                       w.range(below({3, 1, 2, 7}));
                       w.range(below({1}));           // the object, not its instance
                       w.range(below({3, 1, 2, 8}));  // no such row
                       w.range(below({4, 0}));
                       w.range(below({3, 1, 1, 7}));  // not accessible
                       w.range({1, 3, 6, 1, 2, 1});   // not ours
                   }).variables();
    ASSERT_EQ(v.size(), 8U);
    EXPECT_EQ(v[0].number, 10);
    EXPECT_EQ(v[1].text, "hello");
    EXPECT_EQ(v[2].number, 70);
    EXPECT_EQ(v[2].name, below({3, 1, 2, 7}));
    EXPECT_EQ(v[3].type, unsigned{AGENTX_NO_SUCH_INSTANCE});
    EXPECT_EQ(v[4].type, unsigned{AGENTX_NO_SUCH_INSTANCE});
    EXPECT_EQ(v[5].type, unsigned{AGENTX_NO_SUCH_OBJECT});
    EXPECT_EQ(v[6].type, unsigned{AGENTX_NO_SUCH_OBJECT});
    EXPECT_EQ(v[7].type, unsigned{AGENTX_NO_SUCH_OBJECT});
}

TEST_P(agentx, a_walk_goes_by_index_and_over_rows_without_value) {
    establish();
    m.rows = {{9, 90}, {2, 20}, {4, 0}, {300, 3}};
    const std::vector<oid> all = {below({1, 0}),       below({2, 0}),         below({3, 1, 2, 2}),
                                  below({3, 1, 2, 9}), below({3, 1, 2, 300}), below({5, 0})};
    EXPECT_EQ(walk(), all);
    EXPECT_EQ(walk(below({3, 1, 2, 9})), std::vector<oid>(all.begin(), all.begin() + 3))
        << "the end is exclusive";
    const auto next_of = [&](const oid& start, bool include) {
        return ask(AGENTX_GET_NEXT, [&](pdu_writer& w) { w.range(start, {}, include); })
            .variables()
            .at(0)
            .name;
    };
    EXPECT_EQ(next_of(below({1, 0}), true), below({1, 0})) << "the start counts itself";
    EXPECT_EQ(next_of(below({1, 0}), false), below({2, 0}));
    EXPECT_EQ(next_of({1, 3}, false), below({1, 0}));
    EXPECT_EQ(next_of(below({3, 1, 2, 2, 77}), false), below({3, 1, 2, 9}));
    const auto end = ask(AGENTX_GET_NEXT, [](pdu_writer& w) {
                         w.range({1, 3, 6, 1, 4, 1, 32474});
                     }).variables();
    EXPECT_EQ(end.at(0).type, unsigned{AGENTX_END_OF_MIB_VIEW});
}

TEST_P(agentx, bulk_answers_row_by_row) {
    establish();
    m.rows = {{1, 11}, {2, 22}};
    const auto v = ask(AGENTX_GET_BULK, [](pdu_writer& w) {
                       w.u16(1), w.u16(2);
                       w.range(below({1}));
                       w.range(below({3, 1, 2}), below({3, 1, 3}));
                       w.range(below({2}));
                   }).variables();
    ASSERT_EQ(v.size(), 5U);
    EXPECT_EQ(v[0].name, below({1, 0}));
    EXPECT_EQ(v[1].name, below({3, 1, 2, 1}));
    EXPECT_EQ(v[2].name, below({2, 0}));
    EXPECT_EQ(v[3].name, below({3, 1, 2, 2}));
    EXPECT_EQ(v[4].name, below({3, 1, 2, 1}));
    // Bounded, whatever is asked for.
    const auto many = ask(AGENTX_GET_BULK, [](pdu_writer& w) {
                          w.u16(0), w.u16(65535);
                          for (int i = 0; i < 20; ++i) w.range(below({3, 1, 2}));
                      }).variables();
    EXPECT_LE(many.size(), 80U);
    const auto wide = ask(AGENTX_GET_BULK, [](pdu_writer& w) {
                          w.u16(0), w.u16(9);
                          for (int i = 0; i < 100; ++i) w.range(below({1}));
                      }).variables();
    EXPECT_EQ(wide.size(), 100U) << "one whole row of more ranges than are remembered";
}

TEST_P(agentx, a_set_is_applied_once_and_kept_by_commit) {
    establish();
    const auto test = [&](std::uint32_t packet) {
        return ask(
                   AGENTX_TEST_SET,
                   [](pdu_writer& w) {
                       w.integer(below({1, 0}), 77);
                   },
                   9, packet)
            .error();
    };
    EXPECT_EQ(test(500), 0U);
    EXPECT_EQ(test(500), 0U);
    EXPECT_EQ(ask(AGENTX_COMMIT_SET, nothing, 9).error(), 0U);
    EXPECT_EQ(ask(AGENTX_COMMIT_SET, nothing, 9).error(), 0U);
    ask(AGENTX_CLEANUP_SET, nothing, 9);
    ask(AGENTX_CLEANUP_SET, nothing, 9);
    EXPECT_EQ(test(500), 0U) << "an old copy of the first PDU";
    EXPECT_EQ(m.calls, (std::vector<std::string>{"level 77"}));
    EXPECT_EQ(m.level, 77);
    // The same number for another SET, which a master that counts around may use.
    EXPECT_EQ(ask(
                  AGENTX_TEST_SET,
                  [](pdu_writer& w) {
                      w.integer(below({1, 0}), 78);
                  },
                  9, 501)
                  .error(),
              0U);
    EXPECT_EQ(m.level, 78);
}

TEST_P(agentx, every_way_not_to_commit_puts_everything_back) {
    const auto test = [&](std::uint32_t transaction) {
        return ask(
                   AGENTX_TEST_SET,
                   [](pdu_writer& w) {
                       w.integer(below({1, 0}), 77);
                       w.integer(below({5, 0}), 3);
                       w.integer(below({1, 0}), 88);
                   },
                   transaction)
            .error();
    };
    const auto as_before = [] { return m.level == 10 && m.steps == 1; };
    establish();
    ASSERT_EQ(test(1), 0U);
    EXPECT_EQ(m.level, 88);
    EXPECT_EQ(m.steps, 4);
    ask(AGENTX_CLEANUP_SET, nothing, 1);
    EXPECT_TRUE(as_before()) << "CleanupSet without CommitSet";
    EXPECT_EQ(m.calls, (std::vector<std::string>{"level 77", "steps 3", "level 88", "level 77", "steps 1",
                                                 "level 10"}));

    ASSERT_EQ(test(2), 0U);
    ASSERT_EQ(ask(AGENTX_COMMIT_SET, nothing, 2).error(), 0U);
    EXPECT_EQ(ask(AGENTX_UNDO_SET, nothing, 2).error(), 0U);
    EXPECT_EQ(ask(AGENTX_UNDO_SET, nothing, 2).error(), 0U);
    EXPECT_TRUE(as_before()) << "UndoSet after CommitSet";
    EXPECT_EQ(ask(AGENTX_COMMIT_SET, nothing, 2).error(), unsigned{SNMP_COMMIT_FAILED});

    ASSERT_EQ(test(3), 0U);
    close(far);
    far = -1;
    run(50);
    EXPECT_TRUE(as_before()) << "the master left between TestSet and CommitSet";
    establish();

    ASSERT_EQ(test(4), 0U);
    ASSERT_EQ(ask(AGENTX_COMMIT_SET, nothing, 4).error(), 0U);
    close(far);
    far = -1;
    run(50);
    EXPECT_EQ(m.level, 88) << "committed: stays";
}

TEST_P(agentx, a_refused_set_says_which_object_and_changes_none) {
    establish();
    const auto refused = [&](const std::function<void(pdu_writer&)>& last) {
        const std::uint32_t transaction = ++packets;
        const pdu reply = ask(
            AGENTX_TEST_SET,
            [&](pdu_writer& w) {
                w.integer(below({5, 0}), 3);
                last(w);
            },
            transaction);
        EXPECT_EQ(reply.index(), 2U);
        EXPECT_EQ(m.steps, 1);
        EXPECT_EQ(m.level, 10);
        EXPECT_EQ(ask(AGENTX_COMMIT_SET, nothing, transaction).error(), unsigned{SNMP_COMMIT_FAILED});
        ask(AGENTX_CLEANUP_SET, nothing, transaction);
        EXPECT_EQ(m.steps, 1);
        return reply.error();
    };
    EXPECT_EQ(refused([](pdu_writer& w) {
                  w.integer(below({1, 0}), 1, AGENTX_GAUGE32);
              }),
              unsigned{SNMP_WRONG_TYPE});
    EXPECT_EQ(refused([](pdu_writer& w) { w.integer(below({2, 0}), 1); }), unsigned{SNMP_NOT_WRITABLE});
    EXPECT_EQ(refused([](pdu_writer& w) { w.integer(below({4, 0}), 1); }), unsigned{SNMP_NOT_WRITABLE});
    EXPECT_EQ(refused([](pdu_writer& w) { w.integer(below({1, 1}), 1); }), unsigned{SNMP_NO_CREATION});
    EXPECT_EQ(refused([](pdu_writer& w) {
                  w.integer(below({3, 1, 2, 5}), 1);
              }),
              unsigned{SNMP_NO_SUCH_NAME})
        << "the handler's own word for a row that is not there";
    m.refuse_level = SNMP_INCONSISTENT_VALUE;
    EXPECT_EQ(refused([](pdu_writer& w) { w.integer(below({1, 0}), 1); }), unsigned{SNMP_INCONSISTENT_VALUE});
}

TEST_P(agentx, a_second_open_transaction_is_refused_not_mixed_up) {
    establish();
    const auto test = [&](std::uint32_t transaction, std::int32_t value) {
        return ask(
                   AGENTX_TEST_SET,
                   [&](pdu_writer& w) {
                       w.integer(below({1, 0}), value);
                   },
                   transaction)
            .error();
    };
    EXPECT_EQ(test(1, 20), 0U);
    EXPECT_EQ(test(2, 30), unsigned{SNMP_RESOURCE_UNAVAILABLE});
    ask(AGENTX_CLEANUP_SET, nothing, 2);
    ask(AGENTX_CLEANUP_SET, nothing, 1);
    EXPECT_EQ(m.level, 10);
    // One that was refused does not stand in the way, even without its CleanupSet.
    m.refuse_level = SNMP_WRONG_VALUE;
    EXPECT_EQ(test(3, 40), unsigned{SNMP_WRONG_VALUE});
    m.refuse_level = 0;
    for (std::uint32_t t = 4; t < 20; ++t) {
        EXPECT_EQ(test(t, static_cast<std::int32_t>(t)), 0U);
        ask(AGENTX_COMMIT_SET, nothing, t);
        ask(AGENTX_CLEANUP_SET, nothing, t);
    }
    EXPECT_EQ(m.level, 19);
}

TEST_P(agentx, any_cutting_of_the_stream_gives_the_same_answers) {
    establish();
    pdu_writer get;
    get.big = GetParam();
    get.range(below({1, 0}));
    bytes stream;
    for (std::uint32_t i = 0; i < 100; ++i) {
        const bytes one = get.pdu(AGENTX_GET, 5, i, 1000 + i);
        stream.insert(stream.end(), one.begin(), one.end());
    }
    for (std::size_t step : {std::size_t{1}, std::size_t{19}, std::size_t{333}, stream.size()}) {
        for (std::size_t at = 0; at < stream.size(); at += step) {
            const std::size_t end = std::min(stream.size(), at + step);
            send_bytes(bytes(stream.begin() + static_cast<std::ptrdiff_t>(at),
                             stream.begin() + static_cast<std::ptrdiff_t>(end)));
            if (step < 1000) run(0);
        }
        for (std::uint32_t i = 0; i < 100; ++i) {
            pdu reply;
            ASSERT_TRUE(next(&reply)) << step << " " << i;
            ASSERT_EQ(reply.packet, 1000 + i);
            ASSERT_EQ(reply.variables().at(0).number, 10);
        }
    }
}

TEST_P(agentx, an_object_that_does_not_go_back_is_said_each_time) {
    establish();
    ASSERT_EQ(ask(
                  AGENTX_TEST_SET,
                  [](pdu_writer& w) {
                      w.integer(below({1, 0}), 77);
                  },
                  1)
                  .error(),
              0U);
    m.stuck = true;
    EXPECT_EQ(ask(AGENTX_UNDO_SET, nothing, 1).error(), unsigned{SNMP_UNDO_FAILED});
    EXPECT_EQ(ask(AGENTX_UNDO_SET, nothing, 1).error(), unsigned{SNMP_UNDO_FAILED});
}

TEST_P(agentx, a_burst_is_served_over_several_turns_of_the_loop) {
    establish();
    bytes burst;
    for (std::uint32_t i = 0; i < 300; ++i) {
        pdu_writer w;
        w.big = GetParam();
        const bytes one = w.pdu(AGENTX_PING, 5, i, i);
        burst.insert(burst.end(), one.begin(), one.end());
    }
    const std::uint64_t before = ctx.snmp->stats.requests;
    send_bytes(burst);
    thread event;
    ASSERT_NE(thread_fetch(&ctx, &event), nullptr);
    (void)thread_call(&event);
    const std::uint64_t served = ctx.snmp->stats.requests - before;
    EXPECT_GT(served, 0U);
    EXPECT_LE(served, 50U) << "a frame that comes now must not wait for all of them";
    EXPECT_TRUE(run(1, [&] { return ctx.snmp->stats.requests == before + 300; })) << "and none is forgotten";
}

TEST_P(agentx, garbage_ends_the_link_and_another_is_made) {
    establish();
    bytes bad_version = pdu_writer{}.pdu(AGENTX_GET, 5, 1, 1);
    bad_version[0] = 9;
    pdu_writer huge;
    bytes too_long = huge.pdu(AGENTX_GET, 5, 1, 1);
    too_long[2] = AGENTX_FLAG_BIG_ENDIAN;
    too_long[16] = 0x7f;
    pdu_writer half;
    half.big = GetParam();
    half.name(below({1, 0}));  // a range without its end
    const bytes cases[] = {bad_version,
                           too_long,
                           half.pdu(AGENTX_GET, 5, 1, 1),
                           half.pdu(AGENTX_TEST_SET, 5, 1, 1),
                           half.pdu(AGENTX_OPEN, 5, 1, 1),
                           bytes(64, 0xff)};
    std::uint64_t seen = 0;
    for (const bytes& data : cases) {
        const int before = opens;
        send_bytes(data);
        EXPECT_TRUE(run(1000, [&] { return opens == before + 1; }));
        EXPECT_EQ(ctx.snmp->stats.malformed, ++seen);
        establish();
    }
    EXPECT_EQ(m.level, 10);
}

TEST_P(agentx, other_sessions_and_contexts_are_not_served) {
    establish();
    pdu_writer w;
    w.big = GetParam();
    w.range(below({1, 0}));
    send_bytes(w.pdu(AGENTX_GET, 6, 1, 1));
    pdu reply;
    ASSERT_TRUE(next(&reply));
    EXPECT_EQ(reply.error(), unsigned{AGENTX_NOT_OPEN});
    bytes with_context = w.pdu(AGENTX_GET, 5, 1, 1);
    with_context[2] |= AGENTX_FLAG_CONTEXT;
    send_bytes(with_context);
    ASSERT_TRUE(next(&reply));
    EXPECT_EQ(reply.error(), unsigned{AGENTX_UNSUPPORTED_CONTEXT});
    EXPECT_EQ(ask(AGENTX_PING, nothing).error(), 0U);
}

TEST_P(agentx, every_step_ends_by_its_timer) {
    pdu p;
    ASSERT_TRUE(next(&p, 5000));  // Open, which is not answered
    EXPECT_TRUE(run(3500, [&] { return opens == 2; })) << "Open";
    ASSERT_TRUE(next(&p, 5000));
    answer(p);
    ASSERT_TRUE(next(&p));  // Register
    EXPECT_TRUE(run(4000, [&] { return opens == 3; })) << "Register";
    establish();
    const nanoseconds silent = now;
    ASSERT_TRUE(next(&p, 20000));
    EXPECT_EQ(p.type, unsigned{AGENTX_PING});
    EXPECT_NEAR(static_cast<double>(now - silent) / 1e9, 15.0, 0.1);
    answer(p);
    EXPECT_FALSE(run(14000, [&] { return opens == 4; })) << "an answered ping keeps the link";
    ASSERT_TRUE(next(&p, 2000));
    EXPECT_TRUE(run(3500, [&] { return opens == 4; })) << "ping";
}

TEST_P(agentx, comes_back_soon_however_long_the_master_was_away) {
    open_error = ECONNREFUSED;
    run(3600 * 1000);
    EXPECT_LT(opens, 2000) << "tries at most every other second";
    EXPECT_GT(opens, 1000);
    open_error = 0;
    const int before = opens;
    EXPECT_TRUE(run(2500, [&] { return opens > before; }));
    establish();
    pdu_writer w;
    w.big = GetParam();
    w.u32(0x06000000);
    send_bytes(w.pdu(AGENTX_CLOSE, 5, 0, 1));
    EXPECT_TRUE(run(500, [&] { return opens > before + 1; })) << "a first loss is followed by a quick try";
    pdu p;
    ASSERT_TRUE(next(&p, 1000));
    answer(p, 256);
    EXPECT_TRUE(run(1000, [&] { return opens > before + 2; })) << "a refused Open";
}

TEST_P(agentx, a_master_that_reads_nothing_costs_bounded_memory) {
    establish();
    pdu_writer w;
    w.big = GetParam();
    for (int i = 0; i < 200; ++i) w.range(below({2, 0}));
    const bytes request = w.pdu(AGENTX_GET, 5, 1, 1);
    const int before = opens;
    std::uint64_t peak = 0;
    while (opens == before) {
        (void)::send(far, request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        run(5);
        peak = std::max(peak, memmgr_type_stats(MTYPE_TEXT).octets);
        ASSERT_LT(now, 30 * NS_PER_S);
    }
    EXPECT_LT(peak, 2U * 1024 * 1024);
}

TEST_P(agentx, exhausted_memory_at_any_point_ends_a_link_at_most) {
    establish();
    m.rows = {{1, 1}, {2, 2}};
    const auto requests = [&] {
        for (unsigned type : {unsigned{AGENTX_GET_NEXT}, unsigned{AGENTX_TEST_SET}}) {
            pdu_writer w;
            w.big = GetParam();
            if (type == AGENTX_TEST_SET) w.integer(below({1, 0}), 5);
            for (int i = 0; i < 40 && type == AGENTX_GET_NEXT; ++i) w.range(ROOT);
            ++packets;
            const bytes data = w.pdu(type, 5, packets, packets);
            (void)::send(far, data.data(), data.size(), MSG_NOSIGNAL);
            run(10);
        }
    };
    for (std::uint64_t n = 1; n < 12; ++n) {
        memmgr_fail_at(n);
        requests();
        memmgr_fail_at(0);
        if (ctx.snmp->phase != agentx_phase::serving) {
            ASSERT_TRUE(ctx.snmp->timer) << "nothing would ever connect again";
            run(6000, [&] { return ctx.snmp->phase == agentx_phase::opening; });
            establish();
        } else {
            // A connection whose answers are of another length than was asked for would be of no use.
            received.clear();
            std::uint8_t rest[65536];
            while (recv(far, rest, sizeof rest, MSG_DONTWAIT) > 0) {
            }
            EXPECT_EQ(ask(AGENTX_PING, nothing).error(), 0U);
        }
    }
}

// -------------------------------------------------------------------------------------------- notifications

TEST_P(agentx, a_notification_counts_as_delivered_when_it_is_answered) {
    static std::vector<std::pair<std::uint32_t, bool>> told;
    told.clear();
    const snmp_notify_done done = [](std::uint32_t tag, bool delivered) {
        told.emplace_back(tag, delivered);
    };
    const snmp_notify_object objects[] = {{{1, 0}, 2, 4}, {{3, 1, 2, 70000}, 4, -1}};
    const auto notify = [&](std::uint32_t tag) {
        return snmp_notify(&ctx, BASE, 2, 6, objects, 2, done, tag);
    };
    EXPECT_EQ(notify(1), -1) << "no master";
    establish();
    ASSERT_EQ(notify(2), 0);
    pdu p;
    ASSERT_TRUE(next(&p));
    ASSERT_EQ(p.type, unsigned{AGENTX_NOTIFY});
    pdu_reader r = p.reader();
    const variable trap = r.next(), one = r.next(), two = r.next();
    EXPECT_EQ(trap.name, (oid{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}));
    EXPECT_EQ(trap.id, below({0, 6}));
    EXPECT_EQ(one.name, below({1, 0}));
    EXPECT_EQ(one.number, 4);
    EXPECT_EQ(two.name, below({3, 1, 2, 70000}));
    EXPECT_EQ(two.number, -1);
    EXPECT_TRUE(told.empty());
    answer(p);
    run(1);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_EQ(told[0], (std::pair<std::uint32_t, bool>{2, true}));
    // Unanswered ones end the link and are told as lost; how many there are at once is bounded.
    int sent = 0;
    while (notify(10 + static_cast<std::uint32_t>(sent)) == 0 && sent < 1000) ++sent;
    EXPECT_EQ(sent, static_cast<int>(AGENTX_NOTIFICATIONS));
    run(3500);
    ASSERT_EQ(told.size(), 1U + AGENTX_NOTIFICATIONS);
    EXPECT_EQ(told[1], (std::pair<std::uint32_t, bool>{10, false}));
}

TEST_P(agentx, the_module_is_asked_only_while_notifications_are_configured) {
    run(2000);
    EXPECT_EQ(trace, "");
    ASSERT_EQ(cli_run_line(ctx.ctree, &session, "snmp notifications"), cli_result::ok);
    run(1000);
    EXPECT_EQ(trace.substr(0, 18), "start check check ");
    EXPECT_NEAR(static_cast<double>(trace.size() - 6) / 6, 5, 1) << "five times a second";
    ASSERT_EQ(cli_run_line(ctx.ctree, &session, "no snmp notifications"), cli_result::ok);
    trace.clear();
    run(1000);
    EXPECT_EQ(trace, "");
}

// ------------------------------------------------------------------------------------------------- commands

TEST_P(agentx, the_target_is_configured_shown_and_written) {
    const auto config = [&](const char* line) {
        session.mode = CONFIG_MODE;
        return cli_run_line(ctx.ctree, &session, line);
    };
    const auto written = [&] {
        output();
        cli_write_running(ctx.ctree, &session);
        return output();
    };
    establish();
    EXPECT_EQ(written(), "");
    const int before = opens;
    EXPECT_EQ(config("snmp agentx unix /run/x/master"), cli_result::ok);
    pdu p;
    ASSERT_TRUE(run(10, [&] { return opens == before + 1; })) << "at once";
    establish();
    EXPECT_EQ(config("snmp agentx unix /run/x/master"), cli_result::ok);
    run(100);
    EXPECT_EQ(opens, before + 1) << "a repeated line does nothing";
    EXPECT_EQ(written(), "snmp agentx unix /run/x/master\n");
    EXPECT_EQ(config("snmp agentx tcp localhost 705"), cli_result::ok);
    EXPECT_EQ(config("snmp notifications"), cli_result::ok);
    EXPECT_EQ(written(), "snmp agentx tcp 127.0.0.1 705\nsnmp notifications\n");
    EXPECT_EQ(config("snmp agentx tcp ::1 705"), cli_result::ok);
    EXPECT_EQ(config("snmp agentx tcp master.example 705"), cli_result::failed)
        << "would have to be looked up";
    EXPECT_EQ(config("snmp agentx unix relative"), cli_result::failed);
    EXPECT_EQ(config(("snmp agentx unix /" + std::string(107, 'x')).c_str()), cli_result::failed)
        << "too long";
    EXPECT_EQ(written(), "snmp agentx tcp ::1 705\nsnmp notifications\n");
    session.mode = EXEC_MODE;
    EXPECT_EQ(cli_run_line(ctx.ctree, &session, "show snmp"), cli_result::ok);
    EXPECT_NE(output().find("tcp ::1 port 705"), std::string::npos);
    EXPECT_EQ(config("no snmp agentx"), cli_result::ok);
    EXPECT_EQ(config("no snmp notifications"), cli_result::ok);
    EXPECT_EQ(written(), "");
}

TEST_P(agentx, show_tells_state_and_last_error) {
    const auto shown = [&] {
        session.mode = EXEC_MODE;
        EXPECT_EQ(cli_run_line(ctx.ctree, &session, "show snmp"), cli_result::ok);
        return output();
    };
    open_error = ENOENT;
    run(100);
    EXPECT_NE(shown().find("not connected"), std::string::npos);
    EXPECT_NE(shown().find("No such file"), std::string::npos);
    open_error = 0;
    establish();
    ask(AGENTX_GET, [](pdu_writer& w) { w.range(below({1, 0})); });
    const std::string text = shown();
    EXPECT_NE(text.find("registered"), std::string::npos);
    EXPECT_NE(text.find("1 requests, 0 sets"), std::string::npos) << text;
}

TEST(agentx_registration, refuses_tables_that_would_be_served_wrongly) {
    lib_globals ctx{};
    const auto registered = [&](const snmp_variable* table, std::size_t count, std::size_t size) {
        return agentx_register_mib(&ctx, "test", table, size, count, BASE, 2, 0, 0, 0, 0, 0);
    };
    EXPECT_LT(registered(TABLE, std::size(TABLE), 540), 0) << "entries of another size";
    const snmp_variable turned[] = {TABLE[1], TABLE[0]};
    EXPECT_LT(registered(turned, 2, sizeof TABLE[0]), 0) << "a walk would miss the second";
    snmp_variable without = TABLE[0];
    without.read = nullptr;
    EXPECT_LT(registered(&without, 1, sizeof TABLE[0]), 0);
    EXPECT_EQ(registered(TABLE, std::size(TABLE), sizeof TABLE[0]), 0);
    snmp_stop(&ctx);
    EXPECT_EQ(ctx.snmp, nullptr);
    for (std::uint64_t n = 1; n <= 2; ++n) {
        memmgr_fail_at(n);
        EXPECT_LT(registered(TABLE, std::size(TABLE), sizeof TABLE[0]), 0);
        memmgr_fail_at(0);
        snmp_stop(&ctx);
    }
}

}  // namespace
