// Batch sessions: requests with a length in front, answers in frames, so that a script's shell knows of each
// line whether it succeeded and can print exactly what it printed.
#include <cstring>

#include "suite/base/octets.h"
#include "suite/base/slice.h"
#include "suite/command/completion.h"
#include "suite/terminal/stages.h"
#include "suite/terminal/terminal.h"

namespace {

std::size_t request_length(const session* s) {
    return get_be32({reinterpret_cast<const std::uint8_t*>(s->in.data), s->in.length}, 0);
}

void put_frame_length(session* s, std::size_t length) {
    octets header{reinterpret_cast<std::uint8_t*>(s->out.data) + s->frame, BATCH_FRAME_HEADER};
    put_be32(header, 1, static_cast<std::uint32_t>(length));
}

void put_status(session* s, batch_status status) {
    s->frame = NO_FRAME;
    const char frame[BATCH_FRAME_HEADER + 1] = {static_cast<char>(BATCH_STATUS), 0, 0, 0, 1,
                                                static_cast<char>(status)};
    if (!text_append(&s->out, frame, sizeof frame)) s->overrun = true;
}

void list_words(session* s, std::string_view line) {
    completion_list list;
    completion_words(s->ctx->ctree, &s->c, line, &list);
    for (std::size_t i = 0; i < list.count; i++) session_print(s, "%s\n", list.items[i].text);
    session_batch_finish(s, list.result == cli_result::ok);
}

void tell_explanation(session* s) {
    session_write(s, s->explanation.view());
    text_free(&s->explanation);
    put_status(s, BATCH_OK);
}

void run_request(session* s, std::string_view line) {
    if (s->completes && line.ends_with('\t')) return list_words(s, slice(line, 0, line.size() - 1));
    if (line == BATCH_EXPLAIN) return tell_explanation(s);
    text_free(&s->explanation);
    cli_result result = session_run_line(s, line);
    if (!s->busy && !s->more)
        session_batch_finish(s, result == cli_result::ok || result == cli_result::empty);
}

void skip(session* s) {
    std::size_t count = s->to_skip < s->in.length ? s->to_skip : s->in.length;
    text_consume(&s->in, count);
    s->to_skip -= count;
    if (s->to_skip) return;
    session_write(s, "% Line too long\n");
    put_status(s, BATCH_FAILED);
}

}  // namespace

void session_batch_finish(session* s, bool good) {
    put_status(s, !good ? BATCH_FAILED : s->ending ? BATCH_ENDED : BATCH_OK);
}

bool session_batch_ready(const session* s) {
    if (s->to_skip) return s->in.length > 0;
    if (s->in.length < BATCH_REQUEST_HEADER) return false;
    std::size_t length = request_length(s);
    return length > SESSION_LINE_MAX || s->in.length - BATCH_REQUEST_HEADER >= length;
}

std::size_t session_batch_input_limit(const session* s) {
    if (s->to_skip || s->in.length < BATCH_REQUEST_HEADER) return SESSION_READ_SIZE;
    std::size_t length = request_length(s);
    return length > SESSION_LINE_MAX ? SESSION_READ_SIZE : length + BATCH_REQUEST_HEADER;
}

void session_batch_step(session* s) {
    if (s->to_skip) return skip(s);
    std::size_t length = request_length(s);
    if (length > SESSION_LINE_MAX) {
        text_consume(&s->in, BATCH_REQUEST_HEADER);
        s->to_skip = length;
        return skip(s);
    }
    run_request(s, {s->in.data + BATCH_REQUEST_HEADER, length});
    if (!s->more) text_consume(&s->in, BATCH_REQUEST_HEADER + length);
}

void session_batch_output(session* s, std::string_view text) {
    if (text.empty()) return;
    if (s->frame == NO_FRAME) {
        const char header[BATCH_FRAME_HEADER] = {static_cast<char>(BATCH_OUTPUT)};
        std::size_t at = s->out.length;
        if (!text_append(&s->out, header, sizeof header)) {
            s->overrun = true;
            return;
        }
        s->frame = at;
    }
    if (!text_append(&s->out, text.data(), text.size())) {
        s->overrun = true;
        return;
    }
    put_frame_length(s, s->out.length - s->frame - BATCH_FRAME_HEADER);
}
