// A growable buffer of octets or text from the memory manager (MTYPE_TEXT). Every growing call says whether
// it succeeded; on failure the contents are as before. Text is always followed by a zero that is not counted.
// What is dropped is overwritten in memory.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>

struct text_buffer {
    char* data = nullptr;  // null while empty and never grown
    std::size_t length = 0;
    std::size_t room = 0;
    std::size_t limit = 0;  // most octets that it may hold; 0: no limit

    std::string_view view() const { return {data ? data : "", length}; }
    const char* c_str() const { return data ? data : ""; }
};

[[nodiscard]] bool text_append(text_buffer* t, const void* octets, std::size_t count);
[[nodiscard]] bool text_printf(text_buffer* t, const char* format, ...) __attribute__((format(printf, 2, 3)));
[[nodiscard]] bool text_vprintf(text_buffer* t, const char* format, va_list args);
void text_consume(text_buffer* t, std::size_t count);  // drops octets at the front
void text_cut(text_buffer* t, std::size_t length);     // drops octets at the end
void text_clear(text_buffer* t);                       // keeps the memory
void text_free(text_buffer* t);

// vsnprintf under the name that the suite exports: text is cut at the buffer's end; returns what was kept.
int zvsnprintf(char* buffer, std::size_t size, const char* format, va_list args);
