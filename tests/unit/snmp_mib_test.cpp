// The SSM module: its table, what its objects read and accept, and its notifications, against the real
// records and operations. Handlers are called as the sub-agent calls them: through the table's entries.
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <map>
#include <tuple>

#include "daemon_fixture.h"
#include "snmp/ssm_mib.h"
#include "snmp/ssm_notify.h"
#include "suite/agentx_record.h"

namespace {

constexpr int NO_VALUE = -12345;

class ssm_mib : public daemon_test {
  protected:
    static const snmp_variable* entry(std::initializer_list<snmp_oid> suffix) {
        for (const snmp_variable& v : ssm_variables)
            if (std::equal(suffix.begin(), suffix.end(), v.suffix, v.suffix + v.suffix_length)) return &v;
        return nullptr;
    }
    static const snmp_variable* scalar(snmp_oid number) { return entry({number}); }
    static const snmp_variable* column(snmp_oid number) { return entry({13, 1, number}); }

    struct reply {
        int value = NO_VALUE;
        std::string text;
        snmp_write_handler write = nullptr;
        std::vector<snmp_oid> name;
    };
    static reply read(const snmp_variable* v, std::vector<snmp_oid> name, int exact = 1) {
        reply r;
        std::size_t length = name.size(), size = 0;
        name.resize(128);
        const void* value = v->read(v, name.data(), &length, exact, &size, &r.write);
        name.resize(length);
        r.name = name;
        if (value && v->type == SNMP_TYPE_INTEGER) {
            EXPECT_EQ(size, 4U);
            std::memcpy(&r.value, value, sizeof r.value);
        } else if (value) {
            r.text.assign(static_cast<const char*>(value), size);
        }
        return r;
    }
    static int get(snmp_oid number) { return read(scalar(number), {number, 0}).value; }
    static int get(snmp_oid number, snmp_oid index) {
        return read(column(number), {13, 1, number, index}).value;
    }

