// The daemon's two records: the clock record, of which there is one, and the port record, of which each
// interface that can carry SSM has one. Everything that the daemon knows about synchronisation is in them.
// They are touched from the event loop only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/guard.h"
#include "core/hardware.h"
#include "core/history.h"
#include "core/statistics.h"
#include "suite/base/context.h"
#include "suite/base/memory.h"
#include "suite/log/limit.h"
#include "suite/loop/thread.h"
#include "suite/ports/interface.h"

constexpr std::int32_t SSM_PROTO_ID = 36;
constexpr int SSM_LOG_MODULE = 16;

constexpr std::size_t SSM_ADDRESS_SIZE = 6;  // EUI-48

constexpr memory_type MTYPE_SSM_INSTANCE = 693;
constexpr memory_type MTYPE_SSM_MASTER = 910;
constexpr memory_type MTYPE_SSM_PORT = 911;

// SSM codes of ITU-T G.781, the four bits that an ESMC PDU carries. Option 1 and option 2 networks read them
// differently.
enum ssm_code : std::uint8_t {
    QL_STU = 0,
    QL_PRS = 1,
    QL_PRC = 2,
    QL_NONE = 3,   // this system's marker for "none" and "not configured"
    QL_SSU_A = 4,  // option 2: TNC
    QL_TNC = 4,
    QL_ST2 = 7,
    QL_SSU_B = 8,
    QL_EEC2 = 10,
    QL_EEC1 = 11,
    QL_SMC = 12,
    QL_ST3E = 13,
    QL_PROV = 14,
    QL_DNU = 15,  // option 2: DUS
};

// A quality is held as its SSM code, with the enhanced code of ITU-T G.8264's extended QL TLV in the octet
// above it where that says more than the SSM code alone (0: it does not). The SSM code is what is sent in the
// QL TLV, what the MIB's objects hold, and all that a neighbour without that TLV sees.
using ssm_quality = std::uint16_t;
enum ssm_enhanced_code : std::uint8_t {
    QL_ENHANCED_PRTC = 0x20,
    QL_ENHANCED_EPRTC = 0x21,
    QL_ENHANCED_EEEC = 0x22,
    QL_ENHANCED_EPRC = 0x23,
    QL_ENHANCED_NONE = 0xFF,  // on the wire
};
constexpr ssm_quality ssm_quality_of(std::uint8_t code, std::uint8_t enhanced) {
    return static_cast<ssm_quality>(enhanced << 8 | code);
}
constexpr std::uint8_t ssm_code_of(std::uint32_t quality) {
    return static_cast<std::uint8_t>(quality);
}
constexpr std::uint8_t ssm_enhanced_of(std::uint32_t quality) {
    return static_cast<std::uint8_t>(quality >> 8);
}

// The form of the extended TLV that a port sends.
enum ssm_extend_form : std::uint8_t { SSM_FORM_DEFAULT = 0, SSM_FORM_OWN = 1, SSM_FORM_STANDARD = 2 };

// How this switch counts itself in a chain.
enum ssm_clock_type : std::uint8_t { SSM_CLOCK_EEC = 0, SSM_CLOCK_EEEC = 1 };

enum ssm_option : std::uint8_t { SSM_OPTION_1 = 1, SSM_OPTION_2 = 2 };
enum ssm_device_type : std::uint32_t { SSM_MASTER_ONLY = 1, SSM_SLAVE_ONLY = 2, SSM_DEFAULT_ROLE = 3 };
enum ssm_esmc_mode : std::uint32_t { SSM_ESMC_RX = 1, SSM_ESMC_TX = 2, SSM_ESMC_ALL = 3, SSM_ESMC_NONE = 4 };
enum ssm_dpll_state : std::uint32_t { SSM_DPLL_FREERUN = 2, SSM_DPLL_HOLDOVER = 3, SSM_DPLL_LOCK = 4 };
enum ssm_recovery : std::uint32_t { SSM_RECOVER_SYNCE = 0, SSM_RECOVER_BITS1 = 1, SSM_RECOVER_BITS2 = 2 };
enum ssm_gephy_role : std::uint32_t { SSM_GEPHY_MASTER = 1, SSM_GEPHY_SLAVE = 2 };

constexpr std::uint8_t SSM_PRIORITY_NONE = 255;  // not configured
constexpr std::uint32_t SSM_IFINDEX_E1 =
    9999;  // stands for the E1/BITS input where an interface index names a source
constexpr std::uint8_t SSM_SKIP_NEXT_DOWN = 0x01;  // ssm_port.event_skip

struct ssm_port;
struct slow_address;
struct ssm_record_block;  // ports.h

// How a manual switch came to its end.
struct ssm_manual_end {
    std::uint32_t count;  // since the start
    std::uint32_t ifindex;
    const char* why;  // a few words, for ever
};

