// Rounds of questions: every so often all switches are asked, and a state of the network is made of what they
// answer.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "esmcmap/ask/asker.h"
#include "esmcmap/model/network.h"

namespace esmcmap {

struct round_of_answers {
    std::int64_t t = 0;     // ms since 1970
    bool complete = false;  // all have answered or had their time
    double seconds = 0;     // since the round began
    const std::vector<watched>& switches;
    const std::vector<std::shared_ptr<const reported_values>>& values;  // last ones; null: none
};

// Wall clock, in ms since 1970.
std::int64_t wall_clock_ms();

class watch {
  public:
    explicit watch(const switch_file& file);
    // Asks everybody, once, and waits for all answers. For programs that want one state.
    void ask_once();
    // Asks round after round, until `stop`. `seen` gets what there is whenever a round is complete, and
    // before that some moments after an answer came, so that a switch that is slow holds nobody up.
    void run(const std::function<void(const round_of_answers&)>& seen);
    void stop();  // from any thread

    const std::vector<watched>& switches() const { return seen_switches; }
    const std::vector<std::shared_ptr<const reported_values>>& values() const { return seen_values; }

  private:
    int every_ms, timeout_ms;
    std::vector<watched> seen_switches;
    std::vector<std::shared_ptr<const reported_values>> seen_values;
    std::vector<bool> asked;   // whose answer is awaited
    std::size_t open = 0;      // of this round, those that were no silent switch before
    std::vector<bool> counts;  // who of this round is one of these
    std::unique_ptr<asker> channel;
    std::atomic<bool> stopping = false;

    void begin_round(moment now);
    bool take(std::vector<outcome> outcomes);
};

}  // namespace esmcmap
