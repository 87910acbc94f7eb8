// The log: what a line looks like, and that no sink ever holds the caller up, mixes two lines or loses count.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <regex>
#include <sstream>

#include "suite/log/place.h"
#include "suite/log/sinks.h"
#include "suite/process/log_writer.h"
#include "unit/suite_support.h"

namespace {

bool matches(const std::string& text, const std::string& form) {
    return std::regex_match(text, std::regex(form));
}

class Log : public Suite {
  protected:
    Log() {
        log_open("esmcd");
        log_use_sink(LOG_SINK_STDERR, false);
        log_place_set_root(folder.c_str());
    }
    ~Log() override {
        dup2(stderr_kept, STDERR_FILENO);
        close(stderr_kept);
        log_close();
        log_syslog_set_path("/dev/log");
        log_place_set_root("/var/log");
    }
    const std::string& line(std::size_t n) const { return said.at(n).second; }

    // Puts `fd` in the place of standard error, and closes it.
    static void become_stderr(int fd) {
        dup2(fd, STDERR_FILENO);
        close(fd);
        log_use_sink(LOG_SINK_STDERR, true);
    }
    static std::string take(int fd, std::size_t most) {
        std::string all(most, 0);
        const ssize_t n = read(fd, all.data(), most);
        all.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
        return all;
    }
    // Lines are whole, in their order, and what is missing between them was counted.
    void expect_said_or_counted(const std::string& all) const {
        std::istringstream in(all);
        std::size_t next = 0, lost = 0;
        for (std::string line; std::getline(in, line);) {
            if (std::sscanf(line.c_str(), "%*s warning %zu log lines dropped", &lost) == 1)
                next += lost;
            else
                ASSERT_EQ(line, said.at(next++).second);
        }
        EXPECT_EQ(next, said.size());
        EXPECT_EQ(all.back(), '\n');
    }
    int stderr_kept = dup(STDERR_FILENO);
};

TEST_F(Log, LineIsTimeLevelAndTextAndATapMayLeaveAndMayNotRecurse) {
    const log_tap tap = [](void* arg, int, const char*, std::size_t) {
        ++*static_cast<int*>(arg);
        log_suite(LOG_LEVEL_INFO, "from the tap");
    };
    int calls = 0;
    EXPECT_EQ(log_add_tap(tap, &calls), 0);
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    log_open("esmcd");  // the zone is looked up once a second otherwise
    log_sys(16, LOG_LEVEL_INFO, "%s%sSIGHUP received", "", ": ");
    log_remove_tap(tap, &calls);
    EXPECT_EQ(calls, 1);
    log_set_level(LOG_LEVEL_WARNING);
    log_suite(LOG_LEVEL_INFO, "not wanted");
    log_suite(LOG_LEVEL_WARNING, "wanted %d", 5);
    unsetenv("TZ");
    tzset();
    const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}[+]05:30 ";
    ASSERT_EQ(said.size(), 2u);
    EXPECT_TRUE(matches(line(0), time + "info : SIGHUP received")) << line(0);
    EXPECT_TRUE(matches(line(1), time + "warning wanted 5")) << line(1);
    EXPECT_EQ(said[1].first, LOG_LEVEL_WARNING);
}

TEST_F(Log, ControlCharactersAreEscapedAndLongTextIsCutNotInTheMiddleOfOne) {
    log_suite(LOG_LEVEL_INFO, "a\nb\tc\x1b[31m\x7f\xc3\xa9");
    EXPECT_TRUE(line(0).ends_with(" info a\nb\\x09c\\x1b[31m\\x7f\xc3\xa9")) << line(0);
    for (std::size_t length : {4000u, 4050u, 4096u, 9000u}) {
        for (char c : {'y', '\x01'}) {
            log_suite(LOG_LEVEL_INFO, "%s", std::string(length, c).c_str());
            const std::string& cut = said.back().second;
            EXPECT_LT(cut.size(), LOG_LINE_MAX);
            EXPECT_GT(cut.size(), 4000u);
            EXPECT_TRUE(cut.ends_with(c == 'y' ? "y" : "\\x01")) << length;
        }
    }
}

