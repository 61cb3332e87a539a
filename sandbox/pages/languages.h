#ifndef TALLOWIN_SANDBOX_PAGES_LANGUAGES_H
#define TALLOWIN_SANDBOX_PAGES_LANGUAGES_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

/// The languages of the payment page, all in templates/languages.json. Only the pages for shoppers are translated: all
/// others are for developers.
namespace sandbox {

/// The texts of one language by their names, as they are used in templates, UTF-8 and not escaped. The text "tag" is
/// for the attribute `lang` (BCP 47), in lower case.
using Language = nlohmann::json;

/// Every language, English first. All have the same texts.
std::vector<Language> const& allLanguages();

/// The language of a LANGID, chosen by its first part: "de", "DE", "de-AT" and "de_AT" are all German. English for any
/// other text.
Language const& languageFor(std::string const& langId);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_LANGUAGES_H
