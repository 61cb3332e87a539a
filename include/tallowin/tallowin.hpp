/// The flat functions as C++17 classes: handles that close themselves, texts as strings, failures as exceptions.
///
/// Header only, over tallowin.h alone: a program that uses it runs with every release that has the same first number,
/// unlike one that uses the library's own classes.
///
/// Objects move and do not copy. One thread at a time uses an object; different threads may use different objects at
/// the same time. A moved-from or closed object fails with KVX_E_BAD_HANDLE. Texts are bytes; one with a zero byte is
/// refused (std::invalid_argument), because the library would see a part of it. Copies of arguments are wiped.
#ifndef TALLOWIN_TALLOWIN_HPP
#define TALLOWIN_TALLOWIN_HPP

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "tallowin.h"

namespace tallowin {

/// The base of all exceptions of this header.
class Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A flat function failed.
class ResultError : public Error {
public:
    /// Describes the failure `code` that `function` just returned on this thread.
    ResultError(char const* function, std::int32_t code)
        : ResultError(function, code, lastReason(&KVX_GetLastErrorText, code)) {}

    /// The result code. A small positive number is the system's errno.
    std::int32_t code() const noexcept { return m_Code; }

    /// The name of the code, such as "KVX_E_SERVER_ERROR".
    char const* name() const noexcept { return KVX_GetErrorName(m_Code); }

    /// What the library says about this failure.
    std::string const& reason() const noexcept { return *m_Reason; }

    /// The name of the function.
    char const* function() const noexcept { return m_Function; }

    /// The status of a refused HTTP exchange, such as 503; 0 for other failures.
    int httpStatus() const noexcept {
        constexpr std::uint32_t kNumber = 0xFFF;
        constexpr std::uint32_t kMinStatus = 100;  // the HTTP layer's own codes are below
        auto const bits = static_cast<std::uint32_t>(m_Code);
        bool const isHttp = (bits & ~kNumber) == static_cast<std::uint32_t>(KVX_E_HTTP_FAMILY);
        return isHttp && (bits & kNumber) >= kMinStatus ? static_cast<int>(bits & kNumber) : 0;
    }

protected:
    ResultError(char const* function, std::int32_t code, std::string reason)
        : Error(std::string(function) + ": " + reason + " (" + KVX_GetErrorName(code) + ", " + hexadecimal(code) + ")"),
          m_Function(function),
          m_Code(code),
          m_Reason(std::make_shared<std::string const>(std::move(reason))) {}

    /// What `read` says about this thread's last failure; the name of `code` when memory is exhausted there.
    static std::string lastReason(std::int32_t (*read)(std::int32_t*, char*), std::int32_t code) {
        std::string text(512, '\0');
        for (;;) {
            auto size = static_cast<std::int32_t>(text.size());
            std::int32_t const result = read(&size, text.data());
            if (result == KVX_OK) {
                text.resize(static_cast<std::size_t>(size) - 1);
                return text;
            }
            if (result != KVX_E_BUFFER_TOO_SMALL || static_cast<std::size_t>(size) <= text.size()) {
                return KVX_GetErrorName(code);
            }
            text.resize(static_cast<std::size_t>(size));
        }
    }

private:
    static std::string hexadecimal(std::int32_t code) {
        std::string digits = "0x";
        for (int shift = 28; shift >= 0; shift -= 4) {
            digits += "0123456789ABCDEF"[(static_cast<std::uint32_t>(code) >> shift) & 0xFU];
        }
        return digits;
    }

