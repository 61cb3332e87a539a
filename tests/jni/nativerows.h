/// A table of the native methods: how to call each, and its texts, written independently of the library.
#ifndef TALLOWIN_TESTS_JNI_NATIVEROWS_H
#define TALLOWIN_TESTS_JNI_NATIVEROWS_H

#include <jni.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "api/kvxhandle.h"
#include "jni/kvxnatives.h"
#include "tallowin/tallowin.h"
#include "tests/jni/fakejvm.h"

namespace kvxtest {

/// The result of a native method. A member it does not return stays 0 or null.
struct Returned {
    jint m_Number = 0;
    jstring m_Text = nullptr;
};

/// Arguments of a call. A method uses as many as it has parameters.
using Arguments = std::array<jstring, 3>;

/// One native method.
struct NativeRow {
    KvxNative m_Native;
    char const* m_Class;
    char const* m_Method;
    char const* m_HandlePrefix;
    char const* m_FailurePrefix;
    char const* m_NullRefusal;  ///< The message when an argument is null; null when null counts as "".

    /// The result of a call with these arguments on a new object. Code KVX_OK: it succeeds.
    std::array<char const*, 3> m_BareArguments;
    std::int32_t m_BareCode;
    char const* m_BareText;

    KvxKind m_Kind;
    KVX_HANDLE (*m_Create)();
    void (*m_Destroy)(KVX_HANDLE);
    std::size_t m_ArgumentCount;
    bool m_MakesObject;
    bool m_ReturnsText;
    Returned (*m_Call)(JNIEnv* env, jobject self, Arguments const& arguments);

    [[nodiscard]] bool constructs() const { return std::string(m_Method) == "nConstruct"; }
    [[nodiscard]] bool destructs() const { return std::string(m_Method) == "nDestruct"; }

    /// Calls the method of `self` with these texts, or with `m_BareArguments`.
    Returned call(FakeJvm& jvm, jobject self, std::array<std::string, 3> const& texts) const;
    Returned callBare(FakeJvm& jvm, jobject self) const;

    /// "Class.Method", for failure messages.
    [[nodiscard]] std::string name() const { return std::string(m_Class) + "." + m_Method; }
};

/// In the order of KvxNative.
std::vector<NativeRow> const& nativeRows();
NativeRow const& rowOf(KvxNative native);

/// Fails the test unless a KVXException with this code and text is pending and no value was returned.
void expectRaised(FakeJvm const& jvm, Returned const& returned, std::int32_t code, std::string const& text);

/// Fails the test when an exception is pending or FatalError was called.
void expectFine(FakeJvm const& jvm);

/// The object behind a Java handle.
KVX_HANDLE objectOf(jint handle);

/// Owns an object and knows its Java handle.
class JavaObject {
public:
    /// Owns a new object of `row`'s kind, or `object`, which may be null.
    explicit JavaObject(NativeRow const& row) : JavaObject(row, row.m_Create()) {}
    JavaObject(NativeRow const& row, KVX_HANDLE object) : m_Row(row), m_Object(object) {}
    JavaObject(JavaObject const&) = delete;
    JavaObject& operator=(JavaObject const&) = delete;
    ~JavaObject() { m_Row.m_Destroy(m_Object); }

    [[nodiscard]] jint handle() const;
    [[nodiscard]] bool isLiving() const { return kvxIsLiving(m_Row.m_Kind, m_Object); }

private:
    NativeRow const& m_Row;
    KVX_HANDLE m_Object;
};

}  // namespace kvxtest

#endif
