// The states that viewers may see: the one of now, those before it as far as memory allows, and the messages
// that lead from one to the next. One thread publishes, many read.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "esmcmap/show/picture.h"

namespace esmcmap {

using message = std::shared_ptr<const std::string>;  // of an event stream, its empty line included

// Where a viewer's stream stands.
struct stream_place {
    std::uint64_t next = 0;
};

class records {
  public:
    static constexpr std::size_t MOST_STATES = 10000, MOST_CHANGES = 1000, MOST_MESSAGES = 64;

    // `octets`: what old states may hold, and what messages that a slow viewer may still want.
    explicit records(std::size_t octets = std::size_t{24} << 20) : budget(octets) {}

    void publish(picture made);
    void close();  // every stream ends

    std::shared_ptr<const picture> now() const;                        // null before the first
    std::shared_ptr<const picture> recorded(std::uint64_t seq) const;  // null: not kept (any more)
    std::string history_json() const;
    std::string changes_json() const;

    // The stream's first message is the whole state. Empty: nothing came within `longest`. Who falls behind
    // gets the whole state again. False when there will be no more.
    bool next_messages(stream_place& place, std::vector<message>& out,
                       std::chrono::milliseconds longest) const;

  private:
    struct kept {
        std::shared_ptr<const picture> state;
        std::size_t cost;
    };
    std::size_t budget, cost = 0, message_octets = 0;
    mutable std::mutex lock;
    mutable std::condition_variable news;
    std::deque<kept> states;
    std::deque<change> changes;
    std::deque<message> messages;
    std::uint64_t first_message = 1;  // number of the front one
    std::shared_ptr<const picture> latest;
    bool closed = false;

    void record(const std::shared_ptr<const picture>& state, std::size_t octets);
};

}  // namespace esmcmap
