#ifndef TALLOWIN_SANDBOX_PAGES_TEMPLATES_H
#define TALLOWIN_SANDBOX_PAGES_TEMPLATES_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "sandbox/http/httpmessages.h"

/// Pages from templates. A template is HTML in the notation of Mustache, a file in templates/ that is embedded when
/// this is built. `{{>name}}` stands for the template of that name.
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

/// The file templates/`name`. Throws std::logic_error when there is none.
std::string templateText(std::string const& name);

/// The texts of one language of the payment page by their names in templates/languages.json, as they are used in
/// templates, UTF-8 and not escaped. The text "tag" is for the attribute `lang` (BCP 47), in lower case.
using Language = nlohmann::json;

/// Every language, English first. Only the pages for shoppers are translated: all others are for developers. All have
/// the same texts.
std::vector<Language> const& allLanguages();

/// The language of a LANGID, chosen by its first part: "de", "DE", "de-AT" and "de_AT" are all German. English for any
/// other text.
Language const& languageFor(std::string const& langId);

/// The page templates/`name`.html in the frame of all pages, which states in `language`, one of allLanguages(), that
/// this is a sandbox. The texts in `content` are bytes in any encoding; every one is escaped. A section of the template
/// is left out for an empty text, as for false, null and an empty array. A text `x` beside `xHex`, as in the JSON of
/// the control API, is shown from its bytes.
HttpResponse renderPage(int status, std::string const& name, nlohmann::json const& content,
                        Language const& language = languageFor("en"));

/// A text exactly as it was sent, for the template `verbatim`, which shows a carriage return as a small "CR".
nlohmann::json verbatim(std::string const& text);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_TEMPLATES_H
