#ifndef TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H
#define TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H

#include <array>
#include <cstddef>
#include <string>

namespace sandbox {

/// The texts of the payment page, in the order of the tables.
enum class PageText {
    kTitle,
    kNotice,  ///< States that this is a sandbox and no money moves.
    kOrderHeading,
    kOrder,
    kDescription,
    kAmount,
    kMerchant,
    kMerchantNumber,
    kPayableUntil,
    kPaymentNumber,
    kNotGiven,  ///< Replaces a value that the merchant did not send.
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

/// A language of the payment page. All instances are in allLanguages() and static.
struct Language {
    char const* m_Tag;  ///< For the attribute `lang` (BCP 47), lower case.
    PageTextTable const& m_Texts;

    [[nodiscard]] char const* operator[](PageText id) const { return m_Texts[static_cast<std::size_t>(id)].m_Text; }
};

constexpr std::size_t kLanguageCount = 6;

/// Every language, English first.
std::array<Language, kLanguageCount> const& allLanguages();

/// The language of a LANGID, chosen by its first part: "de", "DE", "de-AT" and "de_AT" are all German. English for any
/// other text.
Language const& languageFor(std::string const& langId);

}  // namespace sandbox

#endif  // TALLOWIN_SANDBOX_PAGES_PAGETEXTS_H