struct ssm_master {
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE];  // from the bridge's MAC address
    std::uint32_t global_enable;
    std::uint32_t ssm_enable;
    std::uint8_t local_priority;
    std::uint8_t ql_option;
    std::uint32_t local_quality;
    bool local_quality_set;  // by configuration; else it is the hardware's claim, or DNU
    ssm_hardware hardware;
    std::uint32_t current_quality;  // what the switch advertises
    std::uint32_t device_type;
    std::uint32_t ssm_extend;
    std::uint8_t extend_form;  // of ports that have none of their own
    std::uint8_t clock_type;
    std::uint32_t holdover;  // mirrored to NSM
    std::uint32_t freerun;   // no port was ever switched to
    ssm_port* force_port;
    std::uint32_t force_e1;
    ssm_port* selected_port;
    std::uint32_t nsm_source_ifindex;
    std::uint32_t dpll_state;  // as NSM reports it
    std::uint32_t e1_quality;
    std::uint32_t forced_ql_count_op1;  // forced port qualities configured while that option was in force
    std::uint32_t forced_ql_count_op2;
    std::uint32_t recovery_select;
    std::uint32_t gephy_manual_count;  // ports whose role was set by command
    std::uint32_t gephy_dynamic;       // selection sets the role of the selected port
    interface* gephy_dynamic_intf;     // the interface that selection made slave
    ssm_record_block* record_blocks;   // the records of all ports
    std::uint64_t events;              // that ran, and in which of them a PDU last left the choice settled
    std::uint64_t settled_in;
    ssm_guard guard;
    ssm_standing standing;                // where the clock stands, as its history has it
    std::uint32_t hold_off_ms;            // 0: failures count at once
    std::uint32_t restore_s;              // 0: sources that have failed count again at once
    std::uint32_t non_revertive;          // a better priority alone does not take the source over
    ssm_port* manual_port;                // the operator's choice among ports of the best quality, or null
    ssm_manual_end manual_end;            // the last one
    std::uint32_t advertise_when_locked;  // a received quality is advertised only while the clock is locked
    std::uint32_t keep_state;  // a restart takes over where the daemon before it stood (room restart)
    bool resuming;             // it is about to: nothing is heard or said
    ssm_history history;
};

inline ssm_standing ssm_standing_of(const ssm_master& clock) {
    return {clock.selected_port, clock.current_quality, clock.device_type, clock.holdover, clock.freerun};
}

// The records of all ports lie together (ports.h), and what selection reads of each comes first, in one line
// of the cache.
struct ssm_port {
    interface* intf;        // owner; its `port` slot points back here
    std::uint32_t ifindex;  // of `intf`, which keeps it
    std::uint8_t recv_hop_count;
    std::uint8_t priority;
    std::uint16_t recv_quality;
    std::uint16_t force_rx_quality;
    std::uint32_t replace_clockid;
    std::uint8_t recv_clockid[SSM_CLOCK_ID_SIZE];
    std::uint32_t recv_pdu;  // a usable PDU came and its time-out has not expired
    std::uint32_t synce_enable;
    std::uint32_t link_up;
    std::uint8_t lockout;                          // the operator's: no candidate
    std::uint8_t failed;                           // and has not been without a fault for long enough since
    std::uint8_t limited;                          // there is a max_rx_quality
    std::uint16_t min_rx_quality, max_rx_quality;  // QL_NONE: no limit

    std::uint32_t esmc_mode;
    std::uint16_t send_quality;
    std::uint16_t force_tx_quality;
    std::uint16_t min_tx_quality, max_tx_quality;
    std::uint16_t hold_off_ms;  // 0: the switch's
    std::uint16_t restore_s;    // where `restore_set`, else the switch's
    std::uint8_t restore_set;
    std::uint8_t held_failures;  // that wait for the end of hold_off_timer, as ssm_failure
    std::uint8_t dnu_group;      // 0: none
    std::uint8_t extend_form;    // SSM_FORM_DEFAULT: the switch's
    std::uint8_t recv_form;      // of the TLV that came last; SSM_FORM_DEFAULT: none
    std::uint8_t recv_flags;     // of the standard's form, and its two counts
    std::uint8_t recv_eeec, recv_eec;
    std::uint8_t event_skip;
    std::uint8_t gephy_by_command;  // the role counts in gephy_manual_count
    bool guard_alarmed;             // it has been said that the guard refuses this port's offer
    std::uint8_t neighbour_untold;  // the log has another one than there is
    std::uint8_t logged_clockid[SSM_CLOCK_ID_SIZE];  // that this port replaces, as the log has it
    std::uint8_t neighbour[SSM_ADDRESS_SIZE];        // who sent the last frame that was taken: neighbour.h
    std::uint8_t neighbour_logged[SSM_ADDRESS_SIZE];
    std::uint32_t gephy_role_enable;
    std::uint32_t gephy_role;
    thread* timeout_timer;  // null: not running
    thread* send_timer;     // null: not running; set: a transmitting port
    thread* event_timer;    // null: no event PDU is held back
    thread* hold_off_timer;
    thread* restore_timer;         // runs while `failed` and without a fault
    nanoseconds event_credit;      // when the port will have earned the event PDUs that it has sent
    nanoseconds guard_refused_at;  // the loop guard refuses what is offered here, since then; 0: it does not
    log_limit neighbour_limit;
    nanoseconds guard_said_at;   // the log said so last; 0: never
    ssm_pin* pin;                // what is told of its clock pin; null: nothing was
    ssm_statistics* statistics;  // the port's as long as it lives, apart from what selection walks
};

// These three lead to everything that one switch keeps from one event to the next. Whoever runs many switches
// in one process changes them between events.
extern ssm_master* g_s_master;
extern lib_globals* g_p_esmcd;

struct ssm_instance_record {
    std::int32_t sock;  // -1: closed
    struct nsm_client* nsm_client;
    lib_globals* lib_ctx;
    thread* t_read;  // the pending read, or null
    // Where PDUs go in place of the socket when many switches run in one process; else null. As send_ssm.
    std::int32_t (*send_edge)(const slow_address& to, const std::uint8_t* data, std::size_t length);
};
extern ssm_instance_record* ssm_instance;

// Zeroed block from the memory manager's size classes, or null.
[[nodiscard]] void* ssm_calloc(std::size_t octets, memory_type type);

std::int32_t ssm_master_init();              // defaults into *g_s_master; 0
std::int32_t ssm_port_init(ssm_port* port);  // defaults, `intf` kept; 0
