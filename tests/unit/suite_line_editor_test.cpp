// The line editor: keys in, octets out. What the screen would show is followed by a small terminal that knows
// the few sequences that the editor uses.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "suite/line_editor.h"
#include "suite/memory.h"
#include "suite/utf8.h"

namespace {

// One row of a terminal: what stands on it and where the cursor is, in columns. Wide characters are not used.
struct Screen {
    std::vector<std::string> cells;
    std::size_t column = 0;
    std::string bells;

    void put(std::string_view octets) {
        for (std::size_t i = 0; i < octets.size();) {
            char c = octets[i];
            if (c == '\r') {
                column = 0;
                i++;
            } else if (c == '\n') {
                cells.clear();
                i++;
            } else if (c == '\a') {
                bells += c;
                i++;
            } else if (octets.substr(i).starts_with("\x1b[K")) {
                if (cells.size() > column) cells.resize(column);
                i += 3;
            } else if (c == '\x1b') {
                std::size_t end = octets.find_first_of("CHJ", i);
                ASSERT_NE(end, std::string_view::npos);
                if (octets[end] == 'C') column += std::stoul(std::string(octets.substr(i + 2, end - i - 2)));
                if (octets[end] == 'J') cells.clear();
                if (octets[end] == 'H') column = 0;
                i = end + 1;
            } else {
                utf8_character u = utf8_first(octets.substr(i));
                if (cells.size() <= column) cells.resize(column + 1, " ");
                cells[column++] = octets.substr(i, u.length);
                i += u.length;
            }
        }
    }
    std::string text() const {
        std::string all;
        for (const std::string& cell : cells) all += cell;
        return all;
    }
};

class Editor : public testing::Test {
  protected:
    void SetUp() override {
        e = line_editor_create();
        ASSERT_NE(e, nullptr);
        prompt();
    }
    void TearDown() override {
        line_editor_free(e);
        text_free(&out);
        EXPECT_EQ(memmgr_type_stats(MTYPE_CLI_SESSION).blocks, 0u);
    }
    void prompt() {
        line_editor_start(e, "sw#", &out);
        flush();
    }
    void flush() {
        screen.put(out.view());
        text_clear(&out);
    }
    // The last event.
    editor_event type(std::string_view keys) {
        editor_event event = editor_event::none;
        for (char key : keys) {
            editor_event one = line_editor_key(e, static_cast<std::uint8_t>(key), &out);
            if (one != editor_event::none) event = one;
            flush();
        }
        return event;
    }
    void enter(std::string_view line) {
        EXPECT_EQ(type(line), editor_event::none);
        EXPECT_EQ(type("\r"), editor_event::line);
        line_editor_remember(e, line_editor_text(e));
        prompt();
    }
    std::string line() const { return std::string(line_editor_text(e)); }
    void expect(const std::string& text, std::size_t cursor) {
        EXPECT_EQ(line(), text);
        EXPECT_EQ(screen.text(), "sw#" + text);
        EXPECT_EQ(screen.column, 3 + cursor);
    }

