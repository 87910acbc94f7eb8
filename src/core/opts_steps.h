// The step that ends most operations.
#pragma once

#include "core/records.h"
#include "core/select.h"

// With SyncE on and SSM off, ports are chosen by priority alone, so that every change has to look again.
inline void ssm_without_ssm_step() {
    if (g_s_master->global_enable && !g_s_master->ssm_enable)
        (void)ssm_select_without_ssm(g_s_master->device_type);  // always 0
}
