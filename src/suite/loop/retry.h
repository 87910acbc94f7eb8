// Something that could not be had and is tried again, ever more slowly: each wait is twice the one before,
// up to a limit. The owner says its failure when `delay_ms` is 0 and its success when it is
// not, and stays silent in between.
#pragma once

#include <cstdint>

#include "suite/loop/thread.h"

// Its owner's, zero at first.
struct retry {
    thread* event;
    std::uint32_t delay_ms;  // of the last try; 0: none has failed
};

struct retry_waits {
    std::uint32_t first_ms = 250, last_ms = 8000;
};

// It failed: `again` is called with `arg` later on. Its first step is retry_begin. Without effect while that
// is to come.
void retry_later(retry* r, lib_globals* ctx, thread_func again, void* arg, retry_waits waits = {});
void retry_begin(retry* r);
// It works now, or is not wanted any more.
void retry_stop(retry* r);
