// The command tree's life, installation, and the running of lines. The tree belongs to the library context;
// terminals, the configuration file and the host's own commands all run their lines through cli_run_line.
//
// A terminal in the interface mode looks its interface up again by name before every line: the record may
// have gone, or come, since the last one.
#include "suite/command/cli.h"

#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"
#include "suite/base/slice.h"
#include "suite/command/parse.h"
#include "suite/command/pipe.h"
#include "suite/command/tree.h"
#include "suite/log/log.h"
#include "suite/ports/interface.h"

cli_tree* cli_tree_create() {
    return static_cast<cli_tree*>(memmgr_calloc(sizeof(cli_tree), MTYPE_CLI_TREE));
}

void cli_tree_free(cli_tree* tree) {
    if (!tree) return;
    for (cli_command_list& list : tree->modes) {
        for (std::size_t i = 0; i < list.count; i++) memmgr_free(list.items[i], MTYPE_CLI_TREE);
        memmgr_free(list.items, MTYPE_CLI_TREE);
    }
    memmgr_free(tree, MTYPE_CLI_TREE);
}

namespace {

bool make_room(cli_command_list* list) {
    if (list->count < list->room) return true;
    std::size_t room = list->room ? list->room * 2 : 16;
    void* items = memmgr_realloc(list->items, room * sizeof(cli_command*), MTYPE_CLI_TREE);
    if (!items) return false;
    list->items = static_cast<cli_command**>(items);
    list->room = room;
    return true;
}

}  // namespace

int cli_install_gen(cli_tree* tree, std::int32_t mode, std::int32_t privilege, std::uint32_t flags,
                    const cli_element* element) {
    if (!tree || mode < 0 || mode >= CLI_MODE_COUNT) return -1;
    cli_command* command = cli_compile(element);
    if (!command) return -1;
    command->mode = mode;
    command->privilege = privilege;
    command->flags = flags;
    cli_command_list* list = &tree->modes[mode];
    // The same string a second time takes the first one's place: a daemon may replace a command of the
    // platform.
    for (std::size_t i = 0; i < list->count; i++) {
        if (std::strcmp(list->items[i]->element->string, element->string) != 0) continue;
        memmgr_free(list->items[i], MTYPE_CLI_TREE);
        list->items[i] = command;
        return 0;
    }
    if (!make_room(list)) {
        memmgr_free(command, MTYPE_CLI_TREE);
        log_suite(LOG_LEVEL_ERROR, "command \"%s\": out of memory", element->string);
        return -1;
    }
    list->items[list->count++] = command;
    return 0;
}

int cli_install(cli_tree* tree, std::int32_t mode, const cli_element* element) {
    return cli_install_gen(tree, mode, PRIVILEGE_NORMAL, 0, element);
}

int cli_install_config(cli_tree* tree, std::int32_t mode, cli_writer writer) {
    if (!tree || tree->writer_count == CLI_MAX_WRITERS) return -1;
    tree->writers[tree->writer_count++] = {mode, writer};
    return 0;
}

int cli_install_help(cli_tree* tree, const cli_help* texts, std::size_t count) {
    if (!tree) return -1;
    for (std::size_t i = 0; i < tree->help_count; ++i)
        if (tree->help[i].texts == texts) return 0;
    if (tree->help_count == CLI_MAX_HELP_TABLES) return -1;
    tree->help[tree->help_count++] = {texts, count};
    return 0;
}

void cli_walk(const cli_tree* tree,
              void (*visit)(void* arg, std::int32_t mode, const cli_element* element, std::uint32_t flags),
              void* arg) {
    for (const cli_command_list& list : tree->modes)
        for (std::size_t i = 0; i < list.count; i++)
            visit(arg, list.items[i]->mode, list.items[i]->element, list.items[i]->flags);
}

namespace {

void run_writers(const cli_tree* tree, cli* terminal, std::int32_t mode) {
    for (std::size_t i = 0; i < tree->writer_count; i++)
        if (tree->writers[i].mode == mode) tree->writers[i].writer(terminal);
}

}  // namespace

