#ifndef TALLOWIN_SANDBOX_PAGES_HTML_H
#define TALLOWIN_SANDBOX_PAGES_HTML_H

#include <string>

namespace sandbox {

/// `text` as HTML text or attribute value. Always valid UTF-8, whatever the bytes are.
///
/// Values have no declared encoding. Well-formed UTF-8 is copied; any other byte from 0xA0 on is shown as its Latin-1
/// character, which is what a merchant without UTF-8 most likely means. Control characters become visible: those of
/// ASCII as their pictures (U+2400 and up), 0x80 to 0x9F, which have none, as U+FFFD. Line feeds and tabs are copied;
/// the style sheet preserves them in values.
std::string escapeHtml(std::string const& text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_HTML_H
