// The rights that the daemon keeps while it serves.
#pragma once

// Gives up what start-up needed and the loop does not. Called when every socket is open and the pid file
// written. Says in the log what is in force; nothing that fails here ends the daemon.
void pal_rights_drop();
