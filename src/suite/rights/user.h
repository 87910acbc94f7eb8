// The user that a program becomes once it has opened what only root may open, and what root leaves him: files
// at fixed places where he may not make any.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

constexpr std::size_t RIGHTS_GROUPS_MAX = 64;

struct rights_user {
    const char* name;  // as it was given; null: none was, and nothing below counts
    uid_t uid;
    gid_t gid;
    gid_t groups[RIGHTS_GROUPS_MAX];  // the others of which he is a member
    std::size_t group_count;
};

// Looks up "NAME" or "NAME:GROUP", or numbers instead, in /etc/passwd and /etc/group. Null and *out filled
// (`name` is `text` itself), or the reason why not, with *out as it was.
[[nodiscard]] const char* rights_user_find(const char* text, rights_user* out);

// Makes the user the owner of a file or socket that lies in a directory where nobody but us may change names;
// `make`: of an empty file when there is none. 1 when he is now; 0 when the path leads anywhere else, where
// the user's own rights have to do, or to a device or a file of several names; a negative errno.
[[nodiscard]] int rights_give(const char* path, const rights_user& user, bool make);

// The same with a socket that was made for `path` as unix_place says: where root's link leads, in a directory
// of the user himself too. What can't be given is said in the log; a socket that is not there is none.
void rights_give_socket(const char* path, const rights_user& user);

// Becomes the user for good, with no capability but those in `keep`, and says so in the log. 0 or a negative
// errno: the caller has to end then, because it may be half done.
[[nodiscard]] int rights_become(const rights_user& user, std::uint64_t keep);
