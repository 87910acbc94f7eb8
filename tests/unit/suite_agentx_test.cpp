// The SNMP sub-agent: its session, lookups, sets, notifications and commands against a master that the test
// plays, in virtual time. Both byte orders run through the same cases.
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "suite/base/memory.h"
#include "suite/command/tree.h"
#include "suite/log/log.h"
#include "unit/agentx_master.h"
#include "unit/suite_line_runner.h"

namespace {

const oid ROOT = {1, 3, 6, 1, 4, 1, 32473, 99};
const snmp_oid BASE[] = {32473, 99};

oid below(std::initializer_list<snmp_oid> tail) {
    oid whole = ROOT;
    whole.insert(whole.end(), tail);
    return whole;
}
oid row(snmp_oid index) {
    return below({3, 1, 2, index});
}
const oid LEVEL = below({1, 0}), TEXT = below({2, 0}), STEPS = below({5, 0});

// A module of three scalars and a table. The rows are those of `rows`; a row of value 0 has no value. The
// steps behave like a counter: a SET adds, only a restore sets.
struct model {
    std::int32_t level = 10, steps = 1;
    std::string text = "hello";
    std::map<snmp_oid, std::int32_t> rows;
    std::vector<std::string> calls;
    int refuse_level = 0;  // status
    bool stuck = false;    // nothing can be set back
} m;

constexpr std::uint32_t LEVEL_MAGIC = 1, STEPS_MAGIC = 5;

int write_scalar(int action, const std::uint8_t* value, std::uint8_t type, std::size_t length,
                 const std::uint8_t* state, const snmp_oid*, std::size_t, const snmp_variable* variable) {
    const bool is_restore = action == SNMP_ACTION_RESTORE, is_level = variable->magic == LEVEL_MAGIC;
    if (type != SNMP_TYPE_INTEGER) return SNMP_WRONG_TYPE;
    EXPECT_EQ(length, 4U);
    EXPECT_EQ(state == nullptr, is_restore);
    if (is_restore && m.stuck) return SNMP_GEN_ERR;
    if (is_level && !is_restore && m.refuse_level) return m.refuse_level;
    std::int32_t number = 0;
    std::memcpy(&number, value, sizeof number);
    if (is_level)
        m.level = number;
    else
        m.steps = is_restore ? number : m.steps + number;
    m.calls.push_back((is_level ? "level " : "steps ") + std::to_string(number));
    return SNMP_NO_ERROR;
}

std::int32_t cell;

const void* read_scalar(const snmp_variable* v, snmp_oid* name, std::size_t* length, int exact,
                        std::size_t* size, snmp_write_handler* write) {
    if (snmp_header_generic(v, name, length, exact, size, write) != 0) return nullptr;
    if (v->type == SNMP_TYPE_OCTET_STRING) {
        *size = m.text.size();
        return m.text.data();
    }
    *write = write_scalar;
    cell = v->magic == LEVEL_MAGIC ? m.level : m.steps;
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
    const auto found = exact ? m.rows.find(index) : m.rows.upper_bound(index);
    if (found == m.rows.end()) return nullptr;
    name[v->suffix_length] = found->first;
    *length = v->suffix_length + 1U;
    cell = found->second;
    return cell ? &cell : nullptr;
}

const snmp_variable TABLE[] = {
    {LEVEL_MAGIC, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_scalar, {1}},
    {2, SNMP_TYPE_OCTET_STRING, SNMP_READ_ONLY, 1, read_scalar, {2}},
    {30, SNMP_TYPE_INTEGER, SNMP_NOT_ACCESSIBLE, 3, read_row, {3, 1, 1}},
    {31, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 3, read_row, {3, 1, 2}},
    {STEPS_MAGIC, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_scalar, {5}},
};

// What a SET gives to an object.
struct value {
    oid name;
    std::int32_t number;
    unsigned type = AGENTX_INTEGER;
};

class agentx : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override {
        m = {};
        current = this;
        log_use_sink(LOG_SINK_STDERR, false);
        ctx.ctree = cli_tree_create();
        const thread_edges edges = master.edges();
        ctx.master = thread_master_create(&edges);
        master.ctx = &ctx;
        master.big = GetParam();
        agentx_set_link_open([](const agentx_target*) { return current->master.open(); });
        ASSERT_EQ(agentx_register_mib(&ctx, "test", TABLE, sizeof TABLE[0], std::size(TABLE), BASE, 2, 0, 0,
                                      0, 0, 0),
                  0);
        ASSERT_EQ(snmp_start(&ctx), 0);
    }
    void TearDown() override {
        memmgr_fail_at(0);
        snmp_stop(&ctx);
        agentx_set_link_open(nullptr);
        thread_master_finish(ctx.master);
        cli_tree_free(ctx.ctree);
    }

