// Questions to all switches side by side. Who asks gives the numbers of switches; answers come when they
// come, and at the latest with the time-out, so that nobody waits for a switch that is dead.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "esmcmap/ask/switch_file.h"
#include "esmcmap/model/network.h"

namespace esmcmap {

using moment = std::chrono::steady_clock::time_point;

struct outcome {
    std::size_t who = 0;  // index in the file
    answer how = answer::ok;
    std::string error;                            // why it is silent or garbage
    std::shared_ptr<const switch_report> report;  // of an `ok`
    std::shared_ptr<const reported_values> values;
};

// What waits for switches by one means. All of it runs in one thread, and none of it blocks.
class asker {
  public:
    asker() = default;
    asker(const asker&) = delete;
    asker& operator=(const asker&) = delete;
    virtual ~asker() = default;
    // Begins to ask switch `who`. An answer, or why there is none, is there at `deadline` at the latest.
    virtual void ask(std::size_t who, moment deadline) = 0;
    // Waits until something can be read, or `until`; takes what came.
    virtual std::vector<outcome> wait(moment until) = 0;
    virtual bool busy() const = 0;  // whether an answer is awaited
    virtual void stop() = 0;        // from any thread: `wait` returns soon
};

// By the means that each entry of the file names.
std::unique_ptr<asker> make_asker(const switch_file& file);

}  // namespace esmcmap
