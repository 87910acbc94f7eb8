// What the manager tells of the clock hardware beyond its state: for the shows and the history, and the
// quality that the clock itself claims. Nothing is told by hardware or managers that have nothing to say.
#pragma once

#include <cstdint>

struct nsm_clock_detail;
struct ssm_port;

// Of the pin that a port's clock comes in by.
struct ssm_pin {
    bool has_offset, has_frequency;
    std::uint8_t state;           // operational, as the link numbers it; 0: not told
    std::int64_t offset_ppt;      // of its frequency, in 10^-12
    std::uint64_t frequency_mhz;  // measured, in thousandths of a hertz
    char label[24];               // may be empty
};

struct ssm_hardware {
    std::uint8_t error;     // why the lock failed last, as the link numbers it; 0: not told
    std::uint16_t quality;  // of the own clock where none is configured; QL_DNU: not told
};

// A message of the manager; null: it has told nothing since it was connected, and what was told is forgotten.
void ssm_hardware_recv(const nsm_clock_detail* detail);

// Words, also those of JSON; null where nothing is told.
const char* ssm_lock_error_word(std::uint8_t error);
const char* ssm_pin_state_word(const ssm_pin* pin);
