// Documents, values and files of the configuration directory.

#include "core/kvxctx.h"
#include "core/kvxfile.h"
#include "core/kvxlines.h"
#include "foundation/tbsystem.h"
#include "xml/xmlparser.h"
#include "xml/xmlquery.h"

namespace {

constexpr char kRootTag[] = "KVX";
constexpr char kPrivateKeys[] = "keys/private/";
constexpr mode_t kFileMode = 0666;
constexpr mode_t kPrivateFileMode = 0600;

/// Private keys are nobody else's from their first instant.
mode_t modeOfNew(TbString const& file) {
    return file.find(kPrivateKeys) == 0 ? kPrivateFileMode : kFileMode;
}

xmlElementPtr newElement(TbString const& tag) {
    xmlElement* element = nullptr;
    xmlParser().createElement(tag, &element);
    xmlElementPtr holder;
    holder.adopt(element);
    return holder;
}

/// The result of `query`; false when the file it reads does not exist. Every other failure passes.
template <class Query>
bool orAbsent(Query query) {
    try {
        return query();
    } catch (KVX_Exception const& failure) {
        if (failure.code() != KVX_E_CANNOT_OPEN) {
            throw;
        }
        return false;
    }
}

/// Hands the holder's element to a caller, with a reference of its own.
void handOut(xmlElementPtr const& holder, xmlElement** out) {
    holder->addRef();
    *out = holder.get();
}

}  // namespace

void KVX_Context::XmlFromStream(TbStringStream& in, xmlElement** out) {
    xmlElement* parsed = nullptr;
    if (xmlParser().parseText(in, &parsed) != 0) {
        throw KVX_Exception(KVX_E_INVALID_FORMAT, "", kvx::kSourceCtx, kvx::kLineParse);
    }
    xmlElementPtr document;
    document.adopt(parsed);
    if (!document->getChild(kRootTag, 0, out)) {
        throw KVX_Exception(KVX_E_INVALID_FORMAT, "", kvx::kSourceCtx, kvx::kLineNoKvxElement);
    }
}

void KVX_Context::XmlFromString(TbString const& text, xmlElement** out) {
    TbStringStream stream(text);
    XmlFromStream(stream, out);
}

std::int32_t KVX_Context::XmlCreateRequest(TbString const& msgType, xmlElement** out) {
    xmlElementPtr const request = newElement(kRootTag);
    request->setAttribute("MSGTYPE", msgType);
    handOut(request, out);
    return 0;
}

void KVX_Context::readFile(TbString const& file, TbStringStream& content) {
    if (m_Path.isEmpty()) {
        throw KVX_Exception(KVX_E_NO_CONTEXT, "", kvx::kSourceCtx, kvx::kLineQueryNoContext);
    }
    StreamFromURL(pathOf(file), content);
}

bool KVX_Context::readFileOrAbsent(TbString const& file, TbStringStream& content) {
    return orAbsent([&] {
        readFile(file, content);
        return true;
    });
}

bool KVX_Context::QueryValue(TbString const& file, TbString const& name, TbString& value) {
    TbStringStream content;
    readFile(file, content);
    if (name.isEmpty()) {
        value = content.str();
        return true;
    }
    xmlElement* parsed = nullptr;
    XmlFromStream(content, &parsed);
    xmlElementPtr root;
    root.adopt(parsed);
    return xmlGetAttributeEx(root.get(), name, value) && !value.isEmpty();
}

bool KVX_Context::QueryValueOrAbsent(TbString const& file, TbString const& name, TbString& value) {
    return orAbsent([&] { return QueryValue(file, name, value); });
}

bool KVX_Context::QueryValue(TbString const& file, unsigned char* buffer, unsigned long* size) {
    if (m_Path.isEmpty()) {
        throw KVX_Exception(KVX_E_NO_CONTEXT, "", kvx::kSourceCtx, kvx::kLineRawQueryNoContext);
    }
    KvxDescriptor const input(kvxOpenForReading(pathOf(file).c_str()));
    if (!input.isOpen()) {
        return false;
    }
    ssize_t const count = kvxReadUpTo(input.get(), buffer, *size);
    if (count < 0) {
        throw KVX_Exception(KVX_E_FILE_IO, "", kvx::kSourceCtx, kvx::kLineRawQueryRead);
    }
    *size = static_cast<unsigned long>(count);
    return true;
}

void KVX_Context::SetValue(TbString const& file, TbString const& name, TbString const& value, bool create) {
    TbString text;
    QueryValue(file, "", text);
    xmlElementPtr root;
    try {
        xmlElement* parsed = nullptr;
        XmlFromString(text, &parsed);
        root.adopt(parsed);
    } catch (KVX_Exception const& failure) {
        if (!create || failure.code() != KVX_E_INVALID_FORMAT) {
            throw;
        }
        root = newElement(kRootTag);
    }
    // Deliberate: a name that leads nowhere is not reported, and the file is rewritten all the same.
    xmlSetAttributeEx(root.get(), name, value);
    TbStringStream out;
    root->toStream(out);
    UpdateFile(file, out.str());
}

void KVX_Context::replaceFile(TbString const& file, TbString const& content) {
    switch (kvxReplaceFile(pathOf(file).c_str(), content.c_str(), content.length(), modeOfNew(file))) {
        case KvxWriteResult::kCannotOpen:
            throw KVX_Exception(KVX_E_FILE_NOT_FOUND, "", kvx::kSourceCtx, kvx::kLineUpdateOpen);
        case KvxWriteResult::kCannotWrite:
            throw KVX_Exception(KVX_E_FILE_IO, "", kvx::kSourceCtx, kvx::kLineUpdateWrite);
        case KvxWriteResult::kDone:
            break;
    }
}

void KVX_Context::UpdateFile(TbString const& file, TbString const& content) {
    if (m_Path.isEmpty()) {
        throw KVX_Exception(KVX_E_NO_CONTEXT, "", kvx::kSourceCtx, kvx::kLineUpdateNoContext);
    }
    replaceFile(file, content);
    KVX_TraceLog::Write(kvx::kSourceCtx, kvx::kLineUpdateTrace, KVX_OK, "UPDATE", pathOf(file));
}

void KVX_Context::UpdateFile(TbString const& file, unsigned char* buffer, unsigned long length) {
    if (m_Path.isEmpty()) {
        throw KVX_Exception(KVX_E_NO_CONTEXT, "", kvx::kSourceCtx, kvx::kLineUpdateRawNoContext);
    }
    TbString const path = pathOf(file);
    KvxDescriptor output(tbRetryInterrupted(
        [&] { return tbSystem().open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, modeOfNew(file)); }));
    if (!output.isOpen()) {
        throw KVX_Exception(KVX_E_FILE_NOT_FOUND, "", kvx::kSourceCtx, kvx::kLineUpdateRawOpen);
    }
    // Deliberate: the buffer counts as one item, and one is compared with the length; so every longer write is reported
    // as a failure after its data has reached the file, which is left open.
    unsigned long const written = length > 0 && kvxWriteAll(output.get(), buffer, length) ? 1 : 0;
    if (written != length) {
        output.release();
        throw KVX_Exception(KVX_E_FILE_IO, "", kvx::kSourceCtx, kvx::kLineUpdateRawWrite);
    }
    output.close();
    LogMessage("UPDATE: " + path);
}
