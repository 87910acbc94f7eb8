// Password hashes by crypt(3). Hashing is made to be slow, so it is done in a child process: the loop, and
// with it every other terminal and every port, goes on meanwhile. Where the library is not part of the build,
// no password can be set and none is ever right.
#pragma once

#include <cstddef>
#include <string_view>

#include "suite/base/context.h"

constexpr std::size_t PASSWORD_HASH_SIZE = 384;
constexpr std::size_t PASSWORD_MAX = 128;  // octets of a password

struct password_job;

// `hash` is null when it failed. `owner` is what password_start was given, null once disowned.
using password_done = void (*)(lib_globals* ctx, void* owner, const char* hash);

// Hashes `clear` with `setting` (a hash to compare with), or, when that is null, with the strongest usual
// method and a salt from the kernel. Null when it could not be started.
password_job* password_start(lib_globals* ctx, std::string_view clear, const char* setting,
                             password_done done, void* owner);
// The owner goes: its jobs run to their end for nobody.
void password_disown(lib_globals* ctx, const void* owner);
// Ends all children without asking for their answers.
void password_stop(lib_globals* ctx);

// The same at once, for lines of a configuration file. False when it failed.
bool password_hash_now(std::string_view clear, char (&hash)[PASSWORD_HASH_SIZE]);
// Whether a text can be a hash: its form only.
bool password_is_hash(std::string_view text);
bool password_supported();
