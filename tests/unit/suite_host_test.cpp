// The configuration file: reading, lines that wait for their interface, saving.
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <csignal>
#include <functional>

#include "unit/suite_host_support.h"

namespace {

using namespace host_support;
using lines = std::vector<std::string>;

TEST_F(Host, LinesRunInTheirModesAndRefusedOnesAreLoggedWithTheirNumber) {
    bind("eth1", 1);
    read(
        "! comment\n"
        "global 1\r\n"
        "\n"
        "interface eth1\n"
        " port 1\n"
        " port 99\n"
        "global 2\n"
        " port 3\n"
        "interface eth1\n"
        " port 4\n"
        " !\n"
        " port 5\n"
        "interface eth1\n"
        " port refuse\n"
        " global 8\n"
        " port 9\n"
        "interface\n"
        " global 4\n"
        "!\n"
        "do write\n"
        "global 3");
    EXPECT_EQ(ran, (lines{"5::global 1", "16:eth1:port 1", "5::global 2", "16:eth1:port 4", "5::global 8",
                          "5::global 3"}))
        << "a global command leaves the interface, as at a terminal";
    lines refused;
    for (const char* line : {":6: refused: port 99", ":8: refused: port 3", ":12: refused: port 5",
                             ":14: refused: port refuse", ":16: refused: port 9", ":17: refused: interface",
                             ":18: refused: global 4", ":20: refused: do write"})
        refused.push_back(config + line);
    EXPECT_EQ(logged, refused);
}

TEST_F(Host, LinesOfAnUnboundInterfaceRunOnceAtItsFirstBind) {
    read(
        "interface eth1\n port 1 \r\n port nonsense\n!\nforce eth1\nglobal 1\ninterface eth2\n port 2\n!\n"
        "interface eth1\n port 3\n port \x1b[2J\n");
    EXPECT_EQ(ran, lines{"5::global 1"});
    EXPECT_EQ(logged, lines{config + ":12: refused: port \\x1b[2J"}) << "could not be saved as it is";
    logged.clear();
    EXPECT_EQ(
        running(),
        "interface eth1\n port 1 \n port nonsense\n port 3\n!\ninterface eth2\n port 2\n!\nforce eth1\n");
    ran.clear();
    interface* intf = bind("eth1", 1);
    EXPECT_EQ(ran, (lines{"16:eth1:port 1", "16:eth1:port 3", "5::force eth1"}))
        << "the port first, then what needs it";
    EXPECT_EQ(logged, lines{config + ":3: refused: port nonsense"});
    EXPECT_EQ(running(), "interface eth2\n port 2\n!\n");
    ran.clear();
    if_unbind(&ctx->ifm, intf);
    if_bind(&ctx->ifm, intf);
    EXPECT_TRUE(ran.empty()) << "a second bind starts from defaults";
}

TEST_F(Host, CommandAtTheTerminalTakesThePendingLinesPlace) {
    read("force eth1\nforce eth2\n");
    run("force eth3", CONFIG_MODE);
    EXPECT_EQ(running(), "");
    read_anew("force eth1\ninterface eth1\n port 1\n");
    run("no force", CONFIG_MODE);
    EXPECT_EQ(running(), "interface eth1\n port 1\n!\n");
    EXPECT_EQ(run("no interface eth1", CONFIG_MODE), "");
    EXPECT_EQ(run("no interface eth1", CONFIG_MODE), "% No lines wait for that interface\n");
    EXPECT_EQ(running(), "");
}

TEST_F(Host, MissingFileIsNoErrorAndUnreadableOneIsNotOverwritten) {
    const std::string none = directory + "/none";
    read_from(none);
    EXPECT_TRUE(logged.empty());
    EXPECT_EQ(run("show startup-config"), "% No startup configuration\n");
    EXPECT_EQ(run("write"), "");
    EXPECT_TRUE(exists(none));
    restart(directory);
    EXPECT_EQ(logged.size(), 1u);
    EXPECT_EQ(run("write"), "% " + directory + " was not read completely at start, it is not overwritten\n");
    EXPECT_EQ(last_result, cli_result::failed);
}

TEST_F(Host, SavedFileIsReadBackToTheSameConfiguration) {
    const std::string text = "hostname sw-\xc3\xa9\nlog level info\ninterface eth9\n port 1\n!\n";
    read(text);
    EXPECT_STREQ(host_name(ctx), "sw-\xc3\xa9");
    EXPECT_EQ(running(), text);
    write_file(config, "");
    EXPECT_EQ(run("copy run start"), "");
    EXPECT_EQ(read_file(config), text);
    EXPECT_EQ(permissions(config), 0640u);
    EXPECT_FALSE(exists(config + ".new"));
    EXPECT_EQ(run("show startup-config"), text);
    restart(config);
    EXPECT_EQ(running(), text);
    EXPECT_EQ(run("no hostname", CONFIG_MODE), "");
    EXPECT_EQ(run("no log level", CONFIG_MODE), "");
    EXPECT_EQ(running(), "interface eth9\n port 1\n!\n");
}

TEST_F(Host, SymbolicLinkIsFollowedAndLeftoverReplaced) {
    const std::string target = directory + "/real.conf";
    write_file(target, "global 1\n");
    ASSERT_EQ(symlink(target.c_str(), config.c_str()), 0);
    read_from(config);
    write_file(target + ".new", "half");
    run("hostname changed", CONFIG_MODE);
    EXPECT_EQ(run("write"), "");
    EXPECT_EQ(read_file(target), "hostname changed\n");
    struct stat status {};
    ASSERT_EQ(lstat(config.c_str(), &status), 0);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
}

// The file system refuses at a certain size, as a full disk does.
TEST_F(Host, FullDiskLeavesTheOldFile) {
    const std::string old = "hostname old\n";
    read(old);
    for (int i = 0; i < 50; i++)
        ASSERT_TRUE(pending_keep(ctx->host, "eth" + std::to_string(i), std::string(200, 'p'), 1, nullptr));
    pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        const bool told = run("write").starts_with("% Can't save " + config);
        _exit(told && last_result == cli_result::failed ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(config), old);
    EXPECT_FALSE(exists(config + ".new"));
}

// Runs `save` in a child that is killed at its n-th system call, entry or exit. False when it came to its
// end before that; *able is false where processes can't be traced.
bool save_killed_at(const std::function<void()>& save, int n, bool* able) {
    pid_t child = fork();
    if (child == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0) _exit(77);
        raise(SIGSTOP);
        save();
        _exit(0);
    }
    int status = 0;
    bool ended = false;
    for (int stop = 0; stop <= n && !ended; stop++) {
        if (stop) ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
        ended = waitpid(child, &status, 0) != child || WIFEXITED(status) || WIFSIGNALED(status);
    }
    *able = !(WIFEXITED(status) && WEXITSTATUS(status) == 77);
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    return !ended;
}

