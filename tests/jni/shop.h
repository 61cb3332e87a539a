/// A merchant's account and its payment server, with which every native method succeeds.
#ifndef TALLOWIN_TESTS_JNI_SHOP_H
#define TALLOWIN_TESTS_JNI_SHOP_H

#include <array>
#include <string>

#include "tests/api/apisupport.h"
#include "tests/jni/nativerows.h"
#include "tests/support/raw_server.h"

namespace kvxtest {

class Shop {
public:
    Shop();

    /// A new object on which the method succeeds; owned by the caller. To be made for every call: some methods change
    /// what they are called on. Null for a constructor.
    [[nodiscard]] KVX_HANDLE create(NativeRow const& row) const;

    /// The arguments with which it does.
    [[nodiscard]] std::array<std::string, 3> argumentsFor(NativeRow const& row) const;

    /// What a text that it returns begins with; empty when it returns none.
    [[nodiscard]] std::string textOf(NativeRow const& row) const;

    [[nodiscard]] std::string const& path() const { return m_Account.path(); }

private:
    [[nodiscard]] std::string url() const { return "http://127.0.0.1:" + m_Server.portText(); }

    RawServer m_Server;
    AccountDir m_Account;
    std::string m_Signature;
};

/// One call of a method with what the shop has for it. `jvm` and memory may fail on its way.
class ShopCall {
public:
    ShopCall(Shop const& shop, NativeRow const& row, FakeJvm& jvm);
    ShopCall(ShopCall const&) = delete;
    ShopCall& operator=(ShopCall const&) = delete;

    /// Destroys what the method made.
    ~ShopCall();

    void run();

    [[nodiscard]] Returned const& returned() const { return m_Returned; }

    /// The handle that the Java object holds now.
    [[nodiscard]] jint handle() const { return m_Jvm.handleOf(m_Self); }

    /// Fails the test unless the call has done what it is there for.
    void expectSuccess() const;

    /// Fails the test when a call that failed has done it, or has returned anything.
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
