// The map on standard output or in a file, once or again and again.
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "esmcmap/ask/watch.h"
#include "esmcmap/model/network.h"
#include "esmcmap/program.h"
#include "esmcmap/show/changes.h"
#include "esmcmap/show/picture.h"
#include "esmcmap/show/svg.h"
#include "esmcmap/show/text.h"

namespace esmcmap {

namespace {

int status_of(const network& net) {
    if (!net.loops.empty() || !net.islands.empty()) return LOOP_OR_ISLAND;
    for (const node& one : net.nodes)
        if (!one.stranger && one.how != answer::ok) return SILENCE;
    return WELL;
}

// Written beside it and renamed: who reads the file sees a whole drawing.
bool write_file(const std::string& name, const std::string& text) {
    if (name == "-") {
        std::cout << text << std::flush;
        return true;
    }
    const std::string beside = name + ".new";
    std::ofstream out(beside, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return out && std::rename(beside.c_str(), name.c_str()) == 0;
}

class printer {
  public:
    printer(const options& asked, int round_ms)
        : how(asked), interval_ms(round_ms), colour(isatty(STDOUT_FILENO)) {}

    bool print(const network& net) {
        if (how.json) return print_json(net);
        if (!how.svg.empty())
            return write_file(how.svg, svg_map(net)) ||
                   complain("can't write " + how.svg + ": " + std::strerror(errno)) == 0;
        if (how.watch && colour) std::cout << "\033[H\033[J";
        std::cout << text_map(net, colour) << std::flush;
        if (how.watch && !colour) std::cout << "\n" << std::flush;
        return static_cast<bool>(std::cout);
    }

  private:
    const options& how;
    int interval_ms;
    bool colour;
    picture last;
    network before;

    // Of a watch only what differs is a new line.
    bool print_json(const network& net) {
        picture made = picture_of(net, interval_ms);
        if (last.seq) made.changes = changes_between(before, net);
        const bool differs = last.seq == 0 || share(made, last);
        if (!differs) return true;
        made.seq = last.seq + 1;
        for (change& one : made.changes) one.seq = made.seq;
        std::cout << whole_json(made) << "\n" << std::flush;
        last = std::move(made);
        before = net;
        return static_cast<bool>(std::cout);
    }
};

}  // namespace

// A loop or a claim that may be a change on its way is looked at once more.
int show_once(const switch_file& file, const options& how) {
    watch watching(file);
    network_builder builder;
    watching.ask_once();
    network net = builder.next(watching.switches(), wall_clock_ms(), true);
    if (net.suspicious) {
        std::this_thread::sleep_for(std::chrono::milliseconds(file.every_ms));
        watching.ask_once();
        net = builder.next(watching.switches(), wall_clock_ms(), true);
    }
    return printer(how, file.every_ms).print(net) ? status_of(net) : static_cast<int>(NOTHING_ASKED);
}

int show_again(const switch_file& file, const options& how) {
    hold_signals();
    watch watching(file);
    network_builder builder;
    printer out(how, file.every_ms);
    int status = WELL;
    const ending end([&] { watching.stop(); });
    watching.run([&](const round_of_answers& seen) {
        const network net = builder.next(seen.switches, seen.t, seen.complete);
        if (!seen.complete && !how.json) return;
        status = status_of(net);
        if (!out.print(net)) watching.stop();
    });
    return status;
}

}  // namespace esmcmap
