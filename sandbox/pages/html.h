#ifndef TALLOWIN_SANDBOX_PAGES_HTML_H
#define TALLOWIN_SANDBOX_PAGES_HTML_H

#include <string>

#include "sandbox/http/httpmessages.h"
#include "sandbox/pages/pagetexts.h"

/// What the pages are made of: escaping, a few elements, and the frame around every page with its style sheet.
///
/// Everything is written so that it reads as XML once the document type is cut off, which lets tests ask for it by
/// path: every element is closed, every attribute has a value, no other entities than the five of XML.
namespace sandbox {

/// `text` as HTML text or attribute value: always valid UTF-8, whatever the bytes are.
///
/// Values have no encoding, so well-formed UTF-8 stands as it is, and each other byte from 0xA0 on as the Latin-1
/// character of that number: that is what a merchant means who does not write UTF-8, and the reader still sees which
/// byte it was. Control characters become visible: those of ASCII as their pictures (U+2400 and up), those of 0x80 to
/// 0x9F, which have none, as U+FFFD. Line feeds and tabs stay; the style sheet shows them where values stand.
std::string escapeHtml(std::string const& text);

/// What the frame of a page holds besides its title, as HTML.
struct FrameParts {
    std::string m_Head;        ///< Elements for `head`.
    std::string m_Navigation;  ///< Stands above the page. A page that has it may be broad.
};

/// A whole page around `content`, which is HTML. `title` is text, and the heading of the page too. The frame says in
/// `language` that this is a sandbox.
HttpResponse htmlPage(int status, std::string const& title, std::string const& content,
                      Language const& language = languageFor("en"), FrameParts const& parts = {});

/// The elements that the pages share. Arguments are text unless they are called `content`, which is HTML.
std::string paragraph(std::string const& text);

/// A part of the page under a heading, named by it. `id` is a name that occurs once on the page.
std::string section(std::string const& id, std::string const& heading, std::string const& content);

/// One pair of a list of data (`dl`). `content` is HTML and stands in `opening`.
std::string entry(std::string const& name, std::string const& content, std::string const& opening = "<dd>");

/// What a form sends back without showing it.
std::string hiddenField(std::string const& name, std::string const& value);

/// A text as it was sent, down to its line ends: a carriage return is shown as a small "CR".
std::string verbatim(std::string const& text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_HTML_H
