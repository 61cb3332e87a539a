#include "core/kvxctx_defaults.h"

#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "core/kvxlines_core.h"
#include "xml/xmlquery.h"

namespace {

/// A day, where the account sets no time.
constexpr char kDefaultTtl[] = "86400";

}  // namespace

// The number of trace records is published: a payment has two where the file is missing or the settings are damaged.
KvxPaymentDefaults::KvxPaymentDefaults(KVX_Context& account) {
    TbStringStream content;
    if (!account.readOptionalFile(kvx::kDefaultsFile, content)) {
        kvx::kSourceUrl.traceFailure(KVX_E_CANNOT_OPEN, kvx::kLineOpenFile);
        return;
    }
    KVX_Settings const settings = account.settingsForLocalWork();
    m_Document = kvxParseDocument(content, settings.m_Documents, kvx::kDefaultsFile);
    if (settings.m_IsDamaged) {
        account.settingsForLocalWork();
    }
}

TbString KvxPaymentDefaults::timeToLive() const {
    TbString seconds;
    bool const isSet = m_Document.get() != nullptr && xmlGetAttributeEx(m_Document.get(), "PAYINITTTL", seconds);
    return isSet && !seconds.isEmpty() ? seconds : TbString(kDefaultTtl);
}

void KvxPaymentDefaults::copyTo(KVX_Message& message) const {
    if (m_Document.get() == nullptr) {
        return;
    }
    for (char const* const* name = AttributeNames; *name != nullptr; ++name) {
        TbString value;
        if (m_Document->getAttribute(*name, value)) {
            message.SetAttribute(*name, value);
        }
    }
}
