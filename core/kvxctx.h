/// The account context and the payment message.
///
/// Its free functions are in the static archive only; libtallowin.so exports classes.
#ifndef TALLOWIN_CORE_KVXCTX_H
#define TALLOWIN_CORE_KVXCTX_H

#include <cstdint>

#include "tallowin/kvxbase.h"
#include "tallowin/tbstring.h"
#include "tallowin/tbstringstream.h"
#include "tallowin/xmlelement.h"

class KVX_Context;
struct KVX_Settings;
namespace kvx {
class JoinedPath;
}
enum class KvxReadResult;

/// The current UTC time plus `seconds`, truncated to whole ones, as "YYYYMMDD HH:MM:SS". A number that is not finite
/// counts as 0; times outside the years 0000 to 9999 become the nearest inside.
TbString GetTimeDate(double seconds);

/// The attributes that a new payment takes from the account's defaults, in this order; a null entry ends the list.
extern char const* const AttributeNames[];

/// One merchant account: its configuration directory and the options of this session.
///
/// All work goes through it: values and files, keys and signatures, requests to the server. Caches nothing; every call
/// reads the files anew. All failures raise KVX_Exception, save memory exhaustion (TBFC_Exception). A context is used
/// by one thread at a time; different contexts, also on one directory, by different threads at once.
class KVX_EXPORT KVX_Context {
public:
    KVX_Context();

    /// Copies path and options.
    KVX_Context(KVX_Context const& other);
    KVX_Context& operator=(KVX_Context const& other);
    ~KVX_Context() = default;

    // The directory.

    /// Takes `path` (empty: the current directory), traces "OPEN CONTEXT" and creates the directory when it is missing,
    /// its last component only. The path is kept even if that fails. Options survive.
    /// Deliberate (last-directory-created, path-as-given): parents are not created, and a "/" at the end stays.
    void Open(TbString const& path);

    /// The current directory; empty when it is longer than 254 bytes or gone.
    [[nodiscard]] TbString GetDefaultConfiguration() const;

    /// Creates the directory `path` unless it can be opened.
    /// Raises the operating system's own errno as the code, a small positive number; KVX_E_CANNOT_OPEN for a directory
    /// that is there when descriptors or memory are lacking.
    void CreatePath(TbString const& path);

    /// A copy of the path.
    [[nodiscard]] TbString GetPath() const { return m_Path; }

    /// The path, borrowed until the next change.
    [[nodiscard]] TbString const& path() const noexcept { return m_Path; }

    /// Sets "UserName", "Password" or "VTAUTOURL". Any other name: KVX_E_INVALID_OPTION. The values are kept as secret
    /// strings, and so is every URL and request that is made with them.
    void SetOption(TbString const& name, TbString const& value);

    /// Does nothing. Deliberate (messages-logged-nowhere): the hook for informational messages writes them nowhere.
    void LogMessage(TbString const& text);

    // Documents and values.

    /// Parses `in`. `out` receives the first top-level "KVX" element, one reference for the caller.
    /// KVX_E_INVALID_FORMAT: no document, or none with that element.
    void XmlFromStream(TbStringStream& in, xmlElement** out);

    /// The same from a string.
    void XmlFromString(TbString const& text, xmlElement** out);

    /// A new "KVX" element whose "MSGTYPE" is `msgType`; one reference for the caller. Returns 0.
    std::int32_t XmlCreateRequest(TbString const& msgType, xmlElement** out);

    /// Reads the value `name` of `file`, relative to the directory; an empty `name` reads the whole file.
    /// False: no such value, or an empty one (`value` may have been emptied). KVX_E_CANNOT_OPEN: no such file,
    /// or one that cannot be opened.
    /// Deliberate (empty-value-absent): an empty value counts as none, so that defaults apply.
    bool QueryValue(TbString const& file, TbString const& name, TbString& value);

    /// Reads at most `*size` bytes of `file` into `buffer` and stores their number. False when it cannot be opened.
    /// Deliberate (raw-read-cuts): a longer file is cut silently.
    bool QueryValue(TbString const& file, unsigned char* buffer, unsigned long* size);

    /// As the text `QueryValue`, but a missing file is false too. Other failures are raised; a file that is there and
    /// cannot be opened or read is KVX_E_CANNOT_OPEN.
    bool QueryValueOrAbsent(TbString const& file, TbString const& name, TbString& value);

    /// Sets one attribute and rewrites the file. `create` replaces the content of an existing file that is no document;
    /// it never makes a file.
    /// Deliberate (set-value-keeps-one-element): what stands beside the first "KVX" element is dropped.
    void SetValue(TbString const& file, TbString const& name, TbString const& value, bool create);

    /// Replaces `file` by `content`. KVX_E_FILE_NOT_FOUND: cannot be opened for writing. KVX_E_FILE_IO: cannot be
    /// written; the old content stays.
    void UpdateFile(TbString const& file, TbString const& content);

