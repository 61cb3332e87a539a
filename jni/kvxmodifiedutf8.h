/// Text for `NewStringUTF`.
#ifndef TALLOWIN_JNI_KVXMODIFIEDUTF8_H
#define TALLOWIN_JNI_KVXMODIFIEDUTF8_H

#include "foundation/tbstring.h"

/// Appends `text`, up to its first zero byte, to `result` as valid modified UTF-8.
///
/// What is valid already stays as it is: U+0000 as two bytes, surrogates alone or in pairs as three bytes each. A
/// character of four bytes becomes a pair of surrogates. Every other byte becomes the character of that number
/// (Latin-1), so that a text in another encoding loses nothing. Raises KVX_E_OUT_OF_MEMORY (TBFC_Exception), also for a
/// result of 2 GiB or more, which no virtual machine takes.
void kvxToModifiedUtf8(char const* text, TbString& result);

#endif