    static int write(const snmp_variable* v, const std::vector<snmp_oid>& name, int value, int action,
                     std::uint8_t type = SNMP_TYPE_INTEGER, std::size_t length = 4) {
        const reply r = read(v, name);
        EXPECT_NE(r.write, nullptr);
        std::array<std::uint8_t, 16> data{};
        std::memcpy(data.data(), &value, sizeof value);
        return r.write(action, data.data(), type, length, nullptr, name.data(), name.size(), v);
    }
    static int set(snmp_oid number, int value) {
        return write(scalar(number), {number, 0}, value, SNMP_ACTION_SET);
    }
    static int set(snmp_oid number, snmp_oid index, int value, int action = SNMP_ACTION_SET) {
        return write(column(number), {13, 1, number, index}, value, action);
    }
};

TEST_F(ssm_mib, table_can_be_registered_and_offers_writing_where_it_says_so) {
    EXPECT_EQ(sizeof ssm_variables, 26U * 544);
    ASSERT_EQ(agentx_register_mib(ctx_, "mibII/ssm", ssm_variables, sizeof ssm_variables[0],
                                  SSM_VARIABLE_COUNT, ssm_oid, SSM_OID_LENGTH, 0, 0, 0, 0, 0),
              0);
    EXPECT_EQ(ssm_oid[1], 81U);
    int writable = 0;
    for (const snmp_variable& v : ssm_variables) {
        if (v.suffix_length > 1) continue;
        const reply r = read(&v, {v.suffix[0], 0});
        EXPECT_EQ(r.write != nullptr, v.access == SNMP_READ_WRITE) << v.suffix[0];
        writable += r.write != nullptr;
    }
    EXPECT_EQ(writable, 8);
}

TEST_F(ssm_mib, a_fresh_clock_reads_its_defaults) {
    const std::map<snmp_oid, int> expected = {{2, 2}, {3, 2}, {4, 3},  {5, 5},  {6, 13}, {7, 255},
                                              {8, 0}, {9, 2}, {10, 2}, {11, 1}, {12, 0}, {15, 1}};
    for (const auto& [number, value] : expected) EXPECT_EQ(get(number), value) << number;
    const std::uint8_t id[] = {0, 0x1b, 0x21, 0xff, 0xfe, 0xa, 0xb, 0xc};
    std::copy_n(id, 8, clock_.clock_id);
    EXPECT_EQ(read(scalar(1), {1, 0}).text, "00:1B:21:FF:FE:0A:0B:0C");
}

TEST_F(ssm_mib, running_state_and_source) {
    ssm_port* port = add_port("p1", 7);
    clock_.freerun = 0;
    EXPECT_EQ(get(10), 4);
    clock_.holdover = 1;
    EXPECT_EQ(get(10), 3);
    clock_.freerun = 1;
    EXPECT_EQ(get(10), 2);
    clock_.device_type = SSM_MASTER_ONLY;
    EXPECT_EQ(get(10), 1);
    clock_.selected_port = clock_.force_port = port;
    EXPECT_EQ(get(8), 7);
    EXPECT_EQ(get(12), 7);
    clock_.force_e1 = 1;
    EXPECT_EQ(get(12), 9999);
    clock_.selected_port = clock_.force_port = nullptr;
}

TEST_F(ssm_mib, qualities_read_by_code_and_option) {
    ssm_port* port = add_port("p1", 7);
    constexpr int option1[16] = {3, 1, 2, 15, 4, 13, 13, 6, 7, 13, 8, 9, 10, 11, 12, 13};
    for (std::uint8_t option : {SSM_OPTION_1, SSM_OPTION_2}) {
        clock_.ql_option = option;
        for (std::uint16_t code = 0; code < 18; ++code) {
            int expected = code < 16 ? option1[code] : 13;
            if (option == SSM_OPTION_2 && code == 4) expected = 5;
            if (option == SSM_OPTION_2 && code == 15) expected = 14;
            port->recv_quality = port->send_quality = port->force_rx_quality = port->force_tx_quality = code;
            clock_.current_quality = code;
            for (snmp_oid number : {6U, 9U, 12U, 13U}) EXPECT_EQ(get(number, 7), expected) << code;
            EXPECT_EQ(get(6), code == QL_NONE ? 13 : expected) << "no current quality reads as do not use";
        }
    }
    port->force_rx_quality = port->force_tx_quality = QL_NONE;
}

TEST_F(ssm_mib, every_scalar_takes_its_values_and_no_other) {
    const std::map<snmp_oid, std::pair<int, int>> ranges = {
        {2, {1, 2}}, {3, {1, 2}}, {4, {1, 3}}, {5, {1, 6}}, {7, {1, 255}}, {9, {1, 2}}, {15, {1, 3}}};
    for (const auto& [number, range] : ranges) {
        for (int value = range.first; value <= range.second; ++value) {
            EXPECT_EQ(set(number, value), SNMP_NO_ERROR) << number << " " << value;
            EXPECT_EQ(get(number), value) << number;
        }
        const int last = get(number);
        for (int value : {range.first - 1, range.second + 1, -1, INT32_MIN, INT32_MAX, 257, 258})
            EXPECT_EQ(set(number, value), SNMP_WRONG_VALUE) << number << " " << value;
        EXPECT_EQ(get(number), last);
        const std::vector<snmp_oid> name = {number, 0};
        EXPECT_EQ(write(scalar(number), name, 1, 0, SNMP_TYPE_OCTET_STRING), SNMP_WRONG_TYPE);
        for (std::size_t length : {std::size_t{0}, std::size_t{1}, std::size_t{8}})
            EXPECT_EQ(write(scalar(number), name, 1, 0, SNMP_TYPE_INTEGER, length), SNMP_WRONG_VALUE)
                << length;
        for (int phase = 0; phase < 6; ++phase)
            EXPECT_EQ(write(scalar(number), name, 1, phase), SNMP_NO_ERROR) << "the phase is not looked at";
    }
}

TEST_F(ssm_mib, local_quality_brings_its_option_unless_a_forced_quality_holds_it) {
    EXPECT_EQ(set(5, 3), SNMP_NO_ERROR);
    EXPECT_EQ(get(11), 2);
    EXPECT_EQ(clock_.local_quality, std::uint32_t{QL_EEC2});
    add_port("p1", 7);
    EXPECT_EQ(set(12, 7, 1), SNMP_NO_ERROR);  // prs, of option 2
    EXPECT_EQ(set(5, 4), SNMP_GEN_ERR);
    EXPECT_EQ(get(5), 3);
    EXPECT_EQ(get(11), 2);
    clock_.local_quality = QL_SMC;  // has no number
    EXPECT_EQ(get(5), 5);
}

TEST_F(ssm_mib, ssm_enable_leaves_the_dynamic_role_alone) {
    clock_.gephy_dynamic = 1;
    EXPECT_EQ(set(3, 1), SNMP_NO_ERROR);
    EXPECT_EQ(set(3, 2), SNMP_NO_ERROR);
    EXPECT_EQ(clock_.gephy_dynamic, 1U);
}

TEST_F(ssm_mib, force_switch_names_a_port_or_none) {
    ssm_port* port = add_port("p1", 7);
    add_interface("other", 8, 1);
    add_interface("unbound", 9);
    EXPECT_EQ(set(12, 0), SNMP_NO_ERROR) << "nothing was forced";
    EXPECT_EQ(set(12, 7), SNMP_NO_ERROR);
    EXPECT_EQ(clock_.force_port, port);
    for (int index : {8, 9, 10, 9999, INT32_MAX}) EXPECT_EQ(set(12, index), SNMP_INCONSISTENT_VALUE) << index;
    EXPECT_EQ(set(12, -1), SNMP_WRONG_VALUE);
    EXPECT_EQ(write(scalar(12), {12, 0}, 7, 0, AGENTX_GAUGE32), SNMP_WRONG_TYPE);
    EXPECT_EQ(get(12), 7);
    clock_.force_e1 = 1;  // both, which the operation does not take back
    EXPECT_EQ(set(12, 0), SNMP_GEN_ERR);
    clock_.force_port = nullptr;
    EXPECT_EQ(set(12, 7), SNMP_NO_ERROR);
    EXPECT_EQ(clock_.force_e1, 0U);
    EXPECT_EQ(write(scalar(12), {12, 0}, 9999, SNMP_ACTION_RESTORE), SNMP_NO_ERROR) << "taken back";
    EXPECT_EQ(get(12), 9999);
    EXPECT_EQ(clock_.force_port, nullptr);
    EXPECT_EQ(set(12, 0), SNMP_NO_ERROR);
}

TEST_F(ssm_mib, columns_take_their_values_and_no_other) {
    add_port("p1", 7);
    const std::map<snmp_oid, std::pair<int, int>> ranges = {
        {2, {1, 2}}, {4, {1, 255}}, {10, {0, 255}}, {11, {1, 2}}};
    for (const auto& [number, range] : ranges) {
        for (int value = range.first; value <= range.second; ++value) {
            EXPECT_EQ(set(number, 7, value), SNMP_NO_ERROR) << number << " " << value;
            EXPECT_EQ(get(number, 7), value) << number;
        }
        for (int value : {range.first - 1, range.second + 1, -1, INT32_MIN, INT32_MAX, 256 + range.first + 1})
            EXPECT_EQ(set(number, 7, value), SNMP_WRONG_VALUE) << number << " " << value;
        EXPECT_EQ(write(column(number), {13, 1, number, 7}, 1, 0, AGENTX_GAUGE32), SNMP_NO_ERROR)
            << "of any type";
        EXPECT_EQ(write(column(number), {13, 1, number, 7}, 1, 0, SNMP_TYPE_OCTET_STRING, 3),
                  SNMP_WRONG_VALUE);
    }
    for (snmp_oid number : {1U, 5U, 6U, 7U, 8U, 9U})
        EXPECT_EQ(set(number, 7, 1), SNMP_READ_ONLY_ERROR) << number;
    EXPECT_EQ(set(2, 8, 1), SNMP_NO_SUCH_NAME);
    add_interface("other", 8, 1);
    EXPECT_EQ(set(2, 8, 1), SNMP_NO_SUCH_NAME);
    add_interface("unbound", 9);
    EXPECT_EQ(set(2, 9, 1), SNMP_GEN_ERR);
    EXPECT_EQ(set(12, 9, 1), SNMP_INCONSISTENT_VALUE);
    EXPECT_EQ(write(column(2), {13, 1, 2}, 1, 0), SNMP_GEN_ERR) << "no index";
    EXPECT_EQ(write(column(2), {13, 1, 2, 7, 7}, 1, 0), SNMP_GEN_ERR) << "two of them";
}

TEST_F(ssm_mib, a_mode_is_written_in_steps_and_restored_whole) {
    add_port("p1", 7);
    EXPECT_EQ(set(3, 7, 5), SNMP_NO_ERROR);
    EXPECT_EQ(get(3, 7), 2) << "transmit alone is left";
    EXPECT_EQ(set(3, 7, 1), SNMP_NO_ERROR);
    EXPECT_EQ(get(3, 7), 3) << "adds";
    EXPECT_EQ(set(3, 7, 6), SNMP_NO_ERROR);
    EXPECT_EQ(get(3, 7), 1);
    for (int value : {0, 7, -1}) EXPECT_EQ(set(3, 7, value), SNMP_WRONG_VALUE);
    for (int before = 1; before <= 4; ++before) {
        for (int written = 1; written <= 6; ++written) {
            EXPECT_EQ(set(3, 7, before, SNMP_ACTION_RESTORE), SNMP_NO_ERROR);
            ASSERT_EQ(get(3, 7), before);
            EXPECT_EQ(set(3, 7, written), SNMP_NO_ERROR);
            EXPECT_EQ(set(3, 7, before, SNMP_ACTION_RESTORE), SNMP_NO_ERROR);
            EXPECT_EQ(get(3, 7), before) << "after " << written;
        }
    }
}

TEST_F(ssm_mib, forced_qualities_obey_the_option_in_force) {
    ssm_port* port = add_port("p1", 7);
    // By option: which numbers are known, and the codes that they stand for.
    const std::map<int, int> known[2] = {
        {{2, QL_PRC}, {4, QL_SSU_A}, {7, QL_SSU_B}, {9, QL_EEC1}, {13, QL_DNU}, {15, QL_NONE}},
        {{1, QL_PRS},
         {3, QL_STU},
         {5, QL_TNC},
         {6, QL_ST2},
         {8, QL_EEC2},
         {10, QL_SMC},
         {11, QL_ST3E},
         {12, QL_PROV},
         {14, QL_DNU},
         {15, QL_NONE}}};
    for (std::uint8_t option : {SSM_OPTION_1, SSM_OPTION_2}) {
        clock_.ql_option = option;
        for (snmp_oid number : {12U, 13U}) {
            for (int value = 1; value <= 15; ++value) {
                const auto code = known[option - 1].find(value);
                const bool accepted = code != known[option - 1].end();
                const std::uint16_t before = number == 12 ? port->force_rx_quality : port->force_tx_quality;
                EXPECT_EQ(set(number, 7, value), accepted ? SNMP_NO_ERROR : SNMP_INCONSISTENT_VALUE) << value;
                EXPECT_EQ(number == 12 ? port->force_rx_quality : port->force_tx_quality,
                          accepted ? code->second : before);
            }
            EXPECT_EQ(set(number, 7, 0), SNMP_WRONG_VALUE);
            EXPECT_EQ(set(number, 7, 16), SNMP_WRONG_VALUE);
            EXPECT_EQ(set(number, 7, 256), SNMP_WRONG_VALUE);
            EXPECT_EQ(set(number, 7, 256 + 15), SNMP_NO_ERROR) << "the low eight bits count";
        }
    }
}

TEST_F(ssm_mib, rows_come_by_index_whatever_the_order_of_the_list) {
    for (snmp_oid index : {40U, 7U, 300U, 12U}) add_port(("p" + std::to_string(index)).c_str(), index);
    add_interface("other", 10, 1);
    std::vector<snmp_oid> seen, name = {13, 1, 4};
    for (;;) {
        const reply r = read(column(4), name, 0);
        if (r.value == NO_VALUE) break;
        ASSERT_EQ(r.name.size(), 4U);
        seen.push_back(r.name.back());
        name = r.name;
    }
    EXPECT_EQ(seen, (std::vector<snmp_oid>{7, 12, 40, 300}));
    EXPECT_EQ(read(column(1), {13, 1, 1, 7}).value, NO_VALUE) << "the index has no value";
    EXPECT_EQ(read(column(4), {13, 1, 4, 10}).value, NO_VALUE) << "an interface of another type";
    EXPECT_EQ(read(column(4), {13, 1, 4}).value, NO_VALUE);
    EXPECT_EQ(read(column(4), {13, 1, 4, 7, 0}).value, NO_VALUE);
}

TEST_F(ssm_mib, missing_arguments_give_nothing) {
    std::vector<snmp_oid> name(128);
    name[0] = 2;
    std::size_t length = 2, size = 0;
    snmp_write_handler w = nullptr;
    const snmp_variable* v = scalar(2);
    EXPECT_EQ(v->read(nullptr, name.data(), &length, 1, &size, &w), nullptr);
    EXPECT_EQ(v->read(v, nullptr, &length, 1, &size, &w), nullptr);
    EXPECT_EQ(v->read(v, name.data(), nullptr, 1, &size, &w), nullptr);
    EXPECT_EQ(v->read(v, name.data(), &length, 1, nullptr, &w), nullptr);
    EXPECT_EQ(v->read(v, name.data(), &length, 1, &size, nullptr), nullptr);
    snmp_variable stranger = *v;
    stranger.magic = 3;
    w = read(v, {2, 0}).write;
    const std::uint8_t one[4] = {1};
    EXPECT_EQ(w(0, nullptr, 2, 4, nullptr, name.data(), 2, v), SNMP_GEN_ERR);
    EXPECT_EQ(w(0, one, 2, 4, nullptr, nullptr, 2, v), SNMP_GEN_ERR);
    EXPECT_EQ(w(0, one, 2, 4, nullptr, name.data(), 2, nullptr), SNMP_GEN_ERR);
    EXPECT_EQ(v->read(&stranger, name.data(), &length, 1, &size, &w), nullptr);
    EXPECT_EQ(w, nullptr) << "withdrawn for another object's record";
}

// The notifications, seen at the far end of the sub-agent's link. The master answers all of them, or none.
class ssm_notify : public ssm_mib {
  protected:
    struct told {
        snmp_oid number;
        std::vector<std::pair<std::vector<snmp_oid>, int>> objects;  // below the module's base
        nanoseconds at;
    };

