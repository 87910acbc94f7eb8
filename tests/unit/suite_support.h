// What the tests of the suite share: the log, memory and files of a test, command lines, the event loop, and
// a link to a server that the test plays.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "suite/base/memory.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/loop/master.h"
#include "suite/start/lib.h"
#include "suite/terminal/terminal.h"

using words = std::vector<std::string>;

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}
inline void write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}
inline unsigned permissions(const std::string& path) {
    return static_cast<unsigned>(std::filesystem::status(path).permissions());
}

// What is logged is kept; a test has a folder, and leaves no memory behind.
class Suite : public testing::Test {
  protected:
    Suite() {
        char path[] = "/tmp/suite_XXXXXX";
        folder = mkdtemp(path);
        memory_init(36);
        memmgr_set_report([](const char* text) { log_suite(LOG_LEVEL_ERROR, "%s", text); });
        log_use_sink(LOG_SINK_STDERR, false);
        log_add_tap(keep, this);
    }
    ~Suite() override {
        memmgr_fail_at(0);
        log_remove_tap(keep, this);
        std::filesystem::remove_all(folder);
        for (memory_type t : {MTYPE_LIB, MTYPE_THREAD, MTYPE_CLI_TREE, MTYPE_CLI_SESSION, MTYPE_TEXT,
                              MTYPE_HOST, MTYPE_IF, MTYPE_NSM, MTYPE_SLOW, MTYPE_AGENTX})
            EXPECT_EQ(memmgr_type_stats(t).blocks, 0u) << memmgr_type_name(t);
    }
    // What was logged on a level, without time and level.
    words logged(int level = LOG_LEVEL_ERROR) const {
        words found;
        for (const auto& [l, line] : said)
            if (l == level) found.push_back(line.substr(line.find(' ', line.find(' ') + 1) + 1));
        return found;
    }

    std::string folder;
    std::vector<std::pair<int, std::string>> said;  // levels and lines

  private:
    static void keep(void* self, int level, const char* line, std::size_t length) {
        static_cast<Suite*>(self)->said.emplace_back(level, std::string(line, length));
    }
};

inline std::string take_text(text_buffer* text) {
    std::string result(text->view());
    text_free(text);
    return result;
}

// Runs command lines as a terminal does that may do everything.
struct line_runner {
    cli session{};
    text_output printed{};
    cli_result result = cli_result::ok;  // of the last line

    explicit line_runner(lib_globals* ctx) {
        session.out_func = text_output_print;
        session.out_val = &printed;
        session.zg = ctx;
        session.ifm = ctx->ifm;
        session.privilege = PRIVILEGE_MAX;
        session.line = this;
    }
    // What the line printed.
    std::string run(const std::string& line, std::int32_t mode = EXEC_MODE) {
        session.mode = mode;
        result = cli_run_line(session.zg->ctree, &session, line);
        return take_text(&printed.text);
    }
    std::string running() {
        cli_write_running(session.zg->ctree, &session);
        return take_text(&printed.text);
    }
};

// Runs what is ready, and what comes within `ms`, until `done` after some event; whether it came to that.
inline bool run_loop(lib_globals* ctx, std::uint32_t ms, const std::function<bool()>& done) {
    bool over = false;
    const auto end = [](thread* event) {
        *static_cast<bool*>(event->arg) = true;
        return 0;
    };
    thread* limit = thread_add_timer_msec(ctx, end, &over, ms);
    bool is_done = false;
    for (thread event; !(is_done = done()) && !over && thread_fetch(ctx, &event);) (void)thread_call(&event);
    if (!over) thread_cancel(limit);
    return is_done;
}

// For units whose one edge is a link to a server: the test is the server, at the far end of a socket pair,
// and the loop's clock only moves by waiting.
struct virtual_link {
    lib_globals* ctx = nullptr;
    nanoseconds now = NS_PER_S;
    int near = -1;  // the unit's end, which the unit closes
    int far = -1;
    int opens = 0;       // tries to open the link
    int open_error = 0;  // that they fail with

    ~virtual_link() { hang_up(); }

    // What the unit gets when it opens its link: a descriptor, or a negative errno.
    int open(int type) {
        ++opens;
        if (open_error) return -open_error;
        hang_up();
        int ends[2];
        if (socketpair(AF_UNIX, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return -errno;
        near = ends[0];
        far = ends[1];
        return near;
    }
    void hang_up() {
        if (far >= 0) close(far);
        far = -1;
    }
    thread_edges edges() {
        return {[](void* self) { return static_cast<virtual_link*>(self)->now; }, wait, this};
    }
    bool run(
        std::uint32_t ms, const std::function<bool()>& done = [] { return false; }) const {
        return run_loop(ctx, ms, done);
    }
    bool reopens(std::uint32_t ms) const {
        return run(ms, [this, before = opens] { return opens > before; });
    }

  private:
    static int wait(void* arg, int timeout_ms, thread_ready* out, int) {
        auto* self = static_cast<virtual_link*>(arg);
        // As the kernel does, tell only of what is waited for: else time would never move on.
        const thread_source* source = thread_source_find(self->ctx->master, self->near);
        const int events = source ? (source->read ? POLLIN : 0) | (source->write ? POLLOUT : 0) : 0;
        pollfd state{self->near, static_cast<short>(events), 0};
        if (events && poll(&state, 1, 0) > 0) {
            *out = {state.fd, (state.revents & ~POLLOUT) != 0, (state.revents & ~POLLIN) != 0};
            return 1;
        }
        if (timeout_ms > 0) self->now += static_cast<nanoseconds>(timeout_ms) * NS_PER_MS;
        return 0;
    }
};
