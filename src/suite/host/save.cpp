// The running configuration as text, `write`, and the file's content as it is. How the text gets into the
// file is in suite/host/file.cpp.
#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "suite/host/file.h"
#include "suite/host/state.h"
#include "suite/log/log.h"

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

bool host_save(host_state* host, cli* terminal) {
    if (!host->config_file) {  // none given yet, or no memory for its name
        terminal->out_func(terminal->out_val, "%% No configuration file is known, nothing is saved\n");
        return false;
    }
    if (host->unreadable || host->lossy) {
        terminal->out_func(terminal->out_val,
                           "%% %s was not read completely at start, it is not overwritten\n",
                           host->config_file);
        return false;
    }
    text_buffer text;
    int result = host_running_text(host, &text) ? host_file_replace(host->config_file, text.view()) : -ENOMEM;
    text_free(&text);
    if (result == 0) return true;
    terminal->out_func(terminal->out_val, "%% Can't save %s: %s\n", host->config_file,
                       std::strerror(-result));
    log_suite(LOG_LEVEL_ERROR, "configuration not saved to %s: %s", host->config_file,
              std::strerror(-result));
    return false;
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
