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

// The newest of it, for whoever asks, whenever.
class metrics {
  public:
    void publish(network net, told_values told, bool complete, double seconds);
    std::shared_ptr<const std::string> text();  // from any thread

  private:
    struct state {
        network net;
        told_values told;
        double seconds;
    };
    std::mutex lock, one_at_a_time;
    std::shared_ptr<const state> latest, made_of;
    std::shared_ptr<const std::string> made;
};

}  // namespace esmcmap
