// What a program keeps of its rights once everything is open that needed more. Called once, just before the
// event loop: what comes in from the network is read only after it. The way back is closed: the bounding set
// shrinks with the rest, and no program that is started later gains anything.
#pragma once

#include <cstdint>

// Gives up every capability whose bit (1 << CAP_...) is not in `keep`; none is acquired. The user stays who
// he is (suite/rights/user.h changes that): root without capabilities has the rights of the owner of root's
// files. 0, or a negative errno with the capabilities as they were.
[[nodiscard]] int rights_keep_capabilities(std::uint64_t keep);

// Part of the former. Needs CAP_SETPCAP: who starts without it keeps his bounding set, to no effect, because
// no_new_privs is set by the next function.
void rights_shrink_bounding_set(std::uint64_t keep);

// Whose table of system calls (suite/rights/calls.cpp) is meant.
enum class rights_program : std::uint8_t { esmcd = 1, nsmd = 2 };

// Sets no_new_privs and leaves only the system calls that the program makes in its loop; any other fails with
// EPERM (with ENOSYS where the C library has an older call to fall back to). For this process and the
// children it forks. 0; -ENOSYS when kernel, emulator or processor have no filter; -ECANCELED when this build
// or an instrument that watches the process needs more calls; another negative errno when the kernel does not
// take it.
[[nodiscard]] int rights_filter_calls(rights_program program);

// Both, with one line in the log that says what is in force: a warning when something could be had and was
// not. It is no reason to stop.
void rights_reduce(rights_program program, std::uint64_t keep);
