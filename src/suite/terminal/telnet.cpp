// See telnet.h. A command can be cut at any octet by the network, so every octet is a step of its own.
#include "suite/terminal/telnet.h"

namespace {

enum telnet_state : std::uint8_t { DATA, COMMAND, OPTION, SUB, SUB_IAC };
enum : std::uint8_t {
    END_OF_FILE = 236,
    BREAK = 243,
    INTERRUPT = 244,
    ARE_YOU_THERE = 246,
    ERASE_CHARACTER = 247,
    ERASE_LINE = 248,
    WILL = 251,
    WONT = 252,
    DO = 253,
    DONT = 254,
};
enum : std::uint8_t { ECHO = 1, SUPPRESS_GO_AHEAD = 3, TIMING_MARK = 6 };
enum : std::uint8_t { KEY_CTRL_C = 3, KEY_CTRL_D = 4, KEY_CTRL_U = 21, KEY_DELETE = 127 };

void answer(telnet_decoder* t, std::uint8_t verb, std::uint8_t option) {
    t->reply[0] = TELNET_IAC;
    t->reply[1] = verb;
    t->reply[2] = option;
    t->reply_length = 3;
}

bool first_time(std::uint8_t* bits, std::uint8_t option) {
    auto bit = static_cast<std::uint8_t>(1u << (option & 7));
    if (bits[option >> 3] & bit) return false;
    bits[option >> 3] = static_cast<std::uint8_t>(bits[option >> 3] | bit);
    return true;
}

void take_option(telnet_decoder* t, std::uint8_t option) {
    if (option == ECHO && (t->verb == DO || t->verb == DONT)) t->echoes = t->verb == DO;
    if (t->verb == DO) {
        if (option == ECHO || option == SUPPRESS_GO_AHEAD) return;  // the answer to our own offer
        // Clients swallow all output until a timing mark is answered, so each one is.
        if (option == TIMING_MARK || first_time(t->refused_do, option)) answer(t, WONT, option);
    } else if (t->verb == WILL) {
        if (option == TELNET_OPTION_NAWS) return;
        if (first_time(t->refused_will, option)) answer(t, option == SUPPRESS_GO_AHEAD ? DO : DONT, option);
    }
}

telnet_event take_command(telnet_decoder* t, std::uint8_t in, std::uint8_t* octet) {
    t->state = DATA;
    switch (in) {
        case TELNET_IAC:
            *octet = in;
            return telnet_event::data;
        case TELNET_SB:
            t->state = SUB;
            t->sub_length = 0;
            return telnet_event::none;
        case WILL:
        case WONT:
        case DO:
        case DONT:
            t->verb = in;
            t->state = OPTION;
            return telnet_event::none;
        case BREAK:
        case INTERRUPT:
            *octet = KEY_CTRL_C;
            return telnet_event::data;
        case END_OF_FILE:
            *octet = KEY_CTRL_D;
            return telnet_event::data;
        case ERASE_CHARACTER:
            *octet = KEY_DELETE;
            return telnet_event::data;
        case ERASE_LINE:
            *octet = KEY_CTRL_U;
            return telnet_event::data;
        case ARE_YOU_THERE:
            return telnet_event::alive;
        default:
            return telnet_event::none;
    }
}

void keep_sub(telnet_decoder* t, std::uint8_t in) {
    if (t->sub_length < sizeof t->sub) t->sub[t->sub_length] = in;
    if (t->sub_length <= sizeof t->sub) t->sub_length++;  // one more than fits: too long
}

telnet_event end_sub(telnet_decoder* t) {
    t->state = DATA;
    if (t->sub_length != 5 || t->sub[0] != TELNET_OPTION_NAWS) return telnet_event::none;
    t->columns = static_cast<std::uint16_t>(t->sub[1] << 8 | t->sub[2]);
    t->rows = static_cast<std::uint16_t>(t->sub[3] << 8 | t->sub[4]);
    return telnet_event::resized;
}

}  // namespace

telnet_event telnet_take(telnet_decoder* t, std::uint8_t in, std::uint8_t* octet) {
    t->reply_length = 0;
    switch (t->state) {
        case COMMAND:
            return take_command(t, in, octet);
        case OPTION:
            t->state = DATA;
            take_option(t, in);
            return telnet_event::none;
        case SUB:
            if (in == TELNET_IAC)
                t->state = SUB_IAC;
            else
                keep_sub(t, in);
            return telnet_event::none;
        case SUB_IAC:
            if (in == TELNET_IAC) {
                keep_sub(t, in);
                t->state = SUB;
                return telnet_event::none;
            }
            return end_sub(t);
        default:
            if (in == TELNET_IAC) {
                t->state = COMMAND;
                return telnet_event::none;
            }
            *octet = in;
            return telnet_event::data;
    }
}