    line_editor* e = nullptr;
    text_buffer out;
    Screen screen;
};

TEST_F(Editor, KeysMoveAndErase) {
    type("show clock");
    expect("show clock", 10);
    type(
        "\x01"
        "x");
    expect("xshow clock", 1);
    type("\x7f\x05!\x08");
    expect("show clock", 10);
    type("\x1b[D\x1b[D\x1b[3~");
    expect("show clok", 8);
    type(
        "\x02\x06"
        "c");
    expect("show clock", 9);
    type("\x1b[H\x1bOC\x04");
    expect("sow clock", 1);
    type("\x1b[F\x17");
    expect("sow ", 4);
    type(
        "more words\x1b"
        "b\x0b");
    expect("sow more ", 9);
    type("\x15");
    expect("", 0);
    type(
        "abc\x1b[1~\x1b"
        "f\x1b[7~\x1b[8~\x1b[4~");
    expect("abc", 3);
    type("\x0c");
    expect("abc", 3);
}

TEST_F(Editor, EndsOfLine) {
    EXPECT_EQ(type("a\r"), editor_event::line);
    EXPECT_EQ(line(), "a");
    prompt();
    EXPECT_EQ(type(std::string_view("\n\0", 2)), editor_event::none) << "LF or NUL behind CR is part of it";
    EXPECT_EQ(type(std::string_view("\0", 1)), editor_event::none);
    EXPECT_EQ(type("b\n"), editor_event::line);
    prompt();
    EXPECT_EQ(type("\n"), editor_event::line) << "LF behind LF is a line of its own";
    prompt();
    EXPECT_EQ(type("abc\x03"), editor_event::interrupt);
    EXPECT_EQ(line(), "");
    prompt();
    EXPECT_EQ(type("\x04"), editor_event::leave);
    EXPECT_EQ(type("\x1a"), editor_event::end_mode);
    EXPECT_EQ(type("sh?"), editor_event::help);
    EXPECT_EQ(type("\t"), editor_event::complete);
    EXPECT_EQ(line(), "sh");
    EXPECT_EQ(type("\x16?"), editor_event::none);
    expect("sh?", 3);
}

TEST_F(Editor, CharactersOfSeveralOctets) {
    type("h\xc3\xa9ll\xe2\x82\xac");
    expect("h\xc3\xa9ll\xe2\x82\xac", 5);
    type("\x7f\x1b[D\x1b[D\x1b[D");
    expect("h\xc3\xa9ll", 1);
    type("\xf0\x9d\x84\x9e");
    expect("h\xf0\x9d\x84\x9e\xc3\xa9ll", 2);
    type("\x1b[3~");
    expect("h\xf0\x9d\x84\x9ell", 2);
    type("\x15\xff\x80");
    EXPECT_EQ(line(), "\xff\x80ll") << "octets that are no text are kept";
    EXPECT_EQ(screen.text(), "sw#??ll");
    type("\x7f\x7f");
    expect("ll", 0);
}

TEST_F(Editor, WideLinesScroll) {
    line_editor_resize(e, 20);
    std::string text;
    for (char c = 'a'; c <= 'z'; c++) text += c;
    type(text);
    EXPECT_EQ(line(), text);
    EXPECT_LE(screen.cells.size(), 20u);
    EXPECT_TRUE(screen.text().ends_with("z"));
    EXPECT_LT(screen.column, 20u);
    type("\x01");
    EXPECT_TRUE(screen.text().starts_with("sw#abcdef"));
    EXPECT_EQ(screen.column, 3u);
    EXPECT_LE(screen.cells.size(), 20u);
    line_editor_resize(e, 3);
    line_editor_redraw(e, &out);
    line_editor_resize(e, 0);
    line_editor_redraw(e, &out);
    flush();
    expect(text, 0);
}

TEST_F(Editor, History) {
    enter("one");
    enter("two");
    enter("two");
    enter("   ");
    enter("three");
    type("draft\x1b[A");
    expect("three", 5);
    type("\x10\x1bOA");
    expect("one", 3);
    type("\x1b[A");
    EXPECT_EQ(screen.bells, "\a");
    type("!\x0e");
    expect("two", 3);
    type("\x1b[B\x1b[B");
    expect("draft", 5);
    type("\x15");
    for (int i = 0; i < 200; i++) enter("line " + std::to_string(i));
    EXPECT_EQ(e->history_count, LINE_EDITOR_HISTORY);
    for (int i = 0; i < 20; i++) enter(std::string(3000, static_cast<char>('a' + i)));
    EXPECT_LE(e->history_octets, LINE_EDITOR_HISTORY_OCTETS);
}

TEST_F(Editor, SearchInHistory) {
    enter("show clock");
    enter("show version");
    enter("clock synce");
    type(
        "\x12"
        "cl");
    EXPECT_EQ(line(), "clock synce");
    type("\x12");
    EXPECT_EQ(line(), "show clock");
    type("\x12");
    EXPECT_EQ(screen.bells, "\a");
    type("\x7f\x7fvers\x05");
    expect("show version", 12);
    type(
        "\x12"
        "xyz\x07");
    expect("", 0);
    type(
        "\x12"
        "synce");
    EXPECT_EQ(type("\r"), editor_event::line);
    EXPECT_EQ(line(), "clock synce");
}

TEST_F(Editor, HiddenLinesShowNothing) {
    e->hidden = true;
    line_editor_start(e, "Password: ", &out);
    text_clear(&out);
    for (char key : std::string("secret?\t\x1b[A\x12\x01\x7f"))
        (void)line_editor_key(e, static_cast<std::uint8_t>(key), &out);
    EXPECT_EQ(out.view().find_first_not_of('\a'), std::string_view::npos) << out.view();
    EXPECT_EQ(line_editor_key(e, '\r', &out), editor_event::line);
    EXPECT_EQ(line(), "secret?");
    text_clear(&out);
}

TEST_F(Editor, LineThatIsTooLongIsRefusedWhole) {
    type(std::string(LINE_EDITOR_MAX, 'x'));
    EXPECT_EQ(line().size(), LINE_EDITOR_MAX);
    type("yy");
    EXPECT_EQ(type("\r"), editor_event::too_long);
    prompt();
    type("ok");
    EXPECT_EQ(type("\r"), editor_event::line);
}

// Whatever keys come, the screen shows the line and the cursor stands where the editor believes it.
TEST_F(Editor, RandomKeysKeepScreenAndLineTogether) {
    const std::string keys[] = {"a",
                                "b",
                                " ",
                                "\xc3\xa9",
                                "\xe2\x82\xac",
                                "\x7f",
                                "\x01",
                                "\x05",
                                "\x0b",
                                "\x17",
                                "\x1b[D",
                                "\x1b[C",
                                "\x1b[A",
                                "\x1b[B",
                                "\x1b[3~",
                                "\x1b"
                                "b",
                                "\x1b"
                                "f",
                                "\x02",
                                "\x06",
                                "\x04",
                                "\x0c",
                                "\x1b[1;5C",
                                "\x1b[200~"};
    std::mt19937 random(7);
    enter("first line");
    enter("second \xc3\xa9 line");
    for (int i = 0; i < 6000; i++) {
        const std::string& key = keys[random() % std::size(keys)];
        if (e->length == 0 && key == "\x04") continue;
        if (e->length > 40) type("\x15");
        type(key);
        std::string before(line_editor_before_cursor(e));
        ASSERT_EQ(screen.text(), "sw#" + line()) << i;
        ASSERT_EQ(screen.column, 3 + utf8_columns(before)) << i;
    }
}

TEST(Utf8, OnlyWholeAndValidCharactersCount) {
    EXPECT_EQ(utf8_columns("a\xc3\xa9\xe4\xb8\xad"), 4u);
    EXPECT_EQ(utf8_columns("e\xcc\x81"), 1u) << "a combining mark takes no column";
    for (const char* bad : {"\xc0\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe0\x80\x80", "\x80", "\xff"})
        EXPECT_EQ(utf8_first(bad).length, 1u);
    EXPECT_EQ(utf8_first("\xe2\x82").length, 1u);
    EXPECT_FALSE(utf8_first("\xc2\x9b").shown) << "a control character of the upper set";
    EXPECT_EQ(utf8_last_length("a\xe2\x82\xac"), 3u);
    EXPECT_EQ(utf8_last_length("\x82\xac"), 1u);
}

}  // namespace