    char const* m_Function;                       ///< A literal.
    std::int32_t m_Code;                          ///< Never KVX_OK.
    std::shared_ptr<std::string const> m_Reason;  ///< Never null; shared, so that copying an exception cannot fail.
};

/// An attribute of a message is not what it must be.
class MismatchError : public Error {
public:
    MismatchError(std::string_view name, std::string_view wanted, std::optional<std::string> const& found)
        : Error(std::string(name) + " is " + (found ? '"' + *found + '"' : "missing") + ", not \"" +
                std::string(wanted) + '"') {}
};

/// The version of the library in use.
inline std::string_view version() noexcept {
    return KVX_GetVersion();
}

namespace detail {

/// A NUL-terminated copy of an argument, wiped at its end: it may be a password.
class Terminated {
public:
    explicit Terminated(std::string_view text) : m_Text(withoutZeroByte(text)) {}
    Terminated(Terminated const&) = delete;
    Terminated& operator=(Terminated const&) = delete;
    ~Terminated() {
        for (char volatile& byte : m_Text) {
            byte = '\0';
        }
    }

    char const* get() const noexcept { return m_Text.c_str(); }

private:
    /// Before anything is copied: a constructor that throws leaves its copy to no destructor.
    static std::string_view withoutZeroByte(std::string_view text) {
        return text.find('\0') == std::string_view::npos ? text
                                                         : throw std::invalid_argument("a text holds a zero byte");
    }

    std::string m_Text;
};

/// Destroys a handle.
template <void (*Destroy)(KVX_HANDLE)>
struct Destroyer {
    void operator()(void* handle) const noexcept { Destroy(handle); }
};

/// An owned handle; null when moved from or closed.
template <void (*Destroy)(KVX_HANDLE)>
using Handle = std::unique_ptr<void, Destroyer<Destroy>>;

template <typename Failure = ResultError>
void check(char const* function, std::int32_t code) {
    if (code != KVX_OK) {
        throw Failure(function, code);
    }
}

inline KVX_HANDLE created(KVX_HANDLE handle) {
    return handle != nullptr ? handle : throw std::bad_alloc();
}

/// The text that `copy(size, buffer)` hands out. `room` is the first size to try.
template <typename Failure = ResultError, typename Copy>
std::string copied(char const* function, std::size_t room, Copy const& copy) {
    std::string text(room, '\0');
    for (;;) {
        auto size = static_cast<std::int32_t>(text.size());
        std::int32_t const code = copy(&size, text.data());
        if (code == KVX_OK) {
            text.resize(static_cast<std::size_t>(size) - 1);
            return text;
        }
        if (code != KVX_E_BUFFER_TOO_SMALL || static_cast<std::size_t>(size) <= text.size()) {
            throw Failure(function, code);
        }
        text.resize(static_cast<std::size_t>(size));
    }
}

constexpr std::size_t kAttributeRoom = 512;
constexpr std::size_t kMessageRoom = 8192;

}  // namespace detail

/// One message.
class MessageObject {
public:
    /// A message bound to a configuration directory; of type ERROR until fromString() fills it.
    explicit MessageObject(std::string_view directory) : m_Handle(detail::created(CreateMessageObject())) {
        detail::Terminated const path(directory);
        detail::check("MessageObject_Open", MessageObject_Open(m_Handle.get(), path.get()));
    }

    /// Takes over a handle that a flat function returned. Requires: it is no one else's.
    static MessageObject adopt(KVX_HANDLE handle) noexcept { return MessageObject(Holder(handle)); }

    /// Sets or replaces an attribute. Never take `name` from a shopper.
    void setAttribute(std::string_view name, std::string_view value) {
        detail::Terminated const key(name);
        detail::Terminated const text(value);
        detail::check("MessageObject_SetAttribute", MessageObject_SetAttribute(m_Handle.get(), key.get(), text.get()));
    }

    /// The value of an attribute. ResultError (KVX_E_NOT_FOUND) when there is none.
    std::string getAttribute(std::string_view name) const {
        detail::Terminated const key(name);
        return detail::copied("MessageObject_GetAttribute", detail::kAttributeRoom,
                              [&](std::int32_t* size, char* buffer) {
                                  return MessageObject_GetAttribute(m_Handle.get(), key.get(), size, buffer);
                              });
    }

