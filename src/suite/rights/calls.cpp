// Who needs which system call after its start, and what for. A row is: programs, call, and, where only some
// of its uses are needed, the argument that tells. To add one: `{ESMCD, __NR_name},  // function that calls
// it`, between #ifdef and #endif when one of the four architectures has no such number; build with
// -DESMC_FILTER_KILL=ON and run the system tests.
//
// What is not here on purpose: every call that signals another process (kill, tkill, tgkill,
// pidfd_send_signal, rt_sigqueueinfo), and the uses of fcntl, prlimit and clone that come to the same;
// execve; ptrace; whatever changes users, namespaces, mounts or clocks. abort() of the C library ends the
// process without tgkill too, by SIGSEGV instead of SIGABRT.
#include "suite/rights/calls.h"

#include <fcntl.h>
#include <linux/net.h>
#include <linux/sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <csignal>
#include <iterator>

#include "suite/base/address_family.h"

namespace {

constexpr std::uint8_t ESMCD = static_cast<std::uint8_t>(rights_program::esmcd);
constexpr std::uint8_t NSMD = static_cast<std::uint8_t>(rights_program::nsmd);
constexpr std::uint8_t BOTH = ESMCD | NSMD;

constexpr std::uint32_t WHOLE = 0xffffffff;
// What fork of the C library says beside the signal at the child's end.
constexpr std::uint32_t FORK_FLAGS = CLONE_CHILD_SETTID | CLONE_CHILD_CLEARTID;
constexpr std::uint32_t TERMINAL_SETTINGS = 0x5401;  // TCGETS
#ifndef __GLIBC__
constexpr std::uint32_t WINDOW_SIZE = 0x5413;  // TIOCGWINSZ
#endif

#ifdef __NR_fcntl64
constexpr std::uint32_t FCNTL = __NR_fcntl64;
#else
constexpr std::uint32_t FCNTL = __NR_fcntl;
#endif
#ifdef __NR_mmap2
constexpr std::uint32_t MMAP = __NR_mmap2;
#else
constexpr std::uint32_t MMAP = __NR_mmap;
#endif

constexpr rights_call CALLS[] = {
// The loop, frames, timers, the octets of terminals and links: what comes often comes first.
#ifdef __NR_epoll_wait
    {BOTH, __NR_epoll_wait},  // wait of suite/loop/poll.cpp
#else
    {BOTH, __NR_epoll_pwait},  // the same, by the C library
#endif
    {BOTH, __NR_recvfrom},   // slow_recvfrom, a helper of nsmd
    {ESMCD, __NR_recvmmsg},  // read_batch of suite/ports
#ifdef __NR_recvmmsg_time64
    {ESMCD, __NR_recvmmsg_time64},  // the same
#endif
    {BOTH, __NR_sendto},     // slow_sendto, netlink requests, agentx, syslog
    {ESMCD, __NR_sendmmsg},  // send_collected of suite/ports
    {NSMD, __NR_recvmsg},    // netlink messages, peers of the link
#ifdef __NR_recv
    {BOTH, __NR_recv},
    {BOTH, __NR_send},
#endif
    {BOTH, __NR_read},           // terminals, wake-up of the loop, files
    {BOTH, __NR_write},          // terminals, log, files
    {BOTH, __NR_clock_gettime},  // monotonic_now, where the kernel has no faster way
#ifdef __NR_clock_gettime64
    {BOTH, __NR_clock_gettime64},
#endif
#ifdef __NR_gettimeofday
    {BOTH, __NR_gettimeofday},  // time(), for a line of the log
#endif
#ifdef __NR_time
    {BOTH, __NR_time},
#endif
    {BOTH, __NR_epoll_ctl},  // a descriptor that the loop waits for
    {BOTH, __NR_close},
#ifdef __NR_poll
    {BOTH, __NR_poll},  // standard error that is a pipe; look of suite/process/job.cpp
#else
    {BOTH, __NR_ppoll},        // the same
#endif
#ifdef __NR_ppoll_time64
    {BOTH, __NR_ppoll_time64},
#endif
    {BOTH, __NR_restart_syscall},  // the kernel's, after a stop and a continuation

    // Sockets that are opened later: a busy port's own, NSM, SNMP master, syslog, a listener's second try.
    {BOTH, __NR_socket, 0, WHOLE, AF_UNIX},
    {BOTH, __NR_connect},
    {BOTH, __NR_accept4},     // connection_ready of suite/process/listener.cpp
    {BOTH, __NR_getsockopt},  // how connecting ended; who a peer is; drops of the packet socket
    {BOTH, __NR_setsockopt},  // group memberships, TCP_NODELAY, buffers
    {ESMCD, __NR_socket, 0, WHOLE, AF_INET},
    {ESMCD, __NR_socket, 0, WHOLE, AF_INET6},
    {ESMCD, __NR_socket, 0, WHOLE, AF_PACKET},
    {ESMCD, __NR_socket, 0, WHOLE, AF_SLOW_PROTOCOL},
    {NSMD, __NR_socket, 0, WHOLE, AF_NETLINK},
    {BOTH, __NR_bind},     // listeners, netlink
    {ESMCD, __NR_listen},  // listeners
    {ESMCD, __NR_umask},   // bind_once of suite/base/unix_socket.cpp
#ifdef __NR_socketcall
    // One call for all of the above in some C libraries. Which family a socket is of can't be seen then.
    {ESMCD, __NR_socketcall, 0, WHOLE, SYS_LISTEN},
    {ESMCD, __NR_socketcall, 0, WHOLE, SYS_SENDMMSG},
    {ESMCD, __NR_socketcall, 0, WHOLE, SYS_RECVMMSG},
    {NSMD, __NR_socketcall, 0, WHOLE, SYS_RECVMSG},
    {NSMD, __NR_socketcall, 0, WHOLE, SYS_SENDMSG},
    {NSMD, __NR_socketcall, 0, WHOLE, SYS_SOCKETPAIR},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_SOCKET},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_CONNECT},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_BIND},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_ACCEPT4},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_SEND},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_SENDTO},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_RECV},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_RECVFROM},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_SETSOCKOPT},
    {BOTH, __NR_socketcall, 0, WHOLE, SYS_GETSOCKOPT},
