// See line_editor.h. The keys, the line and its row on the screen: what changes the line ends in line_show,
// which writes the row anew, unless one character at the end is all that changed. Nothing here depends on
// timing: an escape sequence may come in any number of pieces.
#include "suite/editor/line_editor.h"

#include <cstring>

#include "suite/base/memory.h"
#include "suite/base/slice.h"
#include "suite/editor/line_parts.h"
#include "suite/editor/utf8.h"

namespace {

enum key_state : std::uint8_t { PLAIN, ESCAPE, SEQUENCE, SHIFTED, QUOTED };

// What the terminal shows is a convenience: when memory is short it stays as it is.
void put(text_buffer* out, std::string_view text) {
    (void)text_append(out, text.data(), text.size());
}

void put_right(text_buffer* out, std::size_t columns) {
    put(out, "\r");
    if (columns) (void)text_printf(out, "\x1b[%zuC", columns);
}

// Moves the window over the line so that the cursor is in it.
void scroll_to_cursor(line_editor* e) {
    if (e->cursor < e->scroll) e->scroll = e->cursor;
    std::size_t room = line_room(e);
    std::size_t width = utf8_columns({e->text + e->scroll, e->cursor - e->scroll});
    while (width > room) {
        utf8_character c = utf8_first({e->text + e->scroll, e->length - e->scroll});
        e->scroll += c.length;
        width -= c.columns;
    }
}

void put_visible(const line_editor* e, text_buffer* out) {
    std::string_view rest{e->text + e->scroll, e->length - e->scroll};
    std::size_t room = line_room(e);
    while (!rest.empty()) {
        utf8_character c = utf8_first(rest);
        if (c.columns > room) break;
        room -= c.columns;
        put(out, c.shown ? slice(rest, 0, c.length) : "?");
        rest.remove_prefix(c.length);
    }
}

void show_search(const line_editor* e, text_buffer* out) {
    put(out, "\r(search '");
    put(out, {e->pattern, e->pattern_length});
    put(out, "') ");
    put_visible(e, out);
    put(out, "\x1b[K");
}

bool put_in(line_editor* e, std::string_view text) {
    if (text.size() > sizeof e->text - e->length) {
        e->too_long = true;
        return false;
    }
    std::memmove(e->text + e->cursor + text.size(), e->text + e->cursor, e->length - e->cursor);
    std::memcpy(e->text + e->cursor, text.data(), text.size());
    e->length += text.size();
    e->cursor += text.size();
    return true;
}

void take_out(line_editor* e, std::size_t from, std::size_t to) {
    std::memmove(e->text + from, e->text + to, e->length - to);
    e->length -= to - from;
    std::memset(e->text + e->length, 0, to - from);
    e->cursor = from;
    e->utf8_left = 0;
}

std::size_t one_left(const line_editor* e) {
    return e->cursor ? utf8_last_length({e->text, e->cursor}) : 0;
}

std::size_t one_right(const line_editor* e) {
    return e->cursor < e->length ? utf8_first({e->text + e->cursor, e->length - e->cursor}).length : 0;
}

std::size_t word_left(const line_editor* e) {
    std::size_t at = e->cursor;
    while (at && e->text[at - 1] == ' ') at--;
    while (at && e->text[at - 1] != ' ') at--;
    return at;
}

std::size_t word_right(const line_editor* e) {
    std::size_t at = e->cursor;
    while (at < e->length && e->text[at] == ' ') at++;
    while (at < e->length && e->text[at] != ' ') at++;
    return at;
}

void empty_line(line_editor* e) {
    explicit_bzero(e->text, e->length);
    e->length = e->cursor = e->scroll = 0;
    e->too_long = false;
    e->utf8_left = 0;
    e->searching = false;
    line_leave_history(e);
}

// A text octet. The row is written anew only when the cursor is not at the end or the window must move, and
// not before a character is whole.
void type(line_editor* e, std::uint8_t octet, text_buffer* out) {
    char c = static_cast<char>(octet);
    if (!put_in(e, {&c, 1})) return line_bell(out);
    if (e->hidden) return;
    if (octet < 0x80) {
        e->utf8_left = 0;
    } else if (octet >= 0xc2 && octet <= 0xf4) {
        e->utf8_left = octet >= 0xf0 ? 3 : octet >= 0xe0 ? 2 : 1;
        return;
    } else if (e->utf8_left && --e->utf8_left) {
        return;
    }
    bool at_end = e->cursor == e->length && !e->too_long;
    bool fits = utf8_columns({e->text + e->scroll, e->cursor - e->scroll}) <= line_room(e);
    if (octet < 0x80 && octet >= 0x20 && at_end && fits)
        put(out, {&c, 1});
    else
        line_show(e, out);
}

editor_event enter(line_editor* e, text_buffer* out) {
    put(out, "\r\n");
    e->searching = false;
    return e->too_long ? editor_event::too_long : editor_event::line;
}

editor_event interrupt(line_editor* e, text_buffer* out) {
    put(out, "^C\r\n");
    empty_line(e);
    return editor_event::interrupt;
}

void erase(line_editor* e, std::size_t from, std::size_t to, text_buffer* out) {
    if (from == to) return line_bell(out);
    take_out(e, from, to);
    line_show(e, out);
}

void move(line_editor* e, std::size_t to, text_buffer* out) {
    if (to == e->cursor) return;
    e->cursor = to;
    line_show(e, out);
}

void clear_screen(line_editor* e, text_buffer* out) {
    put(out, "\x1b[H\x1b[2J");
    line_show(e, out);
}

editor_event control_key(line_editor* e, std::uint8_t octet, text_buffer* out) {
    switch (octet) {
        case ctrl('A'):
            move(e, 0, out);
            break;
        case ctrl('B'):
            move(e, e->cursor - one_left(e), out);
            break;
        case ctrl('C'):
            return interrupt(e, out);
        case ctrl('D'):
            if (e->length == 0) return editor_event::leave;
            erase(e, e->cursor, e->cursor + one_right(e), out);
            break;
        case ctrl('E'):
            move(e, e->length, out);
            break;
        case ctrl('F'):
            move(e, e->cursor + one_right(e), out);
            break;
        case ctrl('H'):
        case KEY_DELETE:
            erase(e, e->cursor - one_left(e), e->cursor, out);
            break;
        case '\t':
            return e->hidden ? editor_event::none : editor_event::complete;
        case '\n':
        case '\r':
            return enter(e, out);
        case ctrl('K'):
            erase(e, e->cursor, e->length, out);
            break;
        case ctrl('L'):
            clear_screen(e, out);
            break;
        case ctrl('N'):
            line_browse(e, false, out);
            break;
        case ctrl('P'):
            line_browse(e, true, out);
            break;
        case ctrl('R'):
            line_search_start(e, out);
            break;
        case ctrl('U'):
            erase(e, 0, e->cursor, out);
            break;
        case ctrl('V'):
            e->key_state = QUOTED;
            break;
        case ctrl('W'):
            erase(e, word_left(e), e->cursor, out);
            break;
        case ctrl('Z'):
            return editor_event::end_mode;
        case KEY_ESCAPE:
            e->key_state = ESCAPE;
            break;
        default:
            break;
    }
    return editor_event::none;
}

void final_of_sequence(line_editor* e, std::uint8_t octet, text_buffer* out) {
    switch (octet == '~' ? e->key_number : octet) {
        case 'A':
            line_browse(e, true, out);
            break;
        case 'B':
            line_browse(e, false, out);
            break;
        case 'C':
            move(e, e->cursor + one_right(e), out);
            break;
        case 'D':
            move(e, e->cursor - one_left(e), out);
            break;
        case 'H':
        case 1:
        case 7:
            move(e, 0, out);
            break;
        case 'F':
        case 4:
        case 8:
            move(e, e->length, out);
            break;
        case 3:
            erase(e, e->cursor, e->cursor + one_right(e), out);
            break;
        default:
            break;
    }
}

// Octets behind ESC: a letter, or "[" parameters final, or "O" final.
void escape_key(line_editor* e, std::uint8_t octet, text_buffer* out) {
    if (e->key_state == ESCAPE) {
        e->key_state = octet == '[' ? SEQUENCE : octet == 'O' ? SHIFTED : PLAIN;
        e->key_number = 0;
        if (octet == 'b') move(e, word_left(e), out);
        if (octet == 'f') move(e, word_right(e), out);
        if (octet == 'd') erase(e, e->cursor, word_right(e), out);
        return;
    }
    if (octet >= '0' && octet <= '9') {
        e->key_number = static_cast<std::uint8_t>(e->key_number * 10 + (octet - '0'));
        return;
    }
    if (e->key_state == SEQUENCE && octet >= 0x20 && octet < 0x40) {
        e->key_number =
            0xff;  // further parameters: a key with modifiers, read as the plain one by its letter
        return;
    }
    e->key_state = PLAIN;
    final_of_sequence(e, octet, out);
}

bool swallowed_after_cr(line_editor* e, std::uint8_t octet) {
    bool after = e->last_was_cr && (octet == '\n' || octet == 0);
    e->last_was_cr = octet == '\r';
    return after;
}

}  // namespace

