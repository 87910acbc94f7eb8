// A switch asked by SNMP and by command: the MIB's handlers and the show of one daemon, read by the map, tell
// the same.
#include <gtest/gtest.h>

#include <cstring>

#include "esmcmap/model/read_json.h"
#include "esmcmap/model/read_mib.h"
#include "suite/agentx/codec.h"
#include "unit/daemon_fixture.h"

namespace {

using esmcmap::mib_answer;
using esmcmap::mib_binding;
using esmcmap::mib_type;
using esmcmap::switch_values;

class MapMib : public daemon_test {
  protected:
    static mib_binding binding(const snmp_variable& of, const std::vector<snmp_oid>& name, const void* value,
                               std::size_t size) {
        mib_binding made;
        std::copy(name.begin(), name.end(), made.object.begin());
        made.depth = static_cast<unsigned>(name.size());
        made.type = of.type == SNMP_TYPE_OCTET_STRING ? mib_type::octets
                    : of.type == SNMP_TYPE_INTEGER    ? mib_type::integer
                    : of.type == SNMP_TYPE_COUNTER64  ? mib_type::counter_64
                                                      : mib_type::unsigned_32;
        std::int32_t number = 0;
        if (made.type == mib_type::octets)
            made.octets.assign(static_cast<const char*>(value), size);
        else
            std::memcpy(size == 8 ? static_cast<void*>(&made.number) : &number, value, size);
        if (size == 4 && made.type != mib_type::octets)
            made.number = made.type == mib_type::integer ? number : static_cast<std::uint32_t>(number);
        return made;
    }

    // Every object, from each handler's first to its last.
    static mib_answer walk() {
        mib_answer answer;
        for (const snmp_variable& v : ssm_variables) {
            std::vector<snmp_oid> name(v.suffix, v.suffix + v.suffix_length);
            for (;;) {
                std::size_t length = name.size(), size = 4;
                name.resize(AGENTX_OID_MAX);
                snmp_write_handler write = nullptr;
                const void* value = v.read(&v, name.data(), &length, 0, &size, &write);
                name.resize(length);
                if (!value) break;
                answer.bindings.push_back(binding(v, name, value, size));
            }
        }
        return answer;
    }

    // What both tell, but for ages; how many numbers it is, and how many texts.
    static std::pair<unsigned, unsigned> compare(const switch_values& by_mib, const switch_values& by_json) {
        std::pair<unsigned, unsigned> counts;
        for (const std::string_view name : esmcmap::FIELDS) {
            const esmcmap::field of = *esmcmap::field::find(name);
            EXPECT_TRUE(by_mib.text(of).empty() || by_mib.text(of) == by_json.text(of)) << name;
            counts.second += !by_mib.text(of).empty();
            if (!by_mib.number(of)) continue;
            ++counts.first;
            EXPECT_NEAR(*by_mib.number(of), by_json.number(of).value_or(-1), name.ends_with("_ms") ? 20 : 0)
                << name;
        }
        return counts;
    }
};

TEST_F(MapMib, TellsWhatTheCommandTellsButForWhatIsNamedAsMissing) {
    ssm_port* p1 = add_port("p1", 7);
    ssm_port* p2 = add_port("p2", 300);
    for (const char* line : {"clock synce global-enable", "clock synce ssm enable", "clock synce ssm extend",
                             "clock synce loop-guard", "clock synce local-quality option1 eec1",
                             "clock synce clock-type eeec", "clock synce hold-off 300"}) {
        config_mode();
        quiet(line);
    }
    for (ssm_port* port : {p1, p2}) {
        const std::uint8_t address[] = {2, 0, 0, 0, 0, static_cast<std::uint8_t>(port->ifindex)};
        std::copy(std::begin(address), std::end(address), port->intf->mac);
        interface_mode(port->intf->name);
        quiet("clock synce enable");
        quiet("clock synce priority 9");
        quiet("clock synce quality-eth maximum prtc");
        port->statistics->information_in = 0x1'0000'0005;
        port->statistics->last_out = thread_now(ctx_) - 70 * NS_PER_MS;
    }
    exec_mode();
    p1->recv_pdu = 1;
    p1->neighbour[0] = 2;
    p1->recv_quality = ssm_quality_of(QL_PRC, QL_ENHANCED_EPRTC);
    p2->send_quality = QL_SSU_B;
    p2->lockout = 1;
    g_s_master->manual_port = p1;
    g_s_master->selected_port = p1;
    g_s_master->dpll_state = SSM_DPLL_HOLDOVER;
    g_s_master->current_quality = QL_PRC;

    esmcmap::switch_report by_mib, by_json;
    esmcmap::reported_values mib, json;
    ASSERT_EQ(esmcmap::read_mib(walk(), by_mib, mib), "");
    ASSERT_EQ(esmcmap::read_json(shown("show clock synce json"), by_json, json), "");
    by_json.reason.clear();
    for (esmcmap::port_report& port : by_json.ports) {
        port.reason.clear();
        port.received_clock_id.clear();
    }
    EXPECT_EQ(by_mib, by_json);
    ASSERT_EQ(json.ports.size(), 2U);
    for (const auto& [numbers, texts] :
         {compare(mib.ports.at(0), json.ports[0]), compare(mib.ports.at(1), json.ports[1])})
        EXPECT_TRUE(numbers > 25 && texts > 8) << numbers << ", " << texts;
    const auto [numbers, texts] = compare(mib.clock, json.clock);
    EXPECT_TRUE(numbers > 12 && texts > 8) << numbers << ", " << texts;
    g_s_master->selected_port = g_s_master->manual_port = nullptr;
}

}  // namespace
