// A restart that the network does not notice: with `state keep` configured a daemon that ends leaves where it
// stands to the next one, which goes on from there if it begins within some seconds and finds everything else
// as it was. One that crashes has left a copy that is at most a second old, or as old as the last change of
// what it advertised. Anything else is a cold start, said in one line.
//
// In between nobody says goodbye to NSM, whose grace time ends in holdover when no daemon comes back.
#pragma once

#include "suite/base/clock.h"

struct rights_user;

constexpr nanoseconds RESTART_WITHIN = 5 * NS_PER_S;

// Start-up, in this order. While the program is root, if it will be another user:
void restart_give(const rights_user& user);
// Once it is who it will be, before the configuration is read: takes what was left.
void restart_read();
// After the configuration was read: what was left is taken over as soon as NSM has said what there is.
void restart_begin();
// NSM has said what there is, and what is asked of it now goes out with the rest.
void restart_synchronised();

// After each event of the loop.
void restart_after_event();

// At a planned end: what every port advertises is said once more, and the state is left. False when none is:
// it is not configured, or there was nothing to leave it in.
[[nodiscard]] bool restart_leave();
