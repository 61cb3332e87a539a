/// The account's defaults of new payments. Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCTX_DEFAULTS_H
#define TALLOWIN_CORE_KVXCTX_DEFAULTS_H

#include "core/kvxctx.h"
#include "xml/xmlholder.h"

/// The file "default.xml", read once for one payment.
class KvxPaymentDefaults {
public:
    /// Reads the file of `account`, borrowed. A missing file is one without values. KVX_E_CANNOT_OPEN: one that cannot
    /// be read; KVX_E_INVALID_FORMAT: no document.
    explicit KvxPaymentDefaults(KVX_Context& account);

    /// `seconds` becomes the time that a payment stays open, as text.
    void timeToLive(TbString& seconds) const;

    /// Copies the attributes in AttributeNames, empty ones too.
    void copyTo(KVX_Message& message) const;

private:
    xmlHolder m_Document;  ///< Empty without a file.
};

#endif
