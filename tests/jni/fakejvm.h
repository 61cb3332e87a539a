/// A fake of the virtual machine's JNI functions.
#ifndef TALLOWIN_TESTS_JNI_FAKEJVM_H
#define TALLOWIN_TESTS_JNI_FAKEJVM_H

#include <jni.h>

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace kvxtest {

inline constexpr char kExceptionClass[] = "kelvane/tallowin/KVXException";

/// Whether `text` is what NewStringUTF requires.
bool isModifiedUtf8(std::string const& text);

/// One thread of a virtual machine with objects, strings and the exception's class.
///
/// Fails the test when a function gets a null or unknown reference or ill-formed text, when a function that forbids it
/// is called with an exception pending, when characters of strings are not wiped before they are released, and when
/// they are not released at the end. A JNI function without a fake ends the test program. Failing allocations do not
/// affect it: they apply to the library's memory only.
class FakeJvm {
public:
    FakeJvm();
    FakeJvm(FakeJvm const&) = delete;
    FakeJvm& operator=(FakeJvm const&) = delete;
    ~FakeJvm();

    JNIEnv* env() { return &m_Env; }

    /// An object of a class with the field `m_Handle`.
    jobject newObject(jint handle);
    [[nodiscard]] jint handleOf(jobject object) const;

    /// A string with these characters in modified UTF-8.
    jstring newString(std::string const& text);

    /// A string that reports this length and has no characters.
    jstring newStringOfLength(jint length);
    [[nodiscard]] std::string textOf(jstring text) const;

    /// Make lookups of the field `m_Handle`, a class, the class KVXException or one of its methods fail.
    void removeHandleField() { m_HasHandleField = false; }
    void removeClass(char const* name) { m_Classes.erase(name); }
    void removeExceptionClass() { removeClass(kExceptionClass); }
    void makeExceptionClassUnthrowable() { m_IsExceptionThrowable = false; }
    void removeExceptionMethod(std::string const& name) { m_ExceptionMethods.erase(name); }

    /// Makes GetStringUTFChars hand out the characters of the strings themselves, which must not be changed.
    void handOutNoCopies() { m_HandsOutCopies = false; }

    /// How a function fails. A Java method always fails with an exception.
    enum class Failure { kWithException, kWithoutException };

    /// Fails call number `number` (from 0) of those that may fail, counted from now. Negative: none.
    void failCall(int number, Failure how);

    /// The name of the function that was made to fail; empty when none was.
    [[nodiscard]] std::string const& failedFunction() const { return m_FailedFunction; }

    /// Sets a pending exception of this class.
    void makePending(std::string const& className);

    /// The class of the pending exception; empty without one.
    [[nodiscard]] std::string pendingClass() const;

    /// Code and text of the pending exception.
    [[nodiscard]] std::int32_t pendingCode() const;
    [[nodiscard]] std::string pendingText() const;

    /// The texts passed to FatalError. Unlike a real virtual machine, this one continues.
    [[nodiscard]] std::vector<std::string> const& fatalErrors() const { return m_FatalErrors; }

    /// Whether no exception is pending and FatalError was not called.
    [[nodiscard]] bool isFine() const { return m_Pending == nullptr && m_FatalErrors.empty(); }

private:
    struct Functions;

    /// The target of a reference.
    struct Object {
        std::string m_Class;
        std::string m_Text;  ///< A string's characters, an exception's text, or the name of the class (class objects).
        jint m_Number = 0;   ///< The handle, an exception's code, or the length that a string reports.
    };

    struct Env : JNIEnv {
        FakeJvm* m_Jvm;
    };

    /// Adds an object and returns its address, which serves as its reference.
    Object* add(Object const& object);

    /// The target of a reference. Null, and the test fails, for null or an unknown reference.
    Object* find(void const* reference, char const* function) const;

    /// Starts a function that requires that no exception is pending.
    void enter(char const* function) const;

    /// The same for a function that may fail. True when this call must fail.
    bool enterAndFail(char const* function);

    Env m_Env;
    std::vector<std::unique_ptr<Object>> m_Objects;
    std::map<char const*, Object const*> m_Characters;  ///< Handed out and not yet released, with their strings.
    bool m_HandsOutCopies = true;
    bool m_HasHandleField = true;
    std::set<std::string> m_Classes;  ///< Those that FindClass finds.
    bool m_IsExceptionThrowable = true;
    std::set<std::string> m_ExceptionMethods;
    Object const* m_Pending = nullptr;
    std::vector<std::string> m_FatalErrors;
    int m_CallsToFailure = -1;  ///< Calls before the one that fails; negative when none will fail.
    Failure m_Failure = Failure::kWithException;
    std::string m_FailedFunction;
};

}  // namespace kvxtest

#endif
