// esmcsh, the operator's shell: lines from the command line, from standard input, or an interactive session.
#include <getopt.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "esmcsh/client.h"
#include "suite/base/text.h"
#include "suite/terminal/wire.h"

namespace {

constexpr char USAGE[] =
    "Usage: esmcsh [-s PATH] [-c LINE ...] [-t LINE]\n"
    "Operator's shell of esmcd.\n"
    "\n"
    "  -c LINE   Run a line; may be given several times, all run in one session\n"
    "  -t LINE   Print the words that may stand at the end of LINE, one a line, as TAB completes them\n"
    "  -s PATH   Socket of the daemon (default /run/esmcd.vty)\n"
    "  -h        Display this help and exit\n"
    "\n"
    "Without -c the lines of standard input are run; on a terminal an interactive session is opened.\n"
    "Exit status: 0 every line succeeded, 1 a line failed (the rest is not run), 2 esmcd can't be reached.\n";

struct settings {
    const char* path = TERMINAL_LOCAL_SOCKET;
    char** lines = nullptr;  // -c, in their order
    int line_count = 0;
    bool completes = false;    // -t ...
    const char* partial = "";  // ... and its line
};

// False: the shell ends with *status.
bool read_options(int argc, char** argv, settings* s, int* status) {
    *status = SHELL_OK;
    for (int option; (option = getopt(argc, argv, "c:s:t:h")) != -1;) {
        switch (option) {
            case 'c':
                s->lines[s->line_count++] = optarg;
                break;
            case 't':
                s->completes = true;
                s->partial = optarg;
                break;
            case 's':
                s->path = optarg;
                break;
            case 'h':
                std::fputs(USAGE, stdout);
                return false;
            default:
                *status = SHELL_LINE_FAILED;
                std::fputs("Try `esmcsh -h' for more information.\n", stderr);
                return false;
        }
    }
    if (optind == argc) return true;
    std::fprintf(stderr, "esmcsh: unexpected argument: %s\nTry `esmcsh -h' for more information.\n",
                 argv[optind]);
    *status = SHELL_LINE_FAILED;
    return false;
}

shell_status print_words(int fd, const char* partial) {
    text_buffer line;
    bool ended = false;
    shell_status status = SHELL_LINE_FAILED;
    if (text_append(&line, partial, std::strlen(partial)) && text_append(&line, "\t", 1))
        status = client_run(fd, line.view(), &ended);
    text_free(&line);
    return status;
}

shell_status run(int fd, const settings& s) {
    const bool has_line = s.line_count > 0 || s.completes;
    if (!has_line && isatty(STDIN_FILENO) && isatty(STDOUT_FILENO)) return client_interactive(fd);
    // A daemon that is gone is seen at the first answer.
    (void)client_send(fd, s.completes ? "complete\n" : "batch\n");
    if (!has_line) return client_run_input(fd);
    shell_status status = SHELL_OK;
    bool ended = false;
    for (int i = 0; i < s.line_count && status == SHELL_OK && !ended; i++)
        status = client_run(fd, s.lines[i], &ended);
    return s.completes && status == SHELL_OK && !ended ? print_words(fd, s.partial) : status;
}

int run_all(int argc, char** argv, settings* s) {
    int status = SHELL_OK;
    if (!read_options(argc, argv, s, &status)) return status;
    int fd = client_connect(s->path);
    if (fd < 0) return SHELL_UNREACHABLE;
    status = run(fd, *s);
    close(fd);
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    settings s;
    s.lines = static_cast<char**>(std::calloc(static_cast<std::size_t>(argc) + 1, sizeof(char*)));
    int status = s.lines ? run_all(argc, argv, &s) : SHELL_LINE_FAILED;
    std::free(s.lines);
    return status;
}