    /// The value of an attribute, or nothing.
    std::optional<std::string> findAttribute(std::string_view name) const {
        try {
            return getAttribute(name);
        } catch (ResultError const& failure) {
            if (failure.code() != KVX_E_NOT_FOUND) {
                throw;
            }
            return std::nullopt;
        }
    }

    /// MismatchError unless every attribute has exactly the given value.
    void require(std::initializer_list<std::pair<std::string_view, std::string_view>> attributes) const {
        for (auto const& [name, wanted] : attributes) {
            std::optional<std::string> const found = findAttribute(name);
            if (found != wanted) {
                throw MismatchError(name, wanted, found);
            }
        }
    }

    /// The signed payment URL for the shopper's browser. Sends nothing itself.
    std::string getUrl() const {
        return detail::copied("MessageObject_GetURL", detail::kMessageRoom, [&](std::int32_t* size, char* buffer) {
            return MessageObject_GetURL(m_Handle.get(), size, buffer);
        });
    }

    /// Sends the message as a capture. Waits for the network. After a failure the payment may have been captured all
    /// the same: ask the service before you repeat it.
    void capture() { detail::check("MessageObject_Capture", MessageObject_Capture(m_Handle.get())); }

    /// Sends the message as a request of its type, once only; the response. Waits for the network.
    MessageObject execute() {
        KVX_HANDLE response = nullptr;
        detail::check("MessageObject_Execute", MessageObject_Execute(m_Handle.get(), &response));
        return adopt(response);
    }

    /// Replaces the message by a parsed text, such as the DATA of a confirmation.
    void fromString(std::string_view text) {
        detail::Terminated const document(text);
        detail::check("MessageObject_FromString", MessageObject_FromString(m_Handle.get(), document.get()));
    }

    /// The message as text.
    std::string toString() const {
        return detail::copied("MessageObject_ToString", detail::kMessageRoom, [&](std::int32_t* size, char* buffer) {
            return MessageObject_ToString(m_Handle.get(), size, buffer);
        });
    }

    /// Destroys the native object; so does the destructor.
    void close() noexcept { m_Handle.reset(); }

    /// Borrowed, for flat functions; null when closed.
    KVX_HANDLE handle() const noexcept { return m_Handle.get(); }

private:
    using Holder = detail::Handle<&DestroyMessageObject>;

    explicit MessageObject(Holder handle) noexcept : m_Handle(std::move(handle)) {}

    Holder m_Handle;
};

/// Makes and verifies the messages of one configuration directory. Messages do not need their factory after they are
/// made.
class MessageFactory {
public:
    /// Reads nothing: a wrong directory fails at the first message.
    explicit MessageFactory(std::string_view directory) : m_Handle(detail::created(CreateMessageFactory())) {
        detail::Terminated const path(directory);
        detail::check("MessageFactory_Open", MessageFactory_Open(m_Handle.get(), path.get()));
    }

    /// A new payment with a fresh TOKEN and the account's defaults.
    MessageObject createPayInit() {
        KVX_HANDLE made = nullptr;
        detail::check("MessageFactory_CreatePayInit", MessageFactory_CreatePayInit(m_Handle.get(), &made));
        return MessageObject::adopt(made);
    }

    /// The confirmation that came back with the shopper, when its signature is valid. `data` and `signature` are the
    /// query parameters DATA and SIGNATURE, percent-decoded; limit their size before the call. A valid signature is not
    /// a payment: require() the type, the result, the token, amount and currency.
    MessageObject verifyPayConfirm(std::string_view data, std::string_view signature) {
        detail::Terminated const text(data);
        detail::Terminated const signedBy(signature);
        KVX_HANDLE made = nullptr;
        detail::check("MessageFactory_VerifyPayConfirm",
                      MessageFactory_VerifyPayConfirm(m_Handle.get(), text.get(), signedBy.get(), &made));
        return MessageObject::adopt(made);
    }

