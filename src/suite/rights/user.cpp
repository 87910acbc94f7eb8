// Another user than root: looking him up, giving files to him, becoming him. Called by the programs'
// start-up. The two files are read here and not through the C library's name services, whose plug-ins a
// statically linked program does not have.
//
// Giving is where root could be tricked: by a link that somebody else put in the place of the file. So it is
// done only in directories that are closed to everybody else, through descriptors. In a directory of the user
// himself only a socket is given, and only where root's own link leads there.
#include "suite/rights/user.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "suite/base/unix_socket.h"
#include "suite/log/log.h"
#include "suite/rights/rights.h"

namespace {

constexpr std::size_t NAME_SIZE = 256;

// Digits only. The greatest number is not one: to the kernel it means "as it was".
bool parse_id(const char* text, std::uint32_t* out) {
    if (text[0] < '0' || text[0] > '9') return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno || *end || value >= 0xffffffffULL) return false;
    *out = static_cast<std::uint32_t>(value);
    return true;
}

// The C library's record, which the next search overwrites; null when no entry matches.
template <typename predicate>
const passwd* search_users(predicate matches) {
    FILE* file = std::fopen("/etc/passwd", "re");
    if (!file) return nullptr;
    const passwd* found = fgetpwent(file);
    while (found && !matches(*found)) found = fgetpwent(file);
    std::fclose(file);
    return found;
}

template <typename predicate>
const group* search_groups(predicate matches) {
    FILE* file = std::fopen("/etc/group", "re");
    if (!file) return nullptr;
    const group* found = fgetgrent(file);
    while (found && !matches(*found)) found = fgetgrent(file);
    std::fclose(file);
    return found;
}

bool has_member(const group& entry, const char* name) {
    for (char** member = entry.gr_mem; *member; ++member)
        if (std::strcmp(*member, name) == 0) return true;
    return false;
}

bool find_group(const char* text, gid_t* out) {
    const group* entry = search_groups([&](const group& g) { return std::strcmp(g.gr_name, text) == 0; });
    if (!entry) return parse_id(text, out);
    *out = entry->gr_gid;
    return true;
}

const char* find_memberships(const char* name, rights_user* user) {
    bool too_many = false;
    (void)search_groups([&](const group& g) {  // sees them all
        if (g.gr_gid == user->gid || !has_member(g, name)) return false;
        too_many = user->group_count == RIGHTS_GROUPS_MAX;
        if (!too_many) user->groups[user->group_count++] = g.gr_gid;
        return too_many;
    });
    return too_many ? "is in too many groups" : nullptr;
}

const char* find_user(const char* text, bool has_group, rights_user* user) {
    const passwd* entry = search_users([&](const passwd& p) { return std::strcmp(p.pw_name, text) == 0; });
    std::uint32_t number = 0;
    if (!entry) {
        if (!parse_id(text, &number)) return "there is no such user";
        entry = search_users([&](const passwd& p) { return p.pw_uid == number; });
    }
    if (!entry) {
        user->uid = number;
        return has_group ? nullptr : "a number without a name needs a group: NUMBER:GROUP";
    }
    user->uid = entry->pw_uid;
    if (!has_group) user->gid = entry->pw_gid;
    return find_memberships(entry->pw_name, user);
}

struct place {
    char directory[PATH_MAX];
    const char* name;
};

bool split(const char* path, place* out) {
    const char* slash = std::strrchr(path, '/');
    if (!slash || !slash[1] || std::strlen(path) >= sizeof out->directory) return false;
    const std::size_t length = slash == path ? 1 : static_cast<std::size_t>(slash - path);
    std::memcpy(out->directory, path, length);
    out->directory[length] = 0;
    out->name = slash + 1;
    return true;
}

bool is_closed_to_others(int directory, uid_t owner) {
    struct stat status {};
    return fstat(directory, &status) == 0 && status.st_uid == owner && !(status.st_mode & 022);
}

