// The log: what a line looks like, and that no sink ever holds the caller up, mixes two lines or loses count.
#include "suite/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdarg>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "suite/cli.h"
#include "suite/log_sinks.h"
#include "suite/memory.h"

namespace {

// The whole text against a POSIX extended expression; the first group's number, 0 without one, -1 when it
// does not match.
int match(const std::string& text, const std::string& form) {
    regex_t compiled;
    EXPECT_EQ(regcomp(&compiled, ("^" + form + "$").c_str(), REG_EXTENDED), 0);
    regmatch_t groups[2];
    const bool matched = regexec(&compiled, text.c_str(), 2, groups, 0) == 0;
    regfree(&compiled);
    if (!matched) return -1;
    return groups[1].rm_so < 0 ? 0 : atoi(text.c_str() + groups[1].rm_so);
}

class Log : public ::testing::Test {
  protected:
    void SetUp() override {
        char path[] = "/tmp/suite_log_XXXXXX";
        ASSERT_NE(mkdtemp(path), nullptr);
        folder = path;
        stderr_kept = dup(STDERR_FILENO);
        log_open("esmcd");
        log_use_sink(LOG_SINK_STDERR, false);
        log_add_tap(collect, this);
    }
    void TearDown() override {
        dup2(stderr_kept, STDERR_FILENO);
        close(stderr_kept);
        log_remove_tap(collect, this);
        log_close();
        log_syslog_set_path("/dev/log");
        for (int fd : fds) close(fd);
        (void)!system(("rm -r " + folder).c_str());
    }
    static void collect(void* arg, int level, const char* line, std::size_t length) {
        Log& l = *static_cast<Log*>(arg);
        l.levels.push_back(level);
        l.lines.emplace_back(line, length);
    }
    static std::string text_of(const std::string& line) {
        return line.substr(line.find(' ', line.find(' ') + 1) + 1);
    }
    static std::string contents(const std::string& path) {
        std::ifstream f(path);
        std::stringstream s;
        s << f.rdbuf();
        return s.str();
    }
    // Puts `fd` in the place of standard error.
    void become_stderr(int fd) {
        dup2(fd, STDERR_FILENO);
        log_use_sink(LOG_SINK_STDERR, true);
    }
    static std::string drain(int fd) {
        std::string all;
        char b[65536];
        for (ssize_t n; (n = recv(fd, b, sizeof b, MSG_DONTWAIT)) > 0 || (n < 0 && errno == ENOTSOCK);) {
            if (n < 0) {
                fcntl(fd, F_SETFL, O_NONBLOCK);
                n = read(fd, b, sizeof b);
                if (n <= 0) break;
            }
            all.append(b, static_cast<std::size_t>(n));
        }
        return all;
    }
    // Every line is whole, numbers ascend, and what is missing was said.
    static void expect_whole_lines(const std::string& all, int sent) {
        std::istringstream in(all);
        int next = 0;
        for (std::string line; std::getline(in, line);) {
            const int lost = match(line, ".* warning ([0-9]+) log lines dropped");
            if (lost >= 0) {
                next += lost;
            } else {
                ASSERT_EQ(match(line, ".* info line ([0-9]+) x+ end"), next) << line;
                next++;
            }
        }
        EXPECT_EQ(next, sent);
        EXPECT_EQ(all.back(), '\n');
    }

