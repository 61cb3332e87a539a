// The texts of the payment page in six languages, and the choice of a language by LANGID.
//
// Each table has one row per PageText in the order of the enumeration; a static assertion checks that no row is
// missing, empty or misplaced. Only the page for shoppers is translated: error pages and dashboard are for developers.

#include "sandbox/pages/pagetexts.h"

namespace sandbox {

namespace {

// "\u00A0" keeps a French colon on the same line as the word before it.
// clang-format off
constexpr PageTextTable kEnglish = {{
    {PageText::kTitle,           "Payment"},
    {PageText::kNotice,          "This is a sandbox: no money moves."},
    {PageText::kOrderHeading,    "Your order"},
    {PageText::kOrder,           "Order"},
    {PageText::kDescription,     "Description"},
    {PageText::kAmount,          "Amount"},
    {PageText::kMerchant,        "Merchant"},
    {PageText::kMerchantNumber,  "Merchant number"},
    {PageText::kPayableUntil,    "Can be paid until"},
    {PageText::kPaymentNumber,   "Payment number"},
    {PageText::kNotGiven,        "not given"},
    {PageText::kDecisionHeading, "Your decision"},
    {PageText::kPay,             "Pay"},
    {PageText::kDecline,         "Decline"},
    {PageText::kCancel,          "Cancel and go back"},
}};

constexpr PageTextTable kGerman = {{
    {PageText::kTitle,           "Zahlung"},
    {PageText::kNotice,          "Dies ist eine Testumgebung: Es fließt kein Geld."},
    {PageText::kOrderHeading,    "Ihre Bestellung"},
    {PageText::kOrder,           "Bestellung"},
    {PageText::kDescription,     "Beschreibung"},
    {PageText::kAmount,          "Betrag"},
    {PageText::kMerchant,        "Händler"},
    {PageText::kMerchantNumber,  "Händlernummer"},
    {PageText::kPayableUntil,    "Zahlbar bis"},
    {PageText::kPaymentNumber,   "Zahlungsnummer"},
    {PageText::kNotGiven,        "nicht angegeben"},
    {PageText::kDecisionHeading, "Ihre Entscheidung"},
    {PageText::kPay,             "Bezahlen"},
    {PageText::kDecline,         "Ablehnen"},
    {PageText::kCancel,          "Abbrechen und zurückgehen"},
}};

constexpr PageTextTable kFrench = {{
    {PageText::kTitle,           "Paiement"},
    {PageText::kNotice,          "Ceci est un environnement de test\u00A0: aucun argent n’est transféré."},
    {PageText::kOrderHeading,    "Votre commande"},
    {PageText::kOrder,           "Commande"},
    {PageText::kDescription,     "Désignation"},
    {PageText::kAmount,          "Montant"},
    {PageText::kMerchant,        "Commerçant"},
    {PageText::kMerchantNumber,  "Numéro de commerçant"},
    {PageText::kPayableUntil,    "Payable jusqu’au"},
    {PageText::kPaymentNumber,   "Numéro de paiement"},
    {PageText::kNotGiven,        "non renseigné"},
    {PageText::kDecisionHeading, "Votre décision"},
    {PageText::kPay,             "Payer"},
    {PageText::kDecline,         "Refuser"},
    {PageText::kCancel,          "Annuler et revenir"},
}};

constexpr PageTextTable kSpanish = {{
    {PageText::kTitle,           "Pago"},
    {PageText::kNotice,          "Este es un entorno de pruebas: no se transfiere dinero."},
    {PageText::kOrderHeading,    "Su pedido"},
    {PageText::kOrder,           "Pedido"},
    {PageText::kDescription,     "Descripción"},
    {PageText::kAmount,          "Importe"},
    {PageText::kMerchant,        "Comercio"},
    {PageText::kMerchantNumber,  "Número de comercio"},
    {PageText::kPayableUntil,    "Se puede pagar hasta"},
    {PageText::kPaymentNumber,   "Número de pago"},
    {PageText::kNotGiven,        "sin indicar"},
    {PageText::kDecisionHeading, "Su decisión"},
    {PageText::kPay,             "Pagar"},
    {PageText::kDecline,         "Rechazar"},
    {PageText::kCancel,          "Cancelar y volver"},
}};

constexpr PageTextTable kItalian = {{
    {PageText::kTitle,           "Pagamento"},
    {PageText::kNotice,          "Questo è un ambiente di prova: non viene trasferito denaro."},
    {PageText::kOrderHeading,    "Il suo ordine"},
    {PageText::kOrder,           "Ordine"},
    {PageText::kDescription,     "Descrizione"},
    {PageText::kAmount,          "Importo"},
    {PageText::kMerchant,        "Esercente"},
    {PageText::kMerchantNumber,  "Codice esercente"},
    {PageText::kPayableUntil,    "Pagabile fino al"},
    {PageText::kPaymentNumber,   "Numero del pagamento"},
    {PageText::kNotGiven,        "non indicato"},
    {PageText::kDecisionHeading, "La sua decisione"},
    {PageText::kPay,             "Paga"},
    {PageText::kDecline,         "Rifiuta"},
    {PageText::kCancel,          "Annulla e torna indietro"},
}};

constexpr PageTextTable kDutch = {{
    {PageText::kTitle,           "Betaling"},
    {PageText::kNotice,          "Dit is een testomgeving: er wordt geen geld overgemaakt."},
    {PageText::kOrderHeading,    "Uw bestelling"},
    {PageText::kOrder,           "Bestelling"},
    {PageText::kDescription,     "Omschrijving"},
    {PageText::kAmount,          "Bedrag"},
    {PageText::kMerchant,        "Verkoper"},
    {PageText::kMerchantNumber,  "Verkopersnummer"},
    {PageText::kPayableUntil,    "Te betalen tot"},
    {PageText::kPaymentNumber,   "Betalingsnummer"},
    {PageText::kNotGiven,        "niet opgegeven"},
    {PageText::kDecisionHeading, "Uw beslissing"},
    {PageText::kPay,             "Betalen"},
    {PageText::kDecline,         "Weigeren"},
    {PageText::kCancel,          "Annuleren en teruggaan"},
}};
// clang-format on

/// Whether every row is present, not empty and in its place.
constexpr bool isComplete(PageTextTable const& table) {
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (static_cast<std::size_t>(table[i].m_Id) != i || table[i].m_Text == nullptr || *table[i].m_Text == '\0') {
            return false;
        }
    }
    return true;
}

// clang-format off
constexpr std::array<Language, kLanguageCount> kLanguages = {{
    {"en", kEnglish},
    {"de", kGerman},
    {"fr", kFrench},
    {"es", kSpanish},
    {"it", kItalian},
    {"nl", kDutch},
}};
// clang-format on

constexpr bool areComplete(std::array<Language, kLanguageCount> const& languages) {
    for (Language const& language : languages) {
        if (!isComplete(language.m_Texts)) {
            return false;
        }
    }
    return true;
}

static_assert(areComplete(kLanguages), "every language has every text");

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

std::array<Language, kLanguageCount> const& allLanguages() {
    return kLanguages;
}

Language const& languageFor(std::string const& langId) {
    std::string const tag = primaryTag(langId);
    for (Language const& language : kLanguages) {
        if (tag == language.m_Tag) {
            return language;
        }
    }
    return kLanguages.front();
}

}  // namespace sandbox
