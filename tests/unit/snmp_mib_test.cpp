// The SSM module: what its objects read and accept, and its notifications, against the real records and
// operations. Handlers are called as the sub-agent calls them: through the table's entries.
#include <algorithm>
#include <map>
#include <set>

#include "core/supervision.h"
#include "core/timers.h"
#include "daemon_fixture.h"
#include "nsm/session.h"
#include "snmp/notify.h"
#include "suite/parts/parts.h"
#include "unit/agentx_master.h"

namespace {

using namespace std::string_literals;

constexpr int NO_VALUE = -12345;
const oid FORCE_SWITCH = {12, 0}, LOCAL_QUALITY = {5, 0}, NETWORK_OPTION = {11, 0}, RUNNING_STATE = {10, 0};

oid scalar(snmp_oid number) {
    return {number, 0};
}
// A column of the row with this index.
oid cell(snmp_oid number, snmp_oid index = 7) {
    return {13, 1, number, index};
}
const oid MODE = cell(3);

class ssm_mib : public daemon_test {
  protected:
    void SetUp() override {
        daemon_test::SetUp();
        p1 = add_port("p1", 7);
        add_interface("other", 8, 1);
        add_interface("unbound", 900);
    }

    static const snmp_variable* entry(const oid& name) {
        for (const snmp_variable& v : ssm_variables)
            if (name.size() >= v.suffix_length &&
                std::equal(v.suffix, v.suffix + v.suffix_length, name.begin()))
                return &v;
        return nullptr;
    }

    struct reply {
        std::int64_t value = NO_VALUE;
        std::string text;
        snmp_write_handler write = nullptr;
        oid name;   // empty where there is no answer
        oid moved;  // the name as the handler leaves it
    };
    static reply read(const oid& name, bool exact = true) {
        const snmp_variable* v = entry(name);
        reply r;
        r.name = name;
        r.name.resize(AGENTX_OID_MAX);
        std::size_t length = name.size(), size = 0;
        const void* value = v->read(v, r.name.data(), &length, exact, &size, &r.write);
        r.moved.assign(r.name.begin(), r.name.begin() + static_cast<std::ptrdiff_t>(length));
        r.name.resize(value ? length : 0);
        if (value && v->type != SNMP_TYPE_OCTET_STRING) {
            std::int32_t number = 0;
            EXPECT_EQ(size, v->type == SNMP_TYPE_COUNTER64 ? 8U : 4U);
            std::memcpy(size == 8 ? static_cast<void*>(&r.value) : &number, value, size);
            if (size == 4) r.value = number;
        } else if (value) {
            r.text.assign(static_cast<const char*>(value), size);
        }
        return r;
    }
    static std::int64_t get(const oid& name) { return read(name).value; }

    static int set(const oid& name, int value, int action = SNMP_ACTION_SET,
                   unsigned type = SNMP_TYPE_INTEGER, std::size_t length = 4) {
        const snmp_write_handler write = read(name).write;
        EXPECT_NE(write, nullptr);
        std::uint8_t data[16] = {};
        std::memcpy(data, &value, sizeof value);
        return write(action, data, static_cast<std::uint8_t>(type), length, nullptr, name.data(), name.size(),
                     entry(name));
    }
    static int restore(const oid& name, int value) { return set(name, value, SNMP_ACTION_RESTORE); }

    // What a write results in, and what reads then.
    static void check(const oid& name, int value, int result, std::int64_t then) {
        EXPECT_EQ(set(name, value), result) << testing::PrintToString(name) << " = " << value;
        EXPECT_EQ(get(name), then) << testing::PrintToString(name) << " = " << value;
    }

