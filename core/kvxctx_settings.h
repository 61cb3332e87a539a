/// The settings of "settings.xml". Internal: not installed.
#ifndef TALLOWIN_CORE_KVXCTX_SETTINGS_H
#define TALLOWIN_CORE_KVXCTX_SETTINGS_H

#include "foundation/tbstring.h"

/// The merchant's local settings for connections.
struct KVX_Settings {
    TbString m_ProxyHost;  ///< Empty: no proxy.
    TbString m_ProxyPort;  ///< Decimal text; "8080" when the settings name a proxy without a port.
    TbString m_Trace;      ///< Free text; "rawhttp" in it prints the raw exchange. Empty when absent.
};

#endif
