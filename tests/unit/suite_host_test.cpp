// The configuration file: reading, lines that wait for their interface, saving.
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>

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
        " global 6\n"
        "port refuse\n"
        "interface eth1\n"
        " port refuse\n"
        " port 7\n"
        " global 8\n"
        " port 9\n"
        "global 3");
    EXPECT_EQ(ran, (lines{"5::global 1", "16:eth1:port 1", "5::global 2", "16:eth1:port 4", "5::global 6",
                          "16:eth1:port 7", "5::global 8", "5::global 3"}));
    EXPECT_EQ(logged, (lines{config + ":6: refused: port 99", config + ":8: refused: port 3",
                             config + ":12: refused: port 5", config + ":14: refused: port refuse",
                             config + ":16: refused: port refuse", config + ":19: refused: port 9"}))
        << "a global command leaves the interface, as at a terminal";
}

TEST_F(Host, LinesOfAnUnboundInterfaceRunOnceAtItsFirstBind) {
    read(
        "interface eth1\n port 1 \r\n port nonsense\n!\nforce eth1\nglobal 1\ninterface eth2\n port 2\n!\n"
        "interface eth1\n port 3\n");
    EXPECT_EQ(ran, lines{"5::global 1"});
    EXPECT_TRUE(logged.empty());
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

TEST_F(Host, PendingLinesRunBeforeTheUp) {
    static std::size_t ran_before_up;
    read("interface eth1\n port 1\n");
    if_add_hook(&ctx->ifm, IF_CALLBACK_UP, [](interface*) {
        ran_before_up = ran.size();
        return 0;
    });
    if_up(&ctx->ifm, bind("eth1", 1));
    EXPECT_EQ(ran_before_up, 1u);
}

TEST_F(Host, CommandAtTheTerminalTakesThePendingLinesPlace) {
    read("force eth1\nforce eth2\n");
    run("force eth3", CONFIG_MODE);
    EXPECT_EQ(running(), "");
    stop();
    start();
    read("force eth1\ninterface eth1\n port 1\n");
    run("no force", CONFIG_MODE);
    EXPECT_EQ(running(), "interface eth1\n port 1\n!\n");
    EXPECT_EQ(run("no interface eth1", CONFIG_MODE), "");
    EXPECT_EQ(run("no interface eth1", CONFIG_MODE), "% No lines wait for that interface\n");
    EXPECT_EQ(running(), "");
}

TEST_F(Host, LinesOfARefusedBlockAreNotTakenForGlobalOnes) {
    read("interface\n global 1\n!\nglobal 2\n");
    EXPECT_EQ(ran, lines{"5::global 2"});
    EXPECT_EQ(logged, (lines{config + ":1: refused: interface", config + ":2: refused: global 1"}));
}

TEST_F(Host, AnyOctetsAndAnyLength) {
    std::string text = "global 1\n";
    text += std::string("glo\0bal 1\n", 10);
    text += std::string(300'000, 'x') + "\n";
    text += "interface eth1\n";
    text += std::string(" po\0rt 1\n", 9);
    text += " port \x1b[2J\n";
    text += " port 1 \xc3\xa9\n";
    text += "interface " + std::string(500, 'n') + "\n port 5\n";
    read(text + "global 2");
    EXPECT_EQ(ran, (lines{"5::global 1", "5::global 2"}));
    ASSERT_EQ(logged.size(), 4u);
    EXPECT_EQ(logged[0], config + ":2: refused: glo?bal 1");
    EXPECT_EQ(logged[1], config + ":3: refused: " + std::string(256, 'x') + "...");
    EXPECT_EQ(logged[2], config + ":5: refused: po?rt 1");
    EXPECT_EQ(running(),
              "interface eth1\n port 1 \xc3\xa9\n!\ninterface " + std::string(500, 'n') + "\n port 5\n!\n");
}

TEST_F(Host, ManyPendingPortsAreNeitherLostNorSlow) {
    std::string text;
    for (int port = 1; port <= 255; port++) {
        text += "interface eth" + std::to_string(port) + "\n";
        for (int line = 0; line < 20; line++) text += " port " + std::to_string(line % 9 + 1) + "\n";
        text += "!\n";
    }
    read(text);
    EXPECT_EQ(running(), text);
    EXPECT_EQ(run("write"), "");
    EXPECT_EQ(read_file(config), text);
    for (int port = 1; port <= 255; port++)
        bind(("eth" + std::to_string(port)).c_str(), static_cast<unsigned>(port));
    EXPECT_EQ(ran.size(), 255u * 20);
    EXPECT_EQ(running(), "");
}

TEST_F(Host, MissingFileIsNoErrorAndUnreadableOneIsNotOverwritten) {
    host_config_start(ctx, (directory + "/none").c_str(), 0);
    EXPECT_TRUE(logged.empty());
    EXPECT_EQ(run("show startup-config"), "% No startup configuration\n");
    EXPECT_EQ(run("write"), "");
    EXPECT_EQ(access((directory + "/none").c_str(), F_OK), 0);
    stop();
    start();
    host_config_start(ctx, directory.c_str(), 0);
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(run("write"), "% " + directory + " was not read completely at start, it is not overwritten\n");
    EXPECT_EQ(last_result, cli_result::failed);
}

TEST_F(Host, SavedFileIsReadBackToTheSameConfiguration) {
    read("hostname sw-\xc3\xa9\nlog level info\ninterface eth9\n port 1\n");
    EXPECT_STREQ(host_name(ctx), "sw-\xc3\xa9");
    std::string before = running();
    EXPECT_EQ(before, "hostname sw-\xc3\xa9\nlog level info\ninterface eth9\n port 1\n!\n");
    EXPECT_EQ(run("copy run start"), "");
    EXPECT_EQ(read_file(config), before);
    struct stat status {};
    ASSERT_EQ(stat(config.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0640u);
    EXPECT_NE(access((config + ".new").c_str(), F_OK), 0);
    EXPECT_EQ(run("show startup-config"), before);
    stop();
    start();
    host_config_start(ctx, config.c_str(), 0);
    EXPECT_EQ(running(), before);
    EXPECT_EQ(run("no hostname", CONFIG_MODE), "");
    EXPECT_EQ(run("no log level", CONFIG_MODE), "");
    EXPECT_EQ(running(), "interface eth9\n port 1\n!\n");
    log_set_level(LOG_LEVEL_DEBUG);
}

TEST_F(Host, SymbolicLinkIsFollowedAndLeftoverReplaced) {
    std::string target = directory + "/real.conf";
    write_file(target, "global 1\n");
    ASSERT_EQ(symlink(target.c_str(), config.c_str()), 0);
    host_config_start(ctx, config.c_str(), 0);
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
    std::string old = "hostname old\n";
    read(old);
    for (int i = 0; i < 50; i++)
        ASSERT_TRUE(pending_keep(ctx->host, "eth" + std::to_string(i), std::string(200, 'p'), 1, nullptr));
    pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::string printed = run("write");
        _exit(printed.starts_with("% Can't save " + config) && last_result == cli_result::failed ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(read_file(config), old);
    EXPECT_NE(access((config + ".new").c_str(), F_OK), 0);
}

// Runs `write` in a child that is killed at its n-th system call, entry or exit. False when it came to its
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
    std::string old = "hostname old\n";
    read(old);
    run("hostname new", CONFIG_MODE);
    bool seen_old = false, seen_new = false, able = true, killed = true;
    for (int n = 1; killed && n < 2000; n++) {
        write_file(config, old);
        killed = save_killed_at([&] { run("write"); }, n, &able);
        if (!able) GTEST_SKIP() << "processes can't be traced here";
        std::string now = read_file(config);
        EXPECT_TRUE(now == old || now == "hostname new\n") << n << ": " << now;
        seen_old = seen_old || now == old;
        seen_new = seen_new || (killed && now != old);
    }
    EXPECT_FALSE(killed) << "the save never came to its end";
    EXPECT_TRUE(seen_old && seen_new) << "kills before and behind the change of names";
    EXPECT_EQ(read_file(config), "hostname new\n");
}

TEST_F(Host, NoMemoryWhileSavingOrKeepingLosesNothing) {
    std::string old = "hostname old\ninterface eth1\n port 1\n!\n";
    read(old);
    for (std::uint64_t n = 1; n < 20; n++) {
        memmgr_fail_at(n);
        std::string printed = run("write");
        memmgr_fail_at(0);
        EXPECT_EQ(read_file(config), old) << n << printed;
    }
    EXPECT_EQ(ctx->host->lossy, false);
    for (std::uint64_t n = 1; n < 12; n++) {
        stop();
        start();
        logged.clear();
        memmgr_fail_at(n);
        host_config_start(ctx, config.c_str(), 0);
        memmgr_fail_at(0);
        bool whole = running() == old;
        run("write");
        EXPECT_EQ(read_file(config), old) << "what could not be kept must not be overwritten";
        EXPECT_TRUE(whole || !logged.empty()) << n;
    }
}

TEST_F(Host, EverydayCommands) {
    bind("eth1", 7);
    read("");
    EXPECT_EQ(run("show version"), std::string("esmcd version ") + lib_version() + "\n");
    EXPECT_NE(run("show interfaces").find("eth1"), std::string::npos);
    EXPECT_NE(run("show events").find("Timers run"), std::string::npos);
    log_suite(LOG_LEVEL_ERROR, "a line to be found");
    EXPECT_NE(run("show log | include a line to be found").find("error a line to be found"),
              std::string::npos);
    memmgr_cli_init(ctx);
    EXPECT_NE(run("show memory").find("Total"), std::string::npos);
    EXPECT_EQ(run("do show version", CONFIG_MODE), run("show version"));
    EXPECT_EQ(run("do configure terminal", CONFIG_MODE), "");
    EXPECT_EQ(run("log file " + directory + "/none/x", CONFIG_MODE),
              "% Can't open " + directory + "/none/x: No such file or directory\n");
    EXPECT_EQ(run("hostname " + std::string(64, 'n'), CONFIG_MODE), "% Name too long\n");
}

TEST_F(Host, ExecCommandsAreNotTakenFromTheFile) {
    read("do write\ndo hostname x\n");
    EXPECT_EQ(logged.size(), 2u);
    EXPECT_EQ(read_file(config), "do write\ndo hostname x\n");
}

std::int32_t debug_asked;

TEST_F(Host, DebugCommandsReachTheCallbackInAllModes) {
    ASSERT_EQ(debug_callback_register([](cli*, std::int32_t op, void*) { debug_asked = op; }, nullptr), 0);
    for (std::int32_t mode : {EXEC_MODE, CONFIG_MODE, INTERFACE_MODE}) {
        debug_asked = -1;
        run("debug all", mode);
        EXPECT_EQ(debug_asked, 2);
        run("no debug all", mode);
        EXPECT_EQ(debug_asked, 1);
    }
    run("show debugging");
    EXPECT_EQ(debug_asked, 0);
}

}  // namespace
