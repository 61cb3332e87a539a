/// The library's handles as C++ objects, and its two-step copying of texts as one call.
#ifndef TALLOWIN_EXAMPLES_COMMON_LIBRARYHANDLE_H
#define TALLOWIN_EXAMPLES_COMMON_LIBRARYHANDLE_H

#include <tallowin/tallowin.h>

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace examples {

/// Owns a handle of the library and destroys it with `destroy`.
template <void (*destroy)(KVX_HANDLE)>
class LibraryHandle {
public:
    explicit LibraryHandle(KVX_HANDLE handle = nullptr) : m_Handle(handle) {}
    ~LibraryHandle() { destroy(m_Handle); }
    LibraryHandle(LibraryHandle const&) = delete;
    LibraryHandle& operator=(LibraryHandle const&) = delete;

    [[nodiscard]] KVX_HANDLE get() const { return m_Handle; }

    /// The place for an output parameter of the library. Requires: get() is null.
    [[nodiscard]] KVX_HANDLE* out() { return &m_Handle; }

private:
    KVX_HANDLE m_Handle;  ///< Owned; may be null.
};

using SetupHandle = LibraryHandle<DestroyConfigurationSetup>;
using FactoryHandle = LibraryHandle<DestroyMessageFactory>;
using MessageHandle = LibraryHandle<DestroyMessageObject>;

/// A text that the library copied, or the result code of its failure.
struct CopiedText {
    std::int32_t m_Code = KVX_OK;
    std::string m_Text;
};

/// Calls `copyOut(size, buffer)` twice: for the size of the text, then for the text.
template <class CopyOut>
CopiedText copiedText(CopyOut copyOut) {
    std::int32_t size = 0;
    std::int32_t const asked = copyOut(&size, nullptr);
    if (asked != KVX_E_BUFFER_TOO_SMALL) {
        return {asked, ""};
    }
    std::string text(static_cast<std::size_t>(size), '\0');
    std::int32_t const code = copyOut(&size, text.data());
    text.pop_back();
    return {code, text};
}

inline CopiedText attributeOf(MessageHandle const& message, char const* name) {
    return copiedText([&](std::int32_t* size, char* buffer) {
        return MessageObject_GetAttribute(message.get(), name, size, buffer);
    });
}

inline CopiedText urlOf(MessageHandle const& message) {
    return copiedText(
        [&](std::int32_t* size, char* buffer) { return MessageObject_GetURL(message.get(), size, buffer); });
}

/// The message as text. Throws std::runtime_error when the object has no message.
inline std::string messageText(MessageHandle const& message) {
    CopiedText const copied = copiedText(
        [&](std::int32_t* size, char* buffer) { return MessageObject_ToString(message.get(), size, buffer); });
    if (copied.m_Code != KVX_OK) {
        throw std::runtime_error("the object has no message");
    }
    return copied.m_Text;
}

}  // namespace examples

#endif
