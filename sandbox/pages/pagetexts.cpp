#include "sandbox/pages/pagetexts.h"

namespace sandbox {

namespace {

// "\u00A0" keeps a French colon on the line of its word.
// clang-format off
constexpr PageTextTable kEnglish = {{
    {PageText::Title,           "Payment"},
    {PageText::Notice,          "This is a sandbox: no money moves."},
    {PageText::OrderHeading,    "Your order"},
    {PageText::Order,           "Order"},
    {PageText::Description,     "Description"},
    {PageText::Amount,          "Amount"},
    {PageText::Merchant,        "Merchant"},
    {PageText::MerchantNumber,  "Merchant number"},
    {PageText::PayableUntil,    "Can be paid until"},
    {PageText::PaymentNumber,   "Payment number"},
    {PageText::NotGiven,        "not given"},
    {PageText::DecisionHeading, "Your decision"},
    {PageText::Pay,             "Pay"},
    {PageText::Decline,         "Decline"},
    {PageText::Cancel,          "Cancel and go back"},
}};

constexpr PageTextTable kGerman = {{
    {PageText::Title,           "Zahlung"},
    {PageText::Notice,          "Dies ist eine Testumgebung: Es fließt kein Geld."},
    {PageText::OrderHeading,    "Ihre Bestellung"},
    {PageText::Order,           "Bestellung"},
    {PageText::Description,     "Beschreibung"},
    {PageText::Amount,          "Betrag"},
    {PageText::Merchant,        "Händler"},
    {PageText::MerchantNumber,  "Händlernummer"},
    {PageText::PayableUntil,    "Zahlbar bis"},
    {PageText::PaymentNumber,   "Zahlungsnummer"},
    {PageText::NotGiven,        "nicht angegeben"},
    {PageText::DecisionHeading, "Ihre Entscheidung"},
    {PageText::Pay,             "Bezahlen"},
    {PageText::Decline,         "Ablehnen"},
    {PageText::Cancel,          "Abbrechen und zurückgehen"},
}};

constexpr PageTextTable kFrench = {{
    {PageText::Title,           "Paiement"},
    {PageText::Notice,          "Ceci est un environnement de test\u00A0: aucun argent n’est transféré."},
    {PageText::OrderHeading,    "Votre commande"},
    {PageText::Order,           "Commande"},
    {PageText::Description,     "Désignation"},
    {PageText::Amount,          "Montant"},
    {PageText::Merchant,        "Commerçant"},
    {PageText::MerchantNumber,  "Numéro de commerçant"},
    {PageText::PayableUntil,    "Payable jusqu’au"},
    {PageText::PaymentNumber,   "Numéro de paiement"},
    {PageText::NotGiven,        "non renseigné"},
    {PageText::DecisionHeading, "Votre décision"},
    {PageText::Pay,             "Payer"},
    {PageText::Decline,         "Refuser"},
    {PageText::Cancel,          "Annuler et revenir"},
}};

constexpr PageTextTable kSpanish = {{
    {PageText::Title,           "Pago"},
    {PageText::Notice,          "Este es un entorno de pruebas: no se transfiere dinero."},
    {PageText::OrderHeading,    "Su pedido"},
    {PageText::Order,           "Pedido"},
    {PageText::Description,     "Descripción"},
    {PageText::Amount,          "Importe"},
    {PageText::Merchant,        "Comercio"},
    {PageText::MerchantNumber,  "Número de comercio"},
    {PageText::PayableUntil,    "Se puede pagar hasta"},
    {PageText::PaymentNumber,   "Número de pago"},
    {PageText::NotGiven,        "sin indicar"},
    {PageText::DecisionHeading, "Su decisión"},
    {PageText::Pay,             "Pagar"},
    {PageText::Decline,         "Rechazar"},
    {PageText::Cancel,          "Cancelar y volver"},
}};

constexpr PageTextTable kItalian = {{
    {PageText::Title,           "Pagamento"},
    {PageText::Notice,          "Questo è un ambiente di prova: non viene trasferito denaro."},
    {PageText::OrderHeading,    "Il suo ordine"},
    {PageText::Order,           "Ordine"},
    {PageText::Description,     "Descrizione"},
    {PageText::Amount,          "Importo"},
    {PageText::Merchant,        "Esercente"},
    {PageText::MerchantNumber,  "Codice esercente"},
    {PageText::PayableUntil,    "Pagabile fino al"},
    {PageText::PaymentNumber,   "Numero del pagamento"},
    {PageText::NotGiven,        "non indicato"},
    {PageText::DecisionHeading, "La sua decisione"},
    {PageText::Pay,             "Paga"},
    {PageText::Decline,         "Rifiuta"},
    {PageText::Cancel,          "Annulla e torna indietro"},
}};

constexpr PageTextTable kDutch = {{
    {PageText::Title,           "Betaling"},
    {PageText::Notice,          "Dit is een testomgeving: er wordt geen geld overgemaakt."},
    {PageText::OrderHeading,    "Uw bestelling"},
    {PageText::Order,           "Bestelling"},
    {PageText::Description,     "Omschrijving"},
    {PageText::Amount,          "Bedrag"},
    {PageText::Merchant,        "Verkoper"},
    {PageText::MerchantNumber,  "Verkopersnummer"},
    {PageText::PayableUntil,    "Te betalen tot"},
    {PageText::PaymentNumber,   "Betalingsnummer"},
    {PageText::NotGiven,        "niet opgegeven"},
    {PageText::DecisionHeading, "Uw beslissing"},
    {PageText::Pay,             "Betalen"},
    {PageText::Decline,         "Weigeren"},
    {PageText::Cancel,          "Annuleren en teruggaan"},
}};
// clang-format on

/// Whether every text stands in its row: a row that is missing or empty, or in another place, makes it false.
constexpr bool isComplete(PageTextTable const& table) {
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (static_cast<std::size_t>(table[i].id) != i || table[i].text == nullptr || *table[i].text == '\0') {
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
        if (!isComplete(language.texts)) {
            return false;
        }
    }
    return true;
}

static_assert(areComplete(kLanguages), "every language has every text");

/// The first part of a LANGID in lower case, whatever the locale of the process is.
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
        if (tag == language.tag) {
            return language;
        }
    }
    return kLanguages.front();
}

}  // namespace sandbox
