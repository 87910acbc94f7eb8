// Which rights the daemon keeps once it runs. CAP_NET_RAW: a port whose sends are held up gets a packet
// socket of its own later. CAP_NET_ADMIN goes: it was for the socket buffers beyond the system's limit, which
// are set by now. CAP_DAC_OVERRIDE goes as well: configuration, log and pid file are the daemon's own, and a
// file that another user has closed to root's group and the world stays closed.
#include "esmcd/rights.h"

#include <linux/capability.h>

#include <cstdint>

#include "suite/rights/rights.h"
#include "suite/rights/user.h"

namespace {

constexpr std::uint64_t KEPT = std::uint64_t{1} << CAP_NET_RAW;

}  // namespace

void pal_rights_drop() {
    rights_reduce(rights_program::esmcd, KEPT);
}

int pal_rights_become(const rights_user& user) {
    return rights_become(user, KEPT);
}