std::size_t line_room(const line_editor* e) {
    std::size_t used = utf8_columns(e->prompt) + 1;
    return e->columns > used + 8 ? e->columns - used : 8;
}

void line_show(line_editor* e, text_buffer* out) {
    if (e->hidden) return;
    scroll_to_cursor(e);
    if (e->searching) return show_search(e, out);
    put(out, "\r");
    put(out, e->prompt);
    put_visible(e, out);
    put(out, "\x1b[K");
    put_right(out, utf8_columns(e->prompt) + utf8_columns({e->text + e->scroll, e->cursor - e->scroll}));
}

void line_bell(text_buffer* out) {
    put(out, "\a");
}

void line_replace(line_editor* e, const char* text) {
    std::size_t length = std::strlen(text);
    if (length > sizeof e->text) length = sizeof e->text;
    std::memset(e->text, 0, e->length);
    std::memcpy(e->text, text, length);
    e->length = e->cursor = length;
    e->scroll = 0;
    e->utf8_left = 0;
}

line_editor* line_editor_create() {
    auto* e = static_cast<line_editor*>(memmgr_calloc(sizeof(line_editor), MTYPE_CLI_SESSION));
    if (e) e->columns = 80;
    return e;
}

void line_editor_free(line_editor* e) {
    if (!e) return;
    line_history_free(e);
    memmgr_free(e, MTYPE_CLI_SESSION);
}

