// A host with a library context, a temporary directory, and a small set of daemon-like commands.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "suite/base/memory.h"
#include "suite/command/cli.h"
#include "suite/host/state.h"
#include "suite/log/log.h"

namespace host_support {

inline std::vector<std::string> ran;     // "mode:interface:command argument"
inline std::vector<std::string> logged;  // error lines, without time and level

inline int note(cli* session, int argc, char** argv) {
    std::string line = std::to_string(session->mode) + ":" + session->name + ":";
    for (int i = 0; i < argc; i++) line += (i ? " " : "") + std::string(argv[i]);
    ran.push_back(line);
    return CLI_SUCCESS;
}

inline int enter_interface(cli* s, int, char** argv) {
    s->mode = INTERFACE_MODE;
    s->index = ifg_get_by_name(&s->zg->ifm, argv[0]);
    return CLI_SUCCESS;
}

inline int configure_port(cli* s, int argc, char** argv) {
    if (s->index) return note(s, argc, argv);
    s->out_func(s->out_val, "%% Cannot configure on this interface\n");
    return CLI_ERROR;
}

// A choice of one is an argument, so the handler sees which command it was.
inline const struct {
    std::int32_t mode;
    cli_element element;
    std::uint32_t flags = 0;
} commands[] = {
    {CONFIG_MODE, {"(global) <1-9>", note}},
    {CONFIG_MODE, {"(force) IFNAME", note}, CLI_FLAG_AFTER_BIND},
    {CONFIG_MODE, {"no (force)", note}},
    {CONFIG_MODE, {"interface IFNAME", enter_interface}},
    {INTERFACE_MODE, {"(port) <1-9>", configure_port}},
    {INTERFACE_MODE, {"port refuse", [](cli*, int, char**) { return CLI_ERROR; }}},
};

inline void keep_error(void*, int level, const char* line, std::size_t length) {
    std::string text(line, length);
    if (level <= LOG_LEVEL_ERROR) logged.push_back(text.substr(text.find("error ") + 6));
}

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline mode_t permissions(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_mode & 0777;
}

inline bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

inline std::string take_text(text_buffer* text) {
    std::string result(text->view());
    text_free(text);
    return result;
}

class Host : public testing::Test {
  protected:
    void SetUp() override {
        ran.clear();
        logged.clear();
        char name[] = "/tmp/suite_host_XXXXXX";
        directory = mkdtemp(name);
        config = directory + "/esmcd.conf";
        start();
    }
    void TearDown() override {
        stop();
        std::string command = "rm -rf " + directory;
        EXPECT_EQ(std::system(command.c_str()), 0);
        for (memory_type type : {MTYPE_HOST, MTYPE_TEXT, MTYPE_CLI_SESSION})
            EXPECT_EQ(memmgr_type_stats(type).blocks, 0u) << memmgr_type_name(type);
    }
    void start() {
        ctx = lib_create("esmcd");
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(lib_start(ctx), 0);
        log_set_default_sinks(0);
        log_add_tap(keep_error, nullptr);
        ctx->master = thread_master_create();
        ASSERT_NE(ctx->master, nullptr);
        ASSERT_EQ(host_vty_init(ctx), 0);
        for (const auto& c : commands)
            ASSERT_EQ(cli_install_gen(ctx->ctree, c.mode, 4, c.flags, &c.element), 0);
    }
    void stop() {
        log_remove_tap(keep_error, nullptr);
        lib_stop(ctx);
        ctx = nullptr;
        log_close();
    }
    void read_from(const std::string& path) { host_config_start(ctx, path.c_str(), 0); }
    // A new daemon, and what it logs and runs.
    void restart(const std::string& path) {
        stop();
        ran.clear();
        logged.clear();
        start();
        read_from(path);
    }
    void read(const std::string& text) {
        write_file(config, text);
        read_from(config);
    }
    void read_anew(const std::string& text) {
        write_file(config, text);
        restart(config);
    }
    std::string running() {
        text_buffer text;
        EXPECT_TRUE(host_running_text(ctx->host, &text));
        return take_text(&text);
    }
    // Runs a line as a terminal would; what it printed.
    std::string run(const std::string& line, std::int32_t mode = EXEC_MODE) {
        text_output printed{};
        cli session = host_plain_session(ctx->host, mode, text_output_print, &printed);
        static int terminal;
        session.line = &terminal;
        last_result = cli_run_line(ctx->ctree, &session, line);
        return take_text(&printed.text);
    }
    interface* bind(const char* name, std::uint32_t index) {
        interface* intf = if_add(&ctx->ifm, name, index, IF_TYPE_SYNCE);
        if_bind(&ctx->ifm, intf);
        return intf;
    }

    lib_globals* ctx = nullptr;
    std::string directory, config;
    cli_result last_result = cli_result::ok;
};

}  // namespace host_support
