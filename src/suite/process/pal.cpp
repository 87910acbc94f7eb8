// The process's side of the system: daemon mode, signal dispositions and the printers for messages that can't
// wait for a log. Called by start-up and by the loop's interrupt handler; failures are printed here, and the
// caller goes on in whatever process is left.
#include "suite/process/pal.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "suite/base/text.h"
#include "suite/loop/thread.h"

namespace {

constexpr std::size_t MESSAGE_SIZE = 1024;

volatile std::sig_atomic_t cpu_limit_seen = 0;
volatile std::sig_atomic_t file_limit_seen = 0;

// The process goes on without a terminal's streams even when /dev/null is missing: then they stay.
void detach_streams() {
    const int null_device = open("/dev/null", O_RDWR);
    if (null_device < 0) return;
    for (int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) (void)dup2(null_device, stream);
    if (null_device > STDERR_FILENO) close(null_device);
}

// One write, so that the line stays whole beside what others print.
void write_line(int descriptor, char* text, std::size_t length) {
    text[length] = '\n';
    // Nobody is left to be told when this fails.
    if (write(descriptor, text, length + 1) < 0) return;
}

// Resource limits are reported once: the signal is ignored from then on.
void note_limit(int number, volatile std::sig_atomic_t* seen) {
    (void)pal_signal_set(number, SIG_IGN);
    *seen = 1;
    thread_interrupt();
}

}  // namespace

std::int32_t pal_daemonize(std::uint16_t keep_directory, std::uint16_t keep_streams) {
    const pid_t child = fork();
    if (child < 0) {
        perror("fork");
        return -1;
    }
    // Not exit(): buffers and handlers belong to the child now.
    if (child > 0) _exit(0);
    if (setsid() < 0) {
        perror("setsid");
        return -1;
    }
    if (!keep_directory && chdir("/") < 0) perror("chdir");
    if (!keep_streams) detach_streams();
    umask(027);
    return 0;
}

pal_signal_handler pal_signal_set(int number, pal_signal_handler handler) {
    struct sigaction action = {};
    struct sigaction former = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    if (sigaction(number, &action, &former) < 0) return SIG_ERR;
    return former.sa_handler;
}

void pal_signal_init() {
    for (int number : {SIGHUP, SIGUSR1, SIGUSR2, SIGPIPE, SIGTSTP, SIGTTIN, SIGTTOU})
        (void)pal_signal_set(number, SIG_IGN);
    (void)pal_signal_set(SIGXCPU, pal_sigxcpu);
    (void)pal_signal_set(SIGXFSZ, pal_sigxfsz);
}

void pal_sigxcpu(int number) {
    note_limit(number, &cpu_limit_seen);
}

void pal_sigxfsz(int number) {
    note_limit(number, &file_limit_seen);
}

void pal_signal_report() {
    if (cpu_limit_seen) {
        cpu_limit_seen = 0;
        pal_console_log("CPU limit exceeded");
    }
    if (file_limit_seen) {
        file_limit_seen = 0;
        pal_console_log("File size limit exceeded");
    }
}

void pal_system_err(const char* format, ...) {
    char text[MESSAGE_SIZE];
    va_list args;
    va_start(args, format);
    const int length = zvsnprintf(text, sizeof text, format, args);
    va_end(args);
    write_line(STDERR_FILENO, text, static_cast<std::size_t>(length));
}

void pal_console_log(const char* format, ...) {
    // A serial console without carrier must not hold the daemon up, nor become its controlling terminal.
    const int console =
        open("/dev/console", O_RDWR | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (console < 0) return;
    char text[MESSAGE_SIZE];
    va_list args;
    va_start(args, format);
    const int length = zvsnprintf(text, sizeof text, format, args);
    va_end(args);
    write_line(console, text, static_cast<std::size_t>(length));
    close(console);
}
