// The SNMP sub-agent: its session, lookups, sets, notifications and commands against a master that the test
// plays, in virtual time. Both byte orders run through the same cases.
#include <cstring>
#include <map>
#include <sstream>

#include "suite/command/tree.h"
#include "suite/parts/parts.h"
#include "unit/agentx_master.h"

namespace {

const oid ROOT = {1, 3, 6, 1, 4, 1, 32473, 99};
const snmp_oid BASE[] = {32473, 99};

// Names as text: "1.0" stands below the module's root, "/1.3" does not.
oid name_of(const std::string& text) {
    const bool is_whole = text[0] == '/';
    oid id = is_whole ? oid{} : ROOT;
    std::istringstream in(text.substr(is_whole));
    for (std::string part; std::getline(in, part, '.');)
        id.push_back(static_cast<snmp_oid>(std::stoul(part)));
    return id;
}
std::string text_of(const oid& id) {
    const bool is_below = id.size() > ROOT.size() && std::equal(ROOT.begin(), ROOT.end(), id.begin());
    std::string text;
    for (std::size_t i = is_below ? ROOT.size() : 0; i < id.size(); ++i) text += "." + std::to_string(id[i]);
    return is_below ? text.substr(1) : text.replace(0, 1, "/");
}
std::string repeated(const std::string& word, int times) {
    std::string all;
    while (times--) all += " " + word;
    return all;
}

// A module of three scalars and a table. A row of value 0 has no value.
struct model {
    std::int32_t level = 10, steps = 1;
    std::string text = "hello";
    std::uint64_t count = 0x1'0000'0002;
    std::map<oid, std::int32_t, oid_before> rows;  // by the name below the root
    std::string calls;
    int refuse_level = 0;  // status
    bool stuck = false;    // nothing can be set back
} m;

constexpr std::uint32_t LEVEL = 1, TEXT = 2, ROW = 3, STEPS = 5, COUNT = 6;

int write_object(int action, const std::uint8_t* value, std::uint8_t type, std::size_t length,
                 const std::uint8_t* state, const snmp_oid*, std::size_t, const snmp_variable* v) {
    const bool is_restore = action == SNMP_ACTION_RESTORE, is_level = v->magic == LEVEL;
    if (v->magic == ROW) return SNMP_NO_SUCH_NAME;
    EXPECT_EQ(std::tuple(type, length, state == nullptr), std::tuple(SNMP_TYPE_INTEGER, 4U, is_restore));
    if (is_restore && m.stuck) return SNMP_GEN_ERR;
    if (is_level && !is_restore && m.refuse_level) return m.refuse_level;
    std::int32_t& object = is_level ? m.level : m.steps;
    std::memcpy(&object, value, sizeof object);
    m.calls += (is_level ? " level " : " steps ") + std::to_string(object);
    return SNMP_NO_ERROR;
}

const void* read_object(const snmp_variable* v, snmp_oid* name, std::size_t* length, int exact,
                        std::size_t* size, snmp_write_handler* write) {
    if (v->magic != ROW) {
        if (snmp_header_generic(v, name, length, exact, size, write) != 0) return nullptr;
        *size = v->magic == TEXT ? m.text.size() : 4;
        if (v->magic == TEXT) return m.text.data();
        if (v->magic == COUNT) return &m.count;
        *write = write_object;
        return v->magic == LEVEL ? &m.level : &m.steps;
    }
    const oid asked(name, name + *length);
    const auto found = exact ? m.rows.find(asked) : m.rows.upper_bound(asked);
    *size = 4;
    *write = write_object;
    if (found == m.rows.end()) return nullptr;
    *length = found->first.size();
    std::copy(found->first.begin(), found->first.end(), name);
    return found->second ? &found->second : nullptr;
}

const snmp_variable TABLE[] = {
    {LEVEL, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_object, {1}},
    {TEXT, SNMP_TYPE_OCTET_STRING, SNMP_READ_ONLY, 1, read_object, {2}},
    {ROW, SNMP_TYPE_INTEGER, SNMP_NOT_ACCESSIBLE, 3, read_object, {3, 1, 1}},
    {ROW, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 3, read_object, {3, 1, 2}},
    {STEPS, SNMP_TYPE_INTEGER, SNMP_READ_WRITE, 1, read_object, {5}},
    {COUNT, SNMP_TYPE_COUNTER64, SNMP_READ_ONLY, 1, read_object, {6}},
};

int register_table(lib_globals* ctx, const snmp_variable* table, std::size_t count, std::size_t size) {
    return agentx_register_mib(ctx, "test", table, size, count, BASE, 2, 0, 0, 0, 0, 0);
}

// What an answer says when it says no.
std::string error(unsigned status, unsigned index = 0) {
    return "error " + std::to_string(status) + " at " + std::to_string(index);
}

class agentx : public Suite, public testing::WithParamInterface<bool> {
  protected:
    agentx() {
        m = {};
        current = this;
        ctx.ctree = cli_tree_create();
        const thread_edges edges = master.edges();
        ctx.master = thread_master_create(&edges);
        master.ctx = &ctx;
        master.big = GetParam();
        agentx_set_link_open([](const agentx_target*) { return current->master.open(); });
        EXPECT_EQ(register_table(&ctx, TABLE, std::size(TABLE), sizeof TABLE[0]), 0);
        EXPECT_EQ(snmp_start(&ctx), 0);
        EXPECT_EQ(agentx_cli_init(&ctx), 0);
    }
    ~agentx() override {
        memmgr_fail_at(0);
        snmp_stop(&ctx);
        agentx_set_link_open(nullptr);
        thread_master_finish(ctx.master);
        cli_tree_free(ctx.ctree);
    }

