// Which commands this daemon has: all of cli/, where the board can do SyncE.
#pragma once

struct cli_tree;

// Without SyncE on the board only "interface IFNAME", the platform's defaults and the writers are installed;
// then the board probe's code is returned, or 0. Otherwise the result of the last installation.
int ssm_cli_init(cli_tree* tree);
// The same, and whatever else the commands of the board need: the lines that restore a configuration, the
// shows of every day, help texts. Returns what ssm_cli_init does.
int ssm_install_commands(cli_tree* tree);