    ssm_port* p1 = nullptr;
};

TEST_F(ssm_mib, identity_running_state_source_and_neighbour) {
    const std::uint8_t id[] = {0, 0x1b, 0x21, 0xff, 0xfe, 0xa, 0xb, 0xc};
    std::copy_n(id, 8, g_s_master->clock_id);
    EXPECT_EQ(read(scalar(1)).text, "00:1B:21:FF:FE:0A:0B:0C");
    EXPECT_EQ(get(RUNNING_STATE), 2);
    g_s_master->device_type = SSM_MASTER_ONLY;
    EXPECT_EQ(get(RUNNING_STATE), 1);
    g_s_master->selected_port = p1;
    EXPECT_EQ(get(scalar(8)), 7);
    for (int heard : {0, 1}) {  // the neighbour's address counts only with what it said
        p1->neighbour[0] = p1->neighbour[5] = 0xa8;
        p1->recv_pdu = static_cast<std::uint32_t>(heard);
        EXPECT_EQ(read(cell(14)).text, (heard ? "\xa8\0\0\0\0\xa8"s : std::string(6, '\0')));
    }
}

TEST_F(ssm_mib, qualities_read_by_code_and_option) {
    p1->recv_quality = ssm_quality_of(QL_PRC, QL_ENHANCED_PRTC);
    g_s_master->local_quality = g_s_master->current_quality = p1->recv_quality;
    for (const oid& name : {cell(6), scalar(5), scalar(6)}) EXPECT_EQ(get(name), 2);
    constexpr int option1[] = {3, 1, 2, 15, 4, 13, 13, 6, 7, 13, 8, 9, 10, 11, 12, 13, 13, 13};
    for (std::uint8_t option : {SSM_OPTION_1, SSM_OPTION_2}) {
        g_s_master->ql_option = option;
        for (std::uint16_t code = 0; code < std::size(option1); ++code) {
            int expected = option1[code];
            if (option == SSM_OPTION_2 && code == QL_TNC) expected = 5;
            if (option == SSM_OPTION_2 && code == QL_DNU) expected = 14;
            p1->recv_quality = p1->send_quality = p1->force_rx_quality = p1->force_tx_quality = code;
            g_s_master->current_quality = code;
            for (snmp_oid number : {6U, 9U, 12U, 13U}) EXPECT_EQ(get(cell(number)), expected) << code;
            EXPECT_EQ(get(scalar(6)), code == QL_NONE ? 13 : expected) << "no quality reads as do not use";
        }
    }
    p1->force_rx_quality = p1->force_tx_quality = QL_NONE;
}

TEST_F(ssm_mib, objects_take_their_values_and_no_other) {
    const struct {
        oid name;
        int low, high;
    } objects[] = {{scalar(2), 1, 2},       {scalar(3), 1, 2},   {scalar(4), 1, 3},  {LOCAL_QUALITY, 1, 6},
                   {scalar(7), 1, 255},     {scalar(9), 1, 2},   {scalar(15), 1, 3}, {cell(2), 1, 2},
                   {cell(4), 1, 255},       {cell(10), 0, 255},  {cell(11), 1, 2},   {{18, 1, 0}, 1, 2},
                   {{18, 2, 0}, 100, 5000}, {{18, 3, 0}, 1, 254}};
    for (const auto& o : objects) {
        for (int value = o.low; value <= o.high; ++value) check(o.name, value, SNMP_NO_ERROR, value);
        for (int value : {o.low - 1, o.high + 1, -1, INT32_MIN, INT32_MAX, 65793, 65794})
            check(o.name, value, SNMP_WRONG_VALUE, o.high);
        for (std::size_t length : {std::size_t{0}, std::size_t{3}, std::size_t{8}})
            EXPECT_EQ(set(o.name, 1, SNMP_ACTION_SET, SNMP_TYPE_INTEGER, length), SNMP_WRONG_VALUE) << length;
        EXPECT_EQ(get(o.name), o.high) << testing::PrintToString(o.name);
        EXPECT_EQ(set(o.name, 1, SNMP_ACTION_SET, AGENTX_GAUGE32),
                  o.name[0] != 13 ? SNMP_WRONG_TYPE : SNMP_NO_ERROR)
            << "the type is looked at for scalars only";
    }
}

TEST_F(ssm_mib, local_quality_brings_its_option_unless_a_forced_quality_holds_it) {
    check(LOCAL_QUALITY, 3, SNMP_NO_ERROR, 3);
    check(cell(12), 1, SNMP_NO_ERROR, 1);  // prs, of option 2
    check(LOCAL_QUALITY, 4, SNMP_GEN_ERR, 3);
    EXPECT_EQ(g_s_master->local_quality, std::uint32_t{QL_EEC2});
    EXPECT_EQ(get(NETWORK_OPTION), 2);
    g_s_master->local_quality = QL_SMC;  // has no number
    EXPECT_EQ(get(LOCAL_QUALITY), 5);
}

TEST_F(ssm_mib, force_switch_names_a_port_or_none) {
    check(FORCE_SWITCH, 0, SNMP_NO_ERROR, 0);  // nothing was forced
    check(FORCE_SWITCH, 7, SNMP_NO_ERROR, 7);
    EXPECT_EQ(g_s_master->force_port, p1);
    for (int index : {8, 900, 10, 9999, INT32_MAX}) check(FORCE_SWITCH, index, SNMP_INCONSISTENT_VALUE, 7);
    check(FORCE_SWITCH, -1, SNMP_WRONG_VALUE, 7);
    g_s_master->force_e1 = 1;  // both, which the operation does not take back
    EXPECT_EQ(set(FORCE_SWITCH, 0), SNMP_GEN_ERR);
    g_s_master->force_port = nullptr;
    EXPECT_EQ(set(FORCE_SWITCH, 7), SNMP_NO_ERROR);
    EXPECT_EQ(g_s_master->force_e1, 0U);
    EXPECT_EQ(restore(FORCE_SWITCH, 9999), SNMP_NO_ERROR);
    EXPECT_EQ(get(FORCE_SWITCH), 9999);
    check(FORCE_SWITCH, 0, SNMP_NO_ERROR, 0);
}

TEST_F(ssm_mib, loop_guard_counts_and_what_is_held_back) {
    ssm_guard& guard = g_s_master->guard;
    guard.refused = 0x1'0000'0007;
    guard.holds = 4;
    guard.longest_hold = 1500 * NS_PER_MS;
    slow_socket_port_bound(p1->intf);
    slow_socket_count_held_back(7);
    const std::pair<oid, int> values[] = {
        {{18, 4, 0}, 7}, {{18, 5, 0}, 4}, {{18, 6, 0}, 1500}, {{18, 7, 0}, 0}, {cell(15), 1}};
    for (const auto& [name, value] : values) EXPECT_EQ(get(name), value) << testing::PrintToString(name);
}

TEST_F(ssm_mib, columns_refuse_what_is_no_cell_of_a_port) {
    for (snmp_oid number : {1U, 5U, 6U, 7U, 8U, 9U, 14U, 15U})
        EXPECT_EQ(set(cell(number), 1), SNMP_READ_ONLY_ERROR) << number;
    for (snmp_oid index : {8U, 10U}) check(cell(2, index), 1, SNMP_NO_SUCH_NAME, NO_VALUE);
    check(cell(2, 900), 1, SNMP_GEN_ERR, NO_VALUE);
    check(cell(12, 900), 1, SNMP_INCONSISTENT_VALUE, NO_VALUE);
    for (const oid& no_cell : {oid{13, 1, 2}, oid{13, 1, 2, 7, 7}}) check(no_cell, 1, SNMP_GEN_ERR, NO_VALUE);
}

TEST_F(ssm_mib, a_mode_is_written_in_steps_and_restored_whole) {
    for (const auto& [value, then] : {std::pair{5, 2}, {1, 3}, {6, 1}, {4, 4}})
        check(MODE, value, SNMP_NO_ERROR, then);
    for (int value : {0, 7, -1}) check(MODE, value, SNMP_WRONG_VALUE, 4);
    for (int before = 1; before <= 4; ++before) {
        for (int value = 1; value <= 6; ++value) {
            EXPECT_EQ(restore(MODE, before), SNMP_NO_ERROR);
            ASSERT_EQ(get(MODE), before) << value;
            EXPECT_EQ(set(MODE, value), SNMP_NO_ERROR);
        }
    }
}

TEST_F(ssm_mib, forced_qualities_obey_the_option_in_force) {
    const std::set<int> known[2] = {{2, 4, 7, 9, 13, 15}, {1, 3, 5, 6, 8, 10, 11, 12, 14, 15}};
    for (std::uint8_t option : {SSM_OPTION_1, SSM_OPTION_2}) {
        g_s_master->ql_option = option;
        for (const oid& name : {cell(12), cell(13)}) {
            for (int value = 1; value <= 15; ++value) {
                const bool takes = known[option - 1].contains(value);
                check(name, value, takes ? SNMP_NO_ERROR : SNMP_INCONSISTENT_VALUE,
                      takes ? value : get(name));
            }
            for (int value : {0, 16, 256}) check(name, value, SNMP_WRONG_VALUE, 15);
        }
    }
}

TEST_F(ssm_mib, rows_come_by_index_whatever_the_order_of_the_list) {
    for (snmp_oid index : {40U, 300U, 12U}) add_port(("p" + std::to_string(index)).c_str(), index);
    std::vector<oid> seen;
    for (reply r = read({13, 1, 4}, false); !r.name.empty(); r = read(r.name, false)) seen.push_back(r.name);
    EXPECT_EQ(seen, (std::vector<oid>{cell(4, 7), cell(4, 12), cell(4, 40), cell(4, 300)}));
    for (const oid& no_cell : {cell(1), cell(4, 8), oid{13, 1, 4}, oid{13, 1, 4, 7, 0}})
        EXPECT_EQ(get(no_cell), NO_VALUE);
}

// What stands in the groups, each object by a value that no other has.
TEST_F(ssm_mib, groups_hold_counters_times_and_states) {
    ssm_statistics& s = *p1->statistics;
    std::uint64_t* const counters[] = {&s.information_in, &s.events_in, &s.dnu_in,       &s.information_out,
                                       &s.events_out,     &s.dnu_out,   &s.short_frames, &s.bad_qualities,
                                       &s.bad_tlvs,       nullptr,      &s.timeouts,     &s.sources};
    const auto expect = [](snmp_oid group, snmp_oid object, std::int64_t value, snmp_oid instance = 7) {
        const oid name = group == 19 || group == 23 ? oid{group, object, 0} : oid{group, 1, object, instance};
        EXPECT_EQ(get(name), value) << testing::PrintToString(name);
        EXPECT_EQ(read(name).write, nullptr);
    };
    for (std::size_t i = 0; i < std::size(counters); ++i)
        if (counters[i]) *counters[i] = 0x1'0000'0000 + i;
    for (snmp_oid i = 0; i < std::size(counters); ++i) expect(20, i + 1, counters[i] ? 0x1'0000'0000 + i : 0);
    const nanoseconds now = thread_now(ctx_);
    s = {};
    for (snmp_oid object = 1; object <= 8; ++object) expect(21, object, 0);
    s.information_in = 3;
    s.first_information = now - 1000 * NS_PER_MS;
    s.last_information = now - 1;
    s.last_event = now - 20 * NS_PER_MS;
    s.last_out = now - 43'000'000 * NS_PER_S;
    s.shortest = 124 * NS_PER_MS;
    s.longest = 126 * NS_PER_MS;
    const std::int64_t times[] = {1, 3, -1, 12, 50, 13};
    for (snmp_oid i = 0; i < std::size(times); ++i) expect(21, i + 1, times[i]);

    p1->recv_quality = ssm_quality_of(QL_PRC, QL_ENHANCED_PRTC);
    p1->send_quality = ssm_quality_of(QL_EEC1, QL_ENHANCED_EEEC);
    p1->lockout = p1->failed = p1->restore_set = 1;
    s.source_times[SSM_FLAPPING_TIMES - 1] = now;
    g_s_master->hold_off_ms = 400;
    p1->restore_s = 9;
    p1->min_rx_quality = QL_SSU_B;
    p1->max_rx_quality = ssm_quality_of(QL_PRC, QL_ENHANCED_EPRC);
    p1->min_tx_quality = QL_EEC1;
    p1->max_tx_quality = ssm_quality_of(QL_PRC, QL_ENHANCED_EPRTC);
    p1->recv_form = SSM_FORM_STANDARD;
    const int states[] = {16, 18, 1, 1, 0, 0, 1, 400, 9, 7, 19, 9, 17, 3, 2};
    for (snmp_oid i = 0; i < std::size(states); ++i) expect(22, i + 1, states[i]);
    p1->restore_timer = ssm_timer_add_msec([](thread*) { return 0; }, p1, 4001);
    p1->hold_off_timer = ssm_timer_add_msec([](thread*) { return 0; }, p1, 300);
    expect(22, 5, 5);
    expect(22, 6, 300);

    g_s_master->manual_port = p1;
    g_s_master->current_quality = p1->recv_quality;
    g_s_master->local_quality = QL_NONE;
    g_s_master->clock_type = SSM_CLOCK_EEEC;
    g_s_master->restore_s = 60;
    g_s_master->dpll_state = SSM_DPLL_HOLDOVER;
    const int settings[] = {3, 7, 16, 15, 2, 2, 400, 60, 2, 3};
    for (snmp_oid i = 0; i < std::size(settings); ++i) expect(19, i + 1, settings[i]);
    g_s_master->current_quality = QL_NONE;
    expect(19, 3, 13);
    g_s_master->force_e1 = 1;
    expect(19, 1, 2);
    expect(19, 2, 9999);
    g_s_master->force_e1 = 0;
    std::memcpy(p1->intf->mac, "\x02\0\0\0\0\x07", sizeof p1->intf->mac);
    EXPECT_EQ(read({24, 1, 1, 7}).text, "p1");
    EXPECT_EQ(read({24, 1, 2, 7}).text, "\x02\0\0\0\0\x07"s);
}

// From any name, the next is the smallest that can be got and lies behind it.
TEST_F(ssm_mib, groups_are_walked_from_any_name_to_the_next_that_can_be_got) {
    for (snmp_oid index : {300U, 12U, 30U}) add_port(("p" + std::to_string(index)).c_str(), index);
    std::vector<oid> all;
    const snmp_oid objects[] = {10, 12, 8, 15, 4, 2};
    for (snmp_oid group = 19; group <= 24; ++group)
        for (snmp_oid object = 1; object <= objects[group - 19]; ++object)
            for (snmp_oid index : {7U, 12U, 30U, 300U})
                if (group != 19 && group != 23)
                    all.push_back({group, 1, object, index});
                else if (index == 7)
                    all.push_back({group, object, 0});
    std::vector<oid> asked = all;
    for (const oid& name : all) {
        EXPECT_EQ(read(name).name, name);
        for (int cut : {1, 2}) asked.emplace_back(name.begin(), name.end() - cut);
        for (snmp_oid last : {0U, 1U, 8U, 299U, UINT32_MAX}) (asked.emplace_back(name)).back() = last;
        for (snmp_oid object : {0U, 16U, UINT32_MAX}) asked.emplace_back(name)[name.size() - 2] = object;
        asked.emplace_back(name).push_back(5);
    }
    for (const oid& name : asked) {
        if (!entry(name)) continue;
        const auto next = std::upper_bound(all.begin(), all.end(), name, oid_before());
        const bool inside = next != all.end() && entry(*next) == entry(name);
        oid from = name;  // as the sub-agent, goes on behind a row that has no value
        reply r = read(from, false);
        for (; r.name.empty() && r.moved != from; r = read(from, false)) from = r.moved;
        EXPECT_EQ(r.name, inside ? *next : oid{}) << testing::PrintToString(name);
        EXPECT_EQ(!read(name).name.empty(), std::ranges::count(all, name) == 1)
            << testing::PrintToString(name);
    }
}

// The notifications, seen by a master that answers all of them, or none.
class ssm_notify : public ssm_mib {
  protected:
    using object = std::pair<oid, int>;
    struct told {
        snmp_oid number;
        std::vector<object> objects;  // below the module's base
        std::string text;             // of those that are one
        nanoseconds at;
    };

