/// The library's objects in holders, and its texts as strings.
#ifndef TALLOWIN_TOOLS_TOOLOBJECTS_H
#define TALLOWIN_TOOLS_TOOLOBJECTS_H

#include <tallowin/tallowin.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "tools/toolfailure.h"

namespace tool {

/// Owns one object of the library.
template <void (*Destroy)(KVX_HANDLE)>
class Object {
public:
    /// Takes `handle` over; null means that memory is exhausted.
    explicit Object(KVX_HANDLE handle) : m_Handle(handle) {
        if (handle == nullptr) {
            throw ToolFailure("cannot make an object", KVX_E_OUT_OF_MEMORY);
        }
    }
    Object(Object&& other) noexcept : m_Handle(std::exchange(other.m_Handle, nullptr)) {}
    Object(Object const&) = delete;
    Object& operator=(Object const&) = delete;
    Object& operator=(Object&&) = delete;
    ~Object() { Destroy(m_Handle); }

    [[nodiscard]] KVX_HANDLE get() const { return m_Handle; }

private:
    KVX_HANDLE m_Handle;
};

using SetupObject = Object<DestroyConfigurationSetup>;
using FactoryObject = Object<DestroyMessageFactory>;
using MessageObject = Object<DestroyMessageObject>;

/// A factory over `directory`.
FactoryObject openFactory(std::string const& directory);

/// A configuration setup over `directory`, which it creates when only its last component is missing.
SetupObject openSetup(std::string const& directory);

/// Calls `read` for the size, then for the text. `text` receives it when the result is KVX_OK.
std::int32_t readText(std::function<std::int32_t(std::int32_t* size, char* buffer)> const& read, std::string& text);

/// An attribute of `message`; empty when there is none.
std::string attributeOf(MessageObject const& message, std::string const& name);

/// Sets an attribute. Refuses a name of other characters than A-Z a-z 0-9 . - _ (UsageError).
void setAttribute(MessageObject const& message, std::string const& name, std::string const& value);

using Attributes = std::vector<std::pair<std::string, std::string>>;

/// All attributes of `message`, in their order.
Attributes attributesOf(MessageObject const& message);

/// A value of a file of the directory; empty when there is no such value or no such file. ToolFailure when the file
/// cannot be read.
std::string configuredValue(std::string const& directory, std::string const& file, std::string const& name);

/// All values of a file of the directory, in their order; none when it is absent. ToolFailure when it cannot be read.
Attributes configuredValues(std::string const& directory, std::string const& file);

/// Whether `name` consists of name characters, and of at least one.
bool isName(std::string const& name);

/// Splits "NAME=VALUE" at its first "=". UsageError when there is none or the name is no name.
std::pair<std::string, std::string> nameAndValue(std::string const& text);

}  // namespace tool

#endif
