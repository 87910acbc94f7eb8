// The daemon without its edges, for the tests of commands: the real library context, event loop in virtual
// time, command engine, records and operations; ports that a test adds by name; a session that records what
// is printed; the log's lines. No descriptor, socket or link is opened: nothing that is sent goes anywhere.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "core/debug.h"
#include "core/opts.h"
#include "core/ports.h"
#include "esmcd/board.h"
#include "esmcd/install.h"
#include "nsm/session.h"
#include "snmp/mib.h"
#include "suite/agentx/snmp.h"
#include "suite/command/cli.h"
#include "suite/host/host.h"
#include "suite/loop/thread.h"
#include "suite/manager/client.h"
#include "suite/ports/slow_socket.h"

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
        return if_add(&ctx_->ifm, name, ifindex, type);
    }
    ssm_port* add_port(const char* name, std::uint32_t ifindex) {
        interface* intf = add_interface(name, ifindex);
        if_bind(&ctx_->ifm, intf);
        return ssm_if_port(intf);
    }

    virtual const char* board() const { return "synce_support 1\n"; }

    void SetUp() override {
        board_ = new board_file(board());
        memory_init(SSM_PROTO_ID);
        log_use_sink(LOG_SINK_STDERR, false);
        log_add_tap(tap, this);
        ctx_ = lib_create("esmcd");
        ASSERT_NE(ctx_, nullptr);
        ASSERT_EQ(lib_start(ctx_), 0);
        log_use_sink(LOG_SINK_STDERR, false);
        const thread_edges edges = {now, wait, this};
        ctx_->master = thread_master_create(&edges);
        g_p_esmcd = ctx_;
        g_s_master = &clock_;
        ASSERT_EQ(ssm_master_init(), 0);
        instance_ = {-1, nullptr, ctx_, nullptr};
        ssm_instance = &instance_;
        nsm_client_set_link_open([] { return -ENOENT; });
        ASSERT_EQ(ssm_nsm_client_init(), 0);
        ssm_debug = 0;
        session_ = {};
        session_.out_func = record;
        session_.out_val = this;
        session_.zg = ctx_;
        session_.ifm = &ctx_->ifm;
        session_.privilege = PRIVILEGE_MAX;
        exec_mode();
        init_result_ = ssm_install_commands(ctx_->ctree);
        logged_.clear();
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
    }
    void register_mib() const {
        ASSERT_EQ(agentx_register_mib(ctx_, "mibII/ssm", ssm_variables, sizeof ssm_variables[0],
                                      SSM_VARIABLE_COUNT, ssm_oid, SSM_OID_LENGTH, 0, 0, 0, 0, 0),
                  0);
    }

    void TearDown() override {
        while (ctx_->ifm.count) if_remove(&ctx_->ifm, ctx_->ifm.items[0]);
        nsm_client_stop(instance_.nsm_client);
        nsm_client_set_link_open(nullptr);
        lib_stop(ctx_);
        g_p_esmcd = nullptr;
        g_s_master = nullptr;
        ssm_instance = nullptr;
        log_remove_tap(tap, this);
        delete board_;
    }

    lib_globals* ctx_ = nullptr;
    ssm_master clock_ = {};
    ssm_instance_record instance_ = {};
    cli session_ = {};
    int init_result_ = 0;
    nanoseconds time_ = NS_PER_S;

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
    static nanoseconds now(void* arg) { return static_cast<daemon_test*>(arg)->time_; }
    static int wait(void* arg, int timeout_ms, thread_ready*, int) {
        if (timeout_ms > 0) static_cast<daemon_test*>(arg)->time_ += timeout_ms * NS_PER_MS;
        return 0;
    }

    std::string output_;
    std::vector<std::string> logged_;
    board_file* board_ = nullptr;
};
