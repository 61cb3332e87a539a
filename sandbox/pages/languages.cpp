#include "sandbox/pages/languages.h"

#include "sandbox/pages/templates.h"
#include "sandbox/text/wiretext.h"

namespace sandbox {

std::vector<Language> const& allLanguages() {
    static std::vector<Language> const languages = nlohmann::json::parse(templateText("languages.json"));
    return languages;
}

Language const& languageFor(std::string const& langId) {
    std::string const tag = lowerCase(langId.substr(0, langId.find_first_of("-_")));
    for (Language const& language : allLanguages()) {
        if (language["tag"] == tag) {
            return language;
        }
    }
    return allLanguages().front();
}

}  // namespace sandbox