void line_editor_clear(line_editor* e) {
    empty_line(e);
}

void line_editor_start(line_editor* e, std::string_view prompt, text_buffer* out) {
    std::size_t length = prompt.size() < sizeof e->prompt - 1 ? prompt.size() : sizeof e->prompt - 1;
    std::memcpy(e->prompt, prompt.data(), length);
    e->prompt[length] = 0;
    empty_line(e);
    put(out, e->prompt);
}

editor_event line_editor_key(line_editor* e, std::uint8_t octet, text_buffer* out) {
    if (swallowed_after_cr(e, octet)) return editor_event::none;
    if (e->key_state == QUOTED) {
        e->key_state = PLAIN;
        if (octet >= 0x20 && octet != KEY_DELETE) type(e, octet, out);
        return editor_event::none;
    }
    if (e->searching && line_search_key(e, octet, out)) return editor_event::none;
    if (e->key_state != PLAIN && octet != KEY_ESCAPE && octet >= 0x20) {
        escape_key(e, octet, out);
        return editor_event::none;
    }
    e->key_state = PLAIN;  // a control key ends a sequence that was cut off
    if (octet < 0x20 || octet == KEY_DELETE) return control_key(e, octet, out);
    if (octet == '?' && !e->hidden) return editor_event::help;
    type(e, octet, out);
    return editor_event::none;
}

void line_editor_insert(line_editor* e, std::string_view text, text_buffer* out) {
    if (!put_in(e, text)) line_bell(out);
    line_show(e, out);
}

void line_editor_redraw(line_editor* e, text_buffer* out) {
    line_show(e, out);
}

void line_editor_hide(const line_editor*, text_buffer* out) {
    put(out, "\r\x1b[K");
}

void line_editor_resize(line_editor* e, std::size_t columns) {
    e->columns = columns ? columns : 80;
}
