// The log: formats a line once, on the stack, and hands it to the sinks, to the taps and to the ring of
// recent lines. Owns the ring and the choice of sinks; suite/log/sinks.cpp owns the descriptors. A line that
// nobody wants is not formatted. What can go wrong here is only that a line is cut or dropped, never that the
// caller waits.
#include "suite/log/log.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

#include "suite/base/clock.h"
#include "suite/base/memory.h"
#include "suite/base/text.h"
#include "suite/log/sinks.h"

namespace {

constexpr std::size_t RING_OCTETS = 65536;
constexpr std::size_t TAP_COUNT = 64;

struct {
    unsigned sinks = LOG_SINK_STDERR;
    unsigned default_sinks = LOG_SINK_STDERR;
    int level = LOG_LEVEL_DEBUG;
} settings;

struct {
    log_tap call;
    void* arg;
} taps[TAP_COUNT];
std::size_t tap_count;

// Lines, each behind its length in two octets; both may wrap around the end.
struct {
    char* data;
    std::size_t first, used;
    bool walking;
} ring;

std::time_t stamped = -1;  // the second of the time that is kept formatted

bool silent;
bool formatting;  // a tap that logs in spite of its contract must not recurse

void ring_copy_in(const void* from, std::size_t count) {
    const std::size_t at = (ring.first + ring.used) % RING_OCTETS;
    const std::size_t until_end = count < RING_OCTETS - at ? count : RING_OCTETS - at;
    std::memcpy(ring.data + at, from, until_end);
    std::memcpy(ring.data, static_cast<const char*>(from) + until_end, count - until_end);
    ring.used += count;
}

void ring_copy_out(std::size_t at, void* to, std::size_t count) {
    at %= RING_OCTETS;
    const std::size_t until_end = count < RING_OCTETS - at ? count : RING_OCTETS - at;
    std::memcpy(to, ring.data + at, until_end);
    std::memcpy(static_cast<char*>(to) + until_end, ring.data, count - until_end);
}

void ring_keep(const char* line, std::size_t length) {
    if (ring.data == nullptr || ring.walking) return;
    const std::uint16_t count = static_cast<std::uint16_t>(length);
    while (RING_OCTETS - ring.used < length + sizeof count) {
        std::uint16_t oldest = 0;
        ring_copy_out(ring.first, &oldest, sizeof oldest);
        ring.first = (ring.first + sizeof oldest + oldest) % RING_OCTETS;
        ring.used -= sizeof oldest + oldest;
    }
    ring_copy_in(&count, sizeof count);
    ring_copy_in(line, length);
}

// Escapes control characters other than newline on the way from `text` to `out`; returns the length.
std::size_t escape(char* out, std::size_t size, const char* text) {
    std::size_t length = 0;
    for (; *text != '\0'; text++) {
        const unsigned char c = static_cast<unsigned char>(*text);
        if ((c >= 0x20 && c != 0x7f) || c == '\n') {
            if (length + 1 > size) break;
            out[length++] = *text;
            continue;
        }
        if (length + 4 > size) break;
        constexpr char digits[] = "0123456789abcdef";
        out[length++] = '\\';
        out[length++] = 'x';
        out[length++] = digits[c >> 4];
        out[length++] = digits[c & 15];
    }
    return length;
}

void log_line(int level, const char* format, va_list args) {
    formatting = true;
    char text[LOG_LINE_MAX];
    char line[LOG_LINE_MAX];
    (void)zvsnprintf(text, sizeof text, format, args);  // cut at the end
    const std::size_t prefix = log_format_prefix(line, sizeof line, level);
    const std::size_t length = prefix + escape(line + prefix, sizeof line - prefix - 1, text);
    ring_keep(line, length);
    for (std::size_t i = 0; tap_count != 0 && i < TAP_COUNT; i++) {
        if (taps[i].call != nullptr) taps[i].call(taps[i].arg, level, line, length);
    }
    line[length] = '\n';
    if (settings.sinks & LOG_SINK_STDERR) log_stderr_write(level, line, length + 1);
    if (settings.sinks & LOG_SINK_FILE) log_file_write(line, length + 1);
    if (settings.sinks & LOG_SINK_SYSLOG) log_syslog_write(level, line + prefix, length - prefix);
    formatting = false;
}

void report_memory(const char* text) {
    log_suite(LOG_LEVEL_ERROR, "%s", text);
}

}  // namespace

const char* log_level_word(int level) {
    if (level <= LOG_LEVEL_ERROR) return "error";
    if (level == LOG_LEVEL_WARNING) return "warning";
    return level <= LOG_LEVEL_INFO ? "info" : "debug";
}

