// What the writers print must be read back to the same state, whatever was configured. Random lines, taken
// from the installed commands themselves, are entered at a terminal of a daemon; its configuration is
// written, read by a fresh daemon whose ports are bound partly before the reading, partly behind it or never,
// and written again; and it is put in force in a daemon that is configured otherwise. A failure names the
// seed and its steps.
#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <sstream>

#include "daemon_fixture.h"
#include "suite/command/tree.h"
#include "suite/host/state.h"
#include "suite/log/sinks.h"
#include "suite/terminal/terminal.h"

namespace {

constexpr unsigned SEEDS = 250;
constexpr std::size_t PORTS = 6;
constexpr const char* PORT_NAMES[PORTS] = {"p1", "p2", "eth0/1", "port!", "p10", "\303\274ber"};

// A line in the configuration mode (no port) or in a port's mode.
struct step {
    std::string port, line;
};
using steps = std::vector<step>;

// Ports are bits.
struct scenario {
    unsigned bound;  // in the daemon that writes the configuration
    steps first;     // entered there
    steps later;     // ... and in the one that has read it
    unsigned early;  // bound before that one reads
    steps other;     // entered where the configuration replaces what there is
};

// Lines with their interface. Their order does not count, and an interface without lines is left out.
std::multiset<std::string> lines_of(const std::string& text) {
    std::multiset<std::string> lines;
    std::istringstream in(text);
    std::string name;
    for (std::string line; std::getline(in, line);) {
        line.erase(line.find_last_not_of(' ') + 1);
        if (line.starts_with("interface ")) name = line;
        if (!line.starts_with("interface ") && line != "!")
            lines.insert((line.starts_with(" ") ? name : "") + line);
    }
    return lines;
}

class generator {
  public:
    generator(const cli_tree* tree, unsigned seed) : tree_(tree), random_(seed) {}

    scenario make() {
        return {any_ports() | any_ports(), any_steps(4 + below(40)), any_steps(below(2) * below(11)),
                any_ports(), any_steps(below(40))};
    }

  private:
    unsigned below(unsigned limit) { return static_cast<unsigned>(random_() % limit); }
    unsigned any_ports() { return below(1U << PORTS); }
    const char* any_port() { return PORT_NAMES[below(PORTS)]; }

    steps any_steps(unsigned count) {
        steps list;
        while (list.size() < count) {
            if (below(17) < 7)
                list.push_back({"", any_line(CONFIG_MODE)});
            else
                list.push_back({any_port(), any_line(INTERFACE_MODE)});
        }
        return list;
    }

    // What changes modes is the test's own affair, hashing a password takes too long for it, and standard
    // error is where its own report goes.
    static bool left_out(const std::string& command) {
        for (const char* other : {"exit", "end", "help", "do LINE", "interface IFNAME", "no interface IFNAME",
                                  "password SECRET", "log stderr"})
            if (command == other) return true;
        return false;
    }

    std::string any_line(std::int32_t mode) {
        const cli_command_list& list = tree_->modes[mode];
        const cli_command* command;
        do command = list.items[below(static_cast<unsigned>(list.count))];
        while (left_out(command->element->string));
        std::string line;
        const cli_token* at = nullptr;
        for (std::uint64_t open = command->start; open; open = at->next) {
            if (at && at->may_end && !below(3)) break;
            std::size_t token;
            do token = below(static_cast<unsigned>(command->count));
            while (!(open >> token & 1));
            const std::string before = at ? at->text : "";
            at = &command->tokens[token];
            line += (line.empty() ? "" : " ") + word_for(*at, before);
        }
        return line;
    }

    std::string word_for(const cli_token& token, const std::string& before) {
        if (token.kind == cli_token_kind::keyword) return token.text;
        if (token.kind == cli_token_kind::ifname) return below(12) ? any_port() : "nobody";
        if (token.kind != cli_token_kind::range) return free_word(before);
        const std::uint32_t near_low = token.low + below(std::min(token.high - token.low, 9U) + 1);
        return std::to_string(below(2) ? near_low : below(2) ? token.low : token.high);
    }
    std::string free_word(const std::string& before) {
        if (before == "file") return "/dev/null";
        if (before == "encrypted")
            return "$6$saltsalt$"
                   "qFmFH.bQmmtXzyBY0s9v7Oicd2z4XSIecDzlB5KiA2/jctKu9YterLp8wwnSq.qc.eoxqOmSuNp2xS0ktL3nh/";
        const std::vector<const char*> addresses = {"127.0.0.1", "::1", "192.0.2.7", "nowhere"},
                                       paths = {"/tmp/cli_property.log", "/tmp/|x", "relative"},
                                       words = {"switch-A", "!", "#7", "|", "a|b", "%s", "\xc3\xbc", "no"};
        const auto& choices = before == "tcp" ? addresses : before == "unix" ? paths : words;
        return choices[below(static_cast<unsigned>(choices.size()))];
    }

    const cli_tree* tree_;
    std::mt19937 random_;
};

class configuration : public daemon_test {
  protected:
    void SetUp() override { begin(); }
    void TearDown() override {
        daemon_test::TearDown();
        log_close();
        close(file_);
    }

