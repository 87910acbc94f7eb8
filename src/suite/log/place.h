// Opening the file that an operator's command names, so that the command can do no more than write a log: the
// file lies below /var/log, is a regular one with one name, or new, and no part of its path is a symbolic
// link.
#pragma once

// A descriptor, non-blocking, for appending; or -1 with the reason in words.
[[nodiscard]] int log_place_open(const char* path, const char** why);
// What the path's text alone tells; null when nothing is wrong with it.
[[nodiscard]] const char* log_place_refusal(const char* path);

void log_place_set_root(const char* folder);  // tests: another one than /var/log; must outlive its use
