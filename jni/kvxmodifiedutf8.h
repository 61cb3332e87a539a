/// Conversion of text for `NewStringUTF`.
#ifndef TALLOWIN_JNI_KVXMODIFIEDUTF8_H
#define TALLOWIN_JNI_KVXMODIFIEDUTF8_H

#include "foundation/tbstring.h"

/// Appends `text`, up to its first zero byte, to `result` as valid modified UTF-8.
///
/// Text that is already valid is copied: U+0000 as two bytes, single or paired surrogates as three bytes each. A
/// character of four bytes becomes a surrogate pair. Every other byte is converted as Latin-1, so that text in another
/// encoding loses nothing. Throws KVX_E_OUT_OF_MEMORY (TBFC_Exception), also when the result would reach 2 GiB, more
/// than virtual machines accept.
void kvxToModifiedUtf8(char const* text, TbString& result);

#endif
