/// An account and a payment server with which every native method succeeds.
#ifndef TALLOWIN_TESTS_JNI_SHOP_H
#define TALLOWIN_TESTS_JNI_SHOP_H

#include <array>
#include <string>

#include "tests/api/apisupport.h"
#include "tests/jni/nativerows.h"
#include "tests/support/rawserver.h"

namespace kvxtest {

/// A configuration directory and a server that answers every request of the native methods.
class Shop {
public:
    Shop();

    /// A new object on which the method succeeds; owned by the caller. Null for a constructor. Create one for every
    /// call, because some methods change their object.
    [[nodiscard]] KVX_HANDLE create(NativeRow const& row) const;

    /// Arguments with which the method succeeds.
    [[nodiscard]] std::array<std::string, 3> argumentsFor(NativeRow const& row) const;

    /// The beginning of the text that the method returns; empty when it returns none.
    [[nodiscard]] std::string textOf(NativeRow const& row) const;

    [[nodiscard]] std::string const& path() const { return m_Account.path(); }

private:
    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + m_Server.portText(); }

    RawServer m_Server;
    AccountDirectory m_Account;
    std::string m_Signature;
};

/// One call of a native method on an object and with arguments from a Shop. `jvm` or memory may fail during the call.
class ShopCall {
public:
    ShopCall(Shop const& shop, NativeRow const& row, FakeJvm& jvm);
    ShopCall(ShopCall const&) = delete;
    ShopCall& operator=(ShopCall const&) = delete;

    /// Destroys the object that the method created.
    ~ShopCall();

    void run();

    [[nodiscard]] Returned const& returned() const { return m_Returned; }

    /// The current value of `m_Handle`.
    [[nodiscard]] jint handle() const { return m_Jvm.handleOf(m_Self); }

    /// Fails the test unless the call succeeded and had its effect.
    void expectSuccess() const;

    /// Fails the test when a failed call had an effect or returned a value.
    void expectNothingDone() const;

private:
    Shop const& m_Shop;
    NativeRow const& m_Row;
    FakeJvm& m_Jvm;
    JavaObject m_Object;
    jobject m_Self;
    Arguments m_Arguments;
    Returned m_Returned;
};

}  // namespace kvxtest

#endif
