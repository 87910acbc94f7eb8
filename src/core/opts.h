// Configuration operations. Each validates, writes its field, and then drives the consequences in a fixed
// order: port timers, re-evaluation, requests to NSM, and the priority step of a switch without SSM. 0 on
// success, also when the value is already set (then nothing else happens). The results of the follow-up steps
// are not looked at.
#pragma once

#include "core/records.h"

// The switch. Values are those of records.h; they are not range-checked here.
std::int32_t ssm_opts_set_global_enable(std::uint32_t on);
std::int32_t ssm_opts_set_recovery_select(std::uint32_t select);
std::int32_t ssm_opts_set_ssm_enable(std::uint32_t on);
std::int32_t ssm_opts_set_ssm_extend(std::uint32_t on);
// What the clock itself claims to be worth (QL_DNU: nothing): the own quality where none is configured.
void ssm_opts_hardware_quality(std::uint16_t quality);
std::int32_t ssm_opts_set_local_quality(std::uint32_t quality,
                                        std::uint8_t option);      // or SSM_CLI_E_OPTION_COLLISION
std::int32_t ssm_opts_set_local_priority(std::uint32_t priority);  // modulo 256; 255: not configured
std::int32_t ssm_opts_set_device_type(std::uint32_t type);
std::int32_t ssm_opts_set_loop_guard(std::uint32_t on);
std::int32_t ssm_opts_set_guard_hold(std::uint32_t milliseconds);  // or SSM_CLI_E_INVALID_INPUT
std::int32_t ssm_opts_set_guard_hops(std::uint32_t hops);          // or SSM_CLI_E_INVALID_INPUT
std::int32_t ssm_opts_set_advertise_when_locked(std::uint32_t on);
std::int32_t ssm_opts_set_keep_state(std::uint32_t on);
std::int32_t ssm_opts_set_e1_quality(const char* token);  // or SSM_CLI_E_QL_OPTION1, SSM_CLI_E_QL_OPTION2

// One port. SSM_CLI_E_INVALID_IF for an interface that is not usable or has no port record.
std::int32_t ssm_opts_set_port_synce(interface* intf, std::uint32_t on);
std::int32_t ssm_opts_set_port_esmc(interface* intf,
                                    std::uint32_t mode);  // adds directions; or SSM_CLI_E_INVALID_INPUT
std::int32_t ssm_opts_unset_port_esmc(interface* intf, std::uint32_t mode);  // removes directions
std::int32_t ssm_opts_set_port_priority(interface* intf, std::uint32_t priority);
std::int32_t ssm_opts_set_port_dnu_group(interface* intf, std::uint32_t group);
std::int32_t ssm_opts_set_port_replace_clockid(interface* intf, std::uint32_t on);
// direction 1: receive, else transmit. "na" removes.
std::int32_t ssm_opts_set_port_quality(interface* intf, std::uint32_t direction, const char* token);
std::int32_t ssm_opts_set_gephy_role(interface* intf, std::uint32_t enable, std::uint32_t role);

// Supervision of sources; see supervision.h. Milliseconds 0: none, of a port: the switch's.
std::int32_t ssm_opts_set_hold_off(std::uint32_t milliseconds);
std::int32_t ssm_opts_set_port_hold_off(interface* intf, std::uint32_t milliseconds);
std::int32_t ssm_opts_set_restore(std::uint32_t seconds);  // wait-to-restore; 0: none
std::int32_t ssm_opts_set_port_restore(interface* intf, std::uint32_t seconds);
std::int32_t ssm_opts_unset_port_restore(interface* intf);  // the switch's again
std::int32_t ssm_opts_end_restore(ssm_port* port);          // null: of all ports
std::int32_t ssm_opts_set_port_lockout(interface* intf, std::uint32_t on);
std::int32_t ssm_opts_set_non_revertive(std::uint32_t on);
// SSM_CLI_E_INVALID_INPUT with the reason in *why, else null there.
std::int32_t ssm_opts_manual_switch(interface* intf, const char** why);
// Ends manual and forced switch.
std::int32_t ssm_opts_clear_switch();
enum class ssm_limit : std::uint8_t { minimum, maximum };
std::int32_t ssm_opts_set_port_limit(interface* intf, std::uint32_t direction, ssm_limit limit,
                                     const char* token);  // as ssm_opts_set_port_quality
std::int32_t ssm_opts_set_extend_form(std::uint32_t form);
std::int32_t ssm_opts_set_port_extend_form(interface* intf, std::uint32_t form);
std::int32_t ssm_opts_set_clock_type(std::uint32_t type);

// Link state of a port (given the record, not the interface).
std::int32_t ssm_opts_link_up_switch(ssm_port* port);
std::int32_t ssm_opts_link_down_switch(ssm_port* port);
std::int32_t ssm_opts_intf_fini_port(ssm_port* port);
// Before a record is freed: takes the port down and drops every reference to it and its share of the counts.
void ssm_opts_release_port(ssm_port* port);

// Force switch and holdover.
bool ssm_force_port_in_effect();  // there is one, and switch and port could use it
std::int32_t ssm_opts_set_force_port(ssm_port* port);
std::int32_t ssm_opts_unforce_port();
std::int32_t ssm_opts_force_e1(std::uint32_t on);
std::int32_t ssm_opts_clear_force();  // or SSM_CLI_E_FORCE_CONFLICT
std::int32_t ssm_opts_force_switch_if();
std::int32_t ssm_opts_switch_port(std::uint32_t ifindex);  // SSM_E_GENERAL when already selected
std::int32_t ssm_opts_set_holdover(std::uint32_t on);  // SSM_E_GENERAL when unchanged or while free-running
void ssm_opts_no_source();
void ssm_opts_check_all_lost();
void ssm_opts_master_only_apply();
void ssm_opts_reselect();

// The steps that end most operations. With SyncE on and SSM off, ports are chosen by priority alone, so that
// every change has to look again; what moves a link, an enable or the force switch may also change what a
// master-only switch or a forced source means.
void ssm_opts_without_ssm_step();
void ssm_opts_after_change();
