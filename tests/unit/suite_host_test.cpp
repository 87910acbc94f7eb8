// The configuration file: reading, lines that wait for their interface, saving.
#include "unit/suite_host_support.h"

#include <algorithm>

namespace {

TEST_F(Host, LinesRunInTheirModesAndRefusedOnesAreLoggedWithTheirNumber) {
    write_file(config,
               "! comment\n"
               "global 1\r\n"
               "\n"
               "interface eth1\n"
               " port 1\n"
               " port 99\n"
               "global 2\n"
               " port 3\n"
               "interface eth1\n"
               " port refuse\n"
               " global 8\n"
               " port 9\n"
               "interface\n"
               " global 4\n"
               "interface eth1\n"
               " !\n"
               " port 5\n"
               "!\n"
               "do write\n"
               "global 3");
    bind("eth1", 1);
    read_from(config);
    EXPECT_EQ(ran, (words{"5::global 1", "16:eth1:port 1", "5::global 2", "5::global 8", "5::global 3"}))
        << "a global command leaves the interface, as at a terminal";
    words refused;
    for (const char* line : {":6: refused: port ...", ":8: refused: port 3", ":10: refused: port refuse",
                             ":12: refused: port 9", ":13: refused: interface", ":14: refused: global 4",
                             ":17: refused: port 5", ":19: refused: do write"})
        refused.push_back(config + line);
    EXPECT_EQ(logged(), refused);
}

TEST_F(Host, LinesOfAnUnboundInterfaceRunOnceAtItsFirstBind) {
    read(
        "interface eth1\n port 1 \r\n port nonsense\n!\nforce eth1\nglobal 1\ninterface eth2\n port 2\n!\n"
        "interface eth1\n port 3\n port \x1b[2J\n");
    EXPECT_EQ(ran, words{"5::global 1"});
    EXPECT_EQ(logged(), words{config + ":12: refused: port ..."}) << "could not be saved as it is";
    EXPECT_EQ(
        running(),
        "interface eth1\n port 1 \n port nonsense\n port 3\n!\ninterface eth2\n port 2\n!\nforce eth1\n");
    ran.clear();
    said.clear();
    interface* intf = bind("eth1", 1);
    EXPECT_EQ(ran, (words{"16:eth1:port 1", "16:eth1:port 3", "5::force eth1"}))
        << "the port first, then what needs it";
    EXPECT_EQ(logged(), words{config + ":3: refused: port ..."});
    EXPECT_EQ(running(), "interface eth2\n port 2\n!\n");
    ran.clear();
    if_unbind(ctx->ifm, intf);
    if_bind(ctx->ifm, intf);
    EXPECT_TRUE(ran.empty()) << "a second bind starts from defaults";
}

TEST_F(Host, CommandAtTheTerminalTakesThePendingLinesPlace) {
    const struct {
        std::string file, line, printed, running;
    } cases[] = {
        {"force eth1\nforce eth2\n", "force eth3", "", ""},
        {"force eth1\ninterface eth1\n port 1\n", "no force", "", "interface eth1\n port 1\n!\n"},
        {"force eth1\ninterface eth1\n port 1\n", "no interface eth1", "", ""},
        {"", "no interface eth1", "% No lines wait for that interface\n", ""},
    };
    for (const auto& c : cases) {
        read(c.file);
        EXPECT_EQ(run(c.line, CONFIG_MODE), c.printed) << c.file;
        EXPECT_EQ(running(), c.running) << c.file << c.line;
    }
}

TEST_F(Host, MissingFileIsNoErrorAndUnreadableOneIsNotOverwritten) {
    const std::string none = folder + "/none";
    read_from(none);
    EXPECT_TRUE(logged().empty());
    EXPECT_EQ(run("show startup-config"), "% No startup configuration\n");
    EXPECT_EQ(run("write"), "");
    EXPECT_TRUE(std::filesystem::exists(none));
    restart(folder);
    EXPECT_EQ(logged().size(), 1u);
    EXPECT_EQ(run("write"), "% " + folder + " was not read completely at start, it is not overwritten\n");
    EXPECT_EQ(last_result, cli_result::failed);
}

TEST_F(Host, SavedFileIsReadBackToTheSameConfigurationThroughALinkToo) {
    const std::string text = "hostname sw-\xc3\xa9\nlog level info\ninterface eth9\n port 1\n!\n";
    const std::string target = folder + "/real.conf";
    std::filesystem::create_symlink(target, config);
    read(text);
    EXPECT_STREQ(host_name(ctx), "sw-\xc3\xa9");
    EXPECT_EQ(running(), text);
    write_file(config, "");
    std::filesystem::permissions(target, std::filesystem::perms(0604));
    write_file(target + ".new", "half of a save that was killed");
    EXPECT_EQ(run("copy run start"), "");
    EXPECT_EQ(read_file(target), text);
    EXPECT_EQ(permissions(target), 0600u) << "it was closed to all others, and stays so";
    EXPECT_FALSE(std::filesystem::exists(target + ".new"));
    EXPECT_TRUE(std::filesystem::is_symlink(config));
    EXPECT_EQ(run("show startup-config"), text);
    restart(config);
    EXPECT_EQ(running(), text);
    for (const char* line : {"no hostname", "no log level"}) EXPECT_EQ(run(line, CONFIG_MODE), "");
    EXPECT_EQ(running(), "interface eth9\n port 1\n!\n");
}

TEST_F(Host, EverydayCommands) {
    bind("eth1", 7);
    memmgr_cli_init(ctx);
    log_suite(LOG_LEVEL_ERROR, "a line to be found");
    const char* const shown[][2] = {{"do show version", "esmcd version "},
                                    {"do show interfaces", "eth1"},
                                    {"do show events", "Timers run"},
                                    {"do show memory", "Total"},
                                    {"do show log | include to be found", "error a line to be found"}};
    for (const auto& [line, text] : shown)
        EXPECT_NE(run(line, CONFIG_MODE).find(text), std::string::npos) << line;
    EXPECT_EQ(run("log file /etc/x", CONFIG_MODE), "% Can't open /etc/x: a log file lies below /var/log\n");
}

// What is typed at a terminal gets into files that others read, and some of those may be a shell.
TEST_F(Host, TypedTextMeansNothingToAShell) {
    for (const std::string word :
         {"$(reboot)", "`reboot`", "a;reboot", "a|b", "a&", ">x", "<x", "\"", "it's", "a\\"})
        for (const std::string line : {"hostname ", "interface ", "log file /var/log/", "force "}) {
            EXPECT_TRUE(run(line + word, CONFIG_MODE).starts_with("% Not allowed in a name: "))
                << line << word;
            read(line + word + "\ninterface eth1\n port " + word + "\n");
            EXPECT_EQ(running(), "") << line << word;
            for (const std::string& l : logged()) EXPECT_EQ(l.find(word), std::string::npos) << l;
        }
    EXPECT_EQ(run("hostname caf\xc3\xa9-1!", CONFIG_MODE), "");
}

// Keywords may be shortened, and lines stand in the wrong place or are no commands at all.
TEST_F(Host, NoSecretOfTheFileIsShownOrLogged) {
    for (const std::string front :
         {"passw S3 ", "p S3 ", "passwrd ", "do passw ", "interface eth1\n passw S3 ",
          "interface eth1\n passwd ", "community ", "", "no passw ", "password encrypted ",
          "interface $\n passw ", "port 1 passw "}) {
        read("! nothing\n" + front + "S3CRET\n");
        EXPECT_GE(logged().size() + (running() != ""), 1u) << front;
        for (const std::string& line : logged()) EXPECT_EQ(line.find("S3"), std::string::npos) << line;
    }
    const std::string hash = "password encrypted $6$saltsalt$0123456789abcdef\n";
    write_file(config, "passw S3CRET\n  no pasword S3\nhostname a\n" + hash);
    EXPECT_EQ(run("show startup-config"), "passw ...\n  no ...\nhostname a\n" + hash);
    EXPECT_EQ(run("show running-config diff"), "-passw ...\n-  no ...\n-hostname a\n-" + hash);
}

TEST_F(Host, DifferenceOfConfigurations) {
    std::string many, other;
    for (int i = 0; i < 3000; i++) many += "line " + std::to_string(i) + "\n";
    for (int i = 0; i < 3000; i++) other += "other " + std::to_string(i) + "\n";
    std::string changed = many;
    changed.replace(changed.find("line 17\n"), 8, "LINE 17\n");
    changed.replace(changed.find("line 2900\n"), 10, "");
    const auto diff = [](std::string_view before, std::string_view now) {
        text_buffer out;
        EXPECT_TRUE(host_diff(before, now, &out));
        return take_text(&out);
    };
    const std::string cases[][3] = {
        {"", "", ""},
        {"a\nb\nc\n", "a\nc\nd\n", "-b\n+d\n"},
        {"interface e1\n x\n y\n!\ninterface e2\n z\n!\n", "interface e1\n x\n!\ninterface e2\n z\n w\n!\n",
         " interface e1\n- y\n interface e2\n+ w\n"},
        {"", "g\ninterface e1\n x\n!\n", "+g\n+interface e1\n+ x\n+!\n"},
        {many, changed, "-line 17\n+LINE 17\n-line 2900\n"},
    };
    for (const auto& [before, now, lines] : cases) EXPECT_EQ(diff(before, now), lines);
    const std::string whole = diff(many, other);
    EXPECT_EQ(std::count(whole.begin(), whole.end(), '\n'), 6000);
    read("hostname a\n");
    run("hostname b", CONFIG_MODE);
    EXPECT_EQ(run("show running-config diff"), "-hostname a\n+hostname b\n");
    run("write");
    EXPECT_EQ(run("show running-config diff"), "");
}

}  // namespace