    std::string folder;
    int stderr_kept = -1;
    std::vector<int> fds, levels;
    std::vector<std::string> lines;
};

TEST_F(Log, LineIsTimeLevelAndText) {
    setenv("TZ", "XYZ-5:30", 1);
    tzset();
    log_open("esmcd");  // the zone is looked up once a second otherwise
    log_sys(16, LOG_LEVEL_INFO, "%s%sSIGHUP received", "", ": ");
    log_sys(16, LOG_LEVEL_ERROR, "plain %d", 5);
    log_suite(LOG_LEVEL_WARNING, "w");
    log_suite(LOG_LEVEL_DEBUG, "d");
    unsetenv("TZ");
    tzset();
    ASSERT_EQ(lines.size(), 4u);
    const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{3}[+]05:30 ";
    EXPECT_EQ(match(lines[0], time + "info : SIGHUP received"), 0) << lines[0];
    EXPECT_EQ(match(lines[1], time + "error plain 5"), 0) << lines[1];
    EXPECT_EQ(match(lines[2], time + "warning w"), 0) << lines[2];
    EXPECT_EQ(match(lines[3], time + "debug d"), 0) << lines[3];
    EXPECT_EQ(levels, (std::vector<int>{6, 3, 4, 7}));
}

TEST_F(Log, ControlCharactersAreEscapedExceptNewline) {
    log_suite(LOG_LEVEL_INFO, "a\nb\tc\x1b[31m\x7f\xc3\xa9");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(text_of(lines[0]), "a\nb\\x09c\\x1b[31m\\x7f\xc3\xa9");
}

TEST_F(Log, LongTextIsCutAlsoInTheMiddleOfEscapes) {
    for (std::size_t length : {4000u, 4050u, 4096u, 9000u}) {
        for (char c : {'y', '\x01'}) {
            lines.clear();
            log_suite(LOG_LEVEL_INFO, "%s", std::string(length, c).c_str());
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_LT(lines[0].size(), LOG_LINE_MAX);
            EXPECT_GT(lines[0].size(), 4000u);
            if (c == '\x01') {
                EXPECT_EQ(lines[0].substr(lines[0].size() - 4), "\\x01");
            }
        }
    }
}

TEST_F(Log, LevelDecidesBeforeAnythingIsFormatted) {
    log_set_level(LOG_LEVEL_WARNING);
    EXPECT_FALSE(log_wants(LOG_LEVEL_INFO));
    EXPECT_TRUE(log_wants(LOG_LEVEL_WARNING));
    log_suite(LOG_LEVEL_INFO, "no");
    log_suite(LOG_LEVEL_ERROR, "yes");
    EXPECT_EQ(levels, (std::vector<int>{LOG_LEVEL_ERROR}));
}

TEST_F(Log, TapsAreBoundedMayLeaveAndMayNotRecurse) {
    static int calls;
    calls = 0;
    const log_tap leaver = [](void*, int, const char*, std::size_t) {
        calls++;
        log_suite(LOG_LEVEL_INFO, "from the tap");
    };
    int added = 0;
    while (log_add_tap(leaver, reinterpret_cast<void*>(static_cast<std::uintptr_t>(added + 1))) == 0) added++;
    EXPECT_EQ(added, 63);
    log_suite(LOG_LEVEL_INFO, "one");
    EXPECT_EQ(calls, 63);
    for (int i = 0; i < added; i++)
        log_remove_tap(leaver, reinterpret_cast<void*>(static_cast<std::uintptr_t>(i + 1)));
    log_suite(LOG_LEVEL_INFO, "two");
    EXPECT_EQ(calls, 63);
    EXPECT_EQ(lines.size(), 2u);
}

TEST_F(Log, RecentLinesAreTheLastOnesInOrder) {
    for (int i = 0; i < 5000; i++) {
        log_suite(LOG_LEVEL_INFO, "line %d %s", i,
                  std::string(static_cast<std::size_t>(i * 7 % 300), 'r').c_str());
    }
    log_suite(LOG_LEVEL_INFO, "%s", std::string(8000, 'L').c_str());
    std::vector<std::string> recent;
    log_walk_recent(
        [](void* a, const char* l, std::size_t n) {
            static_cast<std::vector<std::string>*>(a)->emplace_back(l, n);
            log_suite(LOG_LEVEL_DEBUG, "logged by the visitor");
        },
        &recent);
    ASSERT_GT(recent.size(), 200u);
    std::vector<std::string> expected;
    for (const auto& l : lines) {
        if (l.find("visitor") == std::string::npos) expected.push_back(l);
    }
    std::size_t octets = 0;
    for (std::size_t i = 0; i < recent.size(); i++) {
        ASSERT_EQ(recent[i], expected[expected.size() - recent.size() + i]);
        octets += recent[i].size() + 2;
    }
    EXPECT_LE(octets, 65536u);
    EXPECT_GT(octets, 65536u - 4096u);
}

TEST_F(Log, FileIsAppendedToAndTheFormerStaysWhenANewOneCannotBeOpened) {
    const std::string path = folder + "/log";
    std::ofstream(path) << "before\n";
    ASSERT_EQ(log_set_file(path.c_str()), 0);
    log_suite(LOG_LEVEL_INFO, "one");
    errno = 0;
    EXPECT_EQ(log_set_file((folder + "/no/such/folder").c_str()), -1);
    EXPECT_EQ(errno, ENOENT);
    log_suite(LOG_LEVEL_INFO, "two");
    EXPECT_EQ(contents(path), "before\n" + lines[0] + "\n" + lines[1] + "\n");
    ASSERT_EQ(log_set_file((folder + "/new").c_str()), 0);
    log_suite(LOG_LEVEL_INFO, "three");
    EXPECT_EQ(contents(folder + "/new"), lines[2] + "\n");
    struct stat s {};
    stat((folder + "/new").c_str(), &s);
    EXPECT_EQ(s.st_mode & 0777 & ~0640u, 0u);
    EXPECT_EQ(log_set_file(nullptr), 0);
    log_suite(LOG_LEVEL_INFO, "four");
    EXPECT_EQ(contents(folder + "/new"), lines[2] + "\n");
}

TEST_F(Log, FullPipeOnStandardErrorLosesWholeLinesAndSaysHowMany) {
    int p[2];
    ASSERT_EQ(pipe2(p, O_CLOEXEC), 0);
    fds = {p[0]};
    become_stderr(p[1]);
    close(p[1]);
    const auto dropped = log_dropped_lines();
    for (int i = 0; i < 3000; i++) {
        log_suite(LOG_LEVEL_INFO, "line %d %s end", i,
                  std::string(static_cast<std::size_t>(1 + i * 31 % 700), 'x').c_str());
    }
    EXPECT_GT(log_dropped_lines(), dropped);
    EXPECT_TRUE(log_backlog());
    // The other end of a pipe that is shared with other processes still blocks for them.
    EXPECT_EQ(fcntl(STDERR_FILENO, F_GETFL) & O_NONBLOCK, 0);
    std::string all = drain(p[0]);
    log_retry();  // what the loop does while it sleeps
    EXPECT_FALSE(log_backlog());
    all += drain(p[0]);
    expect_whole_lines(all, 3000);
}

TEST_F(Log, StreamSocketThatTakesHalfALineGetsTheRestFirst) {
    int p[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, p), 0);
    fds = {p[0]};
    const int small = 4608;
    setsockopt(p[1], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    become_stderr(p[1]);
    close(p[1]);
    std::string all;
    for (int i = 0; i < 2000; i++) {
        log_suite(LOG_LEVEL_INFO, "line %d %s end", i,
                  std::string(static_cast<std::size_t>(1 + i * 31 % 3900), 'x').c_str());
        if (i % 5 == 0) {
            char b[1000];
            const ssize_t n = recv(p[0], b, sizeof b, MSG_DONTWAIT);
            if (n > 0) all.append(b, static_cast<std::size_t>(n));
        }
    }
    EXPECT_TRUE(log_backlog());
    for (int i = 0; i < 10 && log_backlog(); i++) {
        all += drain(p[0]);
        log_retry();
    }
    all += drain(p[0]);
    expect_whole_lines(all, 2000);
}

TEST_F(Log, StandardErrorIsFollowedWhenItIsRedirected) {
    const std::string first = folder + "/first", second = folder + "/second";
    int fd = open(first.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    become_stderr(fd);
    close(fd);
    log_suite(LOG_LEVEL_INFO, "one");
    fd = open(second.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    dup2(fd, STDERR_FILENO);
    close(fd);
    log_suite(LOG_LEVEL_INFO, "two");
    EXPECT_EQ(contents(first), lines[0] + "\n");
    EXPECT_EQ(contents(second), lines[1] + "\n");
    close(STDERR_FILENO);  // gone altogether: counted, nothing else
    log_suite(LOG_LEVEL_INFO, "three");
    EXPECT_TRUE(log_backlog());
}

TEST_F(Log, SyslogGetsDatagramsAndAMissingDaemonCostsNothing) {
    const std::string path = folder + "/log.socket";
    log_syslog_set_path(path.c_str());
    log_use_sink(LOG_SINK_SYSLOG, true);
    log_suite(LOG_LEVEL_INFO, "nobody listens");
    EXPECT_EQ(log_dropped_lines() > 0, true);
    const auto listen_there = [&] {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        std::strncpy(a.sun_path, path.c_str(), sizeof a.sun_path - 1);
        unlink(path.c_str());
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
        return fd;
    };
    int fd = listen_there();
    log_syslog_set_path(path.c_str());  // does not wait for the next second
    log_sys(16, LOG_LEVEL_ERROR, "%s%sboom\n", "", ": ");
    char b[5000];
    ssize_t n = recv(fd, b, sizeof b, MSG_DONTWAIT);
    ASSERT_GT(n, 0);
    EXPECT_EQ(match(std::string(b, static_cast<std::size_t>(n)),
                    "<28>[A-Z][a-z]{2} [ 0-9][0-9] [0-9:]{8} esmcd.[0-9]+.: 1 log lines dropped"),
              0);
    n = recv(fd, b, sizeof b, MSG_DONTWAIT);
    ASSERT_GT(n, 0);
    const std::string expected = " esmcd[" + std::to_string(getpid()) + "]: : boom\n";
    const std::string datagram(b, static_cast<std::size_t>(n));
    EXPECT_EQ(datagram.substr(0, 4), "<27>");
    EXPECT_EQ(datagram.substr(datagram.find(" esmcd")), expected);
    // A reader that does not read: lines are dropped, not waited for.
    for (int i = 0; i < 5000; i++) log_suite(LOG_LEVEL_INFO, "%s", std::string(200, 's').c_str());
    EXPECT_TRUE(log_backlog());
    // A daemon that is started anew is found again.
    close(fd);
    log_suite(LOG_LEVEL_INFO, "nobody");
    fd = listen_there();
    const std::time_t deadline = std::time(nullptr) + 5;
    do {
        log_suite(LOG_LEVEL_INFO, "again");
        n = recv(fd, b, sizeof b, MSG_DONTWAIT);
        usleep(10000);
    } while (n < 0 && std::time(nullptr) < deadline);
    EXPECT_GT(n, 0);
    close(fd);
}

int print_to_string(void* out, const char* format, ...) {
    char b[300];
    va_list args;
    va_start(args, format);
    const int n = vsnprintf(b, sizeof b, format, args);
    va_end(args);
    *static_cast<std::string*>(out) += b;
    return n;
}

TEST_F(Log, ConfigurationNamesWhatDiffersFromTheMode) {
    std::string written;
    cli session{};
    session.out_func = print_to_string;
    session.out_val = &written;
    log_set_default_sinks(LOG_SINK_SYSLOG);  // daemon mode
    EXPECT_EQ(log_config_write(&session), 0);
    EXPECT_EQ(written, "");
    log_use_sink(LOG_SINK_STDERR, true);
    log_use_sink(LOG_SINK_SYSLOG, false);
    ASSERT_EQ(log_set_file((folder + "/f").c_str()), 0);
    log_set_level(LOG_LEVEL_WARNING);
    log_config_write(&session);
    EXPECT_EQ(written, "log stderr\nno log syslog\nlog file " + folder + "/f\nlog level warning\n");
}

TEST_F(Log, WithoutMemoryThereAreLinesButNoRecentOnes) {
    log_close();
    log_use_sink(LOG_SINK_STDERR, false);
    memmgr_fail_at(1);
    log_open("esmcd");
    log_suite(LOG_LEVEL_INFO, "line");
    EXPECT_EQ(lines.size(), 1u);
    memmgr_fail_at(1);
    EXPECT_EQ(log_set_file((folder + "/f").c_str()), -1);
    EXPECT_EQ(errno, ENOMEM);
    log_walk_recent([](void*, const char*, std::size_t) { ADD_FAILURE(); }, nullptr);
}

}  // namespace
