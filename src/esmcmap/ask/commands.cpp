// Switches asked by a command that prints the JSON object. Each runs in a process group of its own, which is
// killed when its time is over or when it says too much, so that what it started goes with it.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "esmcmap/ask/channel.h"
#include "esmcmap/model/read_json.h"

namespace esmcmap {

namespace {

class descriptor {
  public:
    descriptor() = default;
    explicit descriptor(int opened) : fd(opened) {}
    descriptor(descriptor&& other) noexcept : fd(std::exchange(other.fd, -1)) {}
    descriptor& operator=(descriptor&& other) noexcept {
        std::swap(fd, other.fd);
        return *this;
    }
    ~descriptor() { reset(); }
    void reset() {
        if (fd >= 0) close(std::exchange(fd, -1));
    }
    int get() const { return fd; }
    bool open() const { return fd >= 0; }

  private:
    int fd = -1;
};

struct pipe_ends {
    descriptor reading, writing;
};

bool open_pipe(pipe_ends& ends) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return false;
    ends.reading = descriptor(fds[0]);
    ends.writing = descriptor(fds[1]);
    return fcntl(fds[0], F_SETFL, O_NONBLOCK) == 0;
}

struct running {
    std::size_t who = 0;
    pid_t pid = 0;
    descriptor alive;  // readable when the process has ended
    descriptor out, err;
    std::string said, complained;
    moment deadline;
};

// Child side of what a command gets: nothing to read, its own group, no signal ignored or held back.
struct spawn_plan {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;

    spawn_plan(int out, int err) {
        posix_spawn_file_actions_init(&files);
        posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&files, out, STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&files, err, STDERR_FILENO);
        sigset_t all, none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_init(&attributes);
        posix_spawnattr_setflags(&attributes,
                                 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
        posix_spawnattr_setpgroup(&attributes, 0);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setsigmask(&attributes, &none);
    }
    spawn_plan(const spawn_plan&) = delete;
    spawn_plan& operator=(const spawn_plan&) = delete;
    ~spawn_plan() {
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attributes);
    }
};

// Empty when it runs, else why not.
std::string start(const std::vector<std::string>& command, running& job) {
    pipe_ends out, err;
    if (!open_pipe(out) || !open_pipe(err)) return std::string("no pipe: ") + std::strerror(errno);
    std::vector<char*> argv;
    for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const spawn_plan plan(out.writing.get(), err.writing.get());
    const int refused = posix_spawnp(&job.pid, argv[0], &plan.files, &plan.attributes, argv.data(), environ);
    if (refused) return tame("can't run " + command[0] + ": " + std::strerror(refused));
    job.alive = descriptor(static_cast<int>(syscall(SYS_pidfd_open, job.pid, 0)));
    job.out = std::move(out.reading);
    job.err = std::move(err.reading);
    return {};
}

// Takes what is there, up to `most` octets in all; closes the end when the other one is closed.
void drain(descriptor& from, std::string& into, std::size_t most) {
    char octets[16384];
    while (from.open() && into.size() <= most) {
        const ssize_t count = read(from.get(), octets, sizeof octets);
        if (count < 0 && errno == EAGAIN) return;
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return from.reset();
        into.append(octets, static_cast<std::size_t>(count));
    }
}

std::string last_line(std::string_view text) {
    while (!text.empty() && static_cast<unsigned char>(text.back()) <= ' ') text.remove_suffix(1);
    const std::size_t before = text.rfind('\n');
    return tame(before == text.npos ? text : text.substr(before + 1), 200);
}

std::string how_it_ended(const running& job, const siginfo_t& info) {
    std::string complaint = last_line(job.complained);
    if (!complaint.empty()) return complaint;
    return (info.si_code == CLD_EXITED ? "the command ended with status "
                                       : "the command was ended by signal ") +
           std::to_string(info.si_status);
}

class commands final : public channel {
  public:
    explicit commands(const switch_file& file) {
        for (const switch_entry& entry : file.switches) argv.push_back(entry.command);
    }
    ~commands() override {
        for (const running& job : jobs) kill(-job.pid, SIGKILL);
    }

    void ask(std::size_t who, moment deadline) override {
        running job;
        job.who = who;
        job.deadline = deadline;
        std::string refused = start(argv[who], job);
        if (refused.empty())
            jobs.push_back(std::move(job));
        else
            stillborn.push_back(failed(who, answer::silent, std::move(refused)));
    }

    void await(std::vector<pollfd>& waiting, moment& until) override {
        for (const running& job : jobs) {
            if (job.out.open()) waiting.push_back({job.out.get(), POLLIN, 0});
            if (job.err.open()) waiting.push_back({job.err.get(), POLLIN, 0});
            // Who has closed its output is about to end.
            if (!job.out.open() && job.alive.open()) waiting.push_back({job.alive.get(), POLLIN, 0});
            until = std::min(until, job.deadline);
        }
        if (!stillborn.empty()) until = moment::min();
    }

    void take(const std::vector<pollfd>&, moment now, std::vector<outcome>& ended) override {
        std::move(stillborn.begin(), stillborn.end(), std::back_inserter(ended));
        stillborn.clear();
        std::erase_if(jobs, [&](running& job) { return over(job, now, ended); });
        std::erase_if(dying, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
    }

    bool busy() const override { return !jobs.empty() || !stillborn.empty(); }

  private:
    static constexpr std::size_t COMPLAINT_LIMIT = 4096;
    std::vector<std::vector<std::string>> argv;
    std::vector<running> jobs;
    std::vector<outcome> stillborn;
    std::vector<pid_t> dying;  // killed: one that hangs in the kernel takes its time, which nobody waits for

    // What it leaves behind in its group ends too. The pid is still ours: nobody else waits for it.
    void kill_group(const running& job) {
        kill(-job.pid, SIGKILL);
        dying.push_back(job.pid);
    }

    // Left to be waited for: its pid, which is its group's number, is not another's yet.
    static bool has_ended(const running& job, siginfo_t& info) {
        return waitid(P_PID, static_cast<id_t>(job.pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid != 0;
    }

    bool over(running& job, moment now, std::vector<outcome>& ended) {
        drain(job.out, job.said, ANSWER_LIMIT);
        drain(job.err, job.complained, COMPLAINT_LIMIT);
        if (job.complained.size() > COMPLAINT_LIMIT) job.err.reset();
        if (job.said.size() > ANSWER_LIMIT) {
            kill_group(job);
            ended.push_back(failed(job.who, answer::garbage, "the answer is longer than 4 MiB"));
            return true;
        }
        siginfo_t info = {};
        if (!job.out.open() && has_ended(job, info)) {
            drain(job.err, job.complained, COMPLAINT_LIMIT);
            kill_group(job);
            const bool well = info.si_code == CLD_EXITED && info.si_status == 0;
            ended.push_back(well ? read_outcome(job.who, job.said)
                                 : failed(job.who, answer::silent, how_it_ended(job, info)));
            return true;
        }
        if (now < job.deadline) return false;
        kill_group(job);
        ended.push_back(failed(job.who, answer::silent, "no answer in time"));
        return true;
    }
};

}  // namespace

std::unique_ptr<channel> command_channel(const switch_file& file) {
    return std::make_unique<commands>(file);
}

}  // namespace esmcmap
