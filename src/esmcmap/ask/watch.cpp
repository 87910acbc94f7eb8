// A switch whose answer is still awaited is not asked again: its question has its own time-out, which may be
// longer than a round. A round does not wait for those that were silent before.
#include "esmcmap/ask/watch.h"

#include <algorithm>

namespace esmcmap {

namespace {

using namespace std::chrono_literals;

constexpr auto GATHER = 150ms;  // answers that come so close together make one state

}  // namespace

std::int64_t wall_clock_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

watch::watch(const switch_file& file)
    : every_ms(file.every_ms),
      timeout_ms(file.timeout_ms),
      seen_values(file.switches.size()),
      asked(file.switches.size()),
      counts(file.switches.size()),
      channel(make_asker(file)) {
    for (const switch_entry& entry : file.switches) {
        watched& one = seen_switches.emplace_back();
        one.name = entry.name;
    }
}

void watch::begin_round(moment now) {
    open = 0;
    for (std::size_t who = 0; who < asked.size(); ++who) {
        if (!asked[who]) channel->ask(who, now + std::chrono::milliseconds(timeout_ms));
        asked[who] = true;
        counts[who] = seen_switches[who].how != answer::silent;
        open += counts[who];
    }
}

bool watch::take(std::vector<outcome> outcomes) {
    for (outcome& came : outcomes) {
        watched& one = seen_switches[came.who];
        asked[came.who] = false;
        open -= counts[came.who];
        counts[came.who] = false;
        one.how = came.how;
        one.error = std::move(came.error);
        if (came.how != answer::ok) continue;
        one.answered_ms = wall_clock_ms();
        one.report = std::move(came.report);
        seen_values[came.who] = std::move(came.values);
    }
    return !outcomes.empty();
}

void watch::ask_once() {
    begin_round(std::chrono::steady_clock::now());
    while (channel->busy() && !stopping) (void)take(channel->wait(std::chrono::steady_clock::now() + 1s));
}

void watch::run(const std::function<void(const round_of_answers&)>& seen) {
    const auto every = std::chrono::milliseconds(every_ms);
    moment began = std::chrono::steady_clock::now(), unseen = moment::max();
    bool told = false;
    begin_round(began);
    while (!stopping) {
        const moment next = began + every;
        const moment show = unseen == moment::max() ? next : std::min(next, unseen + GATHER);
        const bool came = take(channel->wait(show));
        const moment now = std::chrono::steady_clock::now();
        if (came) unseen = std::min(unseen, now);
        const bool over = now >= next, complete = !told && (open == 0 || over);
        if (complete || (unseen != moment::max() && now >= unseen + GATHER)) {
            seen({wall_clock_ms(), complete, std::chrono::duration<double>(now - began).count(),
                  seen_switches, seen_values});
            told = told || complete;
            unseen = moment::max();
        }
        if (!over) continue;
        // A round that began late does not make the next one early.
        began = now - next < every ? next : now;
        told = false;
        begin_round(now);
    }
}

void watch::stop() {
    stopping = true;
    channel->stop();
}

}  // namespace esmcmap
