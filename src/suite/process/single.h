// One process of a program a host: a second one ends before it has touched anything of the first's.
//
// The claim has two halves, because a daemon forks: what its parent holds has to go over to it without a gap,
// and what it holds must not live on in its own children. So a starting program holds the lock file itself
// (flock, which is handed down by fork), and the process that stays a record lock on it (which is not).
#pragma once

// Claims the file, which is made when there is none (mode 0600: nobody else can lock it) and stays for ever.
// False, with one line in the log, when another process has claimed it, or when that can't be known. Where
// there is no file and none can be made, nobody has claimed it: a warning, and true.
[[nodiscard]] bool single_claim(const char* path);
// Called in the process that stays, after the last fork on its way: from here on the claim ends with this
// process, whatever its children do. Nothing happens without a claim.
void single_hold();
