// Puts the map together: asks once, again and again, or serves what it sees.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <thread>

#include "esmcmap/ask/watch.h"
#include "esmcmap/model/network.h"
#include "esmcmap/options.h"
#include "esmcmap/serve/metrics.h"
#include "esmcmap/serve/records.h"
#include "esmcmap/serve/server.h"
#include "esmcmap/show/changes.h"
#include "esmcmap/show/picture.h"
#include "esmcmap/show/svg.h"
#include "esmcmap/show/text.h"

namespace esmcmap {

namespace {

enum : int { WELL = 0, LOOP_OR_ISLAND = 1, NOTHING_ASKED = 2, SILENCE = 3 };

int complain(const std::string& words) {
    std::cerr << "esmcmap: " << words << "\n";
    return NOTHING_ASKED;
}

// Signals that end the program are taken by one thread, which then tells the others.
class ending {
  public:
    explicit ending(std::function<void()> stop) {
        sigemptyset(&wanted);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR2}) sigaddset(&wanted, number);
        pthread_sigmask(SIG_BLOCK, &wanted, nullptr);
        thread = std::thread([this, stop = std::move(stop)] {
            int number = 0;
            sigwait(&wanted, &number);
            stop();
        });
    }
    ~ending() {
        pthread_kill(thread.native_handle(), SIGUSR2);
        thread.join();
    }
    ending(const ending&) = delete;
    ending& operator=(const ending&) = delete;

  private:
    sigset_t wanted = {};
    std::thread thread;
};

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

int serve(const switch_file& file, const options& how) {
    watch watching(file);
    network_builder builder;
    records shown;
    metrics counted;
    server map(shown, [&counted] { return counted.text(); });
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
    std::ifstream recording(how.replay);
    if (!recording) return complain("can't read " + how.replay + ": " + std::strerror(errno));
    records shown;
    server map(shown, nullptr);
    if (!bind_or_complain(map, how.at)) return NOTHING_ASKED;
    std::mutex lock;
    std::condition_variable news;
    bool stopping = false;
    const ending end([&] {
        const std::unique_lock held(lock);
        stopping = true;
        news.notify_all();
    });
    map.start();
    announce(map);
    std::unique_lock held(lock);
    std::int64_t last = 0;
    std::size_t number = 0;
    for (std::string line; !stopping && std::getline(recording, line);) {
        picture state;
        const std::string wrong = read_picture(line, state);
        ++number;
        if (!wrong.empty()) return complain(how.replay + ":" + std::to_string(number) + ": " + wrong);
        if (last && state.t > last)
            news.wait_for(held, std::chrono::milliseconds(state.t - last), [&] { return stopping; });
        last = state.t;
        shown.publish(std::move(state));
    }
    news.wait(held, [&] { return stopping; });
    held.unlock();
    shown.close();
    map.stop();
    return WELL;
}

bool read_whole(const std::string& name, std::string& text) {
    if (name == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
        return true;
    }
    errno = 0;
    std::ifstream in(name, std::ios::binary);
    if (!in) return false;
    text.assign(std::istreambuf_iterator<char>(in), {});
    return !in.bad() && errno != EISDIR;
}

// Communities and pass phrases are nobody else's to read.
void warn_of_readers(const switch_file& file, const std::string& name) {
    struct stat about = {};
    const bool secrets = std::any_of(file.switches.begin(), file.switches.end(),
                                     [](const switch_entry& one) { return one.command.empty(); });
    constexpr mode_t OTHERS = 0044;
    if (secrets && stat(name.c_str(), &about) == 0 && about.st_mode & OTHERS)
        std::cerr << "esmcmap: " << name << " holds what others should not read (chmod 600 " << name << ")\n";
}

int show(const options& how) {
    std::string text;
    if (!read_whole(how.file, text)) return complain("can't read " + how.file + ": " + std::strerror(errno));
    std::vector<std::string> faults;
    const switch_file file = read_switch_file(text, how.file, faults);
    for (const std::string& fault : faults) std::cerr << fault << "\n";
    if (!faults.empty()) return NOTHING_ASKED;
    warn_of_readers(file, how.file);
    if (how.serve) return serve(file, how);
    return how.watch ? show_again(file, how) : show_once(file, how);
}

// Three descriptors a question: what the system allows is taken.
void raise_descriptor_limit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 65536);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

int run(int argc, const char* const argv[]) {
    options how;
    const std::string wrong = read_options(argc, argv, how);
    if (!wrong.empty()) return complain(wrong + " (try esmcmap --help)");
    if (how.help) std::cout << HELP;
    if (how.version) std::cout << "esmcmap " << ESMC_VERSION << "\n";
    if (how.help || how.version) return WELL;
    signal(SIGPIPE, SIG_IGN);
    raise_descriptor_limit();
    return how.replay.empty() ? show(how) : replay(how);
}

}  // namespace

}  // namespace esmcmap

int main(int argc, char* argv[]) {
    try {
        return esmcmap::run(argc, argv);
    } catch (const std::exception& error) {
        return esmcmap::complain(error.what());
    }
}
