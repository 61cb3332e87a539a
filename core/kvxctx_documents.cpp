// Documents, values and files of the configuration directory.
//
// A file is absent only where the system says so; one that is there and cannot be opened ends the call. A directory
// whose path reads like a URL is refused by text reads; raw reads and all writes use local files only. Text is written
// by replacing the whole file (core/kvxfile.h), bytes in place. Odd: the binary UpdateFile reports every write of two
// or more bytes as a failure, and a value without a place in the document is not reported at all.

#include <strings.h>

#include <cerrno>
#include <cstring>

#include "core/kvxctx.h"
#include "core/kvxctx_checks.h"
#include "core/kvxctx_settings.h"
#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "core/kvxfile.h"
#include "core/kvxidentifier.h"
#include "core/kvxlines_core.h"
#include "foundation/tbsystem.h"
#include "net/kvxurl.h"
#include "xml/xmlaccess.h"
#include "xml/xmlholder.h"
#include "xml/xmlparser.h"
#include "xml/xmlquery.h"
#include "xml/xmltop.h"

namespace {

constexpr char kRootTag[] = "KVX";

// What the attributes of a usual message need.
constexpr std::uint32_t kUsualAttributes = 20;
constexpr std::uint16_t kUsualBytes = 1024;

/// Why `text` is no document: what the parser says, 0 when there is no "KVX" element. Of the text itself only its kind
/// is shown.
KvxCause textCause(TbString const& text, int result) {
    constexpr char const* kWords[] = {
        "it has no KVX element",       "a character stands where none of its kind may stand",    "it breaks off",
        "an end tag has no start tag", "it is larger or deeper than MAXXML and MAXDEPTH permit",
    };
    char const* const begin = text.c_str() + std::strspn(text.c_str(), " \t\r\n");
    bool const isPage = ::strncasecmp(begin, "<!doctype html", 14) == 0 || ::strncasecmp(begin, "<html", 5) == 0;
    KvxCause cause;
    if (text.isEmpty()) {
        cause.put("the text is empty");
    } else if (isPage) {
        cause.put("the text is an HTML page");
    } else {
        cause.put("the text of ").put(static_cast<long>(text.length())).put(" bytes is no document: ");
        cause.put(kWords[result]);
    }
    return cause;
}

/// Why `file` of the directory cannot be written.
KvxCause notWritable(TbString const& directory, TbString const& file, int error) {
    KvxCause cause;
    cause.put(directory).put("/").put(file.c_str()).put(": cannot be written: ").putSystem(error);
    return cause;
}

xmlHolder newRequest(TbString const& msgType) {
    xmlHolder document = kvxNewDocument();
    document->setAttribute(TbBorrowed("MSGTYPE"), msgType);
    return document;
}

/// New private keys are created readable by their owner alone, unless the merchant asks for another mode.
KvxWriteOptions optionsOf(KVX_Settings const& settings, TbString const& file) {
    KvxWriteOptions options;
    options.m_Syncs = settings.m_SyncsFiles;
    if (kvx::isPrivateKeyFile(file)) {
        options.m_Mode = settings.m_KeyMode;
        options.m_IsExact = settings.m_KeyMode != KVX_Settings().m_KeyMode;
    }
    return options;
}

}  // namespace

xmlHolder kvxParseDocument(TbStringStream& in, xmlLimits const& limits, TbString const& file) {
    xmlTop document;
    if (int const result = xmlParseWithin(limits, in, document); result != 0) {
        kvx::kSourceCtx.failBecause(textCause(in, result), KVX_E_INVALID_FORMAT, kvx::kLineParse, file);
    }
    xmlElement* root = nullptr;
    if (!document.getChild(TbBorrowed(kRootTag), 0, &root)) {
        kvx::kSourceCtx.failBecause(textCause(in, 0), KVX_E_INVALID_FORMAT, kvx::kLineNoKvxElement, file);
    }
    return xmlHolder(root);
}

xmlHolder kvxParseDocument(TbString const& text, xmlLimits const& limits, TbString const& file) {
    TbBorrowedStream stream(text);
    return kvxParseDocument(stream, limits, file);
}

xmlHolder kvxNewDocument() {
    return xmlHold(xmlAccess::create({kRootTag, sizeof kRootTag - 1}, kUsualAttributes, kUsualBytes));
}