#endif

    // Files: configuration and log, nsmd's indexes and simulated registers, time zone, standard error.
    {BOTH, __NR_openat},
    {BOTH, __NR_unlinkat},
    {BOTH, __NR_lseek},
    {BOTH, __NR_ftruncate},  // pid file at the end, files that are written over
    {BOTH, __NR_fallocate},  // room for a save before it begins
    {ESMCD, __NR_fsync},     // host_save
    {ESMCD, __NR_fchmod},    // mode of the saved configuration
    {ESMCD, __NR_fchown},    // the saved configuration stays whose it was
#ifdef __NR_fchown32
    {ESMCD, __NR_fchown32},
#endif
    {ESMCD, __NR_geteuid},  // whose the file of the daemon's state has to be
#ifdef __NR_geteuid32
    {ESMCD, __NR_geteuid32},
#endif
    {ESMCD, __NR_faccessat},           // access(), host_file_check
    {ESMCD, __NR_readlinkat},          // realpath(), the file behind a link
    {ESMCD, __NR_getcwd},              // realpath()
    {BOTH, __NR_pwrite64},             // the daemon's state; registers of the simulated clock
    {BOTH, FCNTL, 1, WHOLE, F_GETFL},  // fdopen(); standard error that is a file
    {BOTH, FCNTL, 1, WHOLE, F_SETFL},  // a pipe that does not wait
    {ESMCD, FCNTL, 1, WHOLE,
     F_DUPFD_CLOEXEC},   // standard error, whose writer is suite/process/log_writer.cpp
    {ESMCD, __NR_dup3},  // the same
    {BOTH, __NR_ioctl, 1, WHOLE, TERMINAL_SETTINGS},  // isatty() of a stream
#ifdef __NR_open  // as other C libraries, and older ones, call what stands above
    {BOTH, __NR_open},
    {BOTH, __NR_unlink},
    {BOTH, __NR_rename},
    {BOTH, __NR_stat},
    {BOTH, __NR_lstat},
    {ESMCD, __NR_access},
    {ESMCD, __NR_readlink},
    {ESMCD, __NR_dup2},
