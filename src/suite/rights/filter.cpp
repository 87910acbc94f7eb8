// The filter of system calls: a table of what the programs' loops and their C library call, turned into a
// program of the kernel's packet filter language. A call that is missing here fails with EPERM and the
// program goes on without what it wanted: a fault in the table costs a function, not the clock. Kernels
// from 4.14 on can note refused calls in the audit log; they are asked to.
//
// The order costs nothing on kernels that remember which calls are always allowed (from 5.11 on); for the
// others, what every frame needs comes first.
//
// -DESMC_FILTER_KILL builds a filter that ends the process instead: run the system tests with it after a
// change that makes new system calls. -DESMC_NO_FILTER builds none.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/sched.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "suite/base/address_family.h"
#include "suite/rights/rights.h"

// The sanitizers' run time makes calls of its own, at the end above all.
#if defined(__SANITIZE_ADDRESS__) || defined(ESMC_NO_FILTER)
#define ESMC_FILTER_OFF
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(memory_sanitizer)
#define ESMC_FILTER_OFF
#endif
#endif

#if defined(__x86_64__) && !defined(__ILP32__)
#define ESMC_AUDIT_ARCH AUDIT_ARCH_X86_64
#elif defined(__i386__)
#define ESMC_AUDIT_ARCH AUDIT_ARCH_I386
#elif defined(__aarch64__) && defined(__AARCH64EL__)
#define ESMC_AUDIT_ARCH AUDIT_ARCH_AARCH64
#elif defined(__arm__) && defined(__ARM_EABI__) && defined(__ARMEL__)
#define ESMC_AUDIT_ARCH AUDIT_ARCH_ARM
#endif

#if defined(ESMC_AUDIT_ARCH) && !defined(ESMC_FILTER_OFF)