    /// Writes `length` bytes to `file` in place.
    /// Deliberate (raw-write-fails): every successful write of two or more bytes is reported as KVX_E_FILE_IO.
    void UpdateFile(TbString const& file, unsigned char* buffer, unsigned long length);

    /// Fetches an HTTP(S) URL, or reads a local file when `url` is none, and appends the body to `out`.
    void StreamFromURL(TbString const& url, TbStringStream& out);

    // Conversions.

    /// Percent-encodes every byte that is no letter or digit of the current locale.
    [[nodiscard]] TbString Encode(TbString const& text);

    /// Two lower-case hexadecimal digits a byte.
    [[nodiscard]] TbString BufferToHex(unsigned char* buffer, unsigned long length);

    /// Decodes `hex` into `buffer`, whose capacity is `*size` on entry; stores the number of bytes. A trailing odd
    /// digit is dropped. Returns KVX_OK, KVX_E_BUFFER_TOO_SMALL or KVX_E_COMMAND_FAILED (`*size` unchanged, earlier
    /// bytes stored).
    [[nodiscard]] std::int32_t HexToBuffer(TbString hex, unsigned char* buffer, unsigned long* size);

    /// Replaces every "/" by "\".
    void SlToBackSl(TbString& text);

    /// A fresh identifier of 32 lower-case hexadecimal digits.
    /// Deliberate (uuid-byte-order): the leading three fields are shown as little-endian numbers.
    [[nodiscard]] TbString CreateUuid();

    // Keys and signatures.

    /// Makes a key pair and stores both halves under `keyId`. KVX_E_CRYPTO, and the codes of `UpdateFile`.
    void GenKey(TbString& keyId);

    /// Signs `data` with the private key `keyId`; `signature` receives hexadecimal text.
    /// KVX_E_NOT_FOUND, KVX_E_INVALID_KEY, KVX_E_CRYPTO.
    void SignData(TbString const& data, TbString const& keyId, TbString& signature);

    /// Returns when `signature` matches `data` under the public key `keyId`, else raises KVX_E_INVALID_SIGNATURE.
    /// KVX_E_NOT_FOUND, KVX_E_INVALID_KEY (also for a signature that is no hexadecimal text).
    /// Deliberate (signature-spellings): upper-case digits and an odd digit at the end of `signature` are accepted.
    void VerifyData(TbString const& data, TbString const& keyId, TbString const& signature);

    // Requests.

    /// Builds `url` = `baseUrl` with the session's credentials + "?DATA=" + encoded message + "&SIGNATURE=" +
    /// signature, the last only when there is one. Requires: `url` is empty. KVX_E_INVALID_URL.
    /// Deliberate (url-counts-old-text): characters already in `url` change how much of `baseUrl` is used.
    void RequestToURL(TbString const& baseUrl, TbStringStream& message, TbString signature, TbString& url);

    /// Returns when "MSGTYPE" of `response` is `expected`. KVX_E_SERVER_ERROR with the server's text for an error
    /// message, KVX_E_WRONG_RESPONSE for any other.
    void CheckResponseMsgType(xmlElement* response, TbString const& expected);

    /// Fetches the account configuration into "config.xml".
    void Setup();

    /// Fetches the account's defaults into "default.xml".
    void LoadDefaults();

    /// Fetches the server's public key `keyId`; `keyId` becomes the key id in the response.
    void ImportKey(TbString& keyId);

    /// Sends the public half of the own key `keyId` to the server and makes it the current key.
    void PublishKey(TbString& keyId);

    /// Runs the whole set-up: directories, configuration, defaults unless valid, server key, a new own key. Files
    /// written by earlier steps stay when a later one fails; "keys/current" changes last.
    /// Deliberate (set-up-keeps-steps): a repeated set-up continues from there, and the old key signs until the end.
    void Reconfigure();

private:
    [[nodiscard]] kvx::JoinedPath pathOf(TbString const& file) const;
    [[nodiscard]] TbString endpoint(std::int32_t codeWhenMissing, long line);
    xmlElementPtr request(TbString const& msgType);
    void composeUrl(TbString const& baseUrl, TbStringStream const& message, TbString const& signature, TbString& url);
    xmlElementPtr exchangeUnsigned(TbString const& url, xmlElementPtr const& request, TbString const& expectedType,
                                   TbStringStream& responseText);
    xmlElementPtr exchange(TbString const& baseUrl, TbStringStream& message, TbString const& signature,
                           TbString const& expectedType, TbStringStream& responseText);
    /// A response of the set-up.
    struct Fetched {
        TbStringStream m_Text;
        xmlElementPtr m_Response;  ///< `m_Text`, parsed.
    };
    Fetched fetchConfiguration();
    Fetched fetchDefaults();
    Fetched fetchKey(TbString& keyId);
    void storeDefaults(Fetched const& fetched);
    void storeKey(TbString const& keyId, Fetched const& fetched);
    void replaceAccount(bool hasDefaults);
    void replaceAccountAtOnce(bool hasDefaults);
    void replaceFile(TbString const& file, TbString const& content, KVX_Settings const& settings);
    KvxReadResult tryReadFile(TbString const& file, TbString& content);
    void requireRead(KvxReadResult result, TbString const& file);
    bool readOptionalFile(TbString const& file, TbString& content);
    bool readKeyFile(TbString const& file, TbString const& keyId, TbString& content);
    bool findValue(TbString const& file, TbString const& content, TbString const& name, TbString& value);
    KVX_Settings settingsForExchange();
    KVX_Settings settingsForVerification();
    KVX_Settings settingsForLocalWork();
    void requireVerified(KVX_Settings const& settings, TbString const& data, TbString const& keyId,
                         TbString const& signature);
    void requireAcceptable(TbString const& keyBlob);
    bool hasPrivateKey(TbString const& keyId);
    TbString newKeyId(TbString const& customerId);
    friend class KVX_Message;
    friend class KvxPaymentDefaults;

