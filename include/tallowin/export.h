/* Marks the names that libtallowin.so exports. Everything else stays inside the library. */
#ifndef TALLOWIN_EXPORT_H
#define TALLOWIN_EXPORT_H

#if defined(__GNUC__)
#define KVX_EXPORT __attribute__((visibility("default")))
#else
#define KVX_EXPORT
#endif

#endif