    /// A completion; send it with MessageObject::execute().
    MessageObject createPayComplete(std::string_view paymentId, std::string_view token) {
        detail::Terminated const id(paymentId);
        detail::Terminated const order(token);
        KVX_HANDLE made = nullptr;
        detail::check("MessageFactory_CreatePayComplete",
                      MessageFactory_CreatePayComplete(m_Handle.get(), id.get(), order.get(), &made));
        return MessageObject::adopt(made);
    }

    /// A message of any type.
    MessageObject createRequest(std::string_view type) {
        detail::Terminated const name(type);
        KVX_HANDLE made = nullptr;
        detail::check("MessageFactory_CreateRequest", MessageFactory_CreateRequest(m_Handle.get(), name.get(), &made));
        return MessageObject::adopt(made);
    }

    /// Destroys the native object; so does the destructor.
    void close() noexcept { m_Handle.reset(); }

    /// Borrowed, for flat functions; null when closed.
    KVX_HANDLE handle() const noexcept { return m_Handle.get(); }

private:
    detail::Handle<&DestroyMessageFactory> m_Handle;
};

/// Prepares the configuration directory of one account.
class ConfigurationSetup {
public:
    /// Creates the directory when its parent exists. ResultError with a positive code, the system's errno, when it
    /// cannot.
    explicit ConfigurationSetup(std::string_view directory) : m_Handle(detail::created(CreateConfigurationSetup())) {
        detail::Terminated const path(directory);
        detail::check("ConfigurationSetup_SetConfiguration",
                      ConfigurationSetup_SetConfiguration(m_Handle.get(), path.get()));
    }

    /// Registers with the payment service at `url`: loads configuration and defaults, makes and publishes a new key
    /// pair. Waits for the network. Run it as the user that signs later: a new private key is readable for its owner
    /// only.
    void reconfigure(std::string_view url, std::string_view user, std::string_view password) {
        detail::Terminated const address(url);
        detail::Terminated const name(user);
        detail::Terminated const secret(password);
        detail::check("ConfigurationSetup_Reconfigure",
                      ConfigurationSetup_Reconfigure(m_Handle.get(), address.get(), name.get(), secret.get()));
    }

    /// Sets "UserName", "Password" or "VTAUTOURL" for this object.
    void setOption(std::string_view name, std::string_view value) {
        detail::Terminated const key(name);
        detail::Terminated const text(value);
        detail::check("ConfigurationSetup_SetOption",
                      ConfigurationSetup_SetOption(m_Handle.get(), key.get(), text.get()));
    }

    /// The value `name` of a file of the directory, such as "VTURL" of "config.xml"; without `name` the whole file.
    std::string getAttribute(std::string_view file, std::string_view name = {}) const {
        detail::Terminated const place(file);
        detail::Terminated const key(name);
        return detail::copied(
            "ConfigurationSetup_GetAttribute", detail::kAttributeRoom, [&](std::int32_t* size, char* buffer) {
                return ConfigurationSetup_GetAttribute(m_Handle.get(), place.get(), key.get(), size, buffer);
            });
    }

    /// Sets the value `name` of an existing file and rewrites it. An empty `value` changes nothing.
    void setAttribute(std::string_view file, std::string_view name, std::string_view value) {
        detail::Terminated const place(file);
        detail::Terminated const key(name);
        detail::Terminated const text(value);
        detail::check("ConfigurationSetup_SetAttribute",
                      ConfigurationSetup_SetAttribute(m_Handle.get(), place.get(), key.get(), text.get()));
    }

    /// Destroys the native object; so does the destructor.
    void close() noexcept { m_Handle.reset(); }

    /// Borrowed, for flat functions; null when closed.
    KVX_HANDLE handle() const noexcept { return m_Handle.get(); }

private:
    detail::Handle<&DestroyConfigurationSetup> m_Handle;
};

}  // namespace tallowin

#endif
