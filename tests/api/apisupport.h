/// Handles, accounts and the table of flat functions, for the tests of the public interface.
///
/// Handles destroy themselves. Outputs carry marks, so that a test sees whether a refused call has written anything.
#ifndef TALLOWIN_TESTS_API_APISUPPORT_H
#define TALLOWIN_TESTS_API_APISUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "api/cConfigurationSetup.h"
#include "api/cMessageFactory.h"
#include "api/cMessageObject.h"
#include "tallowin/tallowin.h"
#include "tests/support/directories.h"

namespace kvxtest {

/// The bytes of handles and addresses in hexadecimal, for messages.
std::string addressText(void const* address);

/// A handle that destroys itself.
class OwnedHandle {
public:
    using Destroy = void (*)(KVX_HANDLE);
    OwnedHandle(KVX_HANDLE handle, Destroy destroy) : m_Handle(handle), m_Destroy(destroy) {}
    OwnedHandle(OwnedHandle&& other) noexcept
        : m_Handle(std::exchange(other.m_Handle, nullptr)), m_Destroy(other.m_Destroy) {}
    OwnedHandle(OwnedHandle const&) = delete;
    OwnedHandle& operator=(OwnedHandle const&) = delete;
    ~OwnedHandle() { m_Destroy(m_Handle); }

    [[nodiscard]] KVX_HANDLE get() const { return m_Handle; }

    /// Receives the handle of a creating function. Requires: the handle is null.
    KVX_HANDLE* out() { return &m_Handle; }

private:
    KVX_HANDLE m_Handle;
    Destroy m_Destroy;
};

struct SetupHandle : OwnedHandle {
    SetupHandle() : OwnedHandle(CreateConfigurationSetup(), &DestroyConfigurationSetup) {}
};
struct FactoryHandle : OwnedHandle {
    FactoryHandle() : OwnedHandle(CreateMessageFactory(), &DestroyMessageFactory) {}
    explicit FactoryHandle(std::string const& path) : FactoryHandle() { MessageFactory_Open(get(), path.c_str()); }
};
struct MessageHandle : OwnedHandle {
    MessageHandle() : OwnedHandle(CreateMessageObject(), &DestroyMessageObject) {}
};
/// Empty, to be filled through `out`.
struct MadeMessage : OwnedHandle {
    MadeMessage() : OwnedHandle(nullptr, &DestroyMessageObject) {}
};

/// A message object made by the class interface.
using OwnedMessage = std::unique_ptr<KVXCIMPL_MessageObject>;

/// All outputs of a flat function, filled with marks.
struct Outputs {
    static constexpr std::int32_t kSizeMark = 77;
    static constexpr char kByteMark = '#';

    Outputs();

    std::int32_t m_Size = kSizeMark;
    char m_Buffer[128];
    KVX_HANDLE m_Out;

    /// Fails the test when anything has been written.
    void expectUntouched(std::string const& what) const;

private:
    char m_Mark = 0;  ///< Its address is no object's; `out` holds it.
};

enum class Kind { kSetup, kFactory, kMessage };

/// A flat function that takes a handle.
struct FlatFunction {
    char const* m_Name;
    Kind m_Kind;
    std::int32_t (*m_Call)(KVX_HANDLE handle, Outputs& outputs);
};

/// All of them, called with harmless arguments.
std::vector<FlatFunction> const& flatFunctions();

/// Creates and destroys objects of a kind.
struct KindFunctions {
    char const* m_Name;
    Kind m_Kind;
    KVX_HANDLE (*m_Create)();
    void (*m_Destroy)(KVX_HANDLE);
};
std::vector<KindFunctions> const& allKinds();

/// A configuration directory in working order: an own key "own" (current) and a server's key "server", both halves of
/// each, so that a test can sign as either side.
class AccountDirectory : public TemporaryDirectory {
public:
    AccountDirectory();

    /// Writes "config.xml" with these addresses for payments, captures and set-up.
    void setAddress(std::string const& url) const;

    /// Writes "default.xml" with these attributes, which begin with a space.
    void setDefaults(std::string const& attributes) const;

    /// The signature of `text` by the key `keyId`.
    [[nodiscard]] std::string sign(std::string const& text, std::string const& keyId = "server") const;
};

/// A confirmation as the server words it.
inline constexpr char kConfirmation[] =
    R"(<KVX MSGTYPE="PayConfirm" KEYID="server" TOKEN="t1" ID="P1" AMOUNT="12.50"/>)";

/// The text that `call` copies out, called once for the size and once for the text. Fails the test when one of the two
/// calls does not work as documented.
using CopyOut = std::function<std::int32_t(std::int32_t* size, char* buffer)>;
std::string copiedOut(CopyOut const& call);

std::string attribute(KVX_HANDLE message, char const* name);
std::string textOf(KVX_HANDLE message);
std::string urlOf(KVX_HANDLE message);

/// Tests on one account directory, with a factory open there. The verbs make messages through the flat functions and
/// fail the test when a call fails.
class AccountTest : public testing::Test {
protected:
    [[nodiscard]] MadeMessage payInit() const;
    [[nodiscard]] MadeMessage request(char const* type = "T") const;

    /// The message object of a verified `data`, signed by the key `keyId`.
    [[nodiscard]] MadeMessage confirmation(std::string const& data = kConfirmation,
                                           std::string const& keyId = "server") const;

    /// Sends `request` and returns the response.
    [[nodiscard]] static MadeMessage responseTo(MadeMessage const& request);

    AccountDirectory m_Account;
    FactoryHandle m_Factory{m_Account.path()};
};

/// The addresses that creating and destroying one object after the other goes through, `count` of them.
std::set<void*> addressesOf(KindFunctions const& kind, int count);

/// All addresses that creating and destroying one object after the other goes through, until the first comes again.
std::set<void*> wholeCycle(KindFunctions const& kind);

/// Fails the test when `call`, run `times` times, keeps slots of message objects for ever.
void expectNoSlotIsLost(int times, std::function<void()> const& call);

}  // namespace kvxtest

#endif
