// One switch of a network in virtual time: the real records, operations, selection, PDUs and timers, the real
// client of the NSM link and the real event loop. In place of the kernel stand a clock that the network
// moves, and in place of the clock hardware a model that locks after a while and holds over when its source
// is gone.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "core/guard.h"
#include "core/pdu.h"
#include "core/records.h"

struct switch_settings {
    bool master = false;  // a clock of its own, at `quality`
    std::uint8_t quality = QL_DNU;
    std::uint8_t priority = SSM_PRIORITY_NONE;
    bool extend = false, standard = false, guard = false;  // standard: the form of the TLV
    std::uint32_t hold_ms = SSM_GUARD_HOLD_MS, hops = SSM_GUARD_HOPS;
    std::uint32_t lock_ms = 300;
    std::uint32_t hold_off_ms = 0, restore_s = 0;
    bool non_revertive = false, when_locked = false;
};

struct port_settings {
    std::uint8_t priority = SSM_PRIORITY_NONE;
    bool replace_clockid = false;
};

class network_switch {
  public:
    // What the switch asks of the network. Ports are numbered from 1, as their interface indexes are.
    struct surroundings {
        std::function<nanoseconds()> now;
        std::function<void(network_switch*, std::uint32_t port, const std::uint8_t* pdu)> send;
        std::function<void(network_switch*, nanoseconds at)> wake;
    };

    network_switch(std::uint32_t id, const switch_settings& settings, const std::vector<port_settings>& ports,
                   surroundings* around);
    ~network_switch();
    network_switch(const network_switch&) = delete;
    network_switch& operator=(const network_switch&) = delete;

    // What happens to it, at the time that it is now.
    void start();
    void hear(std::uint32_t port, const std::uint8_t* pdu);  // esmc::SIZE octets
    void link(std::uint32_t port, bool up);                  // before it is started, too
    void set_own_quality(std::uint8_t quality);
    void woken();

    // What came of it.
    bool started() const { return ctx_ != nullptr; }
    std::uint32_t source() const;  // port; 0: none
    std::uint8_t quality() const { return static_cast<std::uint8_t>(master_->current_quality); }
    const ssm_guard& guard() const { return master_->guard; }

    const std::uint32_t id;
    const switch_settings settings;

  private:
    void enter();
    void run();
    void tell(std::uint16_t type, const std::vector<std::uint8_t>& body);  // as NSM
    void take_requests();
    void report(std::uint32_t state);
    void lock_to(std::uint32_t port);
    void hold_over();
    static int one_event(thread* event);
    static int wait_edge(void* self, int timeout_ms, struct thread_ready* out, int max);

    surroundings* around_;
    lib_globals* ctx_ = nullptr;
    ssm_master* master_ = nullptr;
    ssm_instance_record* instance_ = nullptr;
    std::deque<std::function<void()>> inbox_;
    std::vector<port_settings> ports_;
    std::vector<bool> up_;
    int nsm_fd_ = -1;
    bool idle_ = false;
    std::uint64_t requests_seen_ = 0;
    std::uint32_t clock_state_ = SSM_DPLL_FREERUN, clock_source_ = 0;
    nanoseconds locks_at_ = 0;  // 0: it is not about to lock
    nanoseconds timer_at_ = 0;
};