void cli_write_running(cli_tree* tree, cli* terminal) {
    run_writers(tree, terminal, CLI_WRITERS_FIRST);
    run_writers(tree, terminal, EXEC_MODE);
    for (std::size_t i = 0; i < tree->writer_count; i++) {
        std::int32_t mode = tree->writers[i].mode;
        if (mode != CLI_WRITERS_FIRST && mode != EXEC_MODE && mode != CLI_WRITERS_LAST)
            tree->writers[i].writer(terminal);
    }
    run_writers(tree, terminal, CLI_WRITERS_LAST);
}

namespace {

// The handler's arguments: one block, pointers first, then their texts.
struct argument_block {
    char** argv;
    int argc;
};

bool make_arguments(const cli_parsed& parsed, argument_block* out) {
    std::size_t count = 0, size = 0;
    for (std::size_t k = 0; k < parsed.count; k++) {
        if (!parsed.command->tokens[parsed.tokens[k]].argument) continue;
        count++;
        size += cli_parsed_text(parsed, k).size() + 1;
    }
    std::size_t head = (count + 1) * sizeof(char*);
    auto* block = static_cast<char**>(memmgr_calloc(head + size, MTYPE_CLI_SESSION));
    if (!block) return false;
    char* text = reinterpret_cast<char*>(block) + head;
    int argc = 0;
    for (std::size_t k = 0; k < parsed.count; k++) {
        if (!parsed.command->tokens[parsed.tokens[k]].argument) continue;
        std::string_view word = cli_parsed_text(parsed, k);
        std::memcpy(text, word.data(), word.size());
        block[argc++] = text;
        text += word.size() + 1;
    }
    *out = {block, argc};
    return true;
}

void enter_mode(cli* terminal, std::int32_t mode) {
    terminal->mode = mode;
    if (mode == INTERFACE_MODE) return;
    terminal->index = nullptr;
    terminal->name[0] = 0;
}

void refresh_interface(cli* terminal) {
    if (terminal->mode == INTERFACE_MODE && terminal->name[0] && terminal->ifm)
        terminal->index = if_lookup_by_name(terminal->ifm, terminal->name);
}

void keep_name(cli* terminal, const argument_block& arguments) {
    if (terminal->mode != INTERFACE_MODE || arguments.argc == 0) return;
    std::snprintf(terminal->name, sizeof terminal->name, "%s", arguments.argv[arguments.argc - 1]);
}

cli_result say_refusal(const cli_tree* tree, cli* terminal, cli_result result, const char* text) {
    if (tree->before_refusal) tree->before_refusal(terminal);
    terminal->out_func(terminal->out_val, "%% %s\n", text);
    return result;
}

int call_handler(cli* terminal, const cli_parsed& parsed, const argument_block& arguments) {
    const cli before = *terminal;
    if (parsed.mode != terminal->mode) enter_mode(terminal, parsed.mode);
    std::int32_t mode_before = terminal->mode;
    int result = parsed.command->element->handler(terminal, arguments.argc, arguments.argv);
    if (parsed.command->mode != INTERFACE_MODE && terminal->mode == INTERFACE_MODE &&
        mode_before != INTERFACE_MODE)
        keep_name(terminal, arguments);
    if (parsed.mode == EXEC_MODE && before.mode != EXEC_MODE) cli_go_back(terminal, before);
    return result;
}

cli_result run_parsed(cli_tree* tree, cli* terminal, const cli_parsed& parsed) {
    const cli_command* command = parsed.command;
    if ((command->flags & CLI_FLAG_INTERACTIVE) && !terminal->line) {
        terminal->out_func(terminal->out_val, "%% Only at a terminal\n");
        return cli_result::failed;
    }
    if (cli_bad_name(terminal, parsed) != parsed.count)
        return say_refusal(tree, terminal, cli_result::failed,
                           "Not allowed in a name: \" $ & ' ( ) ; < > \\ ` |");
    argument_block arguments;
    if (!make_arguments(parsed, &arguments)) {
        terminal->out_func(terminal->out_val, "%% Out of memory\n");
        return cli_result::failed;
    }
    int result = call_handler(terminal, parsed, arguments);
    memmgr_free(arguments.argv, MTYPE_CLI_SESSION);
    if (result == CLI_DEFERRED) return cli_result::deferred;
    if (result == CLI_MORE) return cli_result::more;
    if (result != CLI_SUCCESS) return cli_result::failed;
    if (tree->after_run) tree->after_run(terminal, command);
    return cli_result::ok;
}

cli_result refuse_line(const cli_tree* tree, cli* terminal, cli_result result) {
    const char* text = result == cli_result::ambiguous    ? "Ambiguous command"
                       : result == cli_result::incomplete ? "Incomplete command"
                                                          : "Unknown command";
    return say_refusal(tree, terminal, result, text);
}

cli_result run_plain(cli_tree* tree, cli* terminal, std::string_view line) {
    refresh_interface(terminal);
    cli_parsed parsed;
    cli_parse(tree, terminal, line, &parsed);
    if (parsed.result == cli_result::empty) return parsed.result;
    if (parsed.result == cli_result::ok) return run_parsed(tree, terminal, parsed);
    return refuse_line(tree, terminal, parsed.result);
}

cli_result run_through(cli_tree* tree, cli* terminal, std::string_view line, cli_pipe* pipe) {
    cli_pipe_resume(pipe, &terminal->part);
    pipe->out = terminal->out_func;
    pipe->out_val = terminal->out_val;
    terminal->out_func = cli_pipe_output;
    terminal->out_val = pipe;
    cli_result result = run_plain(tree, terminal, line);
    terminal->out_func = pipe->out;
    terminal->out_val = pipe->out_val;
    if (result == cli_result::more)
        cli_pipe_pause(pipe, &terminal->part);
    else if (result == cli_result::deferred)
        text_free(&pipe->line);
    else
        cli_pipe_finish(pipe);
    return result;
}

cli_result run_as_json(cli_tree* tree, cli* terminal, std::string_view line) {
    terminal->json = true;
    cli_result result = run_plain(tree, terminal, line);
    terminal->json = false;
    return result;
}

cli_result run_show(cli_tree* tree, cli* terminal, const cli_command* show, std::string_view line,
                    std::string_view behind_bar) {
    cli_pipe pipe{};
    bool incomplete = false;
    if (!cli_pipe_parse(behind_bar, &pipe, &incomplete))
        return refuse_line(tree, terminal, incomplete ? cli_result::incomplete : cli_result::unknown);
    if (pipe.kind != cli_pipe_kind::json) return run_through(tree, terminal, line, &pipe);
    if (show->flags & CLI_FLAG_JSON) return run_as_json(tree, terminal, line);
    return say_refusal(tree, terminal, cli_result::failed, "This command has no JSON form");
}

}  // namespace

