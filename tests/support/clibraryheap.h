/// The C library's own allocation functions, for programs that define malloc() and its like again.
#ifndef TALLOWIN_TESTS_SUPPORT_CLIBRARYHEAP_H
#define TALLOWIN_TESTS_SUPPORT_CLIBRARYHEAP_H

#include <cstddef>

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): names of the C library
void* __libc_malloc(std::size_t bytes);
void* __libc_calloc(std::size_t count, std::size_t bytes);
void* __libc_realloc(void* memory, std::size_t bytes);
void* __libc_memalign(std::size_t alignment, std::size_t bytes);
void __libc_free(void* memory);
// NOLINTEND(bugprone-reserved-identifier)
}

#endif
