/* Marks the names that libtallowin.so exports. Everything else stays inside the library. */
#ifndef TALLOWIN_EXPORT_H
#define TALLOWIN_EXPORT_H

#if defined(__GNUC__)
#define KVX_EXPORT __attribute__((visibility("default")))
#define KVX_INTERNAL __attribute__((visibility("hidden"))) /* a member of an exported class that stays inside */
#else
#define KVX_EXPORT
#define KVX_INTERNAL
#endif

#endif