    void SetUp() override { establish(); }
    void establish() {
        ASSERT_NO_FATAL_FAILURE(master.establish(ROOT));
        ASSERT_EQ(state(), "SNMP sub-agent: registered");
    }
    std::string show() { return commands.run("show snmp"); }
    std::string state() { return show().substr(0, show().find('\n')); }

    // "get 1.0 2.0", "next 1.0 3.1<3.1.9 1.0+" (up to an end; with the start itself), "bulk 1 2 1 3.1",
    // "test 9 1.0=77" (in transaction 9), "commit 9", "undo 9", "cleanup 9", "ping".
    bytes request(const std::string& line) {
        static const words kinds = {"get", "next", "bulk", "test", "commit", "undo", "cleanup", "", "ping"};
        std::istringstream in(line);
        std::string word;
        in >> word;
        const auto place = std::find(kinds.begin(), kinds.end(), word) - kinds.begin();
        const unsigned type = AGENTX_GET + static_cast<unsigned>(place);
        std::uint32_t transaction = 1;
        if (type >= AGENTX_TEST_SET && type <= AGENTX_CLEANUP_SET) in >> transaction;
        return master.make(type, transaction, ++packets, [&](agentx_writer* w) {
            std::uint16_t number = 0;
            for (int i = 0; type == AGENTX_GET_BULK && i < 2 && in >> number; ++i) agentx_put_u16(w, number);
            while (in >> word) {
                const std::size_t sign = std::min(word.find_first_of("=<+"), word.size());
                const oid name = name_of(word.substr(0, sign));
                const std::string rest = word.substr(std::min(sign + 1, word.size()));
                if (type == AGENTX_TEST_SET) {
                    agentx_put_number(w, AGENTX_INTEGER, name, static_cast<std::uint32_t>(std::stol(rest)));
                } else {
                    agentx_put_oid(w, name, word.back() == '+');
                    agentx_put_oid(w, name_of(rest.empty() ? "/" : rest));
                }
            }
        });
    }
    // The answer: its variables ("1.0=10 2.0=hello 4.0:128"), or error(...). The request comes in pieces.
    std::string exchange(const bytes& sent) {
        for (auto at = sent.begin(), end = at; at != sent.end(); at = end) {
            end = at + std::min<std::ptrdiff_t>(at < sent.begin() + 30 ? 1 : 333, sent.end() - at);
            master.send(bytes(at, end));
            master.run(0);
        }
        agentx_header head;
        pdu reply;
        EXPECT_TRUE(agentx_read_header(sent, &head) && master.next(&reply));
        EXPECT_EQ(std::tuple(reply.type, agentx_is_big_endian(reply), reply.transaction, reply.packet),
                  std::tuple(AGENTX_RESPONSE, GetParam(), head.transaction, head.packet));
        if (reply.status().first) return error(reply.status().first, reply.status().second);
        std::string all;
        for (const variable& v : reply.variables()) {
            all += (all.empty() ? "" : " ") + text_of(v.name) + (v.type < 128 ? "=" : ":");
            all += v.type == AGENTX_OCTET_STRING ? v.text
                                                 : std::to_string(v.type < 128 ? v.number : int(v.type));
        }
        return all;
    }
    // Also "leave": the master hangs up and comes back.
    std::string ask(const std::string& line) {
        if (line == "leave") {
            master.hang_up();
            master.run(50);
            establish();
        } else if (line.starts_with("cleanup")) {
            master.send(request(line));
            master.run(1);
        } else {
            return exchange(request(line));
        }
        return "";
    }
    // A talk: "request -> answer; request; request -> answer"; nothing is an answer too.
    void expect(const std::string& talk) {
        std::istringstream steps(talk);
        for (std::string step; std::getline(steps >> std::ws, step, ';');) {
            const std::size_t arrow = std::min(step.find(" -> "), step.size());
            EXPECT_EQ(ask(step.substr(0, arrow)), step.substr(std::min(arrow + 4, step.size()))) << step;
        }
    }