TEST_F(Host, KilledAtAnyStepTheFileIsTheOldOneOrTheNewOne) {
    const std::string old = "hostname old\n";
    read(old);
    run("hostname new", CONFIG_MODE);
    bool seen_old = false, seen_new = false, able = true, killed = true;
    for (int n = 1; killed && n < 2000; n++) {
        write_file(config, old);
        killed = save_killed_at([&] { run("write"); }, n, &able);
        if (!able) GTEST_SKIP() << "processes can't be traced here";
        const std::string now = read_file(config);
        EXPECT_TRUE(now == old || now == "hostname new\n") << n << ": " << now;
        seen_old = seen_old || now == old;
        seen_new = seen_new || (killed && now != old);
    }
    EXPECT_FALSE(killed) << "the save never came to its end";
    EXPECT_TRUE(seen_old && seen_new) << "kills before and behind the change of names";
    EXPECT_EQ(read_file(config), "hostname new\n");
}

TEST_F(Host, NoMemoryWhileSavingOrKeepingLosesNothing) {
    const std::string old = "hostname old\ninterface eth1\n port 1\n!\n";
    read(old);
    for (std::uint64_t n = 1; n < 20; n++) {
        memmgr_fail_at(n);
        const std::string printed = run("write");
        memmgr_fail_at(0);
        EXPECT_EQ(read_file(config), old) << n << printed;
    }
    EXPECT_FALSE(ctx->host->lossy);
    for (std::uint64_t n = 1; n < 12; n++) {
        stop();
        start();
        logged.clear();
        memmgr_fail_at(n);
        read_from(config);
        memmgr_fail_at(0);
        const bool whole = running() == old;
        run("write");
        EXPECT_EQ(read_file(config), old) << "what could not be kept must not be overwritten";
        EXPECT_TRUE(whole || !logged.empty()) << n;
    }
}

TEST_F(Host, EverydayCommands) {
    bind("eth1", 7);
    read("");
    memmgr_cli_init(ctx);
    log_suite(LOG_LEVEL_ERROR, "a line to be found");
    const char* const shown[][2] = {{"show version", "esmcd version "},
                                    {"show interfaces", "eth1"},
                                    {"show events", "Timers run"},
                                    {"show memory", "Total"},
                                    {"show log | include to be found", "error a line to be found"}};
    for (const auto& [line, text] : shown) EXPECT_NE(run(line).find(text), std::string::npos) << line;
    EXPECT_EQ(run("do show version", CONFIG_MODE), run("show version"));
    const std::string none = directory + "/none/x";
    EXPECT_EQ(run("log file " + none, CONFIG_MODE), "% Can't open " + none + ": No such file or directory\n");
    EXPECT_EQ(run("hostname " + std::string(64, 'n'), CONFIG_MODE), "% Name too long\n");
}

TEST_F(Host, DifferenceOfConfigurations) {
    auto diff = [](std::string_view before, std::string_view now) {
        text_buffer out;
        EXPECT_TRUE(host_diff(before, now, &out));
        return take_text(&out);
    };
    EXPECT_EQ(diff("", ""), "");
    EXPECT_EQ(diff("a\nb\nc\n", "a\nc\nd\n"), "-b\n+d\n");
    EXPECT_EQ(diff("interface e1\n x\n y\n!\ninterface e2\n z\n!\n",
                   "interface e1\n x\n!\ninterface e2\n z\n w\n!\n"),
              " interface e1\n- y\n interface e2\n+ w\n");
    EXPECT_EQ(diff("", "g\ninterface e1\n x\n!\n"), "+g\n+interface e1\n+ x\n+!\n");
    std::string many, other;
    for (int i = 0; i < 3000; i++) {
        many += "line " + std::to_string(i) + "\n";
        other += "other " + std::to_string(i) + "\n";
    }
    const std::string whole = diff(many, other);
    EXPECT_EQ(std::count(whole.begin(), whole.end(), '\n'), 6000);
    std::string changed = many;
    changed.replace(changed.find("line 17\n"), 8, "LINE 17\n");
    changed.replace(changed.find("line 2900\n"), 10, "");
    EXPECT_EQ(diff(many, changed), "-line 17\n+LINE 17\n-line 2900\n");
    read("hostname a\n");
    run("hostname b", CONFIG_MODE);
    EXPECT_EQ(run("show running-config diff"), "-hostname a\n+hostname b\n");
    run("write");
    EXPECT_EQ(run("show running-config diff"), "");
}

}  // namespace
