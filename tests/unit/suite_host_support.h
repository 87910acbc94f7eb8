// A host with a library context and a small set of daemon-like commands.
#pragma once

#include "suite/command/cli.h"
#include "unit/suite_support.h"

// The loop's clock and wait, when they are not the system's.
inline const thread_edges* host_edges = nullptr;

inline words ran;  // "mode:interface:command argument"

inline int note(cli* session, int argc, char** argv) {
    ran.push_back(std::to_string(session->mode) + ":" + session->name + ":" + argv[0]);
    if (argc > 1) ran.back() += " " + std::string(argv[1]);
    return CLI_SUCCESS;
}

inline int enter_interface(cli* s, int, char** argv) {
    s->mode = INTERFACE_MODE;
    s->index = ifg_get_by_name(s->zg->ifm, argv[0]);
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
} host_commands[] = {
    {CONFIG_MODE, {"(global) <1-9>", note}},
    {CONFIG_MODE, {"(force) IFNAME", note}, CLI_FLAG_AFTER_BIND},
    {CONFIG_MODE, {"no (force)", note}},
    {CONFIG_MODE, {"interface IFNAME", enter_interface}},
    {INTERFACE_MODE, {"(port) <1-9>", configure_port}},
    {INTERFACE_MODE, {"port refuse", [](cli*, int, char**) { return CLI_ERROR; }}},
};

class Host : public Suite {
  protected:
    Host() { start(); }
    ~Host() override { stop(); }
    void start() {
        ran.clear();
        said.clear();
        ctx = lib_create("esmcd");
        EXPECT_EQ(lib_start(ctx), 0);
        log_set_default_sinks(0);
        ctx->master = thread_master_create(host_edges);
        EXPECT_EQ(host_vty_init(ctx), 0);
        for (const auto& c : host_commands)
            EXPECT_EQ(cli_install_gen(ctx->ctree, c.mode, 4, c.flags, &c.element), 0);
    }
    void stop() {
        lib_stop(ctx);
        log_close();
    }
    void read_from(const std::string& path) { host_config_start(ctx, path.c_str(), 0); }
    void restart(const std::string& path) {
        stop();
        start();
        read_from(path);
    }
    // A new daemon with that in its file.
    void read(const std::string& text) {
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
        line_runner terminal(ctx);
        const std::string printed = terminal.run(line, mode);
        last_result = terminal.result;
        return printed;
    }
    interface* bind(const char* name, std::uint32_t index) {
        interface* intf = if_add(ctx->ifm, name, index, IF_TYPE_SYNCE);
        if_bind(ctx->ifm, intf);
        return intf;
    }

    lib_globals* ctx = nullptr;
    const std::string config = folder + "/esmcd.conf";
    cli_result last_result = cli_result::ok;
};