    static agentx* current;
    lib_globals ctx{};
    agentx_master master;
    line_runner commands{&ctx};
    std::uint32_t packets = 1000;
};
agentx* agentx::current;

// Not yet served by its master.
class lone_agentx : public agentx {
    void SetUp() override {}
};

INSTANTIATE_TEST_SUITE_P(big_endian, agentx, ::testing::Bool());
INSTANTIATE_TEST_SUITE_P(big_endian, lone_agentx, ::testing::Bool());

TEST_P(agentx, a_walk_goes_by_index_and_over_rows_without_value) {
    m.rows = {{{3, 1, 2, 9}, 90}, {{3, 1, 2, 2}, 20}, {{3, 1, 2, 4}, 0}, {{3, 1, 2, 300}, 3}};
    const auto walk = [this](const std::string& end) {
        std::string names, at = text_of(ROOT);
        for (int i = 0; i < 9 && at.find(':') == std::string::npos; ++i) {
            at = ask("next " + at + end);
            at.resize(std::min(at.find('='), at.size()));
            names += at + " ";
        }
        return names;
    };
    EXPECT_EQ(walk(""), "1.0 2.0 3.1.2.2 3.1.2.9 3.1.2.300 5.0 6.0 6.0:130 ");
    EXPECT_EQ(walk("<3.1.2.9"), "1.0 2.0 3.1.2.2 3.1.2.2:130 ") << "the end is exclusive";
    expect("get 2.0 1 1.0.0 3.1.2.8 4.0 -> 2.0=hello 1:129 1.0.0:129 3.1.2.8:129 4.0:128");
    expect("next 1.0+ -> 1.0=10; next /1.3 -> 1.0=10; next 3.1.2.2.77 -> 3.1.2.9=90");
    expect("next /1.3.6.1.4.1.32474 -> /1.3.6.1.4.1.32474:130");
}

TEST_P(agentx, a_counter_has_64_bits_and_a_time_stamp_is_the_master_s_up_time) {
    expect("get 6.0 -> 6.0=4294967298");
    const nanoseconds now = thread_now(&ctx);
    EXPECT_NEAR(snmp_time_stamp(&ctx, now + 7 * NS_PER_S), 1234 + 700, 1) << "the master said 1234";
    EXPECT_EQ(snmp_time_stamp(&ctx, now - 13 * NS_PER_S), 0U) << "before its beginning";
    EXPECT_EQ(snmp_time_stamp(&ctx, 0), 0U);
}

TEST_P(agentx, bulk_answers_row_by_row_and_never_without_end) {
    m.rows = {{{3, 1, 2, 1}, 11}, {{3, 1, 2, 2}, 22}};
    const auto answers = [this](const std::string& line) {
        const std::string all = ask(line);
        return 1 + std::count(all.begin(), all.end(), ' ');
    };
    expect("bulk 1 2 1 3.1.2 2 -> 1.0=10 3.1.2.1=11 2.0=hello 3.1.2.2=22 3.1.2.1=11");
    EXPECT_LE(answers("bulk 0 65535" + repeated("3.1.2", 20)), 100) << "no longer than the MIB";
    EXPECT_EQ(answers("bulk 0 9" + repeated("1", 100)), 100) << "more ranges than are remembered: one row";
    m.text.assign(1000, 'x');
    expect("get" + repeated("2.0", 300) + " -> " + error(SNMP_GEN_ERR) + "; get 2.0 -> 2.0=" + m.text);
}

TEST_P(agentx, a_set_is_applied_once_and_kept_by_commit) {
    const bytes test = request("test 9 1.0=77");
    for (int copies = 0; copies < 2; ++copies) EXPECT_EQ(exchange(test), "");
    expect("commit 9; commit 9; cleanup 9; cleanup 9");
    EXPECT_EQ(exchange(test), "") << "an old copy of the first PDU";
    EXPECT_EQ(m.calls, " level 77");
    expect("test 9 1.0=78; get 1.0 -> 1.0=78");  // another SET, of a master that counts around
}

TEST_P(agentx, every_way_not_to_commit_puts_everything_back) {
    const std::string several = " 1.0=77 5.0=3 1.0=88; get 1.0 5.0 -> 1.0=88 5.0=3; ";
    const std::string is_back = "; get 1.0 5.0 -> 1.0=10 5.0=1; ";
    expect("test 1" + several + "cleanup 1" + is_back);
    EXPECT_EQ(m.calls, " level 77 steps 3 level 88 level 77 steps 1 level 10") << "the last first";
    expect("test 2" + several + "commit 2; undo 2; undo 2" + is_back + "commit 2 -> " +
           error(SNMP_COMMIT_FAILED));
    expect("test 3" + several + "leave" + is_back);
    expect("test 4" + several + "commit 4; leave; get 1.0 5.0 -> 1.0=88 5.0=3; test 5 1.0=77");
    m.stuck = true;
    for (int times = 0; times < 2; ++times) EXPECT_EQ(ask("undo 5"), error(SNMP_UNDO_FAILED)) << times;
}

TEST_P(agentx, garbage_ends_the_link_and_another_is_made) {
    const std::size_t low = GetParam() ? 19 : 16, high = GetParam() ? 16 : 19;  // octets of the length
    std::vector<bytes> cases = {bytes(64, 0xff), request("test 1 " + text_of(oid(129, 1)) + "=1")};
    const std::pair<std::size_t, std::uint8_t> header[] = {{0, 9}, {1, 0}, {1, 19}, {low, 3}, {high, 0x7f}};
    for (const auto& [at, octet] : header) cases.emplace_back(request("ping"))[at] = octet;
    for (unsigned type : {AGENTX_GET, AGENTX_TEST_SET, AGENTX_OPEN})  // a range without its end
        cases.push_back(master.make(type, 1, 1, [](agentx_writer* w) { agentx_put_oid(w, ROOT); }));
    // An unknown type has an unknown length; five of four octets; one that wraps around with its padding.
    for (const auto& [type, length] : {std::pair{99, 4U}, {AGENTX_OCTET_STRING, 5U}, {4, 0xfffffffeU}})
        cases.push_back(master.make(AGENTX_TEST_SET, 1, 1, [type = type, length = length](agentx_writer* w) {
            agentx_put_number(w, static_cast<std::uint16_t>(type), ROOT, length);
            agentx_put_u32(w, 0);
        }));
    for (std::size_t i = 0; i < cases.size(); ++i) {
        master.send(cases[i]);
        EXPECT_TRUE(master.reopens(1000)) << i;
        establish();
    }
    EXPECT_NE(show().find(std::to_string(cases.size()) + " malformed"), std::string::npos) << show();
}

TEST_P(lone_agentx, a_notification_counts_as_delivered_when_it_is_answered) {
    static std::string told;
    told.clear();
    const auto notify = [&](std::uint32_t tag) {
        const snmp_notify_object objects[] = {{{1, 0}, 2, 4}, {{3, 1, 2, 70000}, 4, -1}};
        const auto tell = [](std::uint32_t t, bool is_delivered) {
            told += (is_delivered ? " +" : " -") + std::to_string(t);
        };
        return snmp_notify(&ctx, BASE, 2, 6, objects, 2, tell, tag);
    };
    EXPECT_EQ(notify(1), -1) << "no master";
    establish();
    pdu first, second;
    EXPECT_EQ(notify(2), 0);
    ASSERT_TRUE(master.next(&first));
    EXPECT_EQ(notify(3), 0);
    ASSERT_TRUE(master.next(&second));
    EXPECT_EQ(first.type, unsigned{AGENTX_NOTIFY});
    std::string objects;
    for (const variable& v : first.variables(0))
        objects += text_of(v.name) + "=" + (v.id.empty() ? std::to_string(v.number) : text_of(v.id)) + " ";
    EXPECT_EQ(objects, "/1.3.6.1.6.3.1.1.4.1.0=0.6 1.0=4 3.1.2.70000=-1 ");
    EXPECT_EQ(told, "");
    for (const pdu& answered : {second, first}) master.answer(answered);
    master.run(1);
    EXPECT_EQ(told, " +3 +2");
    // Unanswered ones end the link and are told as lost; how many there are at once is bounded.
    std::string lost;
    for (std::uint32_t tag = 10; tag < 10 + AGENTX_NOTIFICATIONS; ++tag) {
        EXPECT_EQ(notify(tag), 0);
        lost += " -" + std::to_string(tag);
    }
    EXPECT_EQ(notify(9), -1);
    master.run(3500);
    EXPECT_EQ(told, " +3 +2" + lost);
}

TEST_P(lone_agentx, the_target_is_configured_shown_and_written) {
    const struct {
        std::string line, written;
        cli_result result = cli_result::ok;
    } steps[] = {
        {"snmp agentx tcp localhost 705", "snmp agentx tcp 127.0.0.1 705\n"},
        {"snmp agentx tcp ::1 706", "snmp agentx tcp ::1 706\n"},
        {"snmp agentx unix relative", "snmp agentx tcp ::1 706\n", cli_result::failed},
        {"snmp agentx unix /" + std::string(107, 'x'), "snmp agentx tcp ::1 706\n", cli_result::failed},
        {"snmp notifications", "snmp agentx tcp ::1 706\nsnmp notifications\n"},
        {"no snmp agentx", "snmp notifications\n"},
    };
    for (const auto& step : steps) {
        commands.run(step.line, CONFIG_MODE);
        EXPECT_EQ(commands.result, step.result) << step.line;
        EXPECT_EQ(commands.running(), step.written) << step.line;
    }
    establish();
    for (const int more : {1, 0}) {  // another target is tried at once, a repeated line does nothing
        const int before = master.opens;
        commands.run("snmp agentx tcp ::1 705", CONFIG_MODE);
        master.run(10);
        EXPECT_EQ(master.opens, before + more);
        if (more) establish();
    }
}

TEST(agentx_registration, refuses_tables_that_would_be_served_wrongly) {
    lib_globals ctx{};
    const std::size_t size = sizeof TABLE[0];
    const snmp_variable turned[] = {TABLE[1], TABLE[0]};
    EXPECT_LT(register_table(&ctx, TABLE, std::size(TABLE), 540), 0) << "entries of another size";
    EXPECT_LT(register_table(&ctx, turned, 2, size), 0) << "a walk would miss the second";
    for (std::uint64_t n = 0; n <= 2; ++n) {
        memmgr_fail_at(n);
        EXPECT_EQ(register_table(&ctx, TABLE, std::size(TABLE), size), n ? -1 : 0);
        memmgr_fail_at(0);
        snmp_stop(&ctx);
    }
}

}  // namespace
