/// A stand-in for the virtual machine, as far as native methods can see it.
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
/// Fails the test when a function is called with an exception pending that does not allow for one, with a null or
/// foreign reference, with ill-formed text, and when characters of strings have not been given back at the end.
/// Functions that it does not know end the test program. Its memory is not the library's: failing allocations leave it
/// alone.
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

    /// A string that says that it is this long. Its characters cannot be had.
    jstring newStringOfLength(jint length);
    [[nodiscard]] std::string textOf(jstring text) const;

    /// Takes the field `m_Handle`, the class KVXException, or one of its methods out of the world.
    void removeHandleField() { m_HasHandleField = false; }
    void removeExceptionClass() { m_HasExceptionClass = false; }
    void makeExceptionClassUnthrowable() { m_IsExceptionThrowable = false; }
    void removeExceptionMethod(std::string const& name) { m_ExceptionMethods.erase(name); }

    /// How a function fails. A method of Java's that is called has no way but the first.
    enum class Failure { kWithException, kWithoutException };

    /// Fails call number `number` (from 0) of those that may fail, counted from now. Negative: none.
    void failCall(int number, Failure how);

    /// The function whose call was failed; empty when none was.
    [[nodiscard]] std::string const& failedFunction() const { return m_FailedFunction; }

    /// Makes an exception of this class pending.
    void makePending(std::string const& className);

    /// The class of the exception that is pending; empty without one.
    [[nodiscard]] std::string pendingClass() const;

    /// What the exception that is pending was told.
    [[nodiscard]] std::int32_t pendingCode() const;
    [[nodiscard]] std::string pendingText() const;

    /// The texts with which the virtual machine was ended. Unlike a real one this goes on.
    [[nodiscard]] std::vector<std::string> const& fatalErrors() const { return m_FatalErrors; }

    /// Whether a call ended well: nothing is pending and the virtual machine lives.
    [[nodiscard]] bool isFine() const { return m_Pending == nullptr && m_FatalErrors.empty(); }

private:
    struct Functions;

    /// Anything that references point to.
    struct Object {
        std::string m_Class;
        std::string
            m_Text;         ///< A string's characters, an exception's text, the name of what a class object stands for.
        jint m_Number = 0;  ///< The handle, an exception's code, or a length that a string claims.
    };

    struct Env : JNIEnv {
        FakeJvm* m_Jvm;
    };

    /// Refers to a new object.
    Object* add(Object const& object);

    /// What a reference points to; null, and the test fails, for null and for what is no reference.
    Object* find(void const* reference, char const* function) const;

    /// Notes the call of a function that wants no exception pending.
    void enter(char const* function) const;

    /// The same for one that may fail. True when it must.
    bool enterAndFail(char const* function);

    Env m_Env;
    std::vector<std::unique_ptr<Object>> m_Objects;
    std::map<char const*, Object const*> m_Characters;  ///< Handed out and not yet given back, with their strings.
    bool m_HasHandleField = true;
    bool m_HasExceptionClass = true;
    bool m_IsExceptionThrowable = true;
    std::set<std::string> m_ExceptionMethods;
    Object const* m_Pending = nullptr;
    std::vector<std::string> m_FatalErrors;
    int m_CallsToFailure = -1;  ///< How many calls pass before the one that fails; negative when none does any more.
    Failure m_Failure = Failure::kWithException;
    std::string m_FailedFunction;
};

}  // namespace kvxtest

#endif