    void establish() {
        ASSERT_NO_FATAL_FAILURE(master.establish(ROOT));
        ASSERT_EQ(state(), "SNMP sub-agent: registered");
    }
    std::string show() {
        EXPECT_EQ(commands.run("show snmp"), cli_result::ok);
        return commands.printed;
    }
    std::string state() {
        const std::string text = show();
        return text.substr(0, text.find('\n'));
    }

    pdu_writer writer() const { return {GetParam(), {}}; }
    pdu ask(unsigned type, const pdu_writer& w, std::uint32_t transaction = 1, std::uint32_t packet = 0) {
        if (!packet) packet = ++packets;
        master.send(w.pdu(type, master.SESSION, transaction, packet));
        pdu reply;
        EXPECT_TRUE(master.next(&reply));
        EXPECT_EQ(reply.type, unsigned{AGENTX_RESPONSE});
        EXPECT_EQ(reply.packet, packet);
        EXPECT_EQ(reply.transaction, transaction);
        EXPECT_EQ(reply.big, GetParam()) << "the order of the request";
        return reply;
    }
    pdu_writer ranges(const std::vector<oid>& names) const {
        pdu_writer w = writer();
        for (const oid& name : names) w.range(name);
        return w;
    }
    std::vector<variable> get(const std::vector<oid>& names) {
        return ask(AGENTX_GET, ranges(names)).variables();
    }
    // `single` ranges answered once, all others as often as said.
    std::vector<variable> get_bulk(unsigned single, unsigned repetitions, const std::vector<oid>& names) {
        pdu_writer w = writer();
        w.u16(single);
        w.u16(repetitions);
        for (const oid& name : names) w.range(name);
        return ask(AGENTX_GET_BULK, w).variables();
    }
    variable next_of(const oid& start, const oid& end = {}, bool include = false) {
        pdu_writer w = writer();
        w.range(start, end, include);
        return ask(AGENTX_GET_NEXT, w).variables().at(0);
    }
    std::vector<oid> walk(const oid& end = {}) {
        std::vector<oid> seen;
        for (variable v = next_of(ROOT, end); v.type != AGENTX_END_OF_MIB_VIEW && seen.size() < 100;
             v = next_of(v.name, end))
            seen.push_back(v.name);
        return seen;
    }

    // Requests for the level with the packet numbers 0, 1...
    bytes gets(std::uint32_t count) const {
        bytes stream;
        for (std::uint32_t i = 0; i < count; ++i) {
            const bytes one = ranges({LEVEL}).pdu(AGENTX_GET, master.SESSION, 1, i);
            stream.insert(stream.end(), one.begin(), one.end());
        }
        return stream;
    }
    void expect_answers_of_gets(std::uint32_t count) {
        for (std::uint32_t i = 0; i < count; ++i) {
            pdu reply;
            ASSERT_TRUE(master.next(&reply)) << i;
            ASSERT_EQ(reply.packet, i);
            ASSERT_EQ(reply.variables().at(0).number, 10);
        }
    }

