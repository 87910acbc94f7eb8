// The map in a browser: of switches that are asked, or of a recording.
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iostream>
#include <mutex>

#include "esmcmap/ask/watch.h"
#include "esmcmap/model/network.h"
#include "esmcmap/program.h"
#include "esmcmap/serve/metrics.h"
#include "esmcmap/serve/records.h"
#include "esmcmap/serve/server.h"
#include "esmcmap/show/changes.h"
#include "esmcmap/show/picture.h"

namespace esmcmap {

namespace {

bool bind_or_complain(server& map, const serve_address& at) {
    if (map.bind(at)) return true;
    const int why = errno;
    (void)complain("can't listen on " + at.host + ", port " + std::to_string(at.port) +
                   (why ? std::string(": ") + std::strerror(why) : ""));
    return false;
}

void announce(const server& map) {
    std::cout << "The map is at " << map.url() << std::endl;
}

told_values by_name(const round_of_answers& seen) {
    told_values told;
    for (std::size_t i = 0; i < seen.switches.size(); ++i) told[seen.switches[i].name] = seen.values[i];
    return told;
}

// A moment that a signal may bring forward.
class pause {
  public:
    void end() {
        const std::unique_lock held(lock);
        ended = true;
        news.notify_all();
    }
    // False: it was ended.
    bool wait_for(std::chrono::milliseconds time) {
        std::unique_lock held(lock);
        return !news.wait_for(held, time, [this] { return ended; });
    }
    void wait() {
        std::unique_lock held(lock);
        news.wait(held, [this] { return ended; });
    }

  private:
    std::mutex lock;
    std::condition_variable news;
    bool ended = false;
};

// Publishes the states of a recording at their pace. Empty: to its end, or until the pause is ended.
std::string publish_all(std::istream& recording, records& shown, pause& between) {
    std::int64_t last = 0;
    std::size_t number = 0;
    for (std::string line; std::getline(recording, line);) {
        picture state;
        const std::string wrong = read_picture(line, state);
        ++number;
        if (!wrong.empty()) return std::to_string(number) + ": no state that --watch --json wrote: " + wrong;
        const std::int64_t time = last ? std::max<std::int64_t>(0, state.t - last) : 0;
        last = state.t;
        if (!between.wait_for(std::chrono::milliseconds(time))) break;
        shown.publish(std::move(state));
    }
    return {};
}

}  // namespace

int serve(const switch_file& file, const options& how) {
    hold_signals();
    watch watching(file);
    network_builder builder;
    records shown;
    metrics counted;
    server map(shown, &counted);
    if (!bind_or_complain(map, how.at)) return NOTHING_ASKED;
    const ending end([&] { watching.stop(); });
    map.start();
    announce(map);
    network before;
    bool first = true;
    watching.run([&](const round_of_answers& seen) {
        network net = builder.next(seen.switches, seen.t, seen.complete);
        picture made = picture_of(net, file.every_ms);
        if (!std::exchange(first, false)) made.changes = changes_between(before, net);
        counted.publish(net, by_name(seen), seen.complete, seen.seconds);
        shown.publish(std::move(made));
        before = std::move(net);
    });
    shown.close();
    map.stop();
    return WELL;
}

int replay(const options& how) {
    hold_signals();
    std::ifstream recording(how.replay);
    if (!recording) return complain("can't read " + how.replay + ": " + std::strerror(errno));
    records shown;
    server map(shown, nullptr);
    if (!bind_or_complain(map, how.at)) return NOTHING_ASKED;
    pause between;
    const ending end([&] { between.end(); });
    map.start();
    announce(map);
    const std::string wrong = publish_all(recording, shown, between);
    if (!wrong.empty()) return complain(how.replay + ":" + wrong);
    between.wait();
    shown.close();
    map.stop();
    return WELL;
}

}  // namespace esmcmap
