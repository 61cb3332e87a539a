#include "ledger/component.h"

#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <system_error>

#include "ledger/failure.h"

namespace ledger {

namespace {

/// The component's reason for this thread's last failure.
std::string lastReason() {
    std::int32_t size = 0;
    std::string text;
    std::int32_t code = KVX_GetLastErrorText(&size, nullptr);
    while (code == KVX_E_BUFFER_TOO_SMALL) {
        text.resize(static_cast<std::size_t>(size));
        code = KVX_GetLastErrorText(&size, text.data());
    }
    if (code != KVX_OK) {
        return "";
    }
    text.resize(static_cast<std::size_t>(size) - 1);
    return text;
}

/// Requires that the directory has been set up: opening one that does not exist would create it.
std::string const& configured(std::string const& directory) {
    std::string const file = directory + "/config.xml";
    struct stat status {};
    if (::stat(file.c_str(), &status) != 0) {
        throw Failure(KVX_E_CANNOT_OPEN, file + ": " + std::generic_category().message(errno));
    }
    return directory;
}

}  // namespace

Result resultOf(char const* function, std::int32_t code) {
    if (code == KVX_OK) {
        return {};
    }
    return {code, std::string(function) + ": " + lastReason()};
}

void require(char const* function, std::int32_t code) {
    if (code == KVX_E_OUT_OF_MEMORY) {
        throw std::bad_alloc();
    }
    if (code != KVX_OK) {
        throw Failure(code, resultOf(function, code).m_Reason);
    }
}

template <void (*Destroy)(KVX_HANDLE)>
Handle<Destroy>::Handle(KVX_HANDLE handle) : m_Handle(handle) {
    if (handle == nullptr) {
        throw std::bad_alloc();
    }
}

SetupHandle openedSetup(std::string const& directory) {
    SetupHandle setup(CreateConfigurationSetup());
    require("ConfigurationSetup_SetConfiguration", ConfigurationSetup_SetConfiguration(setup.get(), directory.c_str()));
    return setup;
}

std::optional<std::string> Message::find(char const* name) const {
    return copiedText("MessageObject_GetAttribute", [&](std::int32_t* size, char* buffer) {
        return MessageObject_GetAttribute(m_Handle.get(), name, size, buffer);
    });
}

void Message::set(char const* name, std::string const& value) const {
    require("MessageObject_SetAttribute", MessageObject_SetAttribute(m_Handle.get(), name, value.c_str()));
}

std::string Message::url() const {
    std::optional<std::string> const url = copiedText("MessageObject_GetURL", [&](std::int32_t* size, char* buffer) {
        return MessageObject_GetURL(m_Handle.get(), size, buffer);
    });
    if (!url) {
        require("MessageObject_GetURL", KVX_E_NOT_FOUND);
    }
    return *url;
}

std::string Message::text() const {
    return copiedText(
               "MessageObject_ToString",
               [&](std::int32_t* size, char* buffer) { return MessageObject_ToString(m_Handle.get(), size, buffer); })
        .value_or("");
}

Result Message::capture() const {
    return resultOf("MessageObject_Capture", MessageObject_Capture(m_Handle.get()));
}

Result Message::execute(std::optional<Message>& response) const {
    KVX_HANDLE made = nullptr;
    Result result = resultOf("MessageObject_Execute", MessageObject_Execute(m_Handle.get(), &made));
    if (result.m_Code == KVX_OK) {
        response.emplace(made);
    }
    return result;
}

Account::Account(std::string const& directory) : m_Directory(configured(directory)), m_Factory(CreateMessageFactory()) {
    require("MessageFactory_Open", MessageFactory_Open(m_Factory.get(), m_Directory.c_str()));
}

Message Account::createPayment() const {
    KVX_HANDLE made = nullptr;
    require("MessageFactory_CreatePayInit", MessageFactory_CreatePayInit(m_Factory.get(), &made));
    return Message(made);
}

Message Account::createCompletion(std::string const& id, std::string const& token) const {
    KVX_HANDLE made = nullptr;
    require("MessageFactory_CreatePayComplete",
            MessageFactory_CreatePayComplete(m_Factory.get(), id.c_str(), token.c_str(), &made));
    return Message(made);
}

Message Account::createRequest(std::string const& type) const {
    KVX_HANDLE made = nullptr;
    require("MessageFactory_CreateRequest", MessageFactory_CreateRequest(m_Factory.get(), type.c_str(), &made));
    return Message(made);
}

std::optional<Message> Account::filled(std::string const& text) const {
    KVX_HANDLE const handle = CreateMessageObject();
    Message message(handle);
    require("MessageObject_Open", MessageObject_Open(handle, m_Directory.c_str()));
    std::int32_t const code = MessageObject_FromString(handle, text.c_str());
    if (code == KVX_E_INVALID_FORMAT) {
        return std::nullopt;
    }
    require("MessageObject_FromString", code);
    return message;
}

Result Account::verify(std::string const& data, std::string const& signature, std::optional<Message>& verified) const {
    KVX_HANDLE made = nullptr;
    Result result = resultOf("MessageFactory_VerifyPayConfirm",
                             MessageFactory_VerifyPayConfirm(m_Factory.get(), data.c_str(), signature.c_str(), &made));
    if (result.m_Code == KVX_OK) {
        verified.emplace(made);
    }
    return result;
}

std::optional<std::string> Account::value(std::string const& file, char const* name) const {
    SetupHandle const setup = openedSetup(m_Directory);
    return copiedText("ConfigurationSetup_GetAttribute", [&](std::int32_t* size, char* buffer) {
        std::int32_t const code = ConfigurationSetup_GetAttribute(setup.get(), file.c_str(), name, size, buffer);
        struct stat status {};
        bool const isAbsent =
            code == KVX_E_CANNOT_OPEN && ::stat((m_Directory + "/" + file).c_str(), &status) != 0 && errno == ENOENT;
        return isAbsent ? KVX_E_NOT_FOUND : code;
    });
}

bool Account::hasBrokenSettings() const {
    SetupHandle const setup = openedSetup(m_Directory);
    std::int32_t size = 0;
    return ConfigurationSetup_GetAttribute(setup.get(), "settings.xml", "PROFILE", &size, nullptr) ==
           KVX_E_INVALID_FORMAT;
}

}  // namespace ledger