    pdu_writer values(const std::vector<value>& all) const {
        pdu_writer w = writer();
        for (const value& v : all) {
            w.variable(v.type, v.name);
            w.u32(static_cast<std::uint32_t>(v.number));
        }
        return w;
    }
    unsigned test_set(const std::vector<value>& all, std::uint32_t transaction, std::uint32_t packet = 0) {
        return ask(AGENTX_TEST_SET, values(all), transaction, packet).error();
    }
    unsigned commit(std::uint32_t transaction) {
        return ask(AGENTX_COMMIT_SET, writer(), transaction).error();
    }
    unsigned undo(std::uint32_t transaction) { return ask(AGENTX_UNDO_SET, writer(), transaction).error(); }
    void cleanup(std::uint32_t transaction) {
        master.send(writer().pdu(AGENTX_CLEANUP_SET, master.SESSION, transaction, ++packets));
        master.run(1);
    }
    unsigned ping() { return ask(AGENTX_PING, writer()).error(); }

    static agentx* current;
    lib_globals ctx{};
    agentx_master master;
    line_runner commands{&ctx};
    std::uint32_t packets = 100;
};
agentx* agentx::current;

INSTANTIATE_TEST_SUITE_P(orders, agentx, ::testing::Bool(),
                         [](const auto& order) { return order.param ? "big_endian" : "little_endian"; });

// Lookups -----------------------------------------------------------------------------------------------

TEST_P(agentx, gets_say_what_is_there_and_what_kind_of_nothing_there_is) {
    establish();
    m.rows = {{7, 70}};
    const std::vector<std::pair<oid, unsigned>> cases = {
        {LEVEL, AGENTX_INTEGER},
        {TEXT, AGENTX_OCTET_STRING},
        {row(7), AGENTX_INTEGER},
        {below({1}), AGENTX_NO_SUCH_INSTANCE},
        {below({1, 0, 0}), AGENTX_NO_SUCH_INSTANCE},
        {row(8), AGENTX_NO_SUCH_INSTANCE},
        {below({4, 0}), AGENTX_NO_SUCH_OBJECT},
        {below({3, 1, 1, 7}), AGENTX_NO_SUCH_OBJECT},  // not accessible
        {{1, 3, 6, 1, 2, 1}, AGENTX_NO_SUCH_OBJECT},   // of another module
        {oid(128, 2), AGENTX_NO_SUCH_OBJECT},          // the longest name
    };
    std::vector<oid> names;
    for (const auto& [name, type] : cases) names.push_back(name);
    const std::vector<variable> answers = get(names);
    ASSERT_EQ(answers.size(), cases.size());
    for (std::size_t i = 0; i < cases.size(); ++i) {
        EXPECT_EQ(answers[i].name, cases[i].first) << i;
        EXPECT_EQ(answers[i].type, cases[i].second) << i;
    }
    EXPECT_EQ(answers[0].number, 10);
    EXPECT_EQ(answers[1].text, "hello");
    EXPECT_EQ(answers[2].number, 70);
}

TEST_P(agentx, a_walk_goes_by_index_and_over_rows_without_value) {
    establish();
    m.rows = {{9, 90}, {2, 20}, {4, 0}, {300, 3}};
    EXPECT_EQ(walk(), (std::vector<oid>{LEVEL, TEXT, row(2), row(9), row(300), STEPS}));
    EXPECT_EQ(walk(row(9)), (std::vector<oid>{LEVEL, TEXT, row(2)})) << "the end is exclusive";
    EXPECT_EQ(next_of(LEVEL, {}, true).name, LEVEL) << "the start counts itself";
    EXPECT_EQ(next_of({1, 3}).name, LEVEL);
    EXPECT_EQ(next_of(below({3, 1, 2, 2, 77})).name, row(9));
    EXPECT_EQ(next_of({1, 3, 6, 1, 4, 1, 32474}).type, unsigned{AGENTX_END_OF_MIB_VIEW});
}

