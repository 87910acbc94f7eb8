// The platform's show commands.
#pragma once

#include "suite/command/cli.h"

// Installs show running-config, show startup-config, show version, show interfaces, show log, show events.
int host_show_install(cli_tree* tree);
