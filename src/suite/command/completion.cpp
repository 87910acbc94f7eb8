// Collects what may follow at the cursor from the command tree, the interface list and the pipe filters.
// "do" in the configuration modes is looked through: behind it the commands of the exec mode follow.
#include "suite/command/completion.h"

#include <algorithm>
#include <cstring>

#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/command/pipe.h"
#include "suite/ports/interface.h"

namespace {

constexpr std::size_t COLUMN_WIDTH = 20;

struct collector {
    const cli_tree* tree;
    const cli* terminal;
    completion_list* list;
    bool words_only;
};

void add(completion_list* list, const char* text, const char* help) {
    for (std::size_t i = 0; i < list->count; i++) {
        if (std::strcmp(list->items[i].text, text) != 0) continue;
        if (!*list->items[i].help && help) list->items[i].help = help;
        return;
    }
    if (list->count < COMPLETION_MAX) list->items[list->count++] = {text, help ? help : ""};
}

bool begins(const char* text, std::string_view partial) {
    return std::string_view(text).starts_with(partial);
}

bool number_so_far(std::string_view partial) {
    return partial.find_first_not_of("0123456789") == std::string_view::npos;
}

void add_interfaces(collector* c) {
    if (!c->terminal->ifm) return;
    for (const interface* intf : if_list(c->terminal->ifm))
        if (begins(intf->name, c->list->partial)) add(c->list, intf->name, "");
}

void take(void* arg, const cli_next_token& next) {
    auto* c = static_cast<collector*>(arg);
    if (!next.token) {
        c->list->may_end = true;
        return;
    }
    switch (next.token->kind) {
        case cli_token_kind::keyword:
            if (begins(next.token->text, c->list->partial))
                add(c->list, next.token->text, cli_help_find(c->tree, next));
            return;
        case cli_token_kind::range:
            if (c->words_only || !number_so_far(c->list->partial)) return;
            break;
        case cli_token_kind::ifname:
            if (c->words_only) return add_interfaces(c);
            break;
        default:
            if (c->words_only) return;
            break;
    }
    add(c->list, next.token->text, cli_help_find(c->tree, next));
}

std::string_view first_word(std::string_view line) {
    std::size_t first = 0;
    while (first < line.size() && cli_is_blank(line[first])) first++;
    std::size_t last = first;
    while (last < line.size() && !cli_is_blank(line[last])) last++;
    return slice(line, first, last - first);
}

// Behind a whole "do" and a blank the rest is a line of the exec mode.
bool look_through_do(const cli* terminal, std::string_view* line) {
    if (terminal->mode == EXEC_MODE || first_word(*line) != "do") return false;
    auto behind = static_cast<std::size_t>(first_word(*line).data() - line->data()) + 2;
    if (behind >= line->size()) return false;
    line->remove_prefix(behind);
    return true;
}

void clear_items(completion_list* list) {
    list->count = 0;
    list->may_end = false;
}

void begin(completion_list* list) {
    clear_items(list);
    list->partial = {};
    list->result = cli_result::ok;
}

void sort(completion_list* list) {
    std::sort(list->items, list->items + list->count, [](const completion_item& a, const completion_item& b) {
        return std::strcmp(a.text, b.text) < 0;
    });
}

bool has_json(const collector* c, const cli* inner, std::string_view line) {
    const cli_command* show = cli_find_show(c->tree, inner, line);
    return show && (show->flags & CLI_FLAG_JSON);
}

void collect(collector* c, std::string_view line) {
    completion_list* list = c->list;
    begin(list);
    cli inner = *c->terminal;
    if (look_through_do(c->terminal, &line)) inner.mode = EXEC_MODE;
    std::size_t at = line.size();
    while (at && !cli_is_blank(line[at - 1])) at--;
    list->partial = slice(line, at);
    std::string_view before = slice(line, 0, at);
    std::size_t bar = cli_pipe_find(line);
    if (bar != std::string_view::npos && bar < at) {
        // Offered behind "|"; their text is anything.
        if (first_word(slice(before, bar + 1)).empty())
            completion_filters(list->partial, has_json(c, &inner, slice(before, 0, bar)), list);
    } else {
        list->result = cli_list_next(c->tree, &inner, before, take, c);
        if (list->result == cli_result::ambiguous) clear_items(list);
    }
    if (!list->partial.empty()) list->may_end = false;
    sort(list);
}

}  // namespace

void completion_help(const cli_tree* tree, const cli* terminal, std::string_view line, completion_list* out) {
    collector c{tree, terminal, out, false};
    collect(&c, line);
}

void completion_words(const cli_tree* tree, const cli* terminal, std::string_view line,
                      completion_list* out) {
    collector c{tree, terminal, out, true};
    collect(&c, line);
}

void completion_next(const cli_tree* tree, const cli* terminal, std::string_view words,
                     completion_list* out) {
    begin(out);
    collector c{tree, terminal, out, false};
    out->result = cli_list_next(tree, terminal, words, take, &c);
    sort(out);
}

std::size_t completion_meanings(const cli_tree* tree, const cli* terminal, std::string_view line,
                                completion_list* out) {
    begin(out);
    collector c{tree, terminal, out, false};
    const std::size_t at = cli_list_meanings(tree, terminal, line, take, &c);
    sort(out);
    return at;
}

void completion_filters(std::string_view partial, bool with_json, completion_list* out) {
    begin(out);
    out->partial = partial;
    std::span<const cli_help> filters = cli_pipe_filters();
    for (const cli_help& filter : filters.first(filters.size() - (with_json ? 0 : 1)))
        if (begins(filter.token, partial)) add(out, filter.token, filter.text);
}

void completion_print_rows(const completion_list& list, text_buffer* out) {
    for (std::size_t i = 0; i < list.count; i++)
        (void)text_printf(out, "  %-22s %s\n", list.items[i].text, list.items[i].help);
    if (list.may_end) (void)text_printf(out, "  <cr>\n");
}

void completion_print_columns(const completion_list& list, std::size_t columns, text_buffer* out) {
    const std::size_t all = list.count + (list.may_end ? 1 : 0);
    const std::size_t per_row = std::max<std::size_t>(columns / COLUMN_WIDTH, 1);
    for (std::size_t i = 0; i < all; i++) {
        const bool is_last = (i + 1) % per_row == 0 || i + 1 == all;
        const char* word = i < list.count ? list.items[i].text : "<cr>";
        (void)text_printf(out, is_last ? "%s\n" : "%-19s ", word);
    }
}

std::string_view completion_common(const completion_list& list) {
    if (list.count == 0) return {};
    std::string_view common = list.items[0].text;
    for (std::size_t i = 1; i < list.count; i++) {
        std::string_view other = list.items[i].text;
        std::size_t same = 0;
        while (same < common.size() && same < other.size() && common[same] == other[same]) same++;
        common = slice(common, 0, same);
    }
    // Not within a character.
    while (!common.empty() && list.count > 1 && common.size() < std::strlen(list.items[0].text) &&
           (static_cast<unsigned char>(list.items[0].text[common.size()]) & 0xc0) == 0x80)
        common.remove_suffix(1);
    return common;
}