TEST_F(Log, RecentLinesAreTheLastOnesInOrder) {
    for (int i = 0; i < 5000; i++) {
        const std::string text(static_cast<std::size_t>(i * 7 % 300), 'r');
        log_suite(LOG_LEVEL_INFO, "line %d %s", i, text.c_str());
    }
    log_suite(LOG_LEVEL_INFO, "%s", std::string(8000, 'L').c_str());
    const auto whole = said;
    words recent;
    const auto visit = [](void* a, const char* l, std::size_t n) {
        static_cast<words*>(a)->emplace_back(l, n);
        log_suite(LOG_LEVEL_DEBUG, "logged by the visitor");
    };
    log_walk_recent(visit, &recent);
    ASSERT_LT(recent.size(), whole.size());
    for (std::size_t i = 1; i <= recent.size(); i++)
        ASSERT_EQ(recent[recent.size() - i], whole[whole.size() - i].second);
    std::size_t octets = 0;
    for (const auto& line : recent) octets += line.size() + 2;
    EXPECT_LE(octets, 65536u);
    EXPECT_GT(octets, 65536u - 4096u);
}

// Who may use a terminal may not choose what root appends to: /etc/profile.d, a device, another's file.
TEST_F(Log, FileLiesInItsFolderAndIsNothingButAFile) {
    namespace fs = std::filesystem;
    const std::string in = folder + "/in", link = "a part of the path is a symbolic link",
                      below = "a log file lies below /var/log";
    fs::create_directories(in + "/sub");
    log_place_set_root(in.c_str());
    write_file(folder + "/outside", "");
    fs::create_directory_symlink(folder, in + "/up");
    fs::create_symlink(folder + "/outside", in + "/link");
    fs::create_hard_link(folder + "/outside", in + "/twice");
    fs::create_symlink(folder + "/made", in + "/dangling");
    ASSERT_EQ(mkfifo((in + "/fifo").c_str(), 0600), 0);
    const std::string refused[][2] = {{folder + "/outside", below},
                                      {in, below},
                                      {in + "side/x", below},
                                      {"log", below},
                                      {in + "/../outside", "not a plain path"},
                                      {in + "/", "not a plain path"},
                                      {in + "/up/outside", link},
                                      {in + "/link", link},
                                      {in + "/dangling", link},
                                      {in + "/twice", "the file has other names"},
                                      {in + "/fifo", "not a regular file"},
                                      {in + "/sub", "not a regular file"},
                                      {in + "/fifo/x", "Not a directory"}};
    const char* why = nullptr;
    for (const auto& [path, reason] : refused) {
        EXPECT_EQ(log_place_open(path.c_str(), &why), -1) << path;
        EXPECT_EQ(why, reason) << path;
    }
    const int fd = log_place_open((in + "/sub/x").c_str(), &why);
    EXPECT_GE(fd, 0);
    close(fd);
    EXPECT_EQ(permissions(in + "/sub/x") & ~0640u, 0u);
    // The folder's own path counts as well.
    const std::string linked = in + "/up";
    log_place_set_root(linked.c_str());
    EXPECT_EQ(log_place_open((in + "/up/x").c_str(), &why), -1);
    EXPECT_EQ(why, link);
    EXPECT_FALSE(fs::exists(folder + "/made") || fs::exists(folder + "/x"));
}

