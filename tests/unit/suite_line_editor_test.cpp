// Keys: the telnet decoder, then the line editor, octets in and out. What the screen would show is followed
// by a small terminal that knows the few sequences that the editor uses.
#include <random>

#include "suite/editor/line_editor.h"
#include "suite/editor/line_mark.h"
#include "suite/editor/utf8.h"
#include "suite/terminal/telnet.h"
#include "unit/suite_support.h"

namespace {

using namespace std::string_literals;

TEST(Telnet, OctetsAreKeysRepliesAndWindowSizes) {
    const std::string options = "\xff\xfb\x18\xff\xfd\x27\xff\xfe\x27\xff\xfc\x18";
    const struct {
        std::string octets, data, replies, events;
        int columns = 0, rows = 0;
    } cases[] = {
        // Answers to our own requests are not answered.
        {"\xff\xfd\x01\xff\xfd\x03\xff\xfb\x1f\xff\xfa\x1f\x00\x50\x00\x18\xff\xf0x"s, "x", "", "r", 80, 24},
        // Other options are refused once, but every timing mark is answered; behind it the interrupt key.
        {options + options + options, "", "\xff\xfe\x18\xff\xfc\x27", ""},
        {"\xff\xf4\xff\xfd\x06\xff\xf4\xff\xfd\x06", "\x03\x03", "\xff\xfc\x06\xff\xfc\x06", ""},
        // Doubled octets, and commands that are keys.
        {"a\xff\xff_\xff\xf6\xff\xf1\xff\xf7\xff\xf8\xff\xec.", "a\xff_\x7f\x15\x04.", "", "a"},
        {"\xff\xfa\x1f\xff\xff\xff\xff\x00\xff\xff\xff\xf0"s, "", "", "r", 0xffff, 0x00ff},
        // Oversized and broken subnegotiations.
        {"\xff\xfa\x1f" + std::string(100'000, 'x') + "\xff\xf0y\xff\xfa\x1f\x01\x50\xff\xf1z", "yz", "", ""},
    };
    for (const auto& c : cases) {
        telnet_decoder decoder{};
        std::string data, replies, events;
        for (char key : c.octets) {
            std::uint8_t octet = 0;
            const telnet_event event = telnet_take(&decoder, static_cast<std::uint8_t>(key), &octet);
            if (event == telnet_event::data) data += static_cast<char>(octet);
            if (event == telnet_event::resized) events += 'r';
            if (event == telnet_event::alive) events += 'a';
            replies.append(reinterpret_cast<const char*>(decoder.reply), decoder.reply_length);
        }
        EXPECT_EQ(data + "|" + replies + "|" + events, c.data + "|" + c.replies + "|" + c.events);
        EXPECT_EQ(decoder.columns, c.columns);
        EXPECT_EQ(decoder.rows, c.rows);
    }
}

// One row of a terminal: what stands on it and where the cursor is, in columns. Wide characters are not used.
struct Screen {
    std::vector<std::string> cells;
    std::size_t column = 0, bells = 0;

    // Takes the first sequence or character; its length.
    std::size_t take(std::string_view octets) {
        if (octets[0] == '\x1b') {
            const std::size_t end = octets.find_first_of("CHJK");
            if (octets[end] == 'C') column += std::stoul(std::string(octets.substr(2, end - 2)));
            if (octets[end] == 'H') column = 0;
            if (octets[end] == 'J') cells.clear();
            if (octets[end] == 'K' && cells.size() > column) cells.resize(column);
            return end + 1;
        }
        const std::size_t length = utf8_first(octets).length;
        if (octets[0] == '\r') {
            column = 0;
        } else if (octets[0] == '\n') {
            cells.clear();
        } else if (octets[0] == '\a') {
            bells++;
        } else {
            if (cells.size() <= column) cells.resize(column + 1, " ");
            cells[column++] = octets.substr(0, length);
        }
        return length;
    }
    std::string text() const {
        std::string all;
        for (const std::string& cell : cells) all += cell;
        return all;
    }
};

std::string ctrl(char letter) {
    return {static_cast<char>(letter & 0x1f)};
}
const std::string ESC = "\x1b", UP = "\x1b[A", DOWN = "\x1b[B", RIGHT = "\x1b[C", LEFT = "\x1b[D",
                  BACK = "\x7f", DELETE = "\x1b[3~";

class Editor : public Suite {
  protected:
    line_editor* e = line_editor_create();
    text_buffer out;
    Screen screen;

    Editor() { prompt(); }
    ~Editor() override {
        line_editor_free(e);
        text_free(&out);
    }
    void prompt() {
        line_editor_start(e, "sw#", &out);
        flush();
    }
    void flush() {
        for (std::string_view rest = out.view(); !rest.empty();) rest.remove_prefix(screen.take(rest));
        text_clear(&out);
    }
    // The last event.
    editor_event type(std::string_view keys) {
        editor_event event = editor_event::none;
        for (char key : keys) {
            const editor_event one = line_editor_key(e, static_cast<std::uint8_t>(key), &out);
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

    struct Step {
        std::string keys, text;
        std::size_t cursor;
    };
    void check(const std::vector<Step>& steps) {
        for (const Step& step : steps) {
            EXPECT_EQ(type(step.keys), editor_event::none);
            expect(step.text, step.cursor);
        }
    }
};

TEST_F(Editor, KeysMoveAndErase) {
    check({
        {"show clock", "show clock", 10},
        {ctrl('A') + "x", "xshow clock", 1},
        {BACK + ctrl('E') + "!" + ctrl('H'), "show clock", 10},
        {LEFT + LEFT + DELETE, "show clok", 8},
        {ctrl('B') + ctrl('F') + "c", "show clock", 9},
        {ESC + "[H" + ESC + "OC" + ctrl('D'), "sow clock", 1},
        {ESC + "[F" + ctrl('W'), "sow ", 4},
        {"more words" + ESC + "b" + ctrl('K'), "sow more ", 9},
        {ctrl('U'), "", 0},
        {"abc" + ESC + "[1~" + ESC + "f" + ESC + "[7~" + ESC + "[8~" + ESC + "[4~", "abc", 3},
        {ctrl('L'), "abc", 3},
        {ctrl('V') + "?", "abc?", 4},
        {ctrl('U') + "h\xc3\xa9ll\xe2\x82\xac" + BACK + LEFT + LEFT + LEFT, "h\xc3\xa9ll", 1},
        {"\xf0\x9d\x84\x9e" + DELETE, "h\xf0\x9d\x84\x9ell", 2},
    });
    type(ctrl('E') + ctrl('U') + "\xff\x80");  // no text, but kept
    EXPECT_EQ(line(), "\xff\x80");
    EXPECT_EQ(screen.text(), "sw#??");
    check({{BACK + BACK, "", 0}});
}

TEST_F(Editor, History) {
    for (const char* text : {"one", "two", "two", "   ", "three"}) enter(text);
    check({{"draft" + UP, "three", 5},
           {ctrl('P') + ESC + "OA", "one", 3},
           {UP, "one", 3},
           {"!" + ctrl('N'), "two", 3},
           {DOWN + DOWN, "draft", 5},
           {ctrl('U'), "", 0}});
    EXPECT_EQ(screen.bells, 1u) << "nothing is older than the first line";
    for (int i = 0; i < 200; i++) enter("line " + std::to_string(i));
    EXPECT_EQ(e->history_count, LINE_EDITOR_HISTORY);
    for (int i = 0; i < 20; i++) enter(std::string(3000, static_cast<char>('a' + i)));
    EXPECT_LE(e->history_octets, LINE_EDITOR_HISTORY_OCTETS);
}

TEST_F(Editor, SearchInHistory) {
    for (const char* text : {"show clock", "show version", "clock synce"}) enter(text);
    for (const auto& [keys, found] :
         {std::pair{ctrl('R') + "cl", "clock synce"}, {ctrl('R'), "show clock"}, {ctrl('R'), "show clock"}}) {
        EXPECT_EQ(type(keys), editor_event::none);
        EXPECT_EQ(line(), found) << keys;
    }
    EXPECT_EQ(screen.bells, 1u);
    check({{BACK + BACK + "vers" + ctrl('E'), "show version", 12}, {ctrl('R') + "xyz" + ctrl('G'), "", 0}});
    EXPECT_EQ(type(ctrl('R') + "synce\r"), editor_event::line);
    EXPECT_EQ(line(), "clock synce");
}

// Whatever keys come, the screen shows the line and the cursor stands where the editor believes it.
TEST_F(Editor, RandomKeysKeepScreenAndLineTogether) {
    const std::string keys[] = {"a",       "b",       " ",       "\xc3\xa9", "\xe2\x82\xac", BACK,
                                LEFT,      RIGHT,     UP,        DOWN,       DELETE,         ctrl('A'),
                                ctrl('B'), ctrl('D'), ctrl('E'), ctrl('F'),  ctrl('K'),      ctrl('L'),
                                ctrl('W'), ESC + "b", ESC + "f", ESC + "d",  ESC + "[1;5C",  ESC + "[200~"};
    std::mt19937 random(7);
    enter("first line");
    enter("second \xc3\xa9 line");
    for (int i = 0; i < 6000; i++) {
        const std::string& key = keys[random() % std::size(keys)];
        if (e->length == 0 && key == ctrl('D')) continue;
        if (e->length > 40) type(ctrl('U'));
        type(key);
        ASSERT_EQ(screen.text(), "sw#" + line()) << i;
        ASSERT_EQ(screen.column, 3 + utf8_columns(line_editor_before_cursor(e))) << i;
    }
}

// Wherever the cursor is and however much of the line is in the window.
TEST_F(Editor, MarkStandsUnderItsWord) {
    std::mt19937 random(7);
    const char* const letters[] = {"a", " ", "\xc3\xa9", "\xe2\x82\xac"};
    int anew = 0;
    for (int round = 0; round < 500; round++) {
        std::string text;
        const auto letter = [&] { text += letters[random() % 4]; };
        for (auto left = random() % 60; left; left--) letter();
        const std::size_t word = text.size();
        text += "X";
        for (auto left = random() % 60; left; left--) letter();
        text += "Z";
        line_editor_resize(e, 20 + random() % 120);
        type(text);
        for (auto left = random() % 120; left; left--) type(LEFT);
        for (const auto& [at, letter_there, behind] : {std::tuple{word, "X", 0}, {text.size() + 1, "Z", 2}}) {
            std::vector<std::string> row = screen.cells;
            Screen marked;
            line_mark(e, at, &out);
            const std::string printed = take_text(&out);
            for (std::string_view rest = printed; rest.size() > 1; rest.remove_prefix(marked.take(rest)))
                if (rest[0] == '\n') row = marked.cells, marked.column = 0, anew++;
            ASSERT_EQ(marked.cells.back(), "^");
            ASSERT_LE(std::max(row.size(), marked.cells.size()), e->columns) << printed;
            ASSERT_EQ(row.at(marked.cells.size() - 1 - behind), letter_there) << printed;
        }
        type("\r");
        prompt();
    }
    EXPECT_GT(anew, 100);
    EXPECT_LT(anew, 900);
}

}  // namespace
