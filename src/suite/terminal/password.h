// Password hashes by crypt(3). Hashing is made to be slow and to take memory, so it is done in a child
// process, one at a time; the loop, and with it every other terminal and every port, goes on meanwhile. Who
// comes while a child works waits. Turns go round: to a command, to the login that came last, to the one that
// came first. So neither those who came in a crowd before him nor those who come after him and lose patience
// keep an operator waiting. Where the library is not part of the build, no password can be set and none is
// ever right.
#pragma once

#include <cstddef>
#include <string_view>

#include "suite/base/context.h"

constexpr std::size_t PASSWORD_HASH_SIZE = 384;
constexpr std::size_t PASSWORD_MAX = 128;  // octets of a password

// `hash` is null when it failed.
using password_done = void (*)(lib_globals* ctx, void* owner, const char* hash);

// Hashes `clear` for a command, with the strongest usual method and a salt from the kernel; or, when
// `setting` is not null, for a login: with that hash, which is read when its turn comes. False when it can't
// be done. An owner has one at a time, and calls password_cancel when he goes.
[[nodiscard]] bool password_start(lib_globals* ctx, std::string_view clear, const char* setting,
                                  password_done done, void* owner);
// The owner goes: his place in the queue is free, or his child ends. Nothing is done for who has none.
void password_cancel(const void* owner);
void password_stop();  // at the end, when all owners have gone

// The same at once, for lines of a configuration file. False when it failed.
bool password_hash_now(std::string_view clear, char (&hash)[PASSWORD_HASH_SIZE]);
// Whether a text can be a hash: its form only.
bool password_is_hash(std::string_view text);
bool password_supported();
