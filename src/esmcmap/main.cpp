// Reads what is asked for, and begins it.
#include <malloc.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>

#include "esmcmap/program.h"

namespace esmcmap {

int complain(const std::string& words) {
    std::cerr << "esmcmap: " << words << "\n";
    return NOTHING_ASKED;
}

namespace {

// SIGUSR2 ends the thread that waits when the program ends by itself.
sigset_t ending_signals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGUSR2}) sigaddset(&set, number);
    return set;
}

}  // namespace

void hold_signals() {
    const sigset_t set = ending_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

ending::ending(std::function<void()> stop)
    : thread([stop = std::move(stop)] {
          const sigset_t set = ending_signals();
          int number = 0;
          sigwait(&set, &number);
          stop();
      }) {}

ending::~ending() {
    pthread_kill(thread.native_handle(), SIGUSR2);
    thread.join();
}

namespace {

bool read_whole(const std::string& name, std::string& text) {
    if (name == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), {});
        return true;
    }
    struct stat about = {};
    if (stat(name.c_str(), &about) != 0) return false;
    errno = EISDIR;
    if (S_ISDIR(about.st_mode)) return false;
    std::ifstream in(name, std::ios::binary);
    text.assign(std::istreambuf_iterator<char>(in), {});
    return !in.fail();
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

// Answers and messages of a large network come and go. Where each thread keeps what it has freed, and large
// blocks lie among small ones that stay, several times as much is held as is used.
void give_memory_back() {
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_TRIM_THRESHOLD, 1024 * 1024);
}

int run(int argc, const char* const argv[]) {
    options how;
    const std::string wrong = read_options(argc, argv, how);
    if (!wrong.empty()) return complain(wrong + " (try esmcmap --help)");
    if (how.help) std::cout << HELP;
    if (how.version) std::cout << "esmcmap " << ESMC_VERSION << "\n";
    if (how.help || how.version) return WELL;
    signal(SIGPIPE, SIG_IGN);
    give_memory_back();
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
