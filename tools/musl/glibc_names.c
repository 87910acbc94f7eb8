/* Names of glibc that Debian's libgcc_eh.a and libcrypt.a call and musl does not have. Compiled into the copies of the two that
 * tools/musl_toolchain makes. */
#define _GNU_SOURCE
#include <link.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>

/* As <dlfcn.h> of glibc 2.35 and later has it, on machines whose unwind tables need no base of data. */
struct dl_find_object {
    unsigned long long flags;
    void *map_start, *map_end;
    struct link_map *link_map;
    void *eh_frame;
    unsigned long long reserved[7];
};

struct search {
    uintptr_t address;
    struct dl_find_object *found;
};

static int look(struct dl_phdr_info *info, size_t size, void *arg) {
    struct search *s = arg;
    void *tables = NULL;
    int is_here = 0;
    for (int i = 0; i < info->dlpi_phnum; i++) {
        const ElfW(Phdr) *p = &info->dlpi_phdr[i];
        uintptr_t start = info->dlpi_addr + p->p_vaddr;
        if (p->p_type == PT_GNU_EH_FRAME) tables = (void *)start;
        if (p->p_type != PT_LOAD || s->address < start || s->address - start >= p->p_memsz) continue;
        is_here = 1;
        s->found->map_start = (void *)start;
        s->found->map_end = (void *)(start + p->p_memsz);
    }
    s->found->eh_frame = tables;
    (void)size;
    return is_here && tables;
}

/* Where the unwinder finds the tables of a piece of code: 0, or -1 when nobody has it. */
int _dl_find_object(void *address, struct dl_find_object *found) {
    struct search s = {(uintptr_t)address, found};
    memset(found, 0, sizeof *found);
    return dl_iterate_phdr(look, &s) ? 0 : -1;
}

void __explicit_bzero_chk(void *to, size_t length, size_t room) {
    if (length > room) abort();
    explicit_bzero(to, length);
}

int __snprintf_chk(char *to, size_t length, int flag, size_t room, const char *format, ...) {
    va_list arguments;
    int result;
    (void)flag;
    if (length > room) abort();
    va_start(arguments, format);
    result = vsnprintf(to, length, format, arguments);
    va_end(arguments);
    return result;
}

void arc4random_buf(void *to, size_t length) {
    for (char *at = to; length > 0;) {
        ssize_t came = getrandom(at, length, 0);
        if (came < 0) abort();
        at += came;
        length -= (size_t)came;
    }
}
