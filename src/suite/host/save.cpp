// The running configuration as text, `write`, and the file's content as it is. How the text gets into the
// file is in suite/host/file.cpp.
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstring>

#include "suite/base/overwrite.h"
#include "suite/host/file.h"
#include "suite/host/state.h"
#include "suite/log/log.h"
#include "suite/terminal/session.h"

namespace {

constexpr std::size_t FILE_MAX = 64 * 1024 * 1024;

}  // namespace

int text_output_print(void* out_val, const char* format, ...) {
    auto* out = static_cast<text_output*>(out_val);
    va_list args;
    va_start(args, format);
    if (!text_vprintf(&out->text, format, args)) out->cut = true;
    va_end(args);
    return 0;
}

bool host_running_text(host_state* host, text_buffer* out) {
    text_output output{};
    cli terminal = host_plain_session(host, EXEC_MODE, text_output_print, &output);
    cli_write_running(host->ctx->ctree, &terminal);
    *out = output.text;
    return !output.cut;
}

namespace {

struct save_request {
    const char* path;
    std::string_view text;
};

// In the child. The signals that end the daemon are not for it: a save that was begun is finished.
int save_in_child(const void* arg, int out) {
    const auto* save = static_cast<const save_request*>(arg);
    for (int number : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGXFSZ}) std::signal(number, SIG_IGN);
    log_silence();
    const host_file_result result = host_file_replace(save->path, save->text);
    return write_all(out, {reinterpret_cast<const char*>(&result), sizeof result}) == 0 ? 0 : 1;
}

// What a terminal is told; nothing when all is well.
void describe_save(const host_state* host, const host_file_result& result, text_buffer* out) {
    if (result.mixed)
        log_suite(LOG_LEVEL_ERROR, "%s is written in part; the next start takes the text from %s.new",
                  host->config_file, host->config_file);
    if (result.error == 0) return;
    const char* why = std::strerror(-result.error);
    log_suite(LOG_LEVEL_ERROR, "configuration not saved to %s: %s", host->config_file, why);
    (void)text_printf(out, "%% Can't save %s: %s\n", host->config_file, why);  // it has been logged
}

void on_saved(lib_globals* ctx, void* owner, int status, std::string_view answer) {
    host_file_result result{-EIO, false};
    if (status == 0 && answer.size() == sizeof result) std::memcpy(&result, answer.data(), sizeof result);
    text_buffer text;
    describe_save(ctx->host, result, &text);
    const bool heard = host_task_end(static_cast<host_task*>(owner), result.error == 0, text.view());
    if (!heard && result.error == 0)
        log_suite(LOG_LEVEL_INFO, "configuration saved to %s", ctx->host->config_file);
    text_free(&text);
}

int save_later(host_state* host, cli* terminal, std::string_view text) {
    const save_request save = {host->config_file, text};
    host_task* t = host_task_create(terminal, "Can't save", host->config_file);
    if (!t) return CLI_ERROR;
    return host_task_start(
        t, terminal, {save_in_child, &save, nullptr, 0, sizeof(host_file_result), 0, on_saved, t}, true);
}

int save_now(const host_state* host, cli* terminal, std::string_view text) {
    const host_file_result result = host_file_replace(host->config_file, text);
    text_buffer out;
    describe_save(host, result, &out);
    terminal->out_func(terminal->out_val, "%s", out.c_str());
    text_free(&out);
    return result.error == 0 ? CLI_SUCCESS : CLI_ERROR;
}

// Null: nothing forbids it.
const char* why_not_saved(const host_state* host) {
    if (host->unreadable || host->lossy) return "was not read completely at start, it is not overwritten";
    return host_task_saves(host) ? "is being saved, by a command whose disk has not answered yet" : nullptr;
}

}  // namespace

int host_save(host_state* host, cli* terminal) {
    if (!host->config_file)  // none given yet, or no memory for its name
        return cli_refuse(terminal, "No configuration file is known, nothing is saved");
    if (const char* why = why_not_saved(host)) {
        terminal->out_func(terminal->out_val, "%% %s %s\n", host->config_file, why);
        return CLI_ERROR;
    }
    text_buffer text;
    int result = CLI_ERROR;
    if (!host_running_text(host, &text))
        terminal->out_func(terminal->out_val, "%% Can't save %s: %s\n", host->config_file,
                           std::strerror(ENOMEM));
    else if (session_running(terminal))
        result = save_later(host, terminal, text.view());
    else
        result = save_now(host, terminal, text.view());
    text_free(&text);
    return result;
}

int host_read_file(const char* path, text_buffer* out) {
    int fd = open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) return -errno;
    int result = 0;
    char chunk[4096];
    while (result == 0) {
        ssize_t count = read(fd, chunk, sizeof chunk);
        if (count == 0) break;
        if (count < 0 && errno == EINTR) continue;
        if (count < 0)
            result = -errno;
        else if (out->length > FILE_MAX)
            result = -EFBIG;
        else if (!text_append(out, chunk, static_cast<std::size_t>(count)))
            result = -ENOMEM;
    }
    close(fd);
    return result;
}
