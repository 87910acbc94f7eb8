// Quality levels: tokens, display names, what a received PDU may carry, and the texts of the other small
// values. Pure functions of their arguments and of the clock record.
#pragma once

#include "core/records.h"

constexpr std::int32_t SSM_QL_STYLE_SHORT = 1, SSM_QL_STYLE_LONG = 2;

const char* ssm_ql_to_str(std::uint32_t code, std::int32_t style);  // display name; reads ql_option
const char* ssm_ql_to_token(std::uint32_t code);                    // command token; reads ql_option
// Token to code under the option in force; -49995 or -49994 when the option does not know it (then *code is
// untouched).
[[nodiscard]] std::int32_t ssm_ql_parse(const char* token, std::uint16_t* code);
// Of this switch's own oscillator, which holds the last frequency.
std::uint8_t ssm_holdover_quality();
// The quality of a PDU with these two codes: a pair that the option in force does not know is what its SSM
// code says.
ssm_quality ssm_ql_received(std::uint8_t code, std::uint8_t enhanced);
// Whether a received PDU may carry it under the option in force.
bool ssm_ql_receivable(std::uint8_t code);

const char* ssm_device_type_str(std::uint32_t type);
const char* ssm_esmc_mode_str(std::uint32_t mode);
const char* ssm_esmc_dir_token(std::uint32_t direction);
const char* ssm_enable_str(std::uint32_t flag);  // "enable (with gephy)" while gephy_dynamic is set
const char* ssm_dpll_state_str(std::uint32_t state);
const char* ssm_dpll_valid_str();
// How the switch's clock runs; the numbers are those of the MIB's object.
enum class ssm_running : std::uint8_t { master = 1, freerun = 2, holdover = 3, lock = 4 };
ssm_running ssm_running_state();
const char* ssm_clock_state_str();
const char* ssm_selected_source_str();
const char* ssm_port_name(const ssm_port* port);  // null when the port or its interface is absent
// These two share one static buffer of 64 octets: valid until the next call of either.
const char* ssm_num_or_na_str(std::int32_t number);
// An identity made from a MAC address has a mark in the middle; without it the sender named none.
bool ssm_clock_id_named(const std::uint8_t* id);
const char* ssm_clock_id_str(const std::uint8_t* id);
