// The rights that the daemon keeps while it serves.
#pragma once

struct rights_user;

// Gives up what start-up needed and the loop does not. Called when every socket is open and the pid file
// written. Says in the log what is in force; nothing that fails here ends the daemon.
void pal_rights_drop();

// Goes on as another user, with the rights that pal_rights_drop keeps. Called before the configuration is
// read, so that the files it names are opened with that user's rights. 0, or a negative errno with a log
// line: the daemon must end then.
[[nodiscard]] int pal_rights_become(const rights_user& user);
