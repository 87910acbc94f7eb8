// A host with a library context, a temporary directory, and a small set of daemon-like commands.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "suite/cli.h"
#include "suite/host_state.h"
#include "suite/log.h"
#include "suite/memory.h"

namespace host_support {

inline std::vector<std::string> ran;     // "mode:name:command argument"
inline std::vector<std::string> logged;  // error lines, without time and level

inline int note(cli* session, const char* what, int argc, char** argv) {
    std::string line = std::to_string(session->mode) + ":" + session->name + ":" + what;
    for (int i = 0; i < argc; i++) line += std::string(" ") + argv[i];
    ran.push_back(line);
    return CLI_SUCCESS;
}

inline const cli_element commands[] = {
    {"global <1-9>", [](cli* s, int argc, char** argv) { return note(s, "global", argc, argv); }},
    {"force IFNAME", [](cli* s, int argc, char** argv) { return note(s, "force", argc, argv); }},
    {"no force", [](cli* s, int argc, char** argv) { return note(s, "no force", argc, argv); }},
    {"interface IFNAME",
     [](cli* s, int, char** argv) {
         s->mode = INTERFACE_MODE;
         s->index = ifg_get_by_name(&s->zg->ifm, argv[0]);
         return CLI_SUCCESS;
     }},
    {"port <1-9>",
     [](cli* s, int argc, char** argv) {
         if (s->index) return note(s, "port", argc, argv);
         s->out_func(s->out_val, "%% Cannot configure on this interface\n");
         return CLI_ERROR;
     }},
    {"port refuse", [](cli*, int, char**) { return CLI_ERROR; }},
};

inline void keep_error(void*, int level, const char* line, std::size_t length) {
    std::string text(line, length);
    if (level <= LOG_LEVEL_ERROR) logged.push_back(text.substr(text.find("error ") + 6));
}

inline int append(void* out_val, const char* format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    int count = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    *static_cast<std::string*>(out_val) += text;
    return count;
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
        EXPECT_EQ(memmgr_type_stats(MTYPE_HOST).blocks, 0u);
        EXPECT_EQ(memmgr_type_stats(MTYPE_TEXT).blocks, 0u);
        EXPECT_EQ(memmgr_type_stats(MTYPE_CLI_SESSION).blocks, 0u);
    }
    void start() {
        ctx = lib_create("esmcd");
        ASSERT_NE(ctx, nullptr);
        ASSERT_EQ(lib_start(ctx), 0);
        log_set_default_sinks(0);
        log_add_tap(keep_error, nullptr);
        ctx->master = thread_master_create(edges);
        ASSERT_NE(ctx->master, nullptr);
        ASSERT_EQ(host_vty_init(ctx), 0);
        for (const cli_element& e : commands) {
            bool port = std::string(e.string).starts_with("port");
            std::uint32_t flags = std::string(e.string).starts_with("force") ? CLI_FLAG_AFTER_BIND : 0u;
            ASSERT_EQ(cli_install_gen(ctx->ctree, port ? INTERFACE_MODE : CONFIG_MODE, 4, flags, &e), 0);
        }
    }
    void stop() {
        log_remove_tap(keep_error, nullptr);
        lib_stop(ctx);
        ctx = nullptr;
        log_close();
    }
    void read(const std::string& text) {
        write_file(config, text);
        host_config_start(ctx, config.c_str(), 0);
    }
    std::string running() {
        text_buffer text;
        EXPECT_TRUE(host_running_text(ctx->host, &text));
        std::string result(text.view());
        text_free(&text);
        return result;
    }
    // Runs a line as a terminal would; what it printed.
    std::string run(const std::string& line, std::int32_t mode = EXEC_MODE) {
        std::string printed;
        cli session = host_plain_session(ctx->host, mode, append, &printed);
        static int terminal;
        session.line = &terminal;
        last_result = cli_run_line(ctx->ctree, &session, line);
        return printed;
    }
    interface* bind(const char* name, std::uint32_t index) {
        interface* intf = if_add(&ctx->ifm, name, index, IF_TYPE_SYNCE);
        if_bind(&ctx->ifm, intf);
        return intf;
    }

    const thread_edges* edges = nullptr;
    lib_globals* ctx = nullptr;
    std::string directory, config;
    cli_result last_result = cli_result::ok;
};

}  // namespace host_support
