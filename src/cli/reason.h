// Why a port is the clock source, or why it is not: what the shows say, asked of the selection's own pure
// functions, so that what is shown is what is decided.
#pragma once

#include "core/records.h"
#include "core/select.h"

// A sentence about one port or about the whole selection; empty when there is nothing to say.
struct ssm_reason {
    char text[64];
};

// Why there is no source, given the best candidate (null: none).
ssm_reason ssm_reason_no_source(const ssm_port* best);
// Why this port is no candidate; empty for one that is.
ssm_reason ssm_reason_no_candidate(const ssm_port* port);
// Why this port is not the source; empty for the source.
ssm_reason ssm_reason_not_source(const ssm_port* port, const ssm_port* best);
