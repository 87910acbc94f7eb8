// Addresses of agents as the operator writes them: 192.0.2.1, 192.0.2.1:1161, [2001:db8::1]:1161,
// 2001:db8::1, switch-7.example:161. Names are looked up in a thread of their own, since the system's
// resolver waits.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace esmcmap {

struct agent_address {
    std::string host;
    std::uint16_t port = 161;
};

// Nothing when it is none.
std::optional<agent_address> read_agent_address(std::string_view text);

// The address as the session takes it ("udp:192.0.2.1:161"); none when the host is a name.
std::vector<std::string> numeric_peer(const agent_address& of);

// A name that is being looked up.
class lookup {
  public:
    explicit lookup(const agent_address& of);
    int descriptor() const;  // readable once it is done
    bool done() const;
    // After it is done: all its addresses as numeric_peer gives them, the system's first choice first; or
    // `error` says why there are none.
    const std::vector<std::string>& peers() const;
    const std::string& error() const;

  private:
    struct shared;
    std::shared_ptr<shared> with;  // with the thread, which may outlive this
};

}  // namespace esmcmap
