// Telnet commands within a terminal's octets, as a pure state machine: an octet in, at most one octet or
// event out. The server's side asks for character mode (IAC WILL ECHO, WILL SGA, DO NAWS) and refuses
// everything else, once each; a reply to its own request is not answered, so two peers can't go on for ever.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr std::uint8_t TELNET_IAC = 255, TELNET_SB = 250, TELNET_SE = 240, TELNET_NOP = 241,
                       TELNET_OPTION_NAWS = 31;
// Sent when a client has connected.
constexpr std::uint8_t TELNET_OPENING[9] = {255, 251, 1, 255, 251, 3, 255, 253, TELNET_OPTION_NAWS};

enum class telnet_event : std::uint8_t {
    none,
    data,     // *octet is one of the user's
    resized,  // columns and rows are new
    alive,    // the client asks whether somebody is there
};

struct telnet_decoder {
    std::uint8_t state;
    bool echoes;          // the client shows what we send back, and not itself what is typed
    std::uint8_t verb;    // WILL, WONT, DO, DONT at hand
    std::uint8_t sub[8];  // body of the subnegotiation, option first; what is longer is dropped
    std::size_t sub_length;
    std::uint8_t refused_do[32];  // bit an option: already answered
    std::uint8_t refused_will[32];
    std::uint16_t columns, rows;  // 0: not told
    std::uint8_t reply[3];        // to be sent when reply_length is not 0
    std::size_t reply_length;
};

// Takes one octet from the client. After each call the reply, if any, is the caller's to send; a decoder of a
// local terminal is used the same way, its replies dropped.
telnet_event telnet_take(telnet_decoder* t, std::uint8_t in, std::uint8_t* octet);
