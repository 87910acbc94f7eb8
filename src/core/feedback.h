// What the hardware reports about the clock: the state of the DPLL and its reference.
#pragma once

#include "core/records.h"
#include "suite/manager/client.h"

// Records the report, releases or fixes the dynamic gephy roles, and adjusts the advertised quality in
// holdover and free-run.
void ssm_clock_state_recv(const nsm_clock_state_message* message);
// Clears the gephy role of every port but the one that selection made slave.
void ssm_gephy_release_others();