    static constexpr std::uint16_t kPathRoom = 64;

    TbCountedMembers<4> m_Strings;
    TbUncountedString m_UserName;                 ///< Option "UserName".
    TbUncountedString m_Password;                 ///< Option "Password".
    TbUncountedString m_AutoUrl;                  ///< Option "VTAUTOURL".
    TbUncountedString m_Path;                     ///< As given; empty while not open.
    [[maybe_unused]] char m_PathText[kPathRoom];  ///< Behind m_Path, which keeps a text that fits here.
};

/// One payment message: a "KVX" element bound to the context that signs or verifies it.
///
/// The context is borrowed and must outlive the message. One thread at a time.
class KVX_EXPORT KVX_Message {
public:
    KVX_Message() : KVX_Message(nullptr) {}

    /// An empty message that is bound to `context` from the start.
    explicit KVX_Message(KVX_Context* context);

    KVX_Message(KVX_Message const&) = delete;
    KVX_Message& operator=(KVX_Message const&) = delete;
    ~KVX_Message() = default;

    /// Starts an outgoing message of `msgType`, signed later with the key that "keys/current" names now.
    void Create(KVX_Context* context, TbString const& msgType);

    /// Takes an incoming message over after its signature has been verified over `data` exactly as received.
    ///
    /// KVX_E_INVALID_FORMAT, then KVX_E_MISSING_SIGNATURE, KVX_E_NO_KEY_ID, then the codes of VerifyData.
    /// Deliberate (any-type-any-key): a message of ANY type and by ANY key of the directory is accepted, the merchant's
    /// own messages included: callers check "MSGTYPE", "TOKEN" and the amount themselves.
    void Open(KVX_Context* context, TbString const& data, TbString const& signature);

    /// Sets or replaces an attribute. KVX_E_UNEXPECTED before Create or Open.
    void SetAttribute(TbString const& name, TbString const& value);

    /// Reads an attribute. KVX_E_UNEXPECTED before Create or Open, KVX_E_NOT_FOUND.
    void GetAttribute(TbString const& name, TbString& value);

    /// The signed payment URL. Sends nothing. KVX_E_UNEXPECTED, KVX_E_NO_CONFIGURATION, the codes of SignData.
    void GetURL(TbString& url);

    /// Sends the message to the capture address and requires a "PayConfirm" response.
    /// Deliberate (token-without-value, response-unsigned): an empty "TOKEN" is enough, and the response is believed
    /// without a signature.
    void Capture();

    /// Sends the message as type T + "Request"; `response` receives the response of type T + "Response".
    /// Deliberate (request-keeps-type): this message's type stays changed, so a second call sends T + "RequestRequest".
    void Request(KVX_Message& response);

    /// The message as text. False without an element.
    [[nodiscard]] bool ToString(TbString& text) const;

    /// Replaces the element by the parsed `text` and sets "KEYID" to the key identifier held. The old element is
    /// dropped first, so a failure leaves none.
    void FromString(TbString const& text);

private:
    KVX_Context& boundContext() const;
    void requireElement(long line) const;
    void requireConfigured(TbString const& name, long line, TbString& value) const;
    xmlElementPtr sendSigned(TbString const& captureUrl, TbStringStream& text, TbString const& expectedType);

    static constexpr std::uint16_t kKeyIdRoom = 64;

    xmlElementPtr m_Element;  ///< Empty until Create or Open succeeds.
    KVX_Context* m_Context;   ///< Borrowed.
    /// The signing key; filled by Create alone. Deliberate (key-of-creation, only-opened-cannot-sign): neither Open nor
    /// the attribute "KEYID" changes it.
    TbString m_KeyId;
    [[maybe_unused]] char m_KeyIdText[kKeyIdRoom];  ///< Behind m_KeyId, which keeps a text that fits here.
};

#endif
