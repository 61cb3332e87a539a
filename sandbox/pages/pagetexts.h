#ifndef TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H
#define TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H

#include <array>
#include <cstddef>
#include <string>

namespace sandbox {

/// What the payment page says, in the order of the tables.
enum class PageText {
    kTitle,
    kNotice,  ///< That this is a sandbox, where no money moves.
    kOrderHeading,
    kOrder,
    kDescription,
    kAmount,
    kMerchant,
    kMerchantNumber,
    kPayableUntil,
    kPaymentNumber,
    kNotGiven,  ///< In the place of a value that the merchant left out.
    kDecisionHeading,
    kPay,
    kDecline,
    kCancel
};

constexpr std::size_t kPageTextCount = static_cast<std::size_t>(PageText::kCancel) + 1;

/// One text in one language: UTF-8, not escaped.
struct PageTextRow {
    PageText m_Id = PageText::kTitle;
    char const* m_Text = nullptr;
};

using PageTextTable = std::array<PageTextRow, kPageTextCount>;

/// A language of the payment page. There are only those of allLanguages(), and they live for ever.
struct Language {
    char const* m_Tag;  ///< For the attribute `lang` (BCP 47), lower case.
    PageTextTable const& m_Texts;

    [[nodiscard]] char const* operator[](PageText id) const { return m_Texts[static_cast<std::size_t>(id)].m_Text; }
};

constexpr std::size_t kLanguageCount = 6;

/// Every language, English first.
std::array<Language, kLanguageCount> const& allLanguages();

/// The language that a LANGID names by its first part: "de", "DE", "de-AT" and "de_AT" are all German. English for
/// every other text.
Language const& languageFor(std::string const& langId);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H