void KVX_Context::XmlFromStream(TbStringStream& in, xmlElement** out) {
    xmlHandOut(kvxParseDocument(in, settingsForLocalWork().m_Documents), out);
}

void KVX_Context::XmlFromString(TbString const& text, xmlElement** out) {
    xmlHandOut(kvxParseDocument(text, settingsForLocalWork().m_Documents), out);
}

xmlElementPtr KVX_Context::request(TbString const& msgType) {
    return xmlAdopt(newRequest(msgType).release());
}

std::int32_t KVX_Context::XmlCreateRequest(TbString const& msgType, xmlElement** out) {
    xmlHandOut(newRequest(msgType), out);
    return 0;
}

KvxReadResult KVX_Context::tryReadFile(TbString const& file, TbString& content) {
    if (m_Path.isEmpty()) {
        kvx::kSourceCtx.fail(KVX_E_NO_CONTEXT, kvx::kLineQueryNoContext);
    }
    content.keepSecret();  // it may be a private key, or an address with credentials
    kvx::JoinedPath const path = pathOf(file);
    if (IsHttp(path)) {
        TbStringStream nothing;
        StreamFromURL(path, nothing);  // refuses a directory whose path reads like a URL
    }
    return kvxReadFile(path.c_str(), content);
}

// The text names a file that is there and cannot be opened, so that a merchant sees which one to mend. A missing file
// and a directory that a caller asks for keep the published text.
void KVX_Context::requireRead(KvxReadResult result, TbString const& file) {
    switch (result) {
        case KvxReadResult::kDone:
            return;
        case KvxReadResult::kCannotRead:
            kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, file, errno), KVX_E_FILE_IO, kvx::kLineReadFile, file);
        case KvxReadResult::kCannotOpen:
            kvx::kSourceUrl.failBecause(kvxFileCause(m_Path, file, errno), KVX_E_CANNOT_OPEN, kvx::kLineOpenFile, file);
        default: {
            KvxCause cause = kvxFileCause(m_Path, file, errno);
            if (result == KvxReadResult::kAbsent && kvxIsWord(file, kvx::kCurrentKeyFile)) {
                cause.put(" (the directory has not been set up)");
            }
            kvx::kSourceUrl.failBecause(cause, KVX_E_CANNOT_OPEN, kvx::kLineOpenFile);
        }
    }
}

// Without the defaults or the settings a payment goes out with other terms, or past the proxy: a file that is there
// must be read, or the call ends.
bool KVX_Context::readOptionalFile(TbString const& file, TbString& content) {
    KvxReadResult const result = tryReadFile(file, content);
    if (result == KvxReadResult::kAbsent) {
        kvx::kSourceUrl.traceFailure(KVX_E_CANNOT_OPEN, kvx::kLineOpenFile);
        return false;
    }
    if (result == KvxReadResult::kCannotRead) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, file, errno), KVX_E_CANNOT_OPEN, kvx::kLineReadFile, file);
    }
    if (result != KvxReadResult::kDone) {
        kvx::kSourceUrl.failBecause(kvxFileCause(m_Path, file, errno), KVX_E_CANNOT_OPEN, kvx::kLineOpenFile, file);
    }
    return true;
}

// Shoppers and servers choose key ids. One that no file can have is the id of no key, and is reported like every other
// unknown one.
bool KVX_Context::readKeyFile(TbString const& file, TbString const& keyId, TbString& content) {
    KvxReadResult const result = tryReadFile(file, content);
    if (result == KvxReadResult::kAbsent || result == KvxReadResult::kNameTooLong ||
        (result == KvxReadResult::kDirectory && kvxNamesDirectory(keyId))) {
        kvx::kSourceUrl.traceFailure(KVX_E_CANNOT_OPEN, kvx::kLineOpenFile);
        return false;
    }
    requireRead(result, file);
    return true;
}

/// The value `name` in the `content` of `file`, all of it for an empty name. False when there is none.
bool KVX_Context::findValue(TbString const& file, TbString const& content, TbString const& name, TbString& value) {
    if (name.isEmpty()) {
        value = content;
        return true;
    }
    xmlHolder const root = kvxParseDocument(content, settingsForLocalWork().m_Documents, file);
    return xmlGetAttributeEx(root.get(), name, value) && !value.isEmpty();
}

bool KVX_Context::QueryValue(TbString const& file, TbString const& name, TbString& value) {
    KvxFileText content;
    requireRead(tryReadFile(file, content), file);
    return findValue(file, content, name, value);
}

