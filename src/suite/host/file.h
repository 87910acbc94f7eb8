// How the configuration gets into its file, so that a full disk or a loss of power at any point leaves the
// old content or the new one, whole: by a new file that takes the old one's name, or, where the daemon may
// make none, by way of a spare file beside it ("FILE.new" both).
#pragma once

#include <string_view>

struct rights_user;

// 0 or a negative errno; then the file holds what it held, unless only the last sync failed. `mixed`: it is
// written in part, and the next start will take the text from the spare.
struct host_file_result {
    int error;
    bool mixed;
};
[[nodiscard]] host_file_result host_file_replace(const char* path, std::string_view text);

// Before the file is read: what a save that was cut off has left in the spare, if that is whole, is put in
// place, with a line in the log. A negative errno when it can't be: the file must not be overwritten then.
[[nodiscard]] int host_file_settle(const char* path);

// While the program is root yet: file and spare become the user's where he may not make any.
void host_file_give(const char* path, const rights_user& user);

// Once the program is the user: says in the log how `write` will save, or that it can't.
void host_file_check(const char* path, const rights_user& user);