#endif
#ifdef __NR_renameat
    {BOTH, __NR_renameat},
#endif
    {BOTH, __NR_renameat2},
    {BOTH, __NR_fstat},
#ifdef __NR_newfstatat
    {BOTH, __NR_newfstatat},
#endif
#ifdef __NR_stat64
    {BOTH, __NR_stat64},
    {BOTH, __NR_lstat64},
    {BOTH, __NR_fstat64},
    {BOTH, __NR_fstatat64},
    {BOTH, __NR_ftruncate64},
    {BOTH, __NR__llseek},
#endif
#ifdef __NR_statx
    {BOTH, __NR_statx},
#endif

    // Memory; none of it may become code.
    {BOTH, __NR_brk},                        // malloc()
    {BOTH, MMAP, 2, PROT_EXEC, 0},           // the same, crypt(3)
    {BOTH, __NR_munmap},                     // the same
    {BOTH, __NR_mremap},                     // realloc()
    {BOTH, __NR_mprotect, 2, PROT_EXEC, 0},  // malloc() when the heap can't grow

    // The process and its signals.
    {BOTH, __NR_exit_group},
    {BOTH, __NR_rt_sigreturn},  // a handler's end
#ifdef __NR_sigreturn
    {BOTH, __NR_sigreturn},
#endif
    {BOTH, __NR_rt_sigaction},    // note_limit of suite/process/pal.cpp, a job's child
    {BOTH, __NR_rt_sigprocmask},  // fork(), abort()
    {BOTH, __NR_writev},          // abort(): last words of the C library
    {BOTH, __NR_getpid},          // syslog
    {ESMCD, __NR_uname},          // gethostname() for the prompt

    // Helpers of nsmd, which wait for drivers: nsmd/netlink/channel.cpp.
    {NSMD, __NR_socketpair},
    {NSMD, __NR_sendmsg},  // pass_on

    // Children: these helpers, and those of suite/process/job.cpp. Nothing is ever executed, and the signal
    // of their end is the only one.
    {BOTH, __NR_pipe2},
    {BOTH, __NR_clone, 0, ~FORK_FLAGS, SIGCHLD},  // fork()
    {BOTH, __NR_wait4},
    {BOTH, __NR_set_robust_list},  // fork()
#ifdef __NR_close_range
    {BOTH, __NR_close_range},
#endif
    {BOTH, __NR_prlimit64, 0, WHOLE, 0},  // getrlimit(), where there is no close_range; of oneself only
    {BOTH, __NR_prctl, 0, WHOLE, PR_SET_PDEATHSIG},  // end_in_time
    {BOTH, __NR_setitimer},                          // look_later
#ifdef __NR_alarm
    {ESMCD, __NR_alarm},  // run_child of suite/terminal/password.cpp
#endif
    {BOTH, __NR_clock_nanosleep},  // jobs_stop
    {BOTH, __NR_nanosleep},
#ifdef __NR_clock_nanosleep_time64
    {BOTH, __NR_clock_nanosleep_time64},
#endif
    {ESMCD, __NR_getpriority},               // nice()
    {ESMCD, __NR_setpriority, 1, WHOLE, 0},  // nice(); of oneself only
    {ESMCD, __NR_getrandom},                 // salt of a password

#ifndef __GLIBC__
    // What musl calls instead of the above, or beside it.
    {BOTH, __NR_epoll_pwait},                   // epoll_wait()
    {BOTH, __NR_sendmsg},                       // sendmmsg()
    {BOTH, __NR_readv},                         // a stream that is read
    {BOTH, FCNTL, 1, WHOLE, F_SETFD},           // open() with O_CLOEXEC
    {BOTH, __NR_ioctl, 1, WHOLE, WINDOW_SIZE},  // a stream that is written first
#ifdef __NR_fork
    {BOTH, __NR_fork},
#endif
    {BOTH, __NR_gettid},                        // fork()
    {BOTH, __NR_madvise, 2, WHOLE, MADV_FREE},  // free()
#endif
};

}  // namespace

static_assert(std::size(CALLS) <= RIGHTS_CALLS_MAX);

std::span<const rights_call> rights_calls() {
    return CALLS;
}