TEST_P(agentx, bulk_answers_row_by_row) {
    establish();
    m.rows = {{1, 11}, {2, 22}};
    std::vector<oid> names;
    for (const variable& v : get_bulk(1, 2, {below({1}), below({3, 1, 2}), below({2})}))
        names.push_back(v.name);
    EXPECT_EQ(names, (std::vector<oid>{LEVEL, row(1), TEXT, row(2), row(1)}));
    EXPECT_LE(get_bulk(0, 65535, std::vector<oid>(20, below({3, 1, 2}))).size(), 80U)
        << "no longer than the MIB";
    EXPECT_EQ(get_bulk(0, 9, std::vector<oid>(100, below({1}))).size(), 100U)
        << "one whole row of more ranges than are remembered";
}

TEST_P(agentx, an_answer_too_long_to_be_built_is_an_error_and_nothing_else) {
    establish();
    m.text.assign(1000, 'x');
    EXPECT_EQ(ask(AGENTX_GET, ranges(std::vector<oid>(300, TEXT))).error(), unsigned{SNMP_GEN_ERR});
    EXPECT_EQ(get({TEXT}).at(0).text, m.text);
}

// Sets --------------------------------------------------------------------------------------------------

TEST_P(agentx, a_set_is_applied_once_and_kept_by_commit) {
    establish();
    EXPECT_EQ(test_set({{LEVEL, 77}}, 9, 500), 0U);
    EXPECT_EQ(test_set({{LEVEL, 77}}, 9, 500), 0U);
    EXPECT_EQ(commit(9), 0U);
    EXPECT_EQ(commit(9), 0U);
    cleanup(9);
    cleanup(9);
    EXPECT_EQ(test_set({{LEVEL, 77}}, 9, 500), 0U) << "an old copy of the first PDU";
    EXPECT_EQ(m.calls, (std::vector<std::string>{"level 77"}));
    EXPECT_EQ(m.level, 77);
    EXPECT_EQ(test_set({{LEVEL, 78}}, 9, 501), 0U) << "another SET, of a master that counts around";
    EXPECT_EQ(m.level, 78);
}

TEST_P(agentx, every_way_not_to_commit_puts_everything_back) {
    const std::vector<value> several = {{LEVEL, 77}, {STEPS, 3}, {LEVEL, 88}};
    const auto as_before = [] { return m.level == 10 && m.steps == 1; };
    const auto master_leaves = [this] {
        master.hang_up();
        master.run(50);
    };
    establish();
    ASSERT_EQ(test_set(several, 1), 0U);
    EXPECT_EQ(m.level, 88);
    EXPECT_EQ(m.steps, 4);
    cleanup(1);
    EXPECT_TRUE(as_before()) << "CleanupSet without CommitSet";
    EXPECT_EQ(m.calls, (std::vector<std::string>{"level 77", "steps 3", "level 88", "level 77", "steps 1",
                                                 "level 10"}));

    ASSERT_EQ(test_set(several, 2), 0U);
    ASSERT_EQ(commit(2), 0U);
    EXPECT_EQ(undo(2), 0U);
    EXPECT_EQ(undo(2), 0U);
    EXPECT_TRUE(as_before()) << "UndoSet after CommitSet";
    EXPECT_EQ(commit(2), unsigned{SNMP_COMMIT_FAILED});

    ASSERT_EQ(test_set(several, 3), 0U);
    master_leaves();
    EXPECT_TRUE(as_before()) << "the master left between TestSet and CommitSet";

    establish();
    ASSERT_EQ(test_set(several, 4), 0U);
    ASSERT_EQ(commit(4), 0U);
    master_leaves();
    EXPECT_EQ(m.level, 88) << "committed: stays";

    establish();
    ASSERT_EQ(test_set(several, 5), 0U);
    m.stuck = true;
    EXPECT_EQ(undo(5), unsigned{SNMP_UNDO_FAILED});
    EXPECT_EQ(undo(5), unsigned{SNMP_UNDO_FAILED}) << "said each time";
}

