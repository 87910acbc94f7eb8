// Work that would hold the event loop up (a slow hash, a disk that does not answer), done in a child process.
// The child begins as a copy of this process, with all that it knows, but of its descriptors it has only the
// writing end of a pipe and those that are named: it holds no client's connection open and no socket of ours.
// Its signals are as at the start of a program, but for SIGPIPE, which stays ignored.
//
// What the work writes to the pipe and how the child ended comes back as an event of the loop. A child ends
// with this process. One that is cancelled is sent no signal, as the filter of system calls has none: with a
// limit of time it looks itself whether its pipe is still read, and ends within 20 ms, later on within an
// eighth of its age, a second at most. Without one it ends when its work comes to an end. The loop does not
// wait for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

struct lib_globals;
struct job;

// In the child: the work, which writes its result to `out` and returns the exit status (0 to 255). It must
// neither touch the event loop nor rely on anything that it changes being seen here.
using job_work = int (*)(const void* arg, int out);
// In the loop: `status` is what the work returned, or -1 when a signal ended it or it wrote more than
// `result_max`. `result` is overwritten in memory as soon as the call returns. The job is gone already.
using job_done = void (*)(lib_globals* ctx, void* owner, int status, std::string_view result);

struct job_order {
    job_work work;
    const void* arg;  // for the work; used before job_start returns and by the child's copy
    const int* keep;  // descriptors that the child has beside `out`, under the same numbers
    std::size_t keep_count;
    std::size_t result_max;  // octets
    std::uint32_t
        limit_s;  // after so many seconds the child ends itself; 0: never, and no signal interrupts it
    job_done done;
    void* owner;  // for `done`
};

// Null, with errno, when the child could not be started; `done` is not called then.
[[nodiscard]] job* job_start(lib_globals* ctx, const job_order& order);
long job_process(const job* j);  // the child's number, 0 for null
// The owner goes, or wants the result no more: `done` is not called. Null is ignored.
void job_cancel(job* j);
// At the end, when the loop runs no more: lets the child come to its end by itself, for so long at most. True
// when it did; `done` has been called then.
bool job_wait(job* j, std::uint32_t limit_ms);
// At the end of the library: cancels all. Gives killed children a moment to be reaped; what the system holds
// longer than that is left to it.
void jobs_stop(lib_globals* ctx);