    void SetUp() override {
        ssm_mib::SetUp();
        current = this;
        (void)agentx_register_mib(ctx_, "mibII/ssm", ssm_variables, sizeof ssm_variables[0],
                                  SSM_VARIABLE_COUNT, ssm_oid, SSM_OID_LENGTH, 0, 0, 0, 0, 0);
        ASSERT_EQ(ssm_notify_init(ctx_), 0);
        agentx_set_link_open([](const agentx_target*) {
            int fds[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds), 0);
            if (current->far >= 0) close(current->far);
            current->far = fds[1];
            return fds[0];
        });
        // A loop that looks at the sub-agent's link, in place of one that looks at nothing.
        nsm_client_stop(instance_.nsm_client);
        thread_master_finish(ctx_->master);
        const thread_edges edges = {[](void*) { return current->time_; }, wait, nullptr};
        ctx_->master = thread_master_create(&edges);
        ASSERT_EQ(ssm_nsm_client_init(), 0);
        ASSERT_EQ(snmp_start(ctx_), 0);
        p1 = add_port("p1", 7);
        config_mode();
    }
    void TearDown() override {
        ssm_mib::TearDown();
        agentx_set_link_open(nullptr);
        if (far >= 0) close(far);
    }

    static int wait(void*, int timeout_ms, thread_ready* out, int) {
        const snmp_agent* a = current->ctx_->snmp;
        if (a && a->fd >= 0) {
            pollfd p{a->fd, static_cast<short>((a->read ? POLLIN : 0) | (a->write ? POLLOUT : 0)), 0};
            if (poll(&p, 1, 0) > 0) {
                *out = {a->fd, (p.revents & (POLLIN | POLLHUP)) != 0, (p.revents & (POLLOUT | POLLHUP)) != 0};
                return 1;
            }
        }
        if (timeout_ms > 0) current->time_ += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return 0;
    }
    // Lets time pass in steps of 10 ms, the master taking part.
    void run(std::uint32_t ms) {
        for (const nanoseconds end = time_ + ms * NS_PER_MS; time_ < end;) {
            bool over = false;
            thread_add_timer_msec(
                ctx_,
                [](thread* e) {
                    *static_cast<bool*>(e->arg) = true;
                    return 0;
                },
                &over, 10);
            for (thread event; !over && thread_fetch(ctx_, &event);) (void)thread_call(&event);
            master();
        }
    }
    void master() {
        std::uint8_t chunk[4096];
        ssize_t count = 0;
        while (far >= 0 && (count = recv(far, chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
            input.insert(input.end(), chunk, chunk + count);
        agentx_header h{};
        while (input.size() >= AGENTX_HEADER_SIZE && agentx_read_header(input, &h)) {
            const std::size_t whole = AGENTX_HEADER_SIZE + h.length;
            if (input.size() < whole) break;
            if (h.type == AGENTX_NOTIFY) take(const_octets(input).subspan(AGENTX_HEADER_SIZE, h.length));
            if (answers || h.type != AGENTX_NOTIFY) answer(h);
            input.erase(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(whole));
        }
    }
    void answer(agentx_header h) const {
        text_buffer out{};
        h.session = 5;
        ASSERT_TRUE(agentx_answer_status(h, 0, 0, &out));
        (void)::send(far, out.data, out.length, MSG_NOSIGNAL);
        text_free(&out);
    }
    void take(const_octets payload) {
        constexpr std::size_t base = SNMP_ROOT_SIZE + SSM_OID_LENGTH;
        agentx_reader r{payload, 0, true, false};
        agentx_variable v;
        agentx_take_variable(&r, &v);
        told t{v.oid.id[v.oid.length - 1], {}, time_};
        EXPECT_EQ(v.oid.id[v.oid.length - 2], 0U);
        while (!agentx_at_end(&r)) {
            agentx_take_variable(&r, &v);
            ASSERT_FALSE(r.bad);
            t.objects.push_back({{v.name.id + base, v.name.id + v.name.length}, static_cast<int>(v.cell)});
        }
        heard.push_back(t);
    }
    std::vector<told> of(ssm_notification number) {
        std::vector<told> found;
        for (const told& t : heard)
            if (t.number == number) found.push_back(t);
        return found;
    }

    static ssm_notify* current;
    ssm_port* p1 = nullptr;
    int far = -1;
    bool answers = true;
    std::vector<std::uint8_t> input;
    std::vector<told> heard;
};
ssm_notify* ssm_notify::current;

using object = std::pair<std::vector<snmp_oid>, int>;

TEST_F(ssm_notify, nothing_is_told_unless_configured_and_nothing_of_before) {
    clock_.freerun = 0;
    p1->recv_pdu = 1;
    run(3000);
    EXPECT_TRUE(heard.empty());
    quiet("snmp notifications");
    run(3000);
    EXPECT_TRUE(heard.empty()) << "what was then is known";
    clock_.holdover = 1;
    run(300);
    EXPECT_EQ(heard.size(), 1U);
    quiet("no snmp notifications");
    clock_.holdover = 0;
    run(3000);
    EXPECT_EQ(heard.size(), 1U);
}

TEST_F(ssm_notify, each_change_is_told_with_its_objects) {
    quiet("snmp notifications");
    run(100);
    clock_.freerun = 0;
    clock_.selected_port = p1;
    clock_.current_quality = QL_PRC;
    clock_.dpll_state = SSM_DPLL_LOCK;
    p1->recv_pdu = p1->link_up = 1;
    p1->recv_quality = QL_PRC;
    run(500);
    ASSERT_EQ(heard.size(), 5U);
    EXPECT_EQ(of(SSM_NOTIFY_SOURCE).at(0).objects,
              (std::vector<object>{{{16, 1, 0}, 0}, {{8, 0}, 7}, {{6, 0}, 2}}));
    EXPECT_EQ(of(SSM_NOTIFY_QUALITY).at(0).objects, (std::vector<object>{{{6, 0}, 2}, {{8, 0}, 7}}));
    EXPECT_EQ(of(SSM_NOTIFY_RUNNING_STATE).at(0).objects, (std::vector<object>{{{10, 0}, 4}, {{8, 0}, 7}}));
    EXPECT_EQ(of(SSM_NOTIFY_DPLL_STATE).at(0).objects, (std::vector<object>{{{16, 2, 0}, 4}}));
    EXPECT_EQ(of(SSM_NOTIFY_PORT_RECEIVED).at(0).objects,
              (std::vector<object>{{{13, 1, 6, 7}, 2}, {{13, 1, 5, 7}, 1}}));
    p1->recv_pdu = 0;
    p1->recv_quality = QL_NONE;
    clock_.selected_port = nullptr;
    run(1500);
    EXPECT_EQ(of(SSM_NOTIFY_PORT_LOST).at(0).objects,
              (std::vector<object>{{{13, 1, 6, 7}, 15}, {{13, 1, 5, 7}, 1}}));
    EXPECT_EQ(of(SSM_NOTIFY_SOURCE).at(1).objects.at(0), (object{{16, 1, 0}, 7}));
}

TEST_F(ssm_notify, a_subject_that_flaps_is_told_once_a_second_and_its_last_state_at_the_end) {
    ssm_port* p2 = add_port("p2", 8);
    quiet("snmp notifications");
    run(100);
    for (int i = 0; i < 100; ++i) {
        clock_.dpll_state = i % 2 ? SSM_DPLL_LOCK : SSM_DPLL_HOLDOVER;
        p1->recv_pdu = p2->recv_pdu = i % 2;
        run(70);
    }
    clock_.dpll_state = SSM_DPLL_HOLDOVER;
    p1->recv_pdu = 1;
    p2->recv_pdu = 0;
    run(1500);
    for (std::size_t i = 1; i < of(SSM_NOTIFY_DPLL_STATE).size(); ++i)
        EXPECT_GE(of(SSM_NOTIFY_DPLL_STATE)[i].at - of(SSM_NOTIFY_DPLL_STATE)[i - 1].at, 990 * NS_PER_MS);
    EXPECT_GE(of(SSM_NOTIFY_DPLL_STATE).size(), 4U);
    EXPECT_EQ(of(SSM_NOTIFY_DPLL_STATE).back().objects.at(0).second, 3);
    std::map<snmp_oid, std::pair<nanoseconds, snmp_oid>> last;
    for (const told& t : heard) {
        if (t.number < SSM_NOTIFY_PORT_LOST) continue;
        auto& [at, number] = last[t.objects.at(0).first.back()];
        if (at) {
            EXPECT_GE(t.at - at, 990 * NS_PER_MS) << "lost and received are one kind";
        }
        std::tie(at, number) = std::pair{t.at, t.number};
    }
    EXPECT_EQ(last.at(7).second, SSM_NOTIFY_PORT_RECEIVED);
    if (last.contains(8)) {
        EXPECT_EQ(last.at(8).second, SSM_NOTIFY_PORT_LOST);
    }
}

TEST_F(ssm_notify, what_a_lost_master_may_not_have_heard_is_told_again) {
    quiet("snmp notifications");
    run(500);
    answers = false;
    clock_.freerun = 0;
    run(1000);
    ASSERT_EQ(of(SSM_NOTIFY_RUNNING_STATE).size(), 1U);
    clock_.freerun = 1;  // back to what was told before the one that may be lost
    run(1000);
    answers = true;
    run(8000);
    ASSERT_EQ(of(SSM_NOTIFY_RUNNING_STATE).size(), 2U);
    EXPECT_EQ(of(SSM_NOTIFY_RUNNING_STATE)[1].objects.at(0).second, 2);
    run(5000);
    EXPECT_EQ(of(SSM_NOTIFY_RUNNING_STATE).size(), 2U) << "once is enough";
}

TEST_F(ssm_notify, ports_come_and_go_without_a_word_and_without_mixing_up) {
    for (snmp_oid i = 20; i < 60; ++i) add_port(("q" + std::to_string(i)).c_str(), i)->recv_pdu = 1;
    quiet("snmp notifications");
    run(500);
    for (snmp_oid i = 20; i < 60; i += 2) if_remove(&ctx_->ifm, if_lookup_by_index(&ctx_->ifm, i));
    run(1500);
    EXPECT_TRUE(heard.empty());
    ssm_if_port(if_lookup_by_index(&ctx_->ifm, 41))->recv_pdu = 0;
    add_port("q20", 20)->recv_pdu = 1;
    run(1500);
    ASSERT_EQ(heard.size(), 2U);
    EXPECT_EQ(of(SSM_NOTIFY_PORT_LOST).at(0).objects.at(0).first.back(), 41U);
    EXPECT_EQ(of(SSM_NOTIFY_PORT_RECEIVED).at(0).objects.at(0).first.back(), 20U);
}

}  // namespace