    void SetUp() override {
        ssm_mib::SetUp();
        current = this;
        register_mib();
        ASSERT_EQ(ssm_notify_init(ctx_), 0);
        agentx_set_link_open([](const agentx_target*) { return current->master.open(); });
        // A loop that looks at the sub-agent's link, in place of one that looks at nothing.
        nsm_client_stop(ssm_instance->nsm_client);
        thread_master_finish(ctx_->master);
        ssm_instance->t_read = nullptr;  // went with the loop
        const thread_edges edges = master.edges();
        ctx_->master = thread_master_create(&edges);
        master.ctx = ctx_;
        ASSERT_EQ(ssm_nsm_client_init(), 0);
        ASSERT_EQ(snmp_start(ctx_), 0);
        ASSERT_EQ(agentx_cli_init(ctx_), 0);
        config_mode();
    }
    void TearDown() override {
        ssm_mib::TearDown();
        agentx_set_link_open(nullptr);
    }

    // Lets time pass, the master taking part.
    void run(std::uint32_t ms) {
        const nanoseconds end = master.now + ms * NS_PER_MS;
        const auto left = [&] { return static_cast<std::uint32_t>((end - master.now) / NS_PER_MS); };
        for (pdu p; left() > 0 && master.next(&p, left());) {
            if (p.type == AGENTX_NOTIFY) take(p.variables(0));
            if (answers || p.type != AGENTX_NOTIFY) master.answer(p);
        }
    }
    void take(const std::vector<variable>& v) {
        constexpr std::size_t base = SNMP_ROOT_SIZE + SSM_OID_LENGTH;
        told t{v.at(0).id.at(base + 1), {}, {}, master.now};
        for (std::size_t i = 1; i < v.size(); ++i) {
            if (v[i].type == AGENTX_OCTET_STRING) t.text = v[i].text;
            t.objects.push_back({oid(v[i].name.begin() + base, v[i].name.end()), int(v[i].number)});
        }
        heard.push_back(t);
    }
    static ssm_notify* current;
    agentx_master master;
    bool answers = true;
    std::vector<told> heard;
};
ssm_notify* ssm_notify::current;

TEST_F(ssm_notify, nothing_is_told_unless_configured_and_nothing_of_before) {
    p1->recv_pdu = 1;
    run(2000);
    quiet("snmp notifications");
    run(2000);
    quiet("no snmp notifications");
    g_s_master->freerun = 0;
    run(2000);
    EXPECT_TRUE(heard.empty());
}

// Ports that come and go are no change.
TEST_F(ssm_notify, each_change_is_told_with_its_objects) {
    interface* gone = add_port("gone", 3)->intf;
    quiet("snmp notifications");
    run(100);
    if_remove(ctx_->ifm, gone);
    ssm_port* made = add_port("made", 4);
    run(100);
    made->recv_pdu = 1;
    made->guard_alarmed = true;
    made->recv_clockid[3] = 0xFF;
    made->recv_hop_count = 9;
    g_s_master->freerun = 0;
    g_s_master->selected_port = p1;
    g_s_master->current_quality = QL_PRC;
    g_s_master->dpll_state = SSM_DPLL_LOCK;
    p1->recv_pdu = p1->link_up = 1;
    p1->recv_quality = QL_PRC;
    run(500);
    const std::pair<ssm_notification, std::vector<object>> expected[] = {
        {SSM_NOTIFY_SOURCE, {{{16, 1, 0}, 0}, {{8, 0}, 7}, {{6, 0}, 2}}},
        {SSM_NOTIFY_QUALITY, {{{6, 0}, 2}, {{8, 0}, 7}}},
        {SSM_NOTIFY_RUNNING_STATE, {{{10, 0}, 4}, {{8, 0}, 7}}},
        {SSM_NOTIFY_DPLL_STATE, {{{16, 2, 0}, 4}}},
        {SSM_NOTIFY_PORT_RECEIVED, {{cell(6), 2}, {cell(5), 1}}},
        {SSM_NOTIFY_PORT_RECEIVED, {{cell(6, 4), 15}, {cell(5, 4), 2}}},
        {SSM_NOTIFY_GUARD_REFUSES, {{cell(6, 4), 15}, {{16, 3, 0}, 0}, {{16, 4, 0}, 9}}},
    };
    ASSERT_EQ(heard.size(), std::size(expected));
    for (std::size_t i = 0; i < heard.size(); ++i) {
        EXPECT_EQ(heard[i].number, expected[i].first);
        EXPECT_EQ(heard[i].objects, expected[i].second) << heard[i].number;
    }
    EXPECT_EQ(heard.back().text, "00:00:00:FF:00:00:00:00");
    // Once, and again of the next refusal alone.
    for (const bool refused : {true, false, true}) {
        made->guard_alarmed = refused;
        run(2000);
    }
    EXPECT_EQ(heard.size(), std::size(expected) + 1);
}

TEST_F(ssm_notify, external_commands_are_told_also_those_of_before_and_flapping_once) {
    std::string text;
    const auto expect = [&](const std::vector<std::pair<ssm_notification, std::vector<object>>>& expected) {
        run(1200);
        ASSERT_EQ(heard.size(), expected.size());
        for (std::size_t i = 0; i < heard.size(); ++i) {
            EXPECT_EQ(heard[i].number, expected[i].first);
            EXPECT_EQ(heard[i].objects, expected[i].second) << heard[i].number;
        }
        if (!heard.empty()) text = heard.back().text;
        heard.clear();
    };
    const oid command = {19, 1, 0}, of_port = {19, 2, 0}, locked = {22, 1, 3, 7}, flaps = {22, 1, 7, 7};
    const auto commands = [&](int kind, int index) {
        return std::pair{SSM_NOTIFY_COMMAND, std::vector<object>{{command, kind}, {of_port, index}}};
    };
    g_s_master->force_e1 = p1->lockout = 1;
    p1->statistics->source_times[SSM_FLAPPING_TIMES - 1] = thread_now(ctx_);
    quiet("snmp notifications");
    expect({commands(2, 9999), {SSM_NOTIFY_LOCKOUT, {{locked, 1}}}});
    g_s_master->force_e1 = p1->lockout = 0;
    expect({commands(1, 0), {SSM_NOTIFY_LOCKOUT, {{locked, 2}}}});
    g_s_master->manual_port = p1;
    expect({commands(3, 7)});
    ssm_manual_drop("link down");
    expect({commands(1, 0), {SSM_NOTIFY_MANUAL_END, {{{16, 5, 0}, 7}, {{16, 6, 0}, 0}}}});
    EXPECT_EQ(text, "link down");
    nanoseconds& third = p1->statistics->source_times[SSM_FLAPPING_TIMES - 1];
    third = 0;
    expect({});  // that it has calmed down is not told
    third = thread_now(ctx_);
    expect({{SSM_NOTIFY_FLAPPING, {{flaps, 1}, {{8, 0}, 0}}}});
}

TEST_F(ssm_notify, a_subject_that_flaps_is_told_once_a_second_and_its_last_state_at_the_end) {
    quiet("snmp notifications");
    run(100);
    for (int i = 0; i < 100; ++i) {
        g_s_master->dpll_state = i % 2 ? SSM_DPLL_LOCK : SSM_DPLL_HOLDOVER;
        p1->recv_pdu = i % 2;
        run(70);
    }
    g_s_master->dpll_state = SSM_DPLL_HOLDOVER;
    p1->recv_pdu = 1;
    run(1500);
    // By subject, which a port's row names, lost and received being one.
    std::map<snmp_oid, told> last;
    for (const told& t : heard) {
        const snmp_oid subject = t.objects.at(0).first.back();
        const auto [before, first] = last.try_emplace(subject, t);
        EXPECT_TRUE(first || t.at - before->second.at >= NS_PER_S) << subject;
        before->second = t;
    }
    EXPECT_GE(heard.size(), 8U);
    EXPECT_EQ(last.at(0).objects.at(0).second, 3);
    EXPECT_EQ(last.at(7).number, SSM_NOTIFY_PORT_RECEIVED);
}

TEST_F(ssm_notify, what_a_lost_master_may_not_have_heard_is_told_again_once) {
    quiet("snmp notifications");
    run(500);
    answers = false;
    g_s_master->freerun = 0;
    run(1000);
    g_s_master->freerun = 1;  // back to what was told before the one that may be lost
    run(1000);
    answers = true;
    run(13000);
    ASSERT_EQ(heard.size(), 2U);
    EXPECT_EQ(heard[1].objects.at(0), (object{RUNNING_STATE, 2}));
}

}  // namespace
