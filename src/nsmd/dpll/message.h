// The kernel's clock (DPLL) interface as messages: what a device and a pin are, and their settings. Numbers
// of attributes and commands are the kernel's (include/uapi/linux/dpll.h, compared with those of Linux 6.12
// and 7.3; the headers that we build with may be older); which of them a kernel or driver has is found out by
// looking, never by its version.
#pragma once

#include <cstdint>

#include "nsmd/netlink/netlink.h"

constexpr const char* DPLL_FAMILY = "dpll";
constexpr const char* DPLL_GROUP = "monitor";
constexpr std::uint8_t DPLL_VERSION = 1;

enum dpll_command : std::uint8_t {
    DPLL_CMD_DEVICE_GET = 2,
    DPLL_CMD_DEVICE_SET = 3,
    DPLL_CMD_DEVICE_CREATE_NTF = 4,
    DPLL_CMD_DEVICE_DELETE_NTF = 5,
    DPLL_CMD_DEVICE_CHANGE_NTF = 6,
    DPLL_CMD_PIN_GET = 8,
    DPLL_CMD_PIN_SET = 9,
    DPLL_CMD_PIN_CREATE_NTF = 10,
    DPLL_CMD_PIN_DELETE_NTF = 11,
    DPLL_CMD_PIN_CHANGE_NTF = 12,
};

enum dpll_attr : std::uint16_t {
    DPLL_A_ID = 1,
    DPLL_A_MODULE_NAME = 2,
    DPLL_A_CLOCK_ID = 4,
    DPLL_A_MODE = 5,
    DPLL_A_MODE_SUPPORTED = 6,  // one each
    DPLL_A_LOCK_STATUS = 7,
    DPLL_A_TYPE = 9,
    DPLL_A_LOCK_STATUS_ERROR = 10,
    DPLL_A_CLOCK_QUALITY_LEVEL = 11,  // one each
};

enum dpll_pin_attr : std::uint16_t {
    DPLL_PIN_A_ID = 1,
    DPLL_PIN_A_PARENT_ID = 2,
    DPLL_PIN_A_BOARD_LABEL = 6,
    DPLL_PIN_A_PANEL_LABEL = 7,
    DPLL_PIN_A_PACKAGE_LABEL = 8,
    DPLL_PIN_A_TYPE = 9,
    DPLL_PIN_A_DIRECTION = 10,
    DPLL_PIN_A_PRIO = 15,
    DPLL_PIN_A_STATE = 16,
    DPLL_PIN_A_CAPABILITIES = 17,
    DPLL_PIN_A_PARENT_DEVICE = 18,
    DPLL_PIN_A_PARENT_PIN = 19,
    DPLL_PIN_A_FFO = 24,  // in 10^-6, of the pin, or in a place against that device
    // Linux 6.12 ends before these; they are as in 7.3.
    DPLL_PIN_A_FFO_PPT = 30,             // the same in 10^-12
    DPLL_PIN_A_MEASURED_FREQUENCY = 31,  // in mHz
    DPLL_PIN_A_OPERSTATE = 32,
};

enum : std::uint32_t { DPLL_MODE_MANUAL = 1, DPLL_MODE_AUTOMATIC = 2 };
enum : std::uint32_t { DPLL_TYPE_PPS = 1, DPLL_TYPE_EEC = 2 };
enum : std::uint32_t {
    DPLL_STATUS_UNLOCKED = 1,
    DPLL_STATUS_LOCKED = 2,
    DPLL_STATUS_LOCKED_HO_ACQ = 3,
    DPLL_STATUS_HOLDOVER = 4,
};
enum : std::uint32_t { PIN_CONNECTED = 1, PIN_DISCONNECTED = 2, PIN_SELECTABLE = 3 };
enum : std::uint32_t { PIN_OPER_ACTIVE = 1 };
enum : std::uint32_t { PIN_CAN_PRIO = 2, PIN_CAN_STATE = 4 };
enum : std::uint32_t { PIN_OUTPUT = 2 };
enum : std::uint32_t { DPLL_PIN_MUX = 1, DPLL_PIN_EXT = 2, DPLL_PIN_SYNCE_PORT = 3 };

// Numbers that a driver may or may not tell.
struct dpll_measured {
    bool has_offset, has_frequency;
    bool offset_is_fine;          // told in 10^-12
    std::int64_t offset_ppt;      // frequency offset, 10^-12
    std::uint64_t frequency_mhz;  // thousandths of a hertz
};

struct dpll_device {
    std::uint32_t id;
    std::uint32_t mode;
    std::uint32_t modes;    // that it can have: bits by number
    std::uint32_t quality;  // levels that it claims: bits by number
    std::uint32_t status;
    std::uint32_t error;
    std::uint32_t type;
    std::uint64_t clock_id;
    char module[32];
};

// A device or a MUX pin that the pin hangs on.
struct dpll_parent {
    std::uint32_t id;
    bool is_pin;
    std::uint32_t direction;
    std::uint32_t state;
    std::uint32_t operstate;  // 0 where the kernel does not say
    bool has_prio;
    std::uint32_t prio;
    dpll_measured measured;  // against this parent
};

struct dpll_pin {
    static constexpr std::size_t PARENTS_MAX = 16;
    std::uint32_t id;
    std::uint32_t type;
    std::uint32_t capabilities;
    char board_label[32];
    char panel_label[32];
    char package_label[32];
    dpll_measured measured;
    dpll_parent parents[PARENTS_MAX];  // more than these are not looked at
    std::size_t parent_count;
};

// False when the message names no device (pin).
bool dpll_device_parse(const_octets attributes, dpll_device* out);
bool dpll_pin_parse(const_octets attributes, dpll_pin* out);

// Adds to a DPLL_CMD_PIN_SET: one setting of the pin towards one parent. The kernel applies several settings
// of a request one by one in no certain order, so each gets a request of its own.
void dpll_put_pin_setting(nl_builder* b, std::uint32_t pin, const dpll_parent& parent, dpll_pin_attr what,
                          std::uint32_t value);

// The same of a device: its mode.
void dpll_put_mode(nl_builder* b, std::uint32_t device, std::uint32_t mode);
