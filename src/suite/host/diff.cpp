// The difference of two configurations, line by line: the shortest edit, found by the greedy method of
// following diagonals. What both have in common at the front and at the end is taken off first. Where more
// than MAX_EDITS lines differ, the part between is shown as gone and new as a whole.
#include <algorithm>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/host/state.h"

namespace {

constexpr std::int32_t MAX_EDITS = 512;

struct line_array {
    std::string_view* items = nullptr;
    std::size_t count = 0;
};

bool split_lines(std::string_view text, line_array* out) {
    std::size_t lines = static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
    out->items = static_cast<std::string_view*>(memmgr_calloc(lines * sizeof(std::string_view), MTYPE_HOST));
    if (!out->items) return false;
    while (!text.empty()) {
        std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = slice(text, 0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        while (!line.empty() && cli_is_blank(line.back())) line.remove_suffix(1);
        if (!line.empty()) out->items[out->count++] = line;
    }
    return true;
}

struct differ {
    text_buffer* out;
    std::string_view heading;  // interface line that stands above the present place
    bool headed;               // it has been shown
    bool good;
};

void print(differ* d, char mark, std::string_view line) {
    d->good = d->good && text_append(d->out, &mark, 1) && text_append(d->out, line.data(), line.size()) &&
              text_append(d->out, "\n", 1);
}

void pass_line(differ* d, std::string_view line) {
    if (cli_is_blank(line[0])) return;
    d->heading = line.starts_with("interface ") ? line : std::string_view{};
    d->headed = false;
}

void change(differ* d, char mark, std::string_view line) {
    if (cli_is_blank(line[0]) && !d->heading.empty() && !d->headed) print(d, ' ', d->heading);
    d->headed = true;
    print(d, mark, line);
    if (!cli_is_blank(line[0])) {
        d->heading = line.starts_with("interface ") ? line : std::string_view{};
        d->headed = true;
    }
}

// Furthest place in `before` on each diagonal (place in before - place in now) after e edits; -1: out of
// reach. Row e holds the diagonals -e to e.
struct edit_table {
    std::int32_t* cells;
    std::int32_t& at(std::int32_t e, std::int32_t diagonal) const { return cells[e * e + diagonal + e]; }
};

struct range_pair {
    const std::string_view *a, *b;
    std::int32_t n, m;
};

// One edit more: a line of `before` dropped (from the diagonal below) or one of `now` added (from above).
std::int32_t step_place(const edit_table& table, const range_pair& r, std::int32_t e, std::int32_t k,
                        bool* drop) {
    if (e == 0) return 0;
    std::int32_t below = k - 1 >= -(e - 1) ? table.at(e - 1, k - 1) : -1;
    std::int32_t above = k + 1 <= e - 1 ? table.at(e - 1, k + 1) : -1;
    below = below >= 0 && below < r.n ? below + 1 : -1;
    if (above >= 0 && above - k > r.m) above = -1;
    *drop = below >= above;
    return *drop ? below : above;
}

// Number of edits, or MAX_EDITS when there are more.
std::int32_t count_edits(const edit_table& table, const range_pair& r) {
    for (std::int32_t e = 0; e < MAX_EDITS; e++) {
        for (std::int32_t k = -e; k <= e; k++) {
            table.at(e, k) = -1;
            if ((k + e) % 2) continue;
            bool drop = false;
            std::int32_t x = step_place(table, r, e, k, &drop);
            while (x >= 0 && x < r.n && x - k < r.m && r.a[x] == r.b[x - k]) x++;
            table.at(e, k) = x;
            if (k == r.n - r.m && x == r.n) return e;
        }
    }
    return MAX_EDITS;
}

// Marks the lines that go and those that come, from the end back.
void mark_edits(const edit_table& table, const range_pair& r, std::int32_t edits, bool* goes, bool* comes) {
    std::int32_t k = r.n - r.m;
    for (std::int32_t e = edits; e > 0; e--) {
        bool drop = false;
        std::int32_t x = step_place(table, r, e, k, &drop);
        if (drop)
            goes[x - 1] = true;
        else
            comes[x - k - 1] = true;
        k += drop ? -1 : 1;
    }
}

void print_range(differ* d, const range_pair& r, const bool* goes, const bool* comes) {
    for (std::int32_t x = 0, y = 0; x < r.n || y < r.m;) {
        if (x < r.n && goes[x]) {
            change(d, '-', r.a[x++]);
        } else if (y < r.m && comes[y]) {
            change(d, '+', r.b[y++]);
        } else {
            pass_line(d, r.a[x++]);
            y++;
        }
    }
}

void diff_range(differ* d, const range_pair& r) {
    std::size_t marks_size = static_cast<std::size_t>(r.n + r.m);
    if (marks_size == 0) return;
    auto* marks = static_cast<bool*>(memmgr_calloc(marks_size, MTYPE_HOST));
    void* cells = memmgr_calloc(sizeof(std::int32_t) * MAX_EDITS * MAX_EDITS, MTYPE_HOST);
    d->good = marks && cells;
    if (d->good) {
        edit_table table{static_cast<std::int32_t*>(cells)};
        std::int32_t edits = count_edits(table, r);
        if (edits < MAX_EDITS)
            mark_edits(table, r, edits, marks, marks + r.n);
        else
            std::memset(marks, 1, marks_size);
        print_range(d, r, marks, marks + r.n);
    }
    memmgr_free(cells, MTYPE_HOST);
    memmgr_free(marks, MTYPE_HOST);
}

void diff_lines(differ* d, const line_array& before, const line_array& now) {
    std::size_t front = 0, back = 0, most = std::min(before.count, now.count);
    while (front < most && before.items[front] == now.items[front]) pass_line(d, before.items[front++]);
    while (back < most - front && before.items[before.count - 1 - back] == now.items[now.count - 1 - back])
        back++;
    diff_range(
        d, {before.items + front, now.items + front, static_cast<std::int32_t>(before.count - front - back),
            static_cast<std::int32_t>(now.count - front - back)});
}

}  // namespace

bool host_diff(std::string_view before_text, std::string_view now_text, text_buffer* out) {
    line_array before, now;
    differ d{out, {}, false, true};
    bool good = split_lines(before_text, &before) && split_lines(now_text, &now);
    if (good) diff_lines(&d, before, now);
    memmgr_free(before.items, MTYPE_HOST);
    memmgr_free(now.items, MTYPE_HOST);
    return good && d.good;
}
