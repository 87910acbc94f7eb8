// The operator's file: which switches there are, and how each is asked.
//
// clang-format off
//     every 1      seconds between two questions to a switch (0.2 to 3600)
//     timeout 3    seconds after which an unanswered question makes a switch silent (0.5 to 60)
//     switch A command ssh a esmcsh -c "show clock synce json"
//     switch B snmp 192.0.2.2 v2c public
//     switch C snmp 192.0.2.3:1161 v3 operator authPriv SHA "pass phrase" AES "pass phrase"
// clang-format on
//
// Words are parted by blanks; quotes, single or double, keep them together; a # at the beginning of a word
// opens a comment. No shell reads the commands.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace esmcmap {

struct snmp_target {
    std::string address;  // as the operator wrote it, port included
    bool version_3 = false;
    std::string community;        // version 2c
    std::string user, level;      // "noAuthNoPriv", "authNoPriv", "authPriv"
    std::string auth, auth_pass;  // "MD5", "SHA", "SHA-256", ...
    std::string priv, priv_pass;  // "DES", "AES"
};

struct switch_entry {
    std::string name;
    std::vector<std::string> command;  // empty: asked by SNMP
    snmp_target snmp;
};

struct switch_file {
    int every_ms = 1000, timeout_ms = 3000;
    std::vector<switch_entry> switches;
};

// Adds a line "NAME:LINE: what is wrong" to `faults` for everything that can't be taken as it stands.
switch_file read_switch_file(std::string_view text, const std::string& name,
                             std::vector<std::string>& faults);

}  // namespace esmcmap