TEST_P(agentx, a_refused_set_says_which_object_and_changes_none) {
    establish();
    const std::pair<value, int> cases[] = {
        {{LEVEL, 1, AGENTX_GAUGE32}, SNMP_WRONG_TYPE},
        {{TEXT, 1}, SNMP_NOT_WRITABLE},
        {{below({4, 0}), 1}, SNMP_NOT_WRITABLE},
        {{below({1, 1}), 1}, SNMP_NO_CREATION},
        {{row(5), 1}, SNMP_NO_SUCH_NAME},  // the handler's own word for a row that is not there
        {{LEVEL, 1}, SNMP_INCONSISTENT_VALUE},
    };
    m.refuse_level = SNMP_INCONSISTENT_VALUE;
    for (const auto& [refused, status] : cases) {
        const std::uint32_t transaction = ++packets;
        const pdu reply = ask(AGENTX_TEST_SET, values({{STEPS, 3}, refused}), transaction);
        EXPECT_EQ(reply.error(), static_cast<unsigned>(status));
        EXPECT_EQ(reply.index(), 2U) << status;
        EXPECT_EQ(commit(transaction), unsigned{SNMP_COMMIT_FAILED}) << status;
        cleanup(transaction);
        EXPECT_EQ(m.steps, 1) << status;
        EXPECT_EQ(m.level, 10) << status;
    }
}

TEST_P(agentx, a_second_open_transaction_is_refused_not_mixed_up) {
    establish();
    EXPECT_EQ(test_set({{LEVEL, 20}}, 1), 0U);
    EXPECT_EQ(test_set({{LEVEL, 30}}, 2), unsigned{SNMP_RESOURCE_UNAVAILABLE});
    cleanup(2);
    cleanup(1);
    EXPECT_EQ(m.level, 10);
    // Those that were refused do not stand in the way, even without their CleanupSet.
    m.refuse_level = SNMP_WRONG_VALUE;
    for (std::uint32_t t = 3; t < 10; ++t) EXPECT_EQ(test_set({{LEVEL, 40}}, t), unsigned{SNMP_WRONG_VALUE});
    m.refuse_level = 0;
    EXPECT_EQ(test_set({{LEVEL, 40}}, 10), 0U);
}

// The stream --------------------------------------------------------------------------------------------

TEST_P(agentx, any_cutting_of_the_stream_gives_the_same_answers) {
    establish();
    const bytes stream = gets(100);
    for (const std::ptrdiff_t step : {1, 19, 333}) {
        for (auto at = stream.begin(); at != stream.end();) {
            const auto end = at + std::min(step, stream.end() - at);
            master.send(bytes(at, end));
            master.run(0);
            at = end;
        }
        expect_answers_of_gets(100);
    }
}

TEST_P(agentx, a_burst_is_served_over_several_turns_of_the_loop) {
    establish();
    master.send(gets(300));
    thread event;
    ASSERT_NE(thread_fetch(&ctx, &event), nullptr);
    (void)thread_call(&event);
    bytes served(65536);
    const ssize_t count = recv(master.far, served.data(), served.size(), MSG_DONTWAIT | MSG_PEEK);
    EXPECT_GT(count, 0);
    EXPECT_LT(count, 150 * 60) << "a frame that comes now must not wait for all of them";
    expect_answers_of_gets(300);
}

