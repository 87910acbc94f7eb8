// The filter of system calls: the table of calls.cpp, turned into a program of the kernel's packet filter
// language. A call that is missing there fails with EPERM and the program goes on without what it wanted: a
// fault in the table costs a function, not the clock. Kernels from 4.14 on can note refused calls in the
// audit log; they are asked to.
//
// -DESMC_FILTER_KILL=ON of cmake builds a filter that ends the process instead: run the system tests with it
// after a change that makes new system calls. -DESMC_NO_FILTER builds none.
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "suite/rights/calls.h"

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

constexpr std::uint32_t FIRST_PRIVATE_CALL = 0xf0000;  // ARM

#ifdef ESMC_FILTER_KILL
constexpr std::uint32_t REFUSE = SECCOMP_RET_KILL_PROCESS;
#else
constexpr std::uint32_t REFUSE = SECCOMP_RET_ERRNO | EPERM;
#endif

constexpr std::size_t LENGTH_MAX = 16 + 6 * RIGHTS_CALLS_MAX;

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

void add_call(filter* f, const rights_call& c) {
    add(f, BPF_JMP | BPF_JEQ | BPF_K, c.number, 0, c.mask ? 5 : 1);
    if (c.mask) {
        load(f, argument_offset(c.argument));
        add(f, BPF_ALU | BPF_AND | BPF_K, c.mask);
        add(f, BPF_JMP | BPF_JEQ | BPF_K, c.value, 0, 1);
    }
    give(f, SECCOMP_RET_ALLOW);
    if (c.mask) load(f, offsetof(seccomp_data, nr));
}

void build(filter* f, rights_program program) {
    add_architecture(f);
    load(f, offsetof(seccomp_data, nr));
    for (const rights_call& c : rights_calls())
        if (c.programs & static_cast<std::uint8_t>(program)) add_call(f, c);
    add(f, BPF_JMP | BPF_JGE | BPF_K, FIRST_PRIVATE_CALL, 2, 0);
    add(f, BPF_JMP | BPF_JGE | BPF_K, RIGHTS_FIRST_NEW_CALL, 0, 1);
    give(f, SECCOMP_RET_ERRNO | ENOSYS);
    give(f, REFUSE);
}

// valgrind translates code at run time, which the filter forbids. Whoever can set this for us can load code
// into the process anyway.
bool is_instrumented() {
    const char* preloaded = std::getenv("LD_PRELOAD");
    return preloaded && std::strstr(preloaded, "/vgpreload");
}

// A kernel with a filter looks for a program where there is none; without one, as in an emulator, it does not
// know the mode.
bool kernel_has_filter() {
    return prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, nullptr, 0, 0) == 0 || errno != EINVAL;
}

int install(const sock_fprog& program) {
    if (syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_LOG, &program) == 0) return 0;
    if (errno == EINVAL && syscall(__NR_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0) return 0;
    if (errno == ENOSYS && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program, 0, 0) == 0) return 0;
    return -errno;
}

}  // namespace

int rights_filter_calls(rights_program which) {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -errno;
    if (is_instrumented()) return -ECANCELED;
    if (!kernel_has_filter()) return -ENOSYS;
    static filter f;
    f.length = 0;
    build(&f, which);
    return install({f.length, f.code});
}

#else

int rights_filter_calls(rights_program) {
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -errno;
#ifdef ESMC_FILTER_OFF
    return -ECANCELED;
#else
    return -ENOSYS;
#endif
}

#endif
