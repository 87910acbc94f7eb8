// Addresses of agents as the operator writes them: 192.0.2.1, 192.0.2.1:1161, [2001:db8::1]:1161,
// 2001:db8::1, switch-7.example:161. Names are looked up in a thread of their own, since the system's
// resolver waits.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace esmcmap {

struct agent_address {
    std::string host;
    std::uint16_t port = 161;
};

// Nothing when it is none.
std::optional<agent_address> read_agent_address(std::string_view text);

// The address as the session takes it ("udp:192.0.2.1:161"), when the host is no name.
std::optional<std::string> numeric_peer(const agent_address& of);

// A name that is being looked up.
class lookup {
  public:
    explicit lookup(const agent_address& of);
    int descriptor() const;  // readable once it is done
    bool done() const;
    // After it is done: as numeric_peer, or nothing and why not.
    std::optional<std::string> peer(std::string& error) const;

  private:
    struct shared;
    std::shared_ptr<shared> with;  // with the thread, which may outlive this
};

}  // namespace esmcmap
