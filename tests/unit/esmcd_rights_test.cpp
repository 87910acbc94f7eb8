// What is left of a process's rights, tried out in children: there is no way back from it.
#include "esmcd/rights.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "suite/rights/rights.h"

namespace {

constexpr std::uint64_t bit(unsigned capability) {
    return std::uint64_t{1} << capability;
}

// A field of /proc/self/status as the kernel writes it.
std::string status_field(const std::string& name) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(name + ":\t")) return line.substr(name.size() + 2);
    return "";
}

std::uint64_t capability_field(const std::string& name) {
    return std::strtoull(status_field(name).c_str(), nullptr, 16);
}

constexpr int CANNOT = 77;

// The number of the check that failed in the child (0: none; CANNOT: the machine can't do it; 256 and up: it
// was killed).
template <class body>
int in_child(body run) {
    const pid_t child = fork();
    if (child == 0) _exit(run());
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 256 + WTERMSIG(status);
}

bool refused(long result, int expected) {
    return result == -1 && errno == expected;
}

bool all_sets_are(std::uint64_t wanted) {
    return capability_field("CapEff") == wanted && capability_field("CapPrm") == wanted &&
           capability_field("CapBnd") == wanted && capability_field("CapInh") == 0 &&
           capability_field("CapAmb") == 0;
}

TEST(rights, only_the_kept_capability_is_left_in_every_set_and_none_comes_back) {
    if (!(capability_field("CapPrm") & bit(CAP_NET_RAW)))
        GTEST_SKIP() << "started without the right to raw sockets";
    EXPECT_EQ(in_child([] {
                  if (rights_keep_capabilities(bit(CAP_NET_RAW)) != 0) return 1;
                  if (!all_sets_are(bit(CAP_NET_RAW))) return 2;
                  const int raw = socket(AF_PACKET, SOCK_RAW, 0);
                  if (raw < 0) return 3;
                  close(raw);
                  if (!refused(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), EPERM)) return 4;
                  if (rights_keep_capabilities(0) != 0) return 5;
                  if (rights_keep_capabilities(bit(CAP_NET_RAW) | bit(CAP_NET_ADMIN)) != 0) return 6;
                  return capability_field("CapEff") == 0 && capability_field("CapPrm") == 0 ? 0 : 7;
              }),
              0);
}

// The file of another user, closed to everybody else: root without capabilities is not let in.
TEST(rights, root_without_capabilities_is_an_ordinary_owner) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    char foreign[] = "/tmp/rights.XXXXXX";
    const int file = mkstemp(foreign);
    ASSERT_GE(file, 0);
    EXPECT_EQ(fchmod(file, 0600), 0);
    EXPECT_EQ(fchown(file, 65534, 65534), 0);
    close(file);
    EXPECT_EQ(in_child([&] {
                  if (rights_keep_capabilities(bit(CAP_NET_RAW)) != 0) return 1;
                  return refused(open(foreign, O_RDONLY), EACCES) ? 0 : 2;
              }),
              0);
    unlink(foreign);
}

// Runs the body in a child behind the filter.
template <class body>
void filtered(body run) {
    const int result = in_child([run] {
        const int installed = rights_filter_calls();
        if (installed == -ENOSYS || installed == -ECANCELED) return CANNOT;
        return installed == 0 ? run() : 100;
    });
    if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
    EXPECT_EQ(result, 0);
}

TEST(rights, calls_beyond_the_table_are_refused_and_end_nothing) {
    filtered([] {
        if (prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) != -1 || errno != EPERM) return 1;  // prctl itself is gone
        if (!refused(ptrace(PTRACE_TRACEME, 0, nullptr, nullptr), EPERM)) return 2;
        if (!refused(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), EPERM)) return 3;
        if (!refused(unshare(CLONE_NEWNET), EPERM)) return 4;
        char* const words[] = {const_cast<char*>("/bin/true"), nullptr};
        if (!refused(execv(words[0], words), EPERM)) return 5;
        const timeval now = {};
        if (!refused(settimeofday(&now, nullptr), EPERM)) return 6;
        if (!refused(socket(AF_VSOCK, SOCK_STREAM, 0), EPERM)) return 7;
        const auto* code = mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (code != MAP_FAILED || errno != EPERM) return 8;
        if (!refused(syscall(SYS_clone, CLONE_NEWUSER | SIGCHLD, nullptr, nullptr, nullptr, nullptr), EPERM))
            return 9;
        // Newer calls do not exist, so that a C library falls back to the older ones.
        if (!refused(syscall(435, nullptr, 0), ENOSYS)) return 10;  // clone3
        if (!refused(syscall(425, 1, nullptr), ENOSYS)) return 11;  // io_uring_setup
        return 0;
    });
}

// What the system tests do not come to for certain.
TEST(rights, what_the_loop_needs_still_works) {
    filtered([] {
        const pid_t child = fork();  // a password's hash
        if (child == 0) _exit(0);
        int status = -1;
        if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return 1;
        void* memory = std::malloc(4 << 20);  // an own mapping
        if (!memory) return 2;
        std::free(memory);
        for (const int family : {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK}) {
            const int fd = socket(family, family == AF_NETLINK ? SOCK_RAW : SOCK_STREAM, 0);
            if (fd < 0 && errno == EPERM) return 3;
            close(fd);
        }
        return 0;
    });
}

// The filter is inherited and can't be taken off, by whoever; no_new_privs came with it.
TEST(rights, the_daemon_ends_up_with_all_of_it) {
    if (!(capability_field("CapPrm") & bit(CAP_NET_RAW)))
        GTEST_SKIP() << "started without the right to raw sockets";
    const int result = in_child([] {
        close(STDERR_FILENO);
        pal_rights_drop();
        if (capability_field("CapEff") != bit(CAP_NET_RAW)) return 1;
        if (status_field("NoNewPrivs") != "1") return 2;
        return status_field("Seccomp") == "2" ? 0 : CANNOT;
    });
    if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
    EXPECT_EQ(result, 0);
}

}  // namespace
