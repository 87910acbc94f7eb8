// One means of asking (commands, SNMP), as the asker drives it: it says what it waits for, and takes what is
// there.
#pragma once

#include <poll.h>

#include <memory>
#include <vector>

#include "esmcmap/ask/asker.h"

namespace esmcmap {

class channel {
  public:
    channel() = default;
    channel(const channel&) = delete;
    channel& operator=(const channel&) = delete;
    virtual ~channel() = default;
    virtual void ask(std::size_t who, moment deadline) = 0;
    // Adds the descriptors that it waits for; makes `until` earlier when something is due before.
    virtual void await(std::vector<pollfd>& waiting, moment& until) = 0;
    // After the wait, whatever ended it; `ready` has the descriptors of all channels. Adds what has come to
    // an end.
    virtual void take(const std::vector<pollfd>& ready, moment now, std::vector<outcome>& ended) = 0;
    virtual bool busy() const = 0;
};

std::unique_ptr<channel> command_channel(const switch_file& file);
std::unique_ptr<channel> snmp_channel(const switch_file& file);

// The outcome of a text: read, or garbage.
outcome read_outcome(std::size_t who, std::string_view text);
outcome failed(std::size_t who, answer how, std::string error);

}  // namespace esmcmap
