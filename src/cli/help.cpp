// Help texts of the daemon's commands, for `?` and TAB. An entry holds for its token wherever it follows the
// words before it; the entry with the most words counts.
#include <iterator>

#include "cli/commands.h"

namespace {

constexpr cli_help texts[] = {
    // Ways in.
    {"", "no", "Undo a setting"},
    {"", "interface", "Configure one port"},
    {"interface", "IFNAME", "Name of a port"},
    {"", "clock", "Clock synchronisation of the switch"},
    {"no", "clock", "Clock synchronisation of the switch"},
    {"clock", "synce", "Synchronous Ethernet"},
    {"", "show", "Show state and configuration"},
    {"", "debug", "Switch debug messages on"},

    // The switch.
    {"clock synce", "global-enable", "Synchronous Ethernet of the whole switch"},
    {"clock synce", "ssm", "Synchronisation status messages"},
    {"clock synce ssm", "enable", "Send, receive and act on status messages"},
    {"clock synce ssm enable", "gephy", "Let the selection set the master or slave role of copper ports"},
    {"clock synce ssm", "extend", "Carry clock identity and hop count in the messages"},
    {"clock synce", "local-quality", "Quality level of the switch's own clock, and the network option"},
    {"clock synce local-quality", "option1", "Levels of G.781 option 1 (SDH) networks"},
    {"clock synce local-quality option1", "prc", "Primary reference clock"},
    {"clock synce local-quality option1", "eec1", "Ethernet equipment clock, option 1"},
    {"clock synce local-quality option1", "dnu", "Do not use"},
    {"clock synce local-quality", "option2", "Levels of G.781 option 2 (SONET) networks"},
    {"clock synce local-quality option2", "prs", "Primary reference source"},
    {"clock synce local-quality option2", "eec2", "Ethernet equipment clock, option 2"},
    {"clock synce local-quality option2", "dus", "Do not use for synchronisation"},
    {"clock synce", "local-priority", "Priority of the switch's own clock"},
    {"clock synce local-priority", "<1-255>", "Smaller is better; 255: not configured"},
    {"clock synce", "master-only", "Never recover the clock from a port"},
    {"clock synce", "slave-only", "Always recover the clock from a port, whatever the own quality"},
    {"clock synce", "switch-force", "Recover the clock from this port whatever the selection says"},
    {"clock synce switch-force", "IFNAME", "Port to recover the clock from"},
    {"clock", "recovery-select", "Input from which the clock is recovered"},
    {"clock recovery-select", "bits", "An external input"},
    {"clock recovery-select bits", "bits1", "First external input"},
    {"clock recovery-select bits", "bits2", "Second external input"},

    // One port.
    {"clock synce", "enable", "Synchronous Ethernet on this port"},
    {"clock synce ssm enable", "rx", "Receive only"},
    {"clock synce ssm enable", "tx", "Send only"},
    {"clock synce ssm enable", "all", "Both directions"},
    {"clock synce", "priority", "Priority of this port as clock source"},
    {"clock synce priority", "<1-255>", "Smaller is better; 255: not configured"},
    {"clock synce", "dnu-group", "Ports that all send do-not-use while one of them is the source"},
    {"clock synce dnu-group", "<1-255>", "Number of the group"},
    {"clock synce", "extend", "Extended messages"},
    {"clock synce extend", "replace-clockid", "Replace the clock identity that this port receives"},
    {"clock synce", "quality-eth", "Take a fixed quality level for this port"},
    {"clock synce quality-eth", "rx", "In place of what is received"},
    {"clock synce quality-eth", "tx", "In place of what would be sent"},
    {"", "prc", "Primary reference clock (option 1)"},
    {"", "ssu-a", "Synchronisation supply unit A (option 1)"},
    {"", "ssu-b", "Synchronisation supply unit B (option 1)"},
    {"", "eec1", "Ethernet equipment clock (option 1)"},
    {"", "dnu", "Do not use (option 1)"},
    {"", "prs", "Primary reference source (option 2)"},
    {"", "stu", "Synchronised, traceability unknown (option 2)"},
    {"", "st2", "Stratum 2 clock (option 2)"},
    {"", "tnc", "Transit node clock (option 2)"},
    {"", "smc", "SONET minimum clock (option 2)"},
    {"", "st3e", "Stratum 3E clock (option 2)"},
    {"", "prov", "Level provisioned by the operator (option 2)"},
    {"", "eec2", "Ethernet equipment clock (option 2)"},
    {"", "dus", "Do not use for synchronisation (option 2)"},
    {"clock synce", "gephy", "Role of this copper port on its link"},
    {"clock synce gephy", "master", "The port gives the link's clock"},
    {"clock synce gephy", "slave", "The port recovers the link's clock"},

    // Show and debug.
    {"show", "clock", "Clock synchronisation"},
    {"show clock", "synce", "Synchronous Ethernet: the switch, or one port"},
    {"show clock synce", "IFPHYSICAL", "Port to show"},
    {"show clock synce", "brief", "One line a port, and why it is not the source"},
    {"show clock synce", "selection", "Candidates in their order, and why the others are none"},
    {"show clock synce", "json", "The clock and its ports as one JSON object, for scripts"},
    {"show clock", "recovery-select", "Input from which the clock is recovered"},
    {"show clock", "bits", "State of the selected clock"},
    {"show", "debugging", "What is being logged"},
    {"show debugging", "ssm", "Status message daemon"},
    {"no", "debug", "Switch debug messages off"},
    {"debug", "ssm", "Status message daemon"},
    {"debug ssm", "event", "Events, requests, selection"},
    {"debug ssm", "cli", "Commands that are entered"},
    {"debug ssm", "timer", "Timers that expire"},
    {"debug ssm", "packet", "Frames sent and received"},
    {"debug ssm", "all", "All of them"},
};

}  // namespace

int ssm_cli_help_init(cli_tree* tree) {
    return cli_install_help(tree, texts, std::size(texts));
}
