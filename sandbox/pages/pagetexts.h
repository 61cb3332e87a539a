#ifndef TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H
#define TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H

#include <array>
#include <cstddef>
#include <string>

namespace sandbox {

/// What the payment page says, in the order of the tables.
enum class PageText {
    Title,
    Notice,  ///< That this is a sandbox, where no money moves.
    OrderHeading,
    Order,
    Description,
    Amount,
    Merchant,
    MerchantNumber,
    PayableUntil,
    PaymentNumber,
    NotGiven,  ///< In the place of a value that the merchant left out.
    DecisionHeading,
    Pay,
    Decline,
    Cancel
};

constexpr std::size_t kPageTextCount = static_cast<std::size_t>(PageText::Cancel) + 1;

/// One text in one language: UTF-8, not escaped.
struct PageTextRow {
    PageText id = PageText::Title;
    char const* text = nullptr;
};

using PageTextTable = std::array<PageTextRow, kPageTextCount>;

/// A language of the payment page. There are only those of allLanguages(), and they live for ever.
struct Language {
    char const* tag;  ///< For the attribute `lang` (BCP 47), lower case.
    PageTextTable const& texts;

    [[nodiscard]] char const* operator[](PageText id) const { return texts[static_cast<std::size_t>(id)].text; }
};

constexpr std::size_t kLanguageCount = 6;

/// Every language, English first.
std::array<Language, kLanguageCount> const& allLanguages();

/// The language that a LANGID names by its first part: "de", "DE", "de-AT" and "de_AT" are all German. English for
/// every other text.
Language const& languageFor(std::string const& langId);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H
