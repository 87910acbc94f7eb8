// What there is to measure: a table with a row for each family of samples, or for those of a family that have
// one more label. The names, their labels and their meaning are a promise, as the fields of the JSON object
// are: families may be added.
#pragma once

#include <cstdint>
#include <span>

struct ssm_port;

enum class metric_type : std::uint8_t { gauge, counter };

// What one in the value is, and so the family's unit. Times are kept in milliseconds and written in seconds.
enum class metric_scale : std::uint8_t { one, seconds, hertz, parts };

// A value that there is not, now: no sample.
constexpr std::int64_t METRIC_NONE = INT64_MIN;

// A label whose value comes with the sample.
struct metric_label {
    const char* name;
    const char* (*text)(const ssm_port* port);  // null: no sample
    // All texts that there can be: a sample for each, 1 for the one that holds. Empty: one sample.
    std::span<const char* const> states;
};

struct metric_row {
    // The family's name, without the counters' _total, a blank, and its help text. Null: more samples of the
    // family before it.
    const char* family;
    bool of_ports;  // a sample for each port that SyncE is enabled on, with the label "port"; else of the
                    // switch
    metric_type type;
    metric_scale scale;                           // hertz: thousandths of it are the value; parts: 10^-12
    const char* fixed;                            // a label as it is written, NAME="VALUE", or null
    const metric_label* label;                    // null: none
    std::int64_t (*value)(const ssm_port* port);  // a null port for what is the switch's own. Null: 1
};

extern const std::span<const metric_row> ssm_metric_rows;
