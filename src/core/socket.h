// The ESMC socket of the daemon: opens it, sends one PDU on one port, takes one received frame a call.
#pragma once

#include "core/records.h"
#include "suite/ports/slow_socket.h"

extern const std::uint8_t ssm_grp_addr[6];  // 01-80-C2-00-00-02, the Slow Protocols multicast address

std::int32_t open_ssm();  // 0, or -1 (logged)
void close_ssm();
std::int32_t send_ssm(const slow_address& to, const std::uint8_t* data, std::size_t length);  // octets, or -1
// Read handler of the socket. The received length, or -1 when the frame was refused or the receive failed.
int recv_ssm(thread* event);
// Takes one received frame: `pdu` holds SSM_RECEIVE_SIZE octets, zero behind what was received. Returns as
// recv_ssm.
int ssm_take_frame(const slow_address& from, const std::uint8_t* pdu, std::size_t length);
// Queues the next read if none is pending.
void ssm_socket_arm_read();