// Every line is whole, and what is missing was said. A stream socket takes half a line, too: the rest comes
// first.
TEST_F(Log, FullStandardErrorLosesWholeLinesAndSaysHowMany) {
    int pairs[2][2];
    const int small = 1;  // the least that the kernel grants is less than a long line
    ASSERT_EQ(pipe2(pairs[0], O_CLOEXEC), 0);
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pairs[1]), 0);
    setsockopt(pairs[1][1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    for (const auto& [far, near] : pairs) {
        fcntl(far, F_SETFL, O_NONBLOCK);
        const auto dropped = log_dropped_lines();
        said.clear();
        become_stderr(near);
        std::string all;
        for (int i = 0; i < 2000; i++) {
            log_suite(LOG_LEVEL_INFO, "line %d %s end", i, std::string(1 + i * 31 % 3900, 'x').c_str());
            if (i % 5 == 0) all += take(far, 1000);
        }
        EXPECT_TRUE(log_backlog());
        for (int i = 0; i < 20; i++) {  // the chances that the sink has while the loop sleeps
            all += take(far, 1 << 20);
            log_retry();
        }
        EXPECT_FALSE(log_backlog());
        EXPECT_GT(log_dropped_lines(), dropped);
        // The file is shared with other processes, for which it still blocks.
        EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
        close(far);
        expect_said_or_counted(all);
    }
}

TEST_F(Log, StandardErrorIsFollowedWhenItIsRedirected) {
    for (const std::string& path : {folder + "/first", folder + "/second"}) {
        become_stderr(open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
        log_suite(LOG_LEVEL_INFO, "to %s", path.c_str());
        ASSERT_EQ(write(STDERR_FILENO, "another writer\n", 15), 15);
        EXPECT_EQ(read_file(path), said.back().second + "\nanother writer\n") << "nobody's line is lost";
    }
    const int journal = open((folder + "/journal").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    struct stat about {};
    fstat(journal, &about);
    setenv("JOURNAL_STREAM", (std::to_string(about.st_dev) + ":" + std::to_string(about.st_ino)).c_str(), 1);
    become_stderr(journal);
    log_suite(LOG_LEVEL_WARNING, "%s", std::string(LOG_LINE_MAX, 'j').c_str());
    unsetenv("JOURNAL_STREAM");
    EXPECT_EQ(read_file(folder + "/journal"), "<4>" + said.back().second + "\n")
        << "the journal has the level";
    close(STDERR_FILENO);  // gone altogether: counted, nothing else
    log_suite(LOG_LEVEL_INFO, "three");
    EXPECT_TRUE(log_backlog());
}

// Files are written by children. One that is stopped stands for a disk that does not answer.
class Writer : public Log {
  protected:
    Writer() {
        std::fflush(stdout);  // valgrind has each child flush what it finds there
        become_stderr(open("/dev/null", O_WRONLY | O_CLOEXEC));
        log_use_sink(LOG_SINK_STDERR, false);
        ctx = lib_create("esmcd");
        EXPECT_EQ(lib_start(ctx), 0);
        log_set_default_sinks(0);
        ctx->master = thread_master_create();
    }
    ~Writer() override { lib_stop(ctx); }

    // Why it could not be opened; empty when it was.
    std::string open_log(const std::string& name) {
        std::string why = "not asked";
        const auto keep = [](lib_globals*, void* owner, const char* reason) {
            *static_cast<std::string*>(owner) = reason ? reason : "";
        };
        const char* refused = log_writer_open(ctx, name.c_str(), keep, &why);
        if (refused) return refused;
        EXPECT_TRUE(run_loop(ctx, 20000, [&] { return why != "not asked"; }));
        return why;
    }
    static pid_t newest_child() {
        std::istringstream in(read_file("/proc/self/task/" + std::to_string(getpid()) + "/children"));
        pid_t child = 0;
        while (in >> child) {
        }
        return child;
    }
    static bool comes_to_hold(const std::string& file, const std::string& text) {
        const nanoseconds end = monotonic_now() + 20 * NS_PER_S;
        while (read_file(file).find(text) == std::string::npos && monotonic_now() < end) usleep(1000);
        return read_file(file).find(text) != std::string::npos;
    }
    lib_globals* ctx;
    const std::string path = folder + "/log";
};

TEST_F(Writer, FileIsAppendedToMovedAwayAndTheFormerStaysWhenANewOneCannotBeOpened) {
    write_file(path, "before\n");
    EXPECT_EQ(log_writer_open(ctx, path.c_str(), nullptr, nullptr), nullptr);
    log_suite(LOG_LEVEL_INFO, "one");
    EXPECT_EQ(read_file(path), "before\n") << "not with the rights of the start";
    log_writers_start(ctx);
    EXPECT_EQ(open_log(folder + "/none/x"), "No such file or directory");
    EXPECT_EQ(open_log("/etc/x"), "a log file lies below /var/log");
    log_suite(LOG_LEVEL_INFO, "two");
    EXPECT_STREQ(log_get_settings().file, path.c_str());
    ASSERT_TRUE(comes_to_hold(path, "two\n"));
    rename(path.c_str(), (path + ".1").c_str());
    EXPECT_EQ(open_log(path), "");
    log_suite(LOG_LEVEL_INFO, "last");
    log_writers_stop(ctx);
    EXPECT_EQ(read_file(path + ".1"), "before\n" + line(0) + "\n" + line(1) + "\n" + line(2) + "\n");
    EXPECT_EQ(read_file(path), line(3) + "\n") << "the end waits for what was said last";
}

TEST_F(Writer, DiskThatHangsLosesWholeLinesAndSaysHowMany) {
    log_writers_start(ctx);
    ASSERT_EQ(open_log(path), "");
    const pid_t child = newest_child();
    const std::uint64_t before = log_dropped_lines();
    kill(child, SIGSTOP);
    while (log_dropped_lines() < before + 10) log_suite(LOG_LEVEL_INFO, "%s", std::string(999, 'x').c_str());
    EXPECT_LT(said.size(), 200u);
    kill(child, SIGCONT);
    const nanoseconds end = monotonic_now() + 20 * NS_PER_S;
    for (; log_backlog() && monotonic_now() < end; usleep(1000)) log_retry();
    log_suite(LOG_LEVEL_INFO, "end");
    ASSERT_TRUE(comes_to_hold(path, " end\n"));
    expect_said_or_counted(read_file(path));
    kill(child, SIGSTOP);
    const nanoseconds start = monotonic_now();
    log_writers_stop(ctx);
    EXPECT_LT(monotonic_now() - start, 3 * NS_PER_S) << "the end waits only so long";
    kill(child, SIGKILL);
}

TEST_F(Writer, ChildThatIsGoneIsSaid) {
    log_writers_start(ctx);
    ASSERT_EQ(open_log(path), "");
    kill(newest_child(), SIGKILL);
    EXPECT_TRUE(run_loop(ctx, 20000, [&] { return log_get_settings().file == nullptr; }));
    EXPECT_EQ(logged(LOG_LEVEL_WARNING), words{"the writer of log file " + path + " has ended"});
    EXPECT_EQ(open_log(path), "");
}

int listen_at(const std::string& path) {
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    path.copy(a.sun_path, sizeof a.sun_path - 1);
    unlink(path.c_str());
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    return fd;
}

TEST_F(Log, SyslogGetsDatagramsAndAMissingDaemonCostsNothing) {
    const std::string path = folder + "/log.socket";
    log_syslog_set_path(path.c_str());
    log_use_sink(LOG_SINK_SYSLOG, true);
    log_suite(LOG_LEVEL_INFO, "nobody listens");
    int fd = listen_at(path);
    log_syslog_set_path(path.c_str());  // does not wait for the next second
    log_sys(16, LOG_LEVEL_ERROR, "%s%sboom\n", "", ": ");
    const std::string head =
        "[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} esmcd\\[" + std::to_string(getpid()) + "\\]: ";
    EXPECT_TRUE(matches(take(fd, 5000), "<28>" + head + "1 log lines dropped"));
    EXPECT_TRUE(matches(take(fd, 5000), "<27>" + head + ": boom\n"));
    // A reader that does not read: lines are dropped, not waited for.
    for (int i = 0; i < 5000; i++) log_suite(LOG_LEVEL_INFO, "%s", std::string(200, 's').c_str());
    EXPECT_TRUE(log_backlog());
    // A daemon that is started anew is found again.
    close(fd);
    log_suite(LOG_LEVEL_INFO, "nobody");
    fd = listen_at(path);
    const std::time_t deadline = std::time(nullptr) + 5;
    std::string got;
    while (got.empty() && std::time(nullptr) < deadline) {
        log_suite(LOG_LEVEL_INFO, "again");
        got = take(fd, 5000);
        usleep(10000);
    }
    EXPECT_NE(got, "");
    close(fd);
}

}  // namespace
