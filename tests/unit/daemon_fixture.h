// The daemon without its edges, for the tests of commands: the virtual daemon without a link to NSM, ports
// that a test adds by name, a session that records what is printed, and the log's lines. Nothing that is sent
// goes anywhere.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "esmcd/board.h"
#include "esmcd/install.h"
#include "fuzz/world.h"
#include "snmp/mib.h"
#include "suite/agentx/snmp.h"
#include "suite/command/cli.h"
#include "suite/host/host.h"
#include "suite/parts/parts.h"

// A file of its own for each test process.
class board_file {
  public:
    explicit board_file(const std::string& content) {
        write(content);
        ssm_board_use_file(path_.c_str());
    }
    ~board_file() {
        remove();
        ssm_board_use_file(nullptr);
    }
    void write(const std::string& content) const { std::ofstream(path_) << content; }
    const char* path() const { return path_.c_str(); }
    void remove() const { unlink(path_.c_str()); }

  private:
    const std::string path_ = "/tmp/board_test_" + std::to_string(getpid());
};

class daemon_test : public ::testing::Test {
  protected:
    // What the commands printed since the last call.
    std::string output() { return std::exchange(output_, {}); }
    // The log's lines since the last call, as they were formatted (with the prefix ": ").
    std::vector<std::string> logged() { return std::exchange(logged_, {}); }

    cli_result run(const std::string& line) { return cli_run_line(ctx_->ctree, &session_, line.c_str()); }
    // Runs a line that must succeed; what it printed.
    std::string shown(const std::string& line) {
        EXPECT_EQ(run(line), cli_result::ok) << line;
        return output();
    }
    // Runs a line that must succeed without a word.
    void quiet(const std::string& line) { EXPECT_EQ(shown(line), "") << line; }
    // Runs a line that must fail with exactly this text.
    void refused(const std::string& line, const char* text) {
        EXPECT_EQ(run(line), cli_result::failed) << line;
        EXPECT_EQ(output(), text) << line;
    }
    void config_mode() { enter(CONFIG_MODE); }
    void exec_mode() { enter(EXEC_MODE); }
    // Enters the interface mode by the real command.
    void interface_mode(const std::string& name) {
        config_mode();
        quiet("interface " + name);
        EXPECT_EQ(session_.mode, INTERFACE_MODE);
    }

    interface* add_interface(const char* name, std::uint32_t ifindex, std::uint16_t type = IF_TYPE_SYNCE) {
        return if_add(ctx_->ifm, name, ifindex, type);
    }
    ssm_port* add_port(const char* name, std::uint32_t ifindex) {
        interface* intf = add_interface(name, ifindex);
        if_bind(ctx_->ifm, intf);
        return ssm_if_port(intf);
    }

    virtual const char* board() const { return "synce_support 1\n"; }

    void SetUp() override {
        board_.emplace(board());
        log_add_tap(tap, this);
        daemon_.emplace();
        daemon_->on_sent = [](std::uint32_t, const_octets) {};
        daemon_->start(false);
        ctx_ = g_p_esmcd;
        session_ = {};
        session_.out_func = record;
        session_.out_val = this;
        session_.zg = ctx_;
        session_.ifm = ctx_->ifm;
        session_.privilege = PRIVILEGE_MAX;
        exec_mode();
        init_result_ = ssm_install_commands(ctx_->ctree);
        logged_.clear();
    }
    void TearDown() override {
        daemon_->stop();
        log_remove_tap(tap, this);
        board_.reset();
    }

    // The platform's commands beside the daemon's own, and the sub-agent with its table, as the running
    // daemon has them.
    void install_whole_tree() const {
        ASSERT_EQ(host_vty_init(ctx_), 0);
        ASSERT_EQ(memmgr_cli_init(ctx_), 0);
        ASSERT_EQ(slow_socket_cli_init(ctx_), 0);
        ASSERT_EQ(nsm_client_cli_init(ctx_), 0);
        register_mib();
        ASSERT_EQ(snmp_start(ctx_), 0);
        ASSERT_EQ(agentx_cli_init(ctx_), 0);
    }
    void register_mib() const {
        ASSERT_EQ(agentx_register_mib(ctx_, "mibII/ssm", ssm_variables, sizeof ssm_variables[0],
                                      SSM_VARIABLE_COUNT, ssm_oid, SSM_OID_LENGTH, 0, 0, 0, 0, 0),
                  0);
    }

    std::optional<virtual_daemon> daemon_;
    lib_globals* ctx_ = nullptr;
    cli session_ = {};
    int init_result_ = 0;

  private:
    void enter(std::int32_t mode) {
        session_.mode = mode;
        session_.index = nullptr;
        session_.name[0] = 0;
    }

    static int record(void* arg, const char* format, ...) {
        char text[4096];
        va_list args;
        va_start(args, format);
        const int length = std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        static_cast<daemon_test*>(arg)->output_ += text;
        return length;
    }
    static void tap(void* arg, int, const char* line, std::size_t length) {
        const std::string whole(line, length);
        const std::size_t text = whole.find(": ");  // behind the time and the level
        static_cast<daemon_test*>(arg)->logged_.push_back(whole.substr(text == whole.npos ? 0 : text));
    }
    std::string output_;
    std::vector<std::string> logged_;
    std::optional<board_file> board_;
};
