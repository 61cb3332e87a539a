#include "sandbox/pages/languages.h"

#include "sandbox/pages/templates.h"

namespace sandbox {

namespace {

/// The first part of a LANGID in lower case. Independent of the process's locale.
std::string primaryTag(std::string const& langId) {
    std::string tag = langId.substr(0, langId.find_first_of("-_"));
    for (char& c : tag) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return tag;
}

}  // namespace

std::vector<Language> const& allLanguages() {
    static std::vector<Language> const languages = nlohmann::json::parse(templateText("languages.json"));
    return languages;
}

Language const& languageFor(std::string const& langId) {
    std::string const tag = primaryTag(langId);
    for (Language const& language : allLanguages()) {
        if (language["tag"] == tag) {
            return language;
        }
    }
    return allLanguages().front();
}

}  // namespace sandbox
