// What a switch says of its clock and of its ports: one answer to `show clock synce json`, or the same from
// its MIB.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace esmcmap {

// The words of the switch's own JSON are kept as they are: they are what the map shows.
struct port_report {
    std::string name;
    std::string address, neighbour;  // "02:00:00:00:00:01"; empty: not told, nobody heard
    std::string received, sent;      // quality tokens; "none"
    std::string received_clock_id;   // empty: none
    std::string reason;              // why it is not the source; empty when it is, or when nothing keeps it
    bool enabled = false, link_up = false, source = false;
    bool operator==(const port_report&) const = default;
};

struct switch_report {
    std::string clock_id;  // empty: not told
    std::string state;     // "master", "lock", "holdover", "freerun"; "off": SyncE is not enabled
    std::string dpll;      // "lock", "holdover", "freerun", "transient"
    std::string quality, local_quality;  // of the clock; configured for the switch's own
    std::string source;                  // name of a port; empty: none
    std::string recovery_input;          // "synce", "bits1", "bits2"
    std::string reason;                  // why there is no source
    std::string clock_type = "eec";      // "eeec": an enhanced clock, whose holdover is worth more
    unsigned option = 1;
    std::vector<port_report> ports;
    bool operator==(const switch_report&) const = default;
};

// Every number, flag (0, 1) and token that the switch told, by the name of its field, for metrics. Times are
// ages in milliseconds, of the moment of the answer.
struct switch_values {
    std::map<std::string, double> numbers;
    std::map<std::string, std::string> texts;
};

struct reported_values {
    switch_values clock;
    std::map<std::string, switch_values> ports;  // by name
};

}  // namespace esmcmap
