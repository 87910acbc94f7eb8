// The operator's file, any octets: it is taken whole, or every fault of it is said in words; what is taken
// can be shown.
#include "esmcmap/ask/address.h"
#include "esmcmap/ask/switch_file.h"
#include "map_rules.h"

namespace {

using namespace map_rules;

void check_entry(const switch_entry& entry) {
    must(entry.command.empty() != entry.snmp.address.empty(), "a switch is asked in one way");
    if (!entry.command.empty()) return;
    const std::optional<agent_address> address = read_agent_address(entry.snmp.address);
    must(address && address->port != 0, "its address is one");
    (void)numeric_peer(*address);
    if (!entry.snmp.version_3) return;
    must(entry.snmp.auth.empty() == entry.snmp.auth_pass.empty(), "a protocol has its pass phrase");
    must(entry.snmp.priv.empty() || !entry.snmp.auth.empty(), "no privacy without authentication");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::string> faults;
    const switch_file file = read_switch_file({reinterpret_cast<const char*>(data), size}, "file", faults);
    for (const std::string& fault : faults) check_text(fault);
    if (!faults.empty()) return 0;
    must(!file.switches.empty() && file.every_ms >= 200 && file.timeout_ms >= 500, "the times are possible");
    std::vector<watched> switches;
    for (const switch_entry& entry : file.switches) {
        check_entry(entry);
        switches.emplace_back().name = entry.name;
    }
    check_all(network_builder().next(switches, 1, true), {}, {});
    return 0;
}
