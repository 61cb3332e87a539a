/// URLs and encodings.
///
/// Of its free functions libtallowin.so exports UrlEncode alone; the static archive has them all.
#ifndef TALLOWIN_NET_KVXURL_H
#define TALLOWIN_NET_KVXURL_H

#include <cstdint>

#include "tallowin/export.h"
#include "tallowin/tbstring.h"
#include "tallowin/tbstringstream.h"

struct KVX_RequestInfo;

/// Whether a URL_INFO is the front part of a KVX_RequestInfo. The mark belongs to the place and not to the value: a
/// copy has none, and assigning leaves it as it is.
class KVX_RecordMark {
public:
    KVX_RecordMark() = default;
    KVX_RecordMark(KVX_RecordMark const&) noexcept {}
    KVX_RecordMark& operator=(KVX_RecordMark const&) noexcept { return *this; }
    ~KVX_RecordMark() = default;

    [[nodiscard]] bool isSet() const noexcept { return m_IsSet; }

private:
    friend struct KVX_RequestInfo;
    bool m_IsSet = false;
};

/// A URL in its parts; all empty until SplitUrl fills them.
struct KVX_EXPORT URL_INFO {
    // NOLINTBEGIN(readability-identifier-naming): published names
    TbString scheme;    ///< Before the first ":".
    TbString user;      ///< From a "user:password@" prefix of the authority.
    TbString password;  ///< As `user`.
    TbString host;      ///< Name or dotted IPv4 address.
    TbString port;      ///< Decimal text; "80" or "443" when the URL names none and the scheme is "http" or "https".
    TbString path;      ///< From the first "/" after the authority to the end, query included.
    KVX_RecordMark mark{};  ///< Set by KVX_RequestInfo alone.
    // NOLINTEND(readability-identifier-naming)
};

/// Splits `url` into `info`.
/// Deliberate (split-fills-only): fields that the URL does not fill keep what they held.
/// User and password become secret strings; the other parts too when `url` is secret.
///
/// Returns nonzero (all bits set) when the end of the text was reached, 0 when the scheme or the "//" is malformed;
/// `info` keeps the fields filled so far. A nonzero result does not promise a host: a URL that ends inside the
/// authority, or whose user has no password, leaves the later fields empty. Letters and digits are those of the current
/// locale.
/// Deliberate (slash-behind-host): a URL without "/" behind its authority ends inside it.
std::int32_t SplitUrl(TbString const& url, URL_INFO& info);

/// Whether `url` begins with "http:" or with "https".
/// Deliberate (https-without-colon): the colon after "https" is not checked; upper case is not accepted.
bool IsHttp(TbString const& url);

/// Percent-encodes `in` from its read position to its end or a zero byte and appends to `out`: letters and digits of
/// the current locale pass, all other bytes become "%" and two lower-case hexadecimal digits. Both borrowed. A secret
/// `in` makes `out` secret.
KVX_EXPORT void UrlEncode(TbStringStream* in, TbStringStream* out);

/// Encodes `in` from its read position in the Base64 alphabet and appends to `out`. Both borrowed. A secret `in` makes
/// `out` secret.
/// Deliberate (base64-without-padding): the input ends at a zero byte or one of 0x80 and above; there is never "=":
/// missing bits are zero, and an input whose length divides by three gets "AAAA" on top.
void Base64Encode(TbStringStream* in, TbStringStream* out);

/// The Base64 alphabet, NUL-terminated. On the wire. Do not change.
extern char const base64_table[65];

#endif
