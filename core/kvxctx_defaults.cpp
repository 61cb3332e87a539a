#include "core/kvxctx_defaults.h"

#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "core/kvxfile.h"
#include "core/kvxlines_core.h"
#include "foundation/tblocalstring.h"
#include "xml/xmlquery.h"

namespace {

/// A day, where the account sets no time.
constexpr char kDefaultTtl[] = "86400";

}  // namespace

// The number of trace records is published: a payment has two where the file is missing or the settings are damaged.
KvxPaymentDefaults::KvxPaymentDefaults(KVX_Context& account) {
    KvxFileText content;
    if (!account.readOptionalFile(TbBorrowed(kvx::kDefaultsFile), content)) {
        kvx::kSourceUrl.traceFailure(KVX_E_CANNOT_OPEN, kvx::kLineOpenFile);
        return;
    }
    KVX_Settings const settings = account.settingsForLocalWork();
    m_Document = kvxParseDocument(content, settings.m_Documents, TbBorrowed(kvx::kDefaultsFile));
    if (settings.m_IsDamaged) {
        account.settingsForLocalWork();
    }
}

void KvxPaymentDefaults::timeToLive(TbString& seconds) const {
    bool const isSet = m_Document != nullptr && xmlGetAttributeEx(m_Document.get(), TbBorrowed("PAYINITTTL"), seconds);
    if (!isSet || seconds.isEmpty()) {
        seconds = TbBorrowed(kDefaultTtl);
    }
}

void KvxPaymentDefaults::copyTo(KVX_Message& message) const {
    if (m_Document == nullptr) {
        return;
    }
    for (char const* const* name = AttributeNames; *name != nullptr; ++name) {
        TbBorrowed const attribute(*name);
        TbLongString value;
        if (m_Document->getAttribute(attribute, value)) {
            message.SetAttribute(attribute, value);
        }
    }
}