TEST_P(agentx, garbage_ends_the_link_and_another_is_made) {
    std::vector<bytes> cases = {bytes(64, 0xff)};
    const auto add = [&](unsigned type, const pdu_writer& w) {
        cases.push_back(w.pdu(type, master.SESSION, 1, 1));
    };
    const std::size_t low = GetParam() ? 19 : 16, high = GetParam() ? 16 : 19;  // octets of the length
    const std::pair<std::size_t, std::uint8_t> header[] = {{0, 9}, {1, 0}, {1, 19}, {low, 3}, {high, 0x7f}};
    for (const auto& [at, octet] : header) {
        add(AGENTX_PING, writer());
        cases.back()[at] = octet;
    }
    pdu_writer half = writer();
    half.name(LEVEL);  // a range without its end, and nothing that begins a variable
    for (unsigned type : {AGENTX_GET, AGENTX_TEST_SET, AGENTX_OPEN}) add(type, half);
    add(AGENTX_TEST_SET, values({{LEVEL, 1, 99}}));    // an unknown type has an unknown length
    add(AGENTX_TEST_SET, values({{oid(129, 1), 1}}));  // longer than names are
    for (std::uint32_t length : {5U, 0xfffffffeU}) {   // of four octets; would wrap around with its padding
        pdu_writer text = writer();
        text.variable(AGENTX_OCTET_STRING, LEVEL);
        text.u32(length);
        text.u32(0);
        add(AGENTX_TEST_SET, text);
    }
    establish();
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const int before = master.opens;
        master.send(cases[i]);
        EXPECT_TRUE(master.run(1000, [&] { return master.opens == before + 1; })) << i;
        establish();
    }
    EXPECT_NE(show().find(std::to_string(cases.size()) + " malformed"), std::string::npos) << show();
    EXPECT_EQ(m.level, 10);
}

TEST_P(agentx, other_sessions_and_contexts_are_not_served) {
    establish();
    bytes request = ranges({LEVEL}).pdu(AGENTX_GET, master.SESSION + 1, 1, 1);
    pdu reply;
    master.send(request);
    ASSERT_TRUE(master.next(&reply));
    EXPECT_EQ(reply.error(), unsigned{AGENTX_NOT_OPEN});
    request = ranges({LEVEL}).pdu(AGENTX_GET, master.SESSION, 1, 1);
    request[2] |= AGENTX_FLAG_CONTEXT;
    master.send(request);
    ASSERT_TRUE(master.next(&reply));
    EXPECT_EQ(reply.error(), unsigned{AGENTX_UNSUPPORTED_CONTEXT});
    EXPECT_EQ(ping(), 0U);
}

TEST(agentx_codec, every_truncation_of_a_variable_is_noticed) {
    const std::pair<unsigned, bytes> values[] = {{AGENTX_GAUGE32, {0, 0, 0, 7}},
                                                 {AGENTX_COUNTER64, {0, 0, 0, 1, 0, 0, 0, 2}},
                                                 {AGENTX_OBJECT_ID, {1, 0, 0, 0, 0, 0, 0, 9}},
                                                 {AGENTX_OPAQUE, {0, 0, 0, 2, 1, 2, 0, 0}},
                                                 {AGENTX_NULL, {}}};
    for (const auto& [type, value] : values) {
        pdu_writer w;
        w.variable(type, ROOT);
        w.payload.insert(w.payload.end(), value.begin(), value.end());
        for (std::size_t size = 0; size <= w.payload.size(); ++size) {
            const bytes cut(w.payload.begin(), w.payload.begin() + static_cast<std::ptrdiff_t>(size));
            agentx_reader r{cut, 0, true, false};
            agentx_variable v;
            agentx_take_variable(&r, &v);
            EXPECT_EQ(r.bad, size < w.payload.size()) << type << " " << size;
        }
    }
    agentx_header header{};
    EXPECT_FALSE(agentx_read_header(pdu_writer{}.pdu(0, 1, 2, 3), &header)) << "no type";
}

// The session -------------------------------------------------------------------------------------------

