// The rights that the daemon keeps while it serves.
#pragma once

struct rights_user;

// Gives up what start-up needed and the loop does not. Called when every socket is open and the pid file
// written. Says in the log what is in force; nothing that fails here ends the daemon.
void pal_rights_drop();

// Becomes another user and keeps what pal_rights_drop keeps. Before the configuration is read: what it tells
// the daemon to open is opened with his rights. 0 or a negative errno, said in the log; the daemon must not
// go on then.
[[nodiscard]] int pal_rights_become(const rights_user& user);
