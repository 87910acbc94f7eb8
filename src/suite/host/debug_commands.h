// The platform's debug commands.
#pragma once

#include "suite/command/cli.h"

// Installs "show debugging", "debug all", "no debug all".
int cli_debug_install(cli_tree* tree);