std::size_t log_format_prefix(char* out, std::size_t size, int level) {
    // The part that changes once a second is kept: what the time zone costs is paid only then.
    static char stamp[40], zone[48];
    const nanoseconds now = wall_now();
    const std::time_t seconds = static_cast<std::time_t>(now / NS_PER_S);
    if (seconds != stamped) {
        tm local{};
        localtime_r(&seconds, &local);
        std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &local);
        const long offset = local.tm_gmtoff / 60;
        const long minutes = offset < 0 ? -offset : offset;
        std::snprintf(zone, sizeof zone, "%c%02ld:%02ld", offset < 0 ? '-' : '+', minutes / 60, minutes % 60);
        stamped = seconds;
    }
    const int n =
        std::snprintf(out, size, "%s.%03u%s %s ", stamp, static_cast<unsigned>(now % NS_PER_S / NS_PER_MS),
                      zone, log_level_word(level));
    return n < 0 ? 0 : static_cast<std::size_t>(n) < size ? static_cast<std::size_t>(n) : size - 1;
}

void log_sys(int, int level, const char* format, ...) {
    if (!log_wants(level)) return;
    va_list args;
    va_start(args, format);
    log_line(level, format, args);
    va_end(args);
}

void log_suite(int level, const char* format, ...) {
    if (!log_wants(level)) return;
    va_list args;
    va_start(args, format);
    log_line(level, format, args);
    va_end(args);
}

bool log_wants(int level) {
    if (level > settings.level || formatting || silent) return false;
    return settings.sinks != 0 || tap_count != 0 || ring.data != nullptr;
}

void log_open(const char* progname) {
    memmgr_set_report(report_memory);
    log_syslog_open(progname);
    stamped = -1;
    // Without memory for it there are just no recent lines to show.
    if (ring.data == nullptr) ring.data = static_cast<char*>(memmgr_calloc(RING_OCTETS, MTYPE_LOG));
}

void log_close() {
    log_sinks_close();
    memmgr_free(ring.data, MTYPE_LOG);
    ring = {};
    settings = {};
}

void log_silence() {
    silent = true;
}

void log_use_sink(log_sink sink, bool on) {
    settings.sinks = on ? settings.sinks | sink : settings.sinks & ~static_cast<unsigned>(sink);
    if (sink == LOG_SINK_SYSLOG && !on) log_syslog_close();
    if (sink == LOG_SINK_STDERR && !on) log_stderr_close();
}

void log_set_default_sinks(unsigned sinks) {
    settings.sinks = settings.default_sinks = sinks;
    if (!(sinks & LOG_SINK_STDERR)) log_stderr_close();
}

bool log_use_file(int fd, const char* path) {
    if (!log_file_use(fd, path)) return false;
    log_use_sink(LOG_SINK_FILE, fd >= 0);
    return true;
}

bool log_level_of(const char* word, int* level) {
    for (const int known : {LOG_LEVEL_ERROR, LOG_LEVEL_WARNING, LOG_LEVEL_INFO, LOG_LEVEL_DEBUG}) {
        if (std::strcmp(word, log_level_word(known)) != 0) continue;
        *level = known;
        return true;
    }
    return false;
}

void log_set_level(int level) {
    settings.level = level;
}

log_settings log_get_settings() {
    return {settings.sinks, settings.default_sinks, settings.level, log_file_path()};
}

int log_add_tap(log_tap tap, void* arg) {
    for (auto& t : taps) {
        if (t.call != nullptr) continue;
        t = {tap, arg};
        tap_count++;
        return 0;
    }
    return -1;
}

void log_remove_tap(log_tap tap, void* arg) {
    for (auto& t : taps) {
        if (t.call != tap || t.arg != arg) continue;
        t = {};
        tap_count--;
        return;
    }
}

void log_walk_recent(void (*visit)(void* arg, const char* line, std::size_t length), void* arg) {
    if (ring.data == nullptr) return;
    const bool nested = ring.walking;
    ring.walking = true;  // the lines stay put while they are shown
    for (std::size_t at = 0; at < ring.used;) {
        std::uint16_t length = 0;
        char line[LOG_LINE_MAX];
        ring_copy_out(ring.first + at, &length, sizeof length);
        ring_copy_out(ring.first + at + sizeof length, line, length);
        visit(arg, line, length);
        at += sizeof length + length;
    }
    ring.walking = nested;
}

std::uint64_t log_dropped_lines() {
    return log_sinks_dropped();
}

bool log_backlog() {
    return log_sinks_backlog();
}

void log_retry() {
    log_sinks_retry();
}