bool KVX_Context::QueryValueOrAbsent(TbString const& file, TbString const& name, TbString& value) {
    KvxFileText content;
    return readOptionalFile(file, content) && findValue(file, content, name, value);
}

bool KVX_Context::QueryValue(TbString const& file, unsigned char* buffer, unsigned long* size) {
    if (m_Path.isEmpty()) {
        kvx::kSourceCtx.fail(KVX_E_NO_CONTEXT, kvx::kLineRawQueryNoContext);
    }
    KvxDescriptor const input(kvxOpenForReading(pathOf(file).c_str()));
    if (!input.isOpen()) {
        return false;
    }
    ssize_t const count = kvxReadUpTo(input.get(), buffer, *size);
    if (count < 0) {
        kvx::kSourceCtx.failBecause(kvxFileCause(m_Path, file, errno), KVX_E_FILE_IO, kvx::kLineRawQueryRead);
    }
    *size = static_cast<unsigned long>(count);
    return true;
}

void KVX_Context::SetValue(TbString const& file, TbString const& name, TbString const& value, bool create) {
    TbString text;
    QueryValue(file, "", text);
    KVX_Settings const settings = settingsForLocalWork();
    if (settings.m_HasStrictNames && !kvxIsReadableName(name)) {
        kvx::kSourceCtx.failBecause(kvxNameCause(name), KVX_E_INVALID_OPTION, kvx::kLineSetValueName);
    }
    xmlHolder root;
    try {
        root = kvxParseDocument(text, settings.m_Documents, create ? TbString() : file);
    } catch (KVX_Exception const&) {  // the text is no document
        if (!create) {
            throw;
        }
        root = kvxNewDocument();
    }
    // Deliberate (set-value-rewrites): a name without a place in the document is not reported, and the file is
    // rewritten all the same.
    xmlSetAttributeEx(root.get(), name, value);
    TbStringStream out;
    root->toStream(out);
    UpdateFile(file, out.str());
}

void KVX_Context::replaceFile(TbString const& file, TbString const& content, KVX_Settings const& settings) {
    switch (kvxReplaceFile(pathOf(file).c_str(), content.c_str(), content.length(), optionsOf(settings, file))) {
        case KvxWriteResult::kCannotOpen:
            kvx::kSourceCtx.failBecause(notWritable(m_Path, file, errno), KVX_E_FILE_NOT_FOUND, kvx::kLineUpdateOpen);
        case KvxWriteResult::kCannotWrite:
            kvx::kSourceCtx.failBecause(notWritable(m_Path, file, errno), KVX_E_FILE_IO, kvx::kLineUpdateWrite);
        case KvxWriteResult::kDone:
            break;
    }
}

void KVX_Context::UpdateFile(TbString const& file, TbString const& content) {
    if (m_Path.isEmpty()) {
        kvx::kSourceCtx.fail(KVX_E_NO_CONTEXT, kvx::kLineUpdateNoContext);
    }
    replaceFile(file, content, settingsForLocalWork());
    kvx::kSourceCtx.trace(kvx::kLineUpdateTrace, "UPDATE", pathOf(file));
}

void KVX_Context::UpdateFile(TbString const& file, unsigned char* buffer, unsigned long length) {
    if (m_Path.isEmpty()) {
        kvx::kSourceCtx.fail(KVX_E_NO_CONTEXT, kvx::kLineUpdateRawNoContext);
    }
    kvx::JoinedPath const path = pathOf(file);
    mode_t const mode = optionsOf(KVX_Settings(), file).m_Mode;
    KvxDescriptor output(tbRetryInterrupted(
        [&] { return tbSystem().open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode); }));
    if (!output.isOpen()) {
        kvx::kSourceCtx.failBecause(notWritable(m_Path, file, errno), KVX_E_FILE_NOT_FOUND, kvx::kLineUpdateRawOpen);
    }
    // Deliberate (raw-write-fails): the buffer counts as one item, and one is compared with the length; so every longer
    // write is reported as a failure after its data has reached the file, which is left open.
    unsigned long const written = length > 0 && kvxWriteAll(output.get(), buffer, length) ? 1 : 0;
    if (written != length) {
        output.release();
        kvx::kSourceCtx.fail(KVX_E_FILE_IO, kvx::kLineUpdateRawWrite);
    }
    output.close();
}
