// The clock and its ports as metrics: what "show clock synce metrics" prints.
#pragma once

#include <span>

#include "suite/command/cli.h"

int ssm_cli_metrics_init(cli_tree* tree);  // 0, or negative when the command could not be installed
extern const std::span<const cli_help> ssm_metrics_help;
