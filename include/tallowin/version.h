/* The version of these headers. KVX_GetVersion() returns the version of the library in use. */
#ifndef TALLOWIN_VERSION_H
#define TALLOWIN_VERSION_H

/* The three numbers, and the text made of them. */
#define TALLOWIN_VERSION_MAJOR 1
#define TALLOWIN_VERSION_MINOR 0
#define TALLOWIN_VERSION_PATCH 0
#define TALLOWIN_VERSION_STRING "1.0.0"

#endif