    void begin() {
        log_close();
        log_syslog_set_path("/nonexistent");
        daemon_test::SetUp();
        log_set_default_sinks(0);
        install_whole_tree();
        session_.line = &terminal_;
        config_mode();
        (void)run("no slow-protocols rate-limit");  // the socket outlives the context, with its limit
        (void)output();
        (void)logged();
    }
    void restart() {
        daemon_test::TearDown();
        begin();
    }

    std::string running() {
        text_buffer text;
        EXPECT_TRUE(host_running_text(ctx_->host, &text));
        std::string result(text.view());
        text_free(&text);
        return result;
    }

    void bind(unsigned ports) {
        for (std::uint32_t i = 0; i < PORTS; i++)
            if ((ports >> i & 1) && !if_lookup_by_name(ctx_->ifm, PORT_NAMES[i]))
                add_port(PORT_NAMES[i], i + 1);
    }
    void play(const steps& list) {
        for (const step& s : list) {
            config_mode();
            if (!s.port.empty()) (void)run("interface " + s.port);
            const cli_result result = run(s.line);  // may be refused: most things may, at some moment
            (void)output();
            EXPECT_TRUE(result == cli_result::ok || result == cli_result::failed) << s.line;
        }
    }

    // What is configured, as it is shown: a line that a writer forgets is missing in both texts.
    std::string state() {
        const terminal_state* h = ctx_->terminals;
        std::ostringstream all;
        all << h->host_name << " " << h->password << " " << h->exec_timeout_s << " "
            << slow_socket_rate_limit() << "\n";
        exec_mode();
        for (const char* what : {"clock synce", "clock recovery-select", "snmp | include Master",
                                 "snmp | include Notifications"})
            all << shown(std::string("show ") + what);
        for (const char* port : PORT_NAMES) all << shown(std::string("show clock synce ") + port);
        return all.str();
    }

    // A fresh daemon reads the text, with these ports bound.
    void reload(const std::string& text, unsigned before, unsigned behind) {
        restart();
        bind(before);
        EXPECT_EQ(ftruncate(file_, 0), 0);
        EXPECT_EQ(pwrite(file_, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
        host_config_start(ctx_, ("/proc/self/fd/" + std::to_string(file_)).c_str(), 0);
        bind(behind);
        for (const std::string& line : logged()) EXPECT_EQ(line.find("refused"), line.npos) << line;
    }

    static void expect_same(const std::string& one, const std::string& other, const char* when) {
        EXPECT_EQ(lines_of(one), lines_of(other)) << when;
    }

    void check(const scenario& s) {
        constexpr unsigned all = (1U << PORTS) - 1;
        restart();
        bind(s.bound);
        play(s.first);
        const std::string written = running();
        bind(all);
        const std::string before = state();
        play(s.later);
        const std::string without_restart = running();
        reload(written, s.early, all);
        expect_same(written, running(), "all ports bound in the end");
        EXPECT_EQ(before, state());
        // What was read back takes and refuses the same lines as what was entered.
        play(s.later);
        expect_same(without_restart, running(), "further lines, without and behind a restart");

        // Ports that never come: their lines wait, and are saved as they wait.
        reload(written, s.early, 0);
        play(s.later);
        const std::string waiting = running();
        reload(waiting, 0, s.early);
        expect_same(waiting, running(), "saved with lines that wait");

        restart();
        bind(s.early);
        play(s.other);
        text_buffer answer;
        EXPECT_TRUE(host_config_replace(ctx_->host, written, &answer)) << answer.view();
        text_free(&answer);
        bind(all);
        expect_same(written, running(), "in the place of another one");
        EXPECT_EQ(before, state());
    }

    static std::string report(const scenario& s) {
        std::ostringstream text;
        text << "  bound: " << s.bound << ", before the reading: " << s.early << "\n";
        for (const step& one : s.first) text << "  " << one.port << " " << one.line << "\n";
        for (const step& one : s.later) text << "  then " << one.port << " " << one.line << "\n";
        for (const step& one : s.other) text << "  in the place of " << one.port << " " << one.line << "\n";
        return text.str();
    }

    // On a disk the test would take four times as long.
    int file_ = memfd_create("configuration", MFD_CLOEXEC);
    char terminal_ = 0;  // a session's record, as far as these commands look at it
};

TEST_F(configuration, is_read_back_as_it_was_written) {
    const char* wanted = std::getenv("CLI_PROPERTY_SEEDS");
    const unsigned count = wanted ? static_cast<unsigned>(std::atoi(wanted)) : SEEDS;
    std::size_t lines = 0;
    for (unsigned seed = 1; seed <= count; seed++) {
        const scenario s = generator(ctx_->ctree, seed).make();
        check(s);
        ASSERT_FALSE(HasFailure()) << "seed " << seed << ":\n" << report(s);
        lines += lines_of(running()).size();
    }
    EXPECT_GT(lines, std::size_t{count} * 4);  // the configurations hold something
}

}  // namespace
