// Lines of the configuration file whose interface is not bound yet. They are kept in the order of the file
// and run once, right after the interface's first bind and before its up event; until then they are part of
// the running configuration, as they were read. A block is taken out of the list before its lines are run, so
// whatever a line does, it can't be run twice.
#include <cstring>

#include "suite/cli_parse.h"
#include "suite/host_state.h"
#include "suite/log.h"
#include "suite/memory.h"

namespace {

pending_block* find_block(const host_state* host, std::string_view name) {
    for (pending_block* block = host->pending; block; block = block->next)
        if (name == block->name()) return block;
    return nullptr;
}

pending_block* make_block(host_state* host, std::string_view name) {
    void* memory = memmgr_calloc(sizeof(pending_block) + name.size() + 1, MTYPE_HOST);
    if (!memory) return nullptr;
    auto* block = static_cast<pending_block*>(memory);
    std::memcpy(block + 1, name.data(), name.size());
    pending_block** end = &host->pending;
    while (*end) end = &(*end)->next;
    *end = block;
    return block;
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

pending_block* take_block(host_state* host, std::string_view name) {
    for (pending_block** at = &host->pending; *at; at = &(*at)->next) {
        pending_block* block = *at;
        if (name != block->name()) continue;
        *at = block->next;
        return block;
    }
    return nullptr;
}

void run_lines(host_state* host, const pending_block* block, cli* session, bool global) {
    for (const pending_line* line = block->first; line; line = line->next) {
        if ((line->command != nullptr) != global) continue;
        if (global) session->mode = CONFIG_MODE;
        std::string_view text{line->text(), line->length};
        cli_result result = cli_run_line(host->ctx->ctree, session, text);
        if (result != cli_result::ok && result != cli_result::empty)
            host_log_refused(host, line->number, text);
    }
}

int discard(void*, const char*, ...) {
    return 0;
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
    std::size_t size = sizeof(pending_line) + text.size() + 1;
    if (host->pending_octets + size > HOST_PENDING_MAX) return false;
    pending_block* block = find_block(host, name);
    if (!block) block = make_block(host, name);
    if (!block) return false;
    void* memory = memmgr_calloc(size, MTYPE_HOST);
    if (!memory) return false;
    auto* line = static_cast<pending_line*>(memory);
    line->command = command;
    line->number = number;
    line->length = text.size();
    std::memcpy(line + 1, text.data(), text.size());
    if (block->last)
        block->last->next = line;
    else
        block->first = line;
    block->last = line;
    host->pending_octets += size;
    return true;
}

void pending_run(host_state* host, interface* intf) {
    pending_block* block = take_block(host, intf->name);
    if (!block) return;
    cli session = host_plain_session(host, INTERFACE_MODE, discard, nullptr);
    session.index = intf;
    std::strncpy(session.name, intf->name, sizeof session.name - 1);
    run_lines(host, block, &session, false);
    // A line like "clock synce switch-force" wants the port configured first.
    session = host_plain_session(host, CONFIG_MODE, discard, nullptr);
    run_lines(host, block, &session, true);
    free_block(host, block);
}

bool pending_drop(host_state* host, const char* name) {
    pending_block* block = take_block(host, name);
    if (!block) return false;
    free_block(host, block);
    return true;
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

int pending_write(cli* session) {
    const host_state* host = session->zg->host;
    for (const pending_block* block = host->pending; block; block = block->next) {
        bool open = false;
        for (const pending_line* line = block->first; line; line = line->next) {
            if (line->command) continue;
            if (!open) session->out_func(session->out_val, "interface %s\n", block->name());
            open = true;
            session->out_func(session->out_val, "%s\n", line->text());
        }
        if (open) session->out_func(session->out_val, "!\n");
    }
    for (const pending_block* block = host->pending; block; block = block->next)
        for (const pending_line* line = block->first; line; line = line->next)
            if (line->command) session->out_func(session->out_val, "%s\n", line->text());
    return CLI_SUCCESS;
}

void pending_free(host_state* host) {
    while (pending_block* block = host->pending) {
        host->pending = block->next;
        free_block(host, block);
    }
}