TEST_P(agentx, every_step_ends_by_its_timer) {
    pdu p;
    const auto opened = [&](int count) { return [this, count] { return master.opens == count; }; };
    ASSERT_TRUE(master.next(&p, 5000));  // Open, which is not answered
    EXPECT_TRUE(master.run(3500, opened(2))) << "Open";
    ASSERT_TRUE(master.next(&p, 5000));
    master.answer(p);
    ASSERT_TRUE(master.next(&p));  // Register
    EXPECT_TRUE(master.run(4000, opened(3))) << "Register";
    establish();
    const nanoseconds silent = master.now;
    ASSERT_TRUE(master.next(&p, 20000));
    EXPECT_EQ(p.type, unsigned{AGENTX_PING});
    EXPECT_NEAR(static_cast<double>(master.now - silent) / 1e9, 15.0, 0.1);
    master.answer(p);
    EXPECT_FALSE(master.run(14000, opened(4))) << "an answered ping keeps the link";
    ASSERT_TRUE(master.next(&p, 2000));
    EXPECT_TRUE(master.run(3500, opened(4))) << "ping";
}

TEST_P(agentx, comes_back_soon_however_long_the_master_was_away) {
    master.open_error = ECONNREFUSED;
    master.run(3600 * 1000);
    EXPECT_LT(master.opens, 2000) << "tries at most every other second";
    EXPECT_GT(master.opens, 1000);
    EXPECT_EQ(state(), "SNMP sub-agent: not connected");
    EXPECT_NE(show().find("Connection refused"), std::string::npos);
    master.open_error = 0;
    int before = master.opens;
    const auto again = [&] { return master.opens > before; };
    EXPECT_TRUE(master.run(2500, again));
    establish();
    before = master.opens;
    pdu_writer goodbye = writer();
    goodbye.u32(0);
    master.send(goodbye.pdu(AGENTX_CLOSE, master.SESSION, 0, 1));
    EXPECT_TRUE(master.run(500, again)) << "a first loss is followed by a quick try";
    for (const unsigned refused : {AGENTX_OPEN, AGENTX_REGISTER}) {
        pdu p;
        before = master.opens;
        ASSERT_TRUE(master.next(&p, 1000));
        if (refused == AGENTX_REGISTER) {
            master.answer(p);
            ASSERT_TRUE(master.next(&p));
        }
        ASSERT_EQ(p.type, refused);
        master.answer(p, 256);
        EXPECT_TRUE(master.run(2000, again)) << refused;
    }
}

