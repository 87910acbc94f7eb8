// /metrics: what all switches say of themselves, and what only the map knows, as OpenMetrics text. Names,
// help texts and labels are those of the switches' own `show clock synce metrics`, with the label "switch" in
// front, so that a rule or a dashboard holds for either.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "esmcmap/model/network.h"

namespace esmcmap {

// What each switch told last, by its name.
using told_values = std::map<std::string, std::shared_ptr<const reported_values>>;

// A switch that does not answer has no samples but those of the map: what it said last would pass for what
// is. What a switch asked by SNMP does not tell is left out. `seconds`: how long the last whole round took.
std::string metrics_text(const network& net, const told_values& told, double seconds);

struct metrics_state {
    network net;
    told_values told;
    double seconds;
};

// The same text in pieces of a family or less: that of a large network has a hundred megabytes.
class metrics_pieces {
  public:
    explicit metrics_pieces(std::shared_ptr<const metrics_state> of);  // null: nothing is known
    ~metrics_pieces();
    metrics_pieces(const metrics_pieces&) = delete;
    metrics_pieces& operator=(const metrics_pieces&) = delete;

    std::string next();  // may be empty
    bool over() const;

  private:
    struct inside;
    std::unique_ptr<inside> in;
};

// The newest of it, for whoever asks, whenever, from any thread. However many ask, one piece is made at a
// time.
class metrics {
  public:
    void publish(network net, told_values told, bool complete, double seconds);
    std::unique_ptr<metrics_pieces> pieces();
    std::string next(metrics_pieces& of);

  private:
    std::mutex lock, one_at_a_time;
    std::shared_ptr<const metrics_state> latest;
};

}  // namespace esmcmap
