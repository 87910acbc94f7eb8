// Capabilities, by the system calls themselves: the library for them would be one more thing to link. Called
// by the programs' start-up through rights_reduce. What can go wrong: a kernel that refuses (said in the log;
// the program goes on with what it has), a start without rights (then there is little to give up).
#include "suite/rights/rights.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "suite/log/log.h"

namespace {

// Version 3 carries 64 capabilities in two words of each kind.
struct capability_words {
    __user_cap_header_struct header;
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3];
};

capability_words own_process() {
    capability_words words = {};
    words.header.version = _LINUX_CAPABILITY_VERSION_3;
    return words;
}

struct named_capability {
    unsigned number;
    const char* name;
};

constexpr named_capability NAMES[] = {{CAP_NET_RAW, "net_raw"}, {CAP_NET_ADMIN, "net_admin"}};

// "net_raw", "none", or the mask for what has no name here.
void describe(char (&text)[64], std::uint64_t capabilities) {
    for (const named_capability& entry : NAMES) {
        if (capabilities != std::uint64_t{1} << entry.number) continue;
        std::snprintf(text, sizeof text, "%s", entry.name);
        return;
    }
    if (capabilities == 0)
        std::snprintf(text, sizeof text, "none");
    else
        std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(capabilities));
}

std::uint64_t effective_capabilities() {
    capability_words words = own_process();
    if (syscall(SYS_capget, &words.header, words.data) != 0) return 0;
    return words.data[0].effective | std::uint64_t{words.data[1].effective} << 32;
}

const char* filter_words(int result) {
    switch (result) {
        case 0:
            return "filtered";
        case -ENOSYS:
            return "not filtered: there is no filter here";
        case -ECANCELED:
            return "not filtered: this build or an instrument needs more of them";
        default:
            return std::strerror(-result);
    }
}

}  // namespace

// The kernel's highest capability is found by asking: it may know more than the headers of the build.
void rights_shrink_bounding_set(std::uint64_t keep) {
    for (unsigned capability = 0; capability < 64; ++capability) {
        if (prctl(PR_CAPBSET_READ, capability, 0, 0, 0) < 0) return;
        if (!(keep >> capability & 1)) (void)prctl(PR_CAPBSET_DROP, capability, 0, 0, 0);  // see the header
    }
}

int rights_keep_capabilities(std::uint64_t keep) {
    capability_words words = own_process();
    if (syscall(SYS_capget, &words.header, words.data) != 0) return -errno;
    rights_shrink_bounding_set(keep);
    (void)prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0,
                0);  // a kernel without them has none to clear
    for (unsigned half = 0; half < _LINUX_CAPABILITY_U32S_3; ++half) {
        const auto wanted = static_cast<std::uint32_t>(keep >> (32 * half));
        words.data[half].permitted &= wanted;
        words.data[half].effective = words.data[half].permitted;
        words.data[half].inheritable = 0;
    }
    return syscall(SYS_capset, &words.header, words.data) == 0 ? 0 : -errno;
}

void rights_reduce(rights_program program, std::uint64_t keep) {
    const int dropped = rights_keep_capabilities(keep);
    if (dropped < 0) log_suite(LOG_LEVEL_WARNING, "capabilities not given up: %s", std::strerror(-dropped));
    char kept[64];
    describe(kept, effective_capabilities());  // can't be asked for any more once the filter is there
    const int filtered = rights_filter_calls(program);
    const bool expected = filtered == 0 || filtered == -ENOSYS || filtered == -ECANCELED;
    log_suite(expected ? LOG_LEVEL_INFO : LOG_LEVEL_WARNING, "rights: capabilities %s; system calls %s", kept,
              filter_words(filtered));
}
