// What a switch says of its clock and of its ports: one answer to `show clock synce json`, or the same from
// its MIB.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "esmcmap/model/fields.h"

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

// The numbers, flags (0, 1) and tokens that the switch told, for metrics. Times are ages in milliseconds, of
// the moment of the answer.
class switch_values {
  public:
    void set(field of, double number);
    void set(field of, std::string_view text);
    void erase(field of);
    void pack();  // no more will be set

    std::optional<double> number(field of) const;
    std::string_view text(field of) const;  // empty: not told

  private:
    struct value {
        field of;
        bool is_text;
        std::uint32_t length;  // of a text, which begins in `texts` at its number
        double number;
    };
    std::vector<value> values;
    std::string texts;

    const value* find(field of) const;
    void add(const value& one);
};

struct reported_values {
    switch_values clock;
    std::vector<switch_values> ports;  // of the report's, in their order
};

}  // namespace esmcmap
