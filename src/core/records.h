// The daemon's two records: the clock record, of which there is one, and the port record, of which each
// interface that can carry SSM has one. Everything that the daemon knows about synchronisation is in them.
// They are touched from the event loop only.
#pragma once

#include <cstddef>
#include <cstdint>

#include "core/guard.h"
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

struct ssm_master {
    std::uint8_t clock_id[SSM_CLOCK_ID_SIZE];  // from the bridge's MAC address
    std::uint32_t global_enable;
    std::uint32_t ssm_enable;
    std::uint8_t local_priority;
    std::uint8_t ql_option;
    std::uint32_t local_quality;
    std::uint32_t current_quality;  // what the switch advertises
    std::uint32_t device_type;
    std::uint32_t ssm_extend;
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
};

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

    std::uint32_t esmc_mode;
    std::uint16_t send_quality;
    std::uint16_t force_tx_quality;
    std::uint8_t dnu_group;  // 0: none
    std::uint8_t event_skip;
    std::uint8_t gephy_by_command;                   // the role counts in gephy_manual_count
    std::uint8_t neighbour_untold;                   // the log has another one than there is
    std::uint8_t logged_clockid[SSM_CLOCK_ID_SIZE];  // that this port replaces, as the log has it
    std::uint8_t neighbour[SSM_ADDRESS_SIZE];        // who sent the last frame that was taken: neighbour.h
    std::uint8_t neighbour_logged[SSM_ADDRESS_SIZE];
    std::uint32_t gephy_role_enable;
    std::uint32_t gephy_role;
    thread* timeout_timer;         // null: not running
    thread* send_timer;            // null: not running; set: a transmitting port
    thread* event_timer;           // null: no event PDU is held back
    nanoseconds event_credit;      // when the port will have earned the event PDUs that it has sent
    nanoseconds guard_refused_at;  // the loop guard refuses what is offered here, since then; 0: it does not
    log_limit neighbour_limit;
    nanoseconds guard_said_at;  // the log said so last; 0: never
    bool guard_alarmed;         // it has been said that this lasts
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
