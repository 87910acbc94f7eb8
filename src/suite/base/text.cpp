// Growable text and octet buffers: the outputs of terminals, assembled messages, read-ahead of sockets.
// The owner of the record frees it. All growth goes through reserve(), the only call that can fail.
#include "suite/base/text.h"

#include <cstdio>
#include <cstring>

#include "suite/base/memory.h"

namespace {

constexpr std::size_t FIRST_ROOM = 64;

// Makes room for `count` more octets and the closing zero. Room doubles, so that appending is linear overall.
bool reserve(text_buffer* t, std::size_t count) {
    if (count > SIZE_MAX / 4 || t->length > SIZE_MAX / 4) return false;
    const std::size_t length = t->length + count;
    if (t->limit != 0 && length > t->limit) return false;
    if (length < t->room) return true;
    std::size_t room = t->room < FIRST_ROOM ? FIRST_ROOM : t->room;
    while (room <= length) room *= 2;
    void* data = memmgr_realloc(t->data, room, MTYPE_TEXT);
    if (data == nullptr) return false;
    t->data = static_cast<char*>(data);
    t->room = room;
    return true;
}

}  // namespace

bool text_append(text_buffer* t, const void* octets, std::size_t count) {
    if (!reserve(t, count)) return false;
    if (count != 0) std::memcpy(t->data + t->length, octets, count);
    t->length += count;
    t->data[t->length] = '\0';
    return true;
}

bool text_printf(text_buffer* t, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool appended = text_vprintf(t, format, args);
    va_end(args);
    return appended;
}

bool text_vprintf(text_buffer* t, const char* format, va_list args) {
    va_list again;
    va_copy(again, args);
    const std::size_t room = t->room - t->length;
    const int needed = std::vsnprintf(t->data != nullptr ? t->data + t->length : nullptr, room, format, args);
    bool appended = needed >= 0 && reserve(t, static_cast<std::size_t>(needed));
    if (appended) {
        const std::size_t count = static_cast<std::size_t>(needed);
        if (count >= room) {
            appended = std::vsnprintf(t->data + t->length, t->room - t->length, format, again) == needed;
        }
        if (appended) t->length += count;
    }
    if (t->data != nullptr) t->data[t->length] = '\0';  // undoes a first try that was cut
    va_end(again);
    return appended;
}

void text_consume(text_buffer* t, std::size_t count) {
    if (count >= t->length) {
        text_clear(t);
        return;
    }
    std::memmove(t->data, t->data + count, t->length - count);
    text_cut(t, t->length - count);
}

void text_cut(text_buffer* t, std::size_t length) {
    if (length < t->length) std::memset(t->data + length, 0, t->length - length);
    t->length = length < t->length ? length : t->length;
}

void text_clear(text_buffer* t) {
    text_cut(t, 0);
}

void text_free(text_buffer* t) {
    memmgr_free(t->data, MTYPE_TEXT);
    t->data = nullptr;
    t->length = 0;
    t->room = 0;
}

int zvsnprintf(char* buffer, std::size_t size, const char* format, va_list args) {
    if (size == 0) return 0;
    const int needed = std::vsnprintf(buffer, size, format, args);
    if (needed < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return static_cast<std::size_t>(needed) < size ? needed : static_cast<int>(size - 1);
}
