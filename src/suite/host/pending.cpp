// Lines of the configuration file whose interface is not bound yet. They are kept in the order of the file
// and run once, right after the interface's first bind and before its up event; until then they are part of
// the running configuration, as they were read. A block is taken out of the list before its lines are run, so
// whatever a line does, it can't be run twice. The text that is written reads back into the same blocks.
#include <cstring>

#include "suite/base/memory.h"
#include "suite/command/parse.h"
#include "suite/host/state.h"
#include "suite/log/log.h"

namespace {

// The place of the block, or the end of the list.
pending_block** find_block(host_state* host, std::string_view name, bool global) {
    pending_block** at = &host->pending;
    while (*at && ((*at)->global() != global || name != (*at)->name())) at = &(*at)->next;
    return at;
}

pending_block* make_block(std::string_view name) {
    void* memory = memmgr_calloc(sizeof(pending_block) + name.size() + 1, MTYPE_HOST);
    if (!memory) return nullptr;
    auto* block = static_cast<pending_block*>(memory);
    std::memcpy(block + 1, name.data(), name.size());
    return block;
}

pending_line* make_line(std::string_view text, std::uint32_t number, const cli_command* command) {
    void* memory = memmgr_calloc(sizeof(pending_line) + text.size() + 1, MTYPE_HOST);
    if (!memory) return nullptr;
    auto* line = static_cast<pending_line*>(memory);
    line->command = command;
    line->number = number;
    line->length = text.size();
    std::memcpy(line + 1, text.data(), text.size());
    return line;
}

std::size_t cost(const pending_line* line) {
    return sizeof(pending_line) + line->length + 1;
}

void free_line(host_state* host, pending_line* line) {
    host->pending_octets -= cost(line);
    memmgr_free(line, MTYPE_HOST);
}

void free_block(host_state* host, pending_block* block) {
    for (pending_line* line = block->first; line;) {
        pending_line* next = line->next;
        free_line(host, line);
        line = next;
    }
    memmgr_free(block, MTYPE_HOST);
}

pending_block* take_block(host_state* host, const char* name, bool global) {
    pending_block** at = find_block(host, name, global);
    pending_block* block = *at;
    if (block) *at = block->next;
    return block;
}

void run_block(host_state* host, interface* intf, bool global, cli* terminal) {
    pending_block* block = take_block(host, intf->name, global);
    if (!block) return;
    for (const pending_line* line = block->first; line; line = line->next) {
        if (global) terminal->mode = CONFIG_MODE;
        std::string_view text{line->text(), line->length};
        cli_result result = cli_run_line(host->ctx->ctree, terminal, text);
        if (result != cli_result::ok && result != cli_result::empty)
            host_log_refused(host, line->number, text);
    }
    free_block(host, block);
}

// "no clock synce switch-force" undoes "clock synce switch-force IFNAME": its string without the "no " is the
// beginning of the other one.
bool replaces(std::string_view now, std::string_view kept) {
    if (now == kept) return true;
    if (!now.starts_with("no ")) return false;
    now.remove_prefix(3);
    return kept.starts_with(now) && (kept.size() == now.size() || kept[now.size()] == ' ');
}

void drop_replaced_lines(host_state* host, pending_block* block, const char* now) {
    pending_line** at = &block->first;
    block->last = nullptr;
    while (pending_line* line = *at) {
        if (line->command && replaces(now, line->command->element->string)) {
            *at = line->next;
            free_line(host, line);
        } else {
            block->last = line;
            at = &line->next;
        }
    }
}

}  // namespace

bool pending_keep(host_state* host, std::string_view name, std::string_view text, std::uint32_t number,
                  const cli_command* command) {
    if (host->pending_octets + sizeof(pending_line) + text.size() + 1 > HOST_PENDING_MAX) return false;
    pending_block** at = find_block(host, name, command != nullptr);
    pending_line* line = make_line(text, number, command);
    if (!line) return false;
    pending_block* block = *at;
    if (!block) block = make_block(name);
    if (!block) {
        memmgr_free(line, MTYPE_HOST);
        return false;
    }
    *at = block;
    if (block->last)
        block->last->next = line;
    else
        block->first = line;
    block->last = line;
    host->pending_octets += cost(line);
    return true;
}

void pending_run(host_state* host, interface* intf) {
    cli terminal = host_plain_session(host, INTERFACE_MODE, host_discard, nullptr);
    terminal.index = intf;
    std::strncpy(terminal.name, intf->name, sizeof terminal.name - 1);
    run_block(host, intf, false, &terminal);
    // A line like "clock synce switch-force" wants the port configured first.
    terminal = host_plain_session(host, CONFIG_MODE, host_discard, nullptr);
    run_block(host, intf, true, &terminal);
}

bool pending_drop(host_state* host, const char* name) {
    bool dropped = false;
    for (bool global : {false, true})
        if (pending_block* block = take_block(host, name, global)) {
            free_block(host, block);
            dropped = true;
        }
    return dropped;
}

void pending_replaced(host_state* host, const cli_command* command) {
    for (pending_block** at = &host->pending; *at;) {
        pending_block* block = *at;
        drop_replaced_lines(host, block, command->element->string);
        if (block->first) {
            at = &block->next;
        } else {
            *at = block->next;
            free_block(host, block);
        }
    }
}

int pending_write(cli* terminal) {
    const auto write_lines = [terminal](const pending_block* block) {
        for (const pending_line* line = block->first; line; line = line->next)
            terminal->out_func(terminal->out_val, "%s\n", line->text());
    };
    const pending_block* const blocks = terminal->zg->host->pending;
    for (const pending_block* block = blocks; block; block = block->next) {
        if (block->global()) continue;
        terminal->out_func(terminal->out_val, "interface %s\n", block->name());
        write_lines(block);
        terminal->out_func(terminal->out_val, "!\n");
    }
    for (const pending_block* block = blocks; block; block = block->next)
        if (block->global()) write_lines(block);
    return CLI_SUCCESS;
}

void pending_free(host_state* host) {
    while (pending_block* block = host->pending) {
        host->pending = block->next;
        free_block(host, block);
    }
}
