// A size is asked for first, then the text. The text may grow in between, when another process replaces the file, so
// both calls are repeated until the text fits.

#include "tools/toolobjects.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "tools/accountfiles.h"

namespace tool {

namespace {

constexpr char const* kNameCharacters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789.-_";

/// The names in a message that the library wrote: in `<KVX A="1" B="2"/>`, A and B.
std::vector<std::string> namesIn(std::string const& message) {
    std::vector<std::string> names;
    std::size_t at = message.find_first_of(" />");
    while (at < message.size() && message[at] == ' ') {
        std::size_t const equals = message.find("=\"", at);
        std::size_t const end = equals == std::string::npos ? equals : message.find('"', equals + 2);
        if (end == std::string::npos) {
            break;
        }
        names.push_back(message.substr(at + 1, equals - at - 1));
        at = end + 1;
    }
    return names;
}

}  // namespace

FactoryObject openFactory(std::string const& directory) {
    FactoryObject factory(CreateMessageFactory());
    require(MessageFactory_Open(factory.get(), directory.c_str()), "cannot open the directory");
    return factory;
}

SetupObject openSetup(std::string const& directory) {
    SetupObject setup(CreateConfigurationSetup());
    require(ConfigurationSetup_SetConfiguration(setup.get(), directory.c_str()), "cannot open the directory");
    return setup;
}

std::int32_t readText(std::function<std::int32_t(std::int32_t*, char*)> const& read, std::string& text) {
    std::vector<char> buffer;
    for (;;) {
        auto size = static_cast<std::int32_t>(buffer.size());
        std::int32_t const code = read(&size, buffer.data());
        if (code == KVX_OK) {
            text = buffer.empty() ? "" : buffer.data();
            return KVX_OK;
        }
        if (code != KVX_E_BUFFER_TOO_SMALL || size <= static_cast<std::int32_t>(buffer.size())) {
            return code;
        }
        buffer.resize(static_cast<std::size_t>(size));
    }
}

std::string attributeOf(MessageObject const& message, std::string const& name) {
    std::string value;
    std::int32_t const code =
        readText([&](std::int32_t* size,
                     char* buffer) { return MessageObject_GetAttribute(message.get(), name.c_str(), size, buffer); },
                 value);
    if (code != KVX_E_NOT_FOUND) {
        require(code, "cannot read an attribute");
    }
    return value;
}

void setAttribute(MessageObject const& message, std::string const& name, std::string const& value) {
    if (!isName(name)) {
        throw UsageError("attribute names consist of A-Z a-z 0-9 . - _");
    }
    require(MessageObject_SetAttribute(message.get(), name.c_str(), value.c_str()), "cannot set an attribute");
}

Attributes attributesOf(MessageObject const& message) {
    std::string text;
    require(
        readText([&](std::int32_t* size, char* buffer) { return MessageObject_ToString(message.get(), size, buffer); },
                 text),
        "cannot read the message");
    Attributes attributes;
    for (std::string const& name : namesIn(text)) {
        attributes.emplace_back(name, attributeOf(message, name));
    }
    return attributes;
}

std::string configuredValue(std::string const& directory, std::string const& file, std::string const& name) {
    struct stat status = {};
    if (!fileStatus(directory + '/' + file, status)) {
        return "";
    }
    SetupObject const setup = openSetup(directory);
    std::string value;
    std::int32_t const code = readText(
        [&](std::int32_t* size, char* buffer) {
            return ConfigurationSetup_GetAttribute(setup.get(), file.c_str(), name.c_str(), size, buffer);
        },
        value);
    if (code != KVX_OK && code != KVX_E_NOT_FOUND) {
        throw ToolFailure("cannot read " + file, code);
    }
    return value;
}

Attributes configuredValues(std::string const& directory, std::string const& file) {
    std::string const text = configuredValue(directory, file, "");
    if (text.empty()) {
        return {};
    }
    MessageObject const message(CreateMessageObject());
    require(MessageObject_Open(message.get(), directory.c_str()), "cannot open the directory");
    std::int32_t const code = MessageObject_FromString(message.get(), text.c_str());
    if (code != KVX_OK) {
        throw ToolFailure("cannot read " + file, code);
    }
    Attributes values = attributesOf(message);
    // Reading a message adds the attribute that names the signing key.
    values.erase(std::remove_if(values.begin(), values.end(), [](auto const& row) { return row.first == "KEYID"; }),
                 values.end());
    return values;
}

bool isName(std::string const& name) {
    return !name.empty() && name.find_first_not_of(kNameCharacters) == std::string::npos;
}

std::pair<std::string, std::string> nameAndValue(std::string const& text) {
    std::size_t const equals = text.find('=');
    if (equals == std::string::npos || !isName(text.substr(0, equals))) {
        throw UsageError("an attribute is written as NAME=VALUE; names consist of A-Z a-z 0-9 . - _");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

}  // namespace tool