void cli_go_back(cli* terminal, const cli& before) {
    terminal->mode = before.mode;
    terminal->index = before.index;
    std::memcpy(terminal->name, before.name, sizeof terminal->name);
}

void cli_part_end(cli* terminal) {
    text_free(&terminal->part.line);
    terminal->part = {};
}

// Filters belong to show commands; in other lines "|" is a character like others.
cli_result cli_run_line(cli_tree* tree, cli* terminal, std::string_view line) {
    const std::size_t bar = cli_pipe_find(line);
    const std::string_view before = slice(line, 0, bar);
    const cli_command* show = bar == std::string_view::npos ? nullptr : cli_find_show(tree, terminal, before);
    const cli_result result =
        show ? run_show(tree, terminal, show, before, slice(line, bar + 1)) : run_plain(tree, terminal, line);
    if (result != cli_result::more) cli_part_end(terminal);
    return result;
}

std::int32_t cmd_str2int(const char* text, int* status) {
    *status = -1;
    bool negative = *text == '-';
    const char* at = negative ? text + 1 : text;
    if (!*at) return 0;
    std::int64_t value = 0;
    for (; *at; at++) {
        if (*at < '0' || *at > '9') return 0;
        value = value * 10 + (*at - '0');
        if (value > std::int64_t{INT32_MAX} + 1) return 0;
    }
    if (negative) value = -value;
    if (value > INT32_MAX) return 0;
    *status = 0;
    return static_cast<std::int32_t>(value);
}

int cli_refuse(cli* terminal, const char* text) {
    terminal->out_func(terminal->out_val, "%% %s\n", text);
    return CLI_ERROR;
}