namespace {

// Numbers that an architecture or the headers of the build do not have are left out.
constexpr std::uint32_t ALLOWED[] = {
// The way of a frame, of a timer, of a terminal's octets.
#ifdef __NR_epoll_wait
    __NR_epoll_wait,
#endif
    __NR_epoll_pwait,
    __NR_recvfrom,
    __NR_sendto,
    __NR_recvmsg,
    __NR_sendmsg,
    __NR_recvmmsg,
    __NR_sendmmsg,
#ifdef __NR_recvmmsg_time64
    __NR_recvmmsg_time64,
#endif
#ifdef __NR_recv
    __NR_recv,
    __NR_send,
#endif
    __NR_read,
    __NR_write,
    __NR_clock_gettime,
#ifdef __NR_clock_gettime64
    __NR_clock_gettime64,
#endif
    // Descriptors.
    __NR_epoll_ctl,
    __NR_close,
#ifdef __NR_close_range
    __NR_close_range,  // close_others in suite/process/job.cpp
#endif
    __NR_readv,
    __NR_writev,
    __NR_pread64,
    __NR_pwrite64,
    __NR_lseek,
    __NR_fcntl,
    __NR_dup,
    __NR_dup3,
    __NR_pipe2,
    __NR_eventfd2,
    __NR_epoll_create1,
    __NR_ppoll,
#ifdef __NR_poll
    __NR_poll,
    __NR_dup2,
    __NR_pipe,
#endif
#ifdef __NR_ppoll_time64
    __NR_ppoll_time64,
#endif
#ifdef __NR__llseek
    __NR__llseek,
    __NR_fcntl64,
#endif
    // Sockets; making one is below.
    __NR_socketpair,
    __NR_bind,
    __NR_connect,
    __NR_listen,
    __NR_accept4,
    __NR_getsockopt,
    __NR_setsockopt,
    __NR_getsockname,
    __NR_getpeername,
    __NR_shutdown,
#ifdef __NR_accept
    __NR_accept,
#endif
    // Files: configuration, log, pid file, board information.
    __NR_openat,
    __NR_faccessat,
    __NR_unlinkat,
    __NR_fsync,
    __NR_fdatasync,
    __NR_ftruncate,
    __NR_fallocate,
    __NR_fchmod,
    __NR_fchown,
#ifdef __NR_fchown32
    __NR_fchown32,
#endif
    __NR_fchmodat,
    __NR_fstat,
    __NR_readlinkat,
    __NR_getcwd,
    __NR_umask,
#ifdef __NR_open
    __NR_open,
    __NR_access,
    __NR_unlink,
    __NR_rename,
    __NR_chmod,
    __NR_stat,
    __NR_lstat,
    __NR_readlink,
#endif
#ifdef __NR_renameat
    __NR_renameat,
#endif
    __NR_renameat2,
#ifdef __NR_newfstatat
    __NR_newfstatat,
#endif
#ifdef __NR_stat64
    __NR_stat64,
    __NR_lstat64,
    __NR_fstat64,
    __NR_fstatat64,
    __NR_ftruncate64,
#endif
#ifdef __NR_statx
    __NR_statx,
#endif
    // Memory; what may become code is below.
    __NR_brk,
    __NR_munmap,
    __NR_mremap,
    __NR_madvise,
    // The process, its signals and the children that work for it. No program is ever started.
    __NR_exit_group,
    __NR_exit,
    __NR_rt_sigreturn,
    __NR_rt_sigaction,
    __NR_rt_sigprocmask,
    __NR_sigaltstack,
    __NR_restart_syscall,
    __NR_wait4,
    __NR_kill,
    __NR_tgkill,
    __NR_getpid,
    __NR_gettid,
    __NR_getppid,
    __NR_getuid,
    __NR_geteuid,
    __NR_getpriority,
    __NR_setpriority,
    __NR_setitimer,
    __NR_prlimit64,
#ifdef __NR_alarm
    __NR_alarm,
#endif
#ifdef __NR_sigreturn
    __NR_sigreturn,
#endif
    __NR_set_robust_list,
    __NR_set_tid_address,
#ifdef __NR_rseq
    __NR_rseq,
#endif
    __NR_futex,
#ifdef __NR_futex_time64
    __NR_futex_time64,
#endif
    // Time and the system.
    __NR_gettimeofday,
    __NR_nanosleep,
    __NR_clock_nanosleep,
#ifdef __NR_clock_nanosleep_time64
    __NR_clock_nanosleep_time64,
#endif
#ifdef __NR_time
    __NR_time,
#endif
    __NR_uname,
    __NR_sysinfo,
    __NR_getrandom,
};

// A call that is allowed when an argument, seen through the mask, has the value. Several rules for one call
// are alternatives.
struct rule {
    std::uint32_t call;
    std::uint32_t argument;
    std::uint32_t mask;
    std::uint32_t value;
};

constexpr std::uint32_t NEW_NAMESPACE =
    CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC | CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;
constexpr std::uint32_t WHOLE = 0xffffffff;
constexpr std::uint32_t TERMINAL_SETTINGS =
    0x5401;  // TCGETS: the C library asks whether a stream is a terminal

constexpr rule RULES[] = {
    {__NR_clone, 0, NEW_NAMESPACE, 0},
    {__NR_socket, 0, WHOLE, AF_UNIX},
    {__NR_socket, 0, WHOLE, AF_INET},
    {__NR_socket, 0, WHOLE, AF_INET6},
    {__NR_socket, 0, WHOLE, AF_NETLINK},
    {__NR_socket, 0, WHOLE, AF_PACKET},
    {__NR_socket, 0, WHOLE, AF_SLOW_PROTOCOL},
    {__NR_mprotect, 2, PROT_EXEC, 0},
#ifdef __NR_mmap2
    {__NR_mmap2, 2, PROT_EXEC, 0},
#else
    {__NR_mmap, 2, PROT_EXEC, 0},
#endif
    {__NR_ioctl, 1, WHOLE, TERMINAL_SETTINGS},
};

// From this number on all architectures count alike, and close_range alone in the tables is that new. The C
// library tries the calls of its time first (clone3, faccessat2) and falls back when it is told that they do
// not exist.
constexpr std::uint32_t FIRST_NEW_CALL = 424;
constexpr std::uint32_t FIRST_PRIVATE_CALL = 0xf0000;  // ARM

#ifdef ESMC_FILTER_KILL
constexpr std::uint32_t REFUSE = SECCOMP_RET_KILL_PROCESS;
#else
constexpr std::uint32_t REFUSE = SECCOMP_RET_ERRNO | EPERM;
#endif

constexpr std::size_t LENGTH_MAX = 16 + 2 * std::size(ALLOWED) + 6 * std::size(RULES);

struct filter {
    sock_filter code[LENGTH_MAX];
    unsigned short length;
};

void add(filter* f, int code, std::uint32_t value, std::uint8_t if_true = 0, std::uint8_t if_false = 0) {
    f->code[f->length++] = {static_cast<std::uint16_t>(code), if_true, if_false, value};
}

void load(filter* f, std::size_t offset) {
    add(f, BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

void give(filter* f, std::uint32_t verdict) {
    add(f, BPF_RET | BPF_K, verdict);
}

// Of an argument of 64 bits the low half counts: all that are looked at here are of 32 bits.
constexpr std::size_t argument_offset(std::uint32_t number) {
    const std::size_t low = __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__ ? 4 : 0;
    return offsetof(seccomp_data, args) + 8 * number + low;
}

// Calls of another architecture than the program's own have other numbers; nothing of ours makes them.
void add_architecture(filter* f) {
    load(f, offsetof(seccomp_data, arch));
    add(f, BPF_JMP | BPF_JEQ | BPF_K, ESMC_AUDIT_ARCH, 1, 0);
    give(f, SECCOMP_RET_KILL_PROCESS);
}

void add_allowed(filter* f) {
    for (const std::uint32_t call : ALLOWED) {
        add(f, BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1);
        give(f, SECCOMP_RET_ALLOW);
    }
}

void add_rules(filter* f) {
    for (const rule& r : RULES) {
        add(f, BPF_JMP | BPF_JEQ | BPF_K, r.call, 0, 5);
        load(f, argument_offset(r.argument));
        add(f, BPF_ALU | BPF_AND | BPF_K, r.mask);
        add(f, BPF_JMP | BPF_JEQ | BPF_K, r.value, 0, 1);
        give(f, SECCOMP_RET_ALLOW);
        load(f, offsetof(seccomp_data, nr));
    }
}

void build(filter* f) {
    add_architecture(f);
    load(f, offsetof(seccomp_data, nr));
    add_allowed(f);
    add_rules(f);
    add(f, BPF_JMP | BPF_JGE | BPF_K, FIRST_PRIVATE_CALL, 2, 0);
    add(f, BPF_JMP | BPF_JGE | BPF_K, FIRST_NEW_CALL, 0, 1);
    give(f, SECCOMP_RET_ERRNO | ENOSYS);
    give(f, REFUSE);
}

// valgrind translates code at run time, which the filter forbids. Whoever can set this for us can load code
// into the process anyway.
bool is_instrumented() {
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded && std::strstr(preloaded, "/vgpreload");
}

int install(const sock_fprog& program) {
    if (syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_LOG, &program) == 0) return 0;
    if (errno == EINVAL && syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0) return 0;
    if (errno == ENOSYS && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0) return 0;
    // A kernel without the filter does not know the mode; an emulator does not know the call.
    return errno == EINVAL || errno == ENOSYS ? -ENOSYS : -errno;
}

}  // namespace

int rights_filter_calls() {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return errno == EINVAL ? -ENOSYS : -errno;
    if (is_instrumented()) return -ECANCELED;
    static filter f;
    f.length = 0;
    build(&f);
    return install({f.length, f.code});
}

#else

int rights_filter_calls() {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return errno == EINVAL ? -ENOSYS : -errno;
#ifdef ESMC_FILTER_OFF
    return -ECANCELED;
#else
    return -ENOSYS;
#endif
}

#endif
