#ifndef TALLOWIN_SANDBOX_PAGES_HTML_H
#define TALLOWIN_SANDBOX_PAGES_HTML_H

#include <string>

#include "sandbox/http/httpmessages.h"
#include "sandbox/pages/pagetexts.h"

/// The building blocks of the pages: escaping, some elements, and the frame of every page with its style sheet.
///
/// The output without its document type is also well-formed XML, so that tests can query it with XPath: every element
/// is closed, every attribute has a value, and only the five entities of XML are used.
namespace sandbox {

/// `text` as HTML text or attribute value. Always valid UTF-8, whatever the bytes are.
///
/// Values have no declared encoding. Well-formed UTF-8 is copied; any other byte from 0xA0 on is shown as its Latin-1
/// character, which is what a merchant without UTF-8 most likely means. Control characters become visible: those of
/// ASCII as their pictures (U+2400 and up), 0x80 to 0x9F, which have none, as U+FFFD. Line feeds and tabs are copied;
/// the style sheet preserves them in values.
std::string escapeHtml(std::string const& text);

/// Optional parts of a page's frame, as HTML.
struct FrameParts {
    std::string m_Head;        ///< Elements for `head`.
    std::string m_Navigation;  ///< Shown above the page. A page with navigation is wider.
};

/// A complete page with `content`, which is HTML. `title` is text, used as title and as heading. The frame states in
/// `language` that this is a sandbox.
HttpResponse htmlPage(int status, std::string const& title, std::string const& content,
                      Language const& language = languageFor("en"), FrameParts const& parts = {});

// Elements shared by the pages. Arguments are text, except `content`, which is HTML.

std::string paragraph(std::string const& text);

/// A section with a heading. `id` must be unique on the page.
std::string section(std::string const& id, std::string const& heading, std::string const& content);

/// One entry of a description list (`dl`). `opening` is the start tag around `content`.
std::string entry(std::string const& name, std::string const& content, std::string const& opening = "<dd>");

/// A hidden form field.
std::string hiddenField(std::string const& name, std::string const& value);

/// A text exactly as it was sent. A carriage return is shown as a small "CR".
std::string verbatim(std::string const& text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_HTML_H
