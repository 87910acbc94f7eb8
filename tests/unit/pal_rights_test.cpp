// What is left of a process's rights, tried out in children: there is no way back from it.
#include "pal/pal_rights.h"

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
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "suite/rights.h"

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

TEST(rights, only_the_kept_capability_is_left_in_every_set) {
    const std::uint64_t before = capability_field("CapPrm");
    if (!(before & bit(CAP_NET_RAW))) GTEST_SKIP() << "started without the right to raw sockets";
    EXPECT_EQ(in_child([] {
                  if (rights_keep_capabilities(bit(CAP_NET_RAW)) != 0) return 1;
                  if (capability_field("CapEff") != bit(CAP_NET_RAW)) return 2;
                  if (capability_field("CapPrm") != bit(CAP_NET_RAW)) return 3;
                  if (capability_field("CapBnd") != bit(CAP_NET_RAW)) return 4;
                  if (capability_field("CapInh") != 0 || capability_field("CapAmb") != 0) return 5;
                  const int raw = socket(AF_PACKET, SOCK_RAW, 0);
                  if (raw < 0) return 6;
                  close(raw);
                  return refused(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), EPERM) ? 0 : 7;
              }),
              0);
}

TEST(rights, what_was_not_there_is_not_acquired_and_what_went_stays_away) {
    EXPECT_EQ(in_child([] {
                  if (rights_keep_capabilities(0) != 0) return 1;
                  if (rights_keep_capabilities(bit(CAP_NET_RAW) | bit(CAP_NET_ADMIN)) != 0) return 2;
                  return capability_field("CapEff") == 0 && capability_field("CapPrm") == 0 ? 0 : 3;
              }),
              0);
}

// The file of another user, closed to everybody else: root without capabilities is not let in.
TEST(rights, root_without_capabilities_is_an_ordinary_owner) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root";
    char directory[] = "/tmp/rights.XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    const std::string own = std::string(directory) + "/own", foreign = std::string(directory) + "/foreign";
    std::ofstream(own) << "x";
    std::ofstream(foreign) << "x";
    ASSERT_EQ(chmod(foreign.c_str(), 0600), 0);
    ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
    EXPECT_EQ(in_child([&] {
                  if (rights_keep_capabilities(bit(CAP_NET_RAW)) != 0) return 1;
                  if (!refused(open(foreign.c_str(), O_RDONLY), EACCES)) return 2;
                  const std::string fresh = own + ".new";
                  if (open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640) < 0) return 3;
                  if (rename(fresh.c_str(), own.c_str()) != 0) return 4;  // how a configuration is saved
                  return unlink(own.c_str()) == 0 ? 0 : 5;
              }),
              0);
    unlink(own.c_str());
    unlink(foreign.c_str());
    rmdir(directory);
}

// Ends the child with CANNOT where no filter can be had.
#define FILTER_OR_LEAVE()                                                   \
    do {                                                                    \
        const int installed = rights_filter_calls();                        \
        if (installed == -ENOSYS || installed == -ECANCELED) return CANNOT; \
        if (installed != 0) return 100;                                     \
    } while (false)

TEST(rights, calls_beyond_the_table_are_refused_and_end_nothing) {
    const int result = in_child([] {
        FILTER_OR_LEAVE();
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
    if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
    EXPECT_EQ(result, 0);
}

TEST(rights, what_the_loop_needs_still_works) {
    const int result = in_child([] {
        FILTER_OR_LEAVE();
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) return 1;
        const pid_t child = fork();  // a password's hash
        if (child == 0) _exit(write(ends[1], "x", 1) == 1 ? 0 : 1);
        int status = -1;
        if (child < 0 || waitpid(child, &status, 0) != child || status != 0) return 2;
        char octet = 0;
        if (read(ends[0], &octet, 1) != 1 || octet != 'x') return 3;
        void* memory = std::malloc(4 << 20);  // an own mapping
        if (!memory) return 4;
        std::free(memory);
        for (const int family : {AF_UNIX, AF_INET, AF_INET6, AF_NETLINK}) {
            const int fd = socket(family, family == AF_NETLINK ? SOCK_RAW : SOCK_STREAM, 0);
            if (fd < 0 && errno == EPERM) return 5;
            close(fd);
        }
        FILE* stream = std::tmpfile();
        if (!stream || std::fprintf(stream, "text\n") != 5 || std::fclose(stream) != 0) return 6;
        return 0;
    });
    if (result == CANNOT) GTEST_SKIP() << "no filter: this kernel, emulator or build has none";
    EXPECT_EQ(result, 0);
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