TEST_P(agentx, a_master_that_reads_nothing_costs_bounded_memory) {
    establish();
    const bytes request = ranges(std::vector<oid>(200, TEXT)).pdu(AGENTX_GET, master.SESSION, 1, 1);
    const int before = master.opens;
    std::uint64_t peak = 0;
    while (master.opens == before) {
        (void)::send(master.far, request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        master.run(5);
        peak = std::max(peak, memmgr_type_stats(MTYPE_TEXT).octets);
        ASSERT_LT(master.now, 10 * NS_PER_S) << "output that does not move ends the link";
    }
    EXPECT_LT(peak, 2U * 1024 * 1024);
}

TEST_P(agentx, exhausted_memory_at_any_point_ends_a_link_at_most) {
    establish();
    const pdu_writer nexts = ranges(std::vector<oid>(40, ROOT)), set = values({{LEVEL, 5}});
    for (std::uint32_t n = 1; n < 12; ++n) {
        memmgr_fail_at(n);
        for (const bytes& request : {nexts.pdu(AGENTX_GET_NEXT, master.SESSION, 2 * n, n),
                                     set.pdu(AGENTX_TEST_SET, master.SESSION, 2 * n + 1, n)}) {
            (void)::send(master.far, request.data(), request.size(), MSG_NOSIGNAL);
            master.run(10);
        }
        memmgr_fail_at(0);
        for (pdu answered; master.next(&answered, 10) && answered.type == AGENTX_RESPONSE;) {
        }
        // An answer of another length than it says would have made the link useless.
        if (state() == "SNMP sub-agent: registered")
            EXPECT_EQ(ping(), 0U);
        else
            establish();
    }
}

// Notifications -----------------------------------------------------------------------------------------

TEST_P(agentx, a_notification_counts_as_delivered_when_it_is_answered) {
    using result = std::pair<std::uint32_t, bool>;
    static std::vector<result> told;
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
    ASSERT_EQ(notify(3), 0);
    pdu first, second;
    ASSERT_TRUE(master.next(&first));
    ASSERT_TRUE(master.next(&second));
    ASSERT_EQ(first.type, unsigned{AGENTX_NOTIFY});
    const std::vector<variable> v = first.variables(0);
    ASSERT_EQ(v.size(), 3U);
    EXPECT_EQ(v[0].name, (oid{1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0}));
    EXPECT_EQ(v[0].id, below({0, 6}));
    EXPECT_EQ(v[1].name, LEVEL);
    EXPECT_EQ(v[1].number, 4);
    EXPECT_EQ(v[2].name, row(70000));
    EXPECT_EQ(v[2].number, -1);
    EXPECT_TRUE(told.empty());
    master.answer(second);
    master.run(1);
    EXPECT_EQ(told, (std::vector<result>{{3, true}}));
    master.answer(first);
    master.run(1);
    EXPECT_EQ(told.size(), 2U);
    // Unanswered ones end the link and are told as lost; how many there are at once is bounded.
    std::uint32_t sent = 0;
    while (notify(10 + sent) == 0 && sent < 1000) ++sent;
    EXPECT_EQ(sent, AGENTX_NOTIFICATIONS);
    master.run(3500);
    ASSERT_EQ(told.size(), 2U + AGENTX_NOTIFICATIONS);
    EXPECT_EQ(told[2], (result{10, false}));
}

// Commands and registration -----------------------------------------------------------------------------

TEST_P(agentx, the_target_is_configured_shown_and_written) {
    const auto written = [&] {
        commands.printed.clear();
        cli_write_running(ctx.ctree, &commands.session);
        return commands.printed;
    };
    const struct {
        std::string line, written;
        cli_result result = cli_result::ok;
    } steps[] = {
        {"snmp agentx unix /run/x/master", "snmp agentx unix /run/x/master\n"},
        {"snmp agentx tcp localhost 705", "snmp agentx tcp 127.0.0.1 705\n"},
        {"snmp agentx tcp localhost 706", "snmp agentx tcp 127.0.0.1 706\n"},
        {"snmp agentx tcp ::1 706", "snmp agentx tcp ::1 706\n"},
        {"snmp agentx tcp master.example 705", "snmp agentx tcp ::1 706\n", cli_result::failed},
        {"snmp agentx unix relative", "snmp agentx tcp ::1 706\n", cli_result::failed},
        {"snmp agentx unix /" + std::string(107, 'x'), "snmp agentx tcp ::1 706\n", cli_result::failed},
        {"snmp notifications", "snmp agentx tcp ::1 706\nsnmp notifications\n"},
        {"no snmp agentx", "snmp notifications\n"},
        {"no snmp notifications", ""},
    };
    EXPECT_EQ(written(), "");
    for (const auto& step : steps) {
        EXPECT_EQ(commands.run(step.line, CONFIG_MODE), step.result) << step.line;
        EXPECT_EQ(written(), step.written) << step.line;
    }
    establish();
    for (const int more : {1, 0}) {  // another target is tried at once, a repeated line does nothing
        const int before = master.opens;
        EXPECT_EQ(commands.run("snmp agentx tcp ::1 705", CONFIG_MODE), cli_result::ok);
        master.run(10);
        EXPECT_EQ(master.opens, before + more);
        if (more) establish();
    }
    EXPECT_NE(show().find("tcp ::1 port 705"), std::string::npos);
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
    for (std::uint64_t n = 1; n <= 2; ++n) {
        memmgr_fail_at(n);
        EXPECT_LT(registered(TABLE, std::size(TABLE), sizeof TABLE[0]), 0);
        memmgr_fail_at(0);
        snmp_stop(&ctx);
    }
}

}  // namespace