int open_entry(int directory, const char* name, bool make) {
    const int fd = openat(directory, name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (fd >= 0 || errno != ENOENT || !make) return fd;
    return openat(directory, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
}

int give_entry(int fd, const rights_user& user, bool may_be_a_file) {
    struct stat status {};
    if (fstat(fd, &status) != 0) return -errno;
    const bool is_file = S_ISREG(status.st_mode) && may_be_a_file;
    if ((!is_file && !S_ISSOCK(status.st_mode)) || status.st_nlink != 1) return 0;
    if (status.st_uid == user.uid && status.st_gid == user.gid) return 1;
    return fchownat(fd, "", user.uid, user.gid, AT_EMPTY_PATH) == 0 ? 1 : -errno;
}

// What lies in a directory of `owner`, who is the user himself or we.
int give_in(uid_t owner, const char* path, const rights_user& user, bool make) {
    place where;
    if (!split(path, &where)) return 0;
    const int directory = open(where.directory, O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (directory < 0) return -errno;
    int result = 0;
    if (is_closed_to_others(directory, owner)) {
        const int fd = open_entry(directory, where.name, make);
        result = fd < 0 ? -errno : give_entry(fd, user, owner == geteuid());
        if (fd >= 0) close(fd);
    }
    close(directory);
    return result;
}

bool is_already(const rights_user& user) {
    uid_t uid[3];
    gid_t gid[3];
    return getresuid(&uid[0], &uid[1], &uid[2]) == 0 && getresgid(&gid[0], &gid[1], &gid[2]) == 0 &&
           uid[0] == user.uid && uid[1] == user.uid && uid[2] == user.uid && gid[0] == user.gid &&
           gid[1] == user.gid && gid[2] == user.gid;
}

// The groups first, which only root may set. Becoming another user than root empties the effective set and,
// unless told otherwise, the permitted one.
int change_ids(const rights_user& user) {
    if (setgroups(user.group_count, user.groups) != 0) return errno == EPERM && is_already(user) ? 0 : -errno;
    if (setresgid(user.gid, user.gid, user.gid) != 0) return -errno;
    if (prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0) return -errno;
    if (setresuid(user.uid, user.uid, user.uid) != 0) return -errno;
    return prctl(PR_SET_KEEPCAPS, 0, 0, 0, 0) == 0 ? 0 : -errno;
}

}  // namespace

const char* rights_user_find(const char* text, rights_user* out) {
    char name[NAME_SIZE];
    const char* colon = std::strchr(text, ':');
    const std::size_t length = colon ? static_cast<std::size_t>(colon - text) : std::strlen(text);
    if (length == 0 || length >= sizeof name) return "there is no such user";
    std::memcpy(name, text, length);
    name[length] = 0;
    rights_user user{};
    user.name = text;
    if (colon && !find_group(colon + 1, &user.gid)) return "there is no such group";
    const char* wrong = find_user(name, colon != nullptr, &user);
    if (!wrong) *out = user;
    return wrong;
}

int rights_give(const char* path, const rights_user& user, bool make) {
    return give_in(geteuid(), path, user, make);
}

void rights_give_socket(const char* path, const rights_user& user) {
    char at[sizeof(sockaddr_un::sun_path)];
    if (!unix_place(path, at)) return;
    const int given = give_in(std::strcmp(at, path) == 0 ? geteuid() : user.uid, at, user, false);
    if (given > 0 || given == -ENOENT) return;
    log_suite(LOG_LEVEL_WARNING, "can't give %s to user %s: %s", at, user.name,
              given < 0 ? std::strerror(-given) : "others may change what lies there");
}

int rights_become(const rights_user& user, std::uint64_t keep) {
    rights_shrink_bounding_set(keep);  // not possible any more once the user has changed
    int result = change_ids(user);
    if (result == 0) result = rights_keep_capabilities(keep);
    if (result == 0)
        log_suite(LOG_LEVEL_INFO, "rights: user %s, number %u, group %u and %zu more", user.name, user.uid,
                  user.gid, user.group_count);
    else
        log_suite(LOG_LEVEL_ERROR, "can't become user %s: %s", user.name, std::strerror(-result));
    return result;
}
