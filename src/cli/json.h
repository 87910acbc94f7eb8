// What the JSON forms of the shows are written with. Each prints ,"NAME":VALUE but for those that say
// otherwise; a null text is null.
#pragma once

#include "core/records.h"
#include "suite/command/cli.h"

void ssm_json_text(cli* terminal, const char* text);  // a value alone
void ssm_json_field(cli* terminal, const char* name, const char* value);
void ssm_json_field(cli* terminal, const char* name, std::uint32_t value);
void ssm_json_count(cli* terminal, const char* name, std::uint64_t value);
void ssm_json_flag(cli* terminal, const char* name, bool value);
// How long ago, in milliseconds; null for a moment of 0.
void ssm_json_age(cli* terminal, const char* name, nanoseconds moment);
void ssm_json_address(cli* terminal, const char* name, const std::uint8_t* address);  // null: null
const char* ssm_json_quality(std::uint32_t code);

// {"name":PORT without its end; a comma before it unless it is the first.
void ssm_json_port_begin(cli* terminal, const ssm_port* port, bool first);
// What is counted of a port.
void ssm_json_statistics(cli* terminal, const ssm_port* port);
// The whole object of a port; null for none.
void ssm_json_port(cli* terminal, const ssm_port* port, const ssm_port* best);
// The clock and its ports; the input that the clock is recovered from; the selected clock. Handlers' results.
int ssm_json_clock(cli* terminal);
int ssm_json_recovery(cli* terminal);
int ssm_json_selected(cli* terminal);
