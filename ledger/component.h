/// The payment component, through its flat functions: messages and one account's configuration directory.
#ifndef TALLOWIN_LEDGER_COMPONENT_H
#define TALLOWIN_LEDGER_COMPONENT_H

#include <cstdint>
#include <optional>
#include <string>

#include "tallowin/tallowin.h"

namespace ledger {

/// What a function of the component returned, with its reason in words when it failed.
struct Result {
    std::int32_t m_Code = KVX_OK;
    std::string m_Reason;
};

/// The result `code` of `function`, with the reason that the component has for it now.
Result resultOf(char const* function, std::int32_t code);

/// Throws Failure unless `code` is KVX_OK.
void require(char const* function, std::int32_t code);

/// Calls a function that copies a text, again when the room that is enough for most was not: asking for a size costs as
/// much as the text. Throws Failure; with KVX_E_NOT_FOUND nothing is returned.
template <class Copy>
std::optional<std::string> copiedText(char const* function, Copy copy) {
    constexpr std::size_t kUsual = 4096;
    char usual[kUsual];
    auto size = static_cast<std::int32_t>(sizeof usual);
    std::int32_t code = copy(&size, usual);
    if (code == KVX_OK) {
        return std::string(usual, static_cast<std::size_t>(size) - 1);
    }
    std::string text;
    while (code == KVX_E_BUFFER_TOO_SMALL) {
        text.resize(static_cast<std::size_t>(size));
        code = copy(&size, text.data());
    }
    if (code == KVX_E_NOT_FOUND) {
        return std::nullopt;
    }
    require(function, code);
    text.resize(static_cast<std::size_t>(size) - 1);
    return text;
}

/// A handle of the component, destroyed at the end of its life. Throws std::bad_alloc when there is none.
template <void (*Destroy)(KVX_HANDLE)>
class Handle {
public:
    explicit Handle(KVX_HANDLE handle);
    Handle(Handle&& other) noexcept : m_Handle(other.m_Handle) { other.m_Handle = nullptr; }
    Handle(Handle const&) = delete;
    Handle& operator=(Handle const&) = delete;
    Handle& operator=(Handle&&) = delete;
    ~Handle() { Destroy(m_Handle); }

    [[nodiscard]] KVX_HANDLE get() const { return m_Handle; }

private:
    KVX_HANDLE m_Handle;
};

using SetupHandle = Handle<DestroyConfigurationSetup>;

/// A new configuration setup on `directory`: an older one would return what it has read before. Throws Failure.
SetupHandle openedSetup(std::string const& directory);

/// A message. Every function but the exchanges throws Failure.
class Message {
public:
    explicit Message(KVX_HANDLE handle) : m_Handle(handle) {}

    [[nodiscard]] std::optional<std::string> find(char const* name) const;

    /// The attribute; "" when there is none.
    [[nodiscard]] std::string get(char const* name) const { return find(name).value_or(""); }
    void set(char const* name, std::string const& value) const;
    [[nodiscard]] std::string url() const;
    [[nodiscard]] std::string text() const;

    /// The exchanges. They return failures.
    [[nodiscard]] Result capture() const;
    [[nodiscard]] Result execute(std::optional<Message>& response) const;

private:
    Handle<DestroyMessageObject> m_Handle;
};

/// A merchant account: the messages and values of one configuration directory.
class Account {
public:
    /// Throws Failure when the directory has not been set up; it is not created.
    explicit Account(std::string const& directory);

    [[nodiscard]] std::string const& directory() const { return m_Directory; }

    [[nodiscard]] Message createPayment() const;
    [[nodiscard]] Message createCompletion(std::string const& id, std::string const& token) const;
    [[nodiscard]] Message createRequest(std::string const& type) const;

    /// A message of this merchant with the content of `text`. Nothing when `text` is no message.
    [[nodiscard]] std::optional<Message> filled(std::string const& text) const;

    /// Verifies a confirmation; `verified` is set on success only.
    Result verify(std::string const& data, std::string const& signature, std::optional<Message>& verified) const;

    /// The value `name` of `file` as it is now, all of the file for an empty name; nothing when there is no such file
    /// or value.
    [[nodiscard]] std::optional<std::string> value(std::string const& file, char const* name) const;

    /// Whether "settings.xml" is the document that the component cannot read.
    [[nodiscard]] bool hasBrokenSettings() const;

private:
    std::string m_Directory;
    Handle<DestroyMessageFactory> m_Factory;
};

}  // namespace ledger

#endif
