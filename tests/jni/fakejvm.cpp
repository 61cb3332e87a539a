// The fake JNI functions, and the table that native code calls them through.
//
// References are addresses of `Object`, identifiers addresses of `Member`; both are checked at every use. A
// function that forbids a pending exception calls `enter` first; one that can also fail calls `enterAndFail`, which
// counts calls until the one to fail. Table entries without a fake are null, so calling one crashes the test program.

#include "tests/jni/fakejvm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace kvxtest {

namespace {

constexpr char kObjectClass[] = "kelvane/tallowin/Object";
constexpr char kStringClass[] = "java/lang/String";
constexpr char kClassClass[] = "java/lang/Class";
constexpr char kOutOfMemoryClass[] = "java/lang/OutOfMemoryError";
constexpr char kVmErrorClass[] = "java/lang/VirtualMachineError";
constexpr char kThrowableClass[] = "java/lang/Throwable";
constexpr char const* kClasses[] = {kExceptionClass, kOutOfMemoryClass, kVmErrorClass, kThrowableClass};

/// A field or method with its type. Identifiers point to these.
struct Member {
    char const* m_Class;
    char const* m_Name;
    char const* m_Type;
};

constexpr Member kHandleField = {kObjectClass, "m_Handle", "I"};
constexpr Member kExceptionMethods[] = {
    {kExceptionClass, "<init>", "()V"},
    {kExceptionClass, "putHR", "(I)V"},
    {kExceptionClass, "putErrorMessage", "(Ljava/lang/String;)V"},
};

bool isMember(Member const& member, std::string const& className, char const* name, char const* type) {
    return className == member.m_Class && std::strcmp(name, member.m_Name) == 0 &&
           std::strcmp(type, member.m_Type) == 0;
}

/// The length in bytes of the well-formed character at the beginning of `text`; 0 when there is none.
std::size_t lengthOfFirst(std::string const& text) {
    auto const byte = [&](std::size_t index) {
        return index < text.size() ? static_cast<unsigned char>(text[index]) : 0;
    };
    auto const follows = [&](std::size_t index) { return byte(index) >= 0x80 && byte(index) <= 0xBF; };
    if (byte(0) >= 0x01 && byte(0) <= 0x7F) {
        return 1;
    }
    if ((byte(0) == 0xC0 && byte(1) == 0x80) || (byte(0) >= 0xC2 && byte(0) <= 0xDF && follows(1))) {
        return 2;
    }
    bool const isThree = (byte(0) == 0xE0 && byte(1) >= 0xA0) || (byte(0) >= 0xE1 && byte(0) <= 0xEF);
    return isThree && follows(1) && follows(2) ? 3 : 0;
}

}  // namespace

bool isModifiedUtf8(std::string const& text) {
    for (std::size_t at = 0; at < text.size();) {
        std::size_t const length = lengthOfFirst(text.substr(at, 3));
        if (length == 0) {
            return false;
        }
        at += length;
    }
    return true;
}

/// The functions in the table.
struct FakeJvm::Functions {
    static FakeJvm& of(JNIEnv* env) { return *static_cast<Env*>(env)->m_Jvm; }

    template <class Reference>
    static Reference reference(Object* object) {
        return reinterpret_cast<Reference>(object);
    }

    /// The member behind an identifier. Null, and the test fails, when it does not belong to the class of `object`.
    static Member const* member(void const* id, Object const* object, char const* function) {
        auto const* const found = static_cast<Member const*>(id);
        if (found == nullptr || object == nullptr || object->m_Class != found->m_Class) {
            ADD_FAILURE() << function << " called with a null or foreign identifier";
            return nullptr;
        }
        return found;
    }

    static jclass JNICALL getObjectClass(JNIEnv* env, jobject object) {
        FakeJvm& jvm = of(env);
        bool const fails = jvm.enterAndFail("GetObjectClass");
        Object const* const found = jvm.find(object, "GetObjectClass");
        return fails || found == nullptr ? nullptr : reference<jclass>(jvm.add({kClassClass, found->m_Class}));
    }

    static jfieldID JNICALL getFieldId(JNIEnv* env, jclass type, char const* name, char const* fieldType) {
        FakeJvm& jvm = of(env);
        bool const fails = jvm.enterAndFail("GetFieldID");
        Object const* const found = jvm.find(type, "GetFieldID");
        if (fails || found == nullptr) {
            return nullptr;
        }
        if (!jvm.m_HasHandleField || !isMember(kHandleField, found->m_Text, name, fieldType)) {
            jvm.makePending("java/lang/NoSuchFieldError");
            return nullptr;
        }
        return reinterpret_cast<jfieldID>(const_cast<Member*>(&kHandleField));
    }

    static jint JNICALL getIntField(JNIEnv* env, jobject object, jfieldID field) {
        FakeJvm const& jvm = of(env);
        jvm.enter("GetIntField");
        Object const* const found = jvm.find(object, "GetIntField");
        return member(field, found, "GetIntField") == nullptr ? 0 : found->m_Number;
    }

    static void JNICALL setIntField(JNIEnv* env, jobject object, jfieldID field, jint value) {
        FakeJvm const& jvm = of(env);
        jvm.enter("SetIntField");
        Object* const found = jvm.find(object, "SetIntField");
        if (member(field, found, "SetIntField") != nullptr) {
            found->m_Number = value;
        }
    }

    static jclass JNICALL findClass(JNIEnv* env, char const* name) {
        FakeJvm& jvm = of(env);
        if (jvm.enterAndFail("FindClass")) {
            return nullptr;
        }
        if (jvm.m_Classes.count(name) == 0) {
            jvm.makePending("java/lang/NoClassDefFoundError");
            return nullptr;
        }
        return reference<jclass>(jvm.add({kClassClass, name}));
    }

    static jboolean JNICALL isAssignableFrom(JNIEnv* env, jclass type, jclass wanted) {
        FakeJvm const& jvm = of(env);
        jvm.enter("IsAssignableFrom");
        Object const* const found = jvm.find(type, "IsAssignableFrom");
        Object const* const base = jvm.find(wanted, "IsAssignableFrom");
        EXPECT_TRUE(found != nullptr && found->m_Text == kExceptionClass);
        EXPECT_TRUE(base != nullptr && base->m_Text == kThrowableClass);
        return jvm.m_IsExceptionThrowable ? JNI_TRUE : JNI_FALSE;
    }

    static jboolean JNICALL isInstanceOf(JNIEnv* env, jobject object, jclass type) {
        FakeJvm const& jvm = of(env);
        jvm.enter("IsInstanceOf");
        Object const* const found = jvm.find(object, "IsInstanceOf");
        Object const* const base = jvm.find(type, "IsInstanceOf");
        EXPECT_TRUE(base != nullptr && base->m_Text == kVmErrorClass);
        return found != nullptr && found->m_Class == kOutOfMemoryClass ? JNI_TRUE : JNI_FALSE;
    }

    static jthrowable JNICALL exceptionOccurred(JNIEnv* env) {
        return reference<jthrowable>(const_cast<Object*>(of(env).m_Pending));
    }

    static jsize JNICALL getStringLength(JNIEnv* env, jstring text) {
        FakeJvm const& jvm = of(env);
        jvm.enter("GetStringLength");
        Object const* const found = jvm.find(text, "GetStringLength");
        return found == nullptr ? 0 : std::max(found->m_Number, static_cast<jint>(found->m_Text.size()));
    }

    static jmethodID JNICALL getMethodId(JNIEnv* env, jclass type, char const* name, char const* methodType) {
        FakeJvm& jvm = of(env);
        bool const fails = jvm.enterAndFail("GetMethodID");
        Object const* const found = jvm.find(type, "GetMethodID");
        if (fails || found == nullptr) {
            return nullptr;
        }
        for (Member const& method : kExceptionMethods) {
            if (isMember(method, found->m_Text, name, methodType) && jvm.m_ExceptionMethods.count(name) != 0) {
                return reinterpret_cast<jmethodID>(const_cast<Member*>(&method));
            }
        }
        jvm.makePending("java/lang/NoSuchMethodError");
        return nullptr;
    }

    static jobject JNICALL newObject(JNIEnv* env, jclass type, jmethodID constructor, va_list) {
        FakeJvm& jvm = of(env);
        bool const fails = jvm.enterAndFail("NewObject");
        Object const* const found = jvm.find(type, "NewObject");
        if (fails || found == nullptr) {
            return nullptr;
        }
        Object* const made = jvm.add({found->m_Text, ""});
        Member const* const method = member(constructor, made, "NewObject");
        EXPECT_TRUE(method != nullptr && std::strcmp(method->m_Name, "<init>") == 0) << "NewObject needs a constructor";
        return reference<jobject>(made);
    }

    static void JNICALL callVoidMethod(JNIEnv* env, jobject object, jmethodID id, va_list arguments) {
        FakeJvm& jvm = of(env);
        if (jvm.enterAndFail("CallVoidMethod")) {
            jvm.makePending(kOutOfMemoryClass);
            return;
        }
        Object* const found = jvm.find(object, "CallVoidMethod");
        Member const* const method = member(id, found, "CallVoidMethod");
        if (method == nullptr) {
            return;
        }
        if (std::strcmp(method->m_Name, "putHR") == 0) {
            found->m_Number = va_arg(arguments, jint);
        } else if (Object const* const text = jvm.find(va_arg(arguments, jobject), "CallVoidMethod")) {
            EXPECT_STREQ(method->m_Name, "putErrorMessage");
            found->m_Text = text->m_Text;
        }
    }

    static jint JNICALL throwException(JNIEnv* env, jthrowable exception) {
        FakeJvm& jvm = of(env);
        jvm.enter("Throw");
        jvm.m_Pending = jvm.find(exception, "Throw");
        return JNI_OK;
    }

    static jint JNICALL throwNew(JNIEnv* env, jclass type, char const* text) {
        FakeJvm& jvm = of(env);
        jvm.enter("ThrowNew");
        if (Object const* const found = jvm.find(type, "ThrowNew")) {
            jvm.m_Pending = jvm.add({found->m_Text, text});
        }
        return JNI_OK;
    }

    static jboolean JNICALL exceptionCheck(JNIEnv* env) { return of(env).m_Pending == nullptr ? JNI_FALSE : JNI_TRUE; }

    static void JNICALL exceptionClear(JNIEnv* env) { of(env).m_Pending = nullptr; }

    static void JNICALL fatalError(JNIEnv* env, char const* text) {
        FakeJvm& jvm = of(env);
        jvm.enter("FatalError");
        jvm.m_FatalErrors.emplace_back(text);
    }

    static jstring JNICALL newStringUtf(JNIEnv* env, char const* text) {
        FakeJvm& jvm = of(env);
        if (jvm.enterAndFail("NewStringUTF")) {
            return nullptr;
        }
        EXPECT_TRUE(isModifiedUtf8(text)) << "NewStringUTF called with ill-formed text: " << text;
        return jvm.newString(text);
    }

    static char const* JNICALL getStringUtfChars(JNIEnv* env, jstring text, jboolean* isCopy) {
        FakeJvm& jvm = of(env);
        bool const fails = jvm.enterAndFail("GetStringUTFChars");
        Object const* const found = jvm.find(text, "GetStringUTFChars");
        if (fails || found == nullptr) {
            return nullptr;
        }
        if (isCopy != nullptr) {
            *isCopy = jvm.m_HandsOutCopies ? JNI_TRUE : JNI_FALSE;
        }
        auto* const copy = new char[found->m_Text.size() + 1];
        std::memcpy(copy, found->m_Text.c_str(), found->m_Text.size() + 1);
        jvm.m_Characters[copy] = found;
        return copy;
    }

    static void JNICALL releaseStringUtfChars(JNIEnv* env, jstring text, char const* characters) {
        FakeJvm& jvm = of(env);
        auto const given = jvm.m_Characters.find(characters);
        if (given == jvm.m_Characters.end() || given->second != jvm.find(text, "ReleaseStringUTFChars")) {
            ADD_FAILURE() << "ReleaseStringUTFChars called with characters of another string";
            return;
        }
        if (jvm.m_HandsOutCopies) {
            EXPECT_EQ(*characters, '\0') << "characters that may be a password are freed as they are";
        } else {
            EXPECT_EQ(characters, given->second->m_Text) << "the string has changed";
        }
        jvm.m_Characters.erase(given);
        delete[] characters;
    }

    static JNINativeInterface_ const* table() {
        static JNINativeInterface_ const functions = [] {
            JNINativeInterface_ filled = {};
            filled.GetObjectClass = &getObjectClass;
            filled.GetFieldID = &getFieldId;
            filled.GetIntField = &getIntField;
            filled.SetIntField = &setIntField;
            filled.FindClass = &findClass;
            filled.GetMethodID = &getMethodId;
            filled.NewObjectV = &newObject;
            filled.CallVoidMethodV = &callVoidMethod;
            filled.IsAssignableFrom = &isAssignableFrom;
            filled.IsInstanceOf = &isInstanceOf;
            filled.ExceptionOccurred = &exceptionOccurred;
            filled.GetStringLength = &getStringLength;
            filled.Throw = &throwException;
            filled.ThrowNew = &throwNew;
            filled.ExceptionCheck = &exceptionCheck;
            filled.ExceptionClear = &exceptionClear;
            filled.FatalError = &fatalError;
            filled.NewStringUTF = &newStringUtf;
            filled.GetStringUTFChars = &getStringUtfChars;
            filled.ReleaseStringUTFChars = &releaseStringUtfChars;
            return filled;
        }();
        return &functions;
    }
};

FakeJvm::FakeJvm() : m_Classes(std::begin(kClasses), std::end(kClasses)) {
    m_Env.functions = Functions::table();
    m_Env.m_Jvm = this;
    for (Member const& method : kExceptionMethods) {
        m_ExceptionMethods.insert(method.m_Name);
    }
}

FakeJvm::~FakeJvm() {
    EXPECT_TRUE(m_Characters.empty()) << "characters of " << m_Characters.size() << " strings were not released";
    for (auto const& given : m_Characters) {
        delete[] given.first;
    }
}

jobject FakeJvm::newObject(jint handle) {
    return Functions::reference<jobject>(add({kObjectClass, "", handle}));
}

jint FakeJvm::handleOf(jobject object) const {
    return find(object, "handleOf")->m_Number;
}

jstring FakeJvm::newString(std::string const& text) {
    return Functions::reference<jstring>(add({kStringClass, text}));
}

jstring FakeJvm::newStringOfLength(jint length) {
    return Functions::reference<jstring>(add({kStringClass, "", length}));
}

std::string FakeJvm::textOf(jstring text) const {
    return find(text, "textOf")->m_Text;
}

void FakeJvm::failCall(int number, Failure how) {
    m_CallsToFailure = number;
    m_Failure = how;
    m_FailedFunction.clear();
}

void FakeJvm::makePending(std::string const& className) {
    m_Pending = add({className, ""});
}

std::string FakeJvm::pendingClass() const {
    return m_Pending == nullptr ? "" : m_Pending->m_Class;
}

std::int32_t FakeJvm::pendingCode() const {
    return m_Pending == nullptr ? 0 : m_Pending->m_Number;
}

std::string FakeJvm::pendingText() const {
    return m_Pending == nullptr ? "" : m_Pending->m_Text;
}

FakeJvm::Object* FakeJvm::add(Object const& object) {
    m_Objects.push_back(std::make_unique<Object>(object));
    return m_Objects.back().get();
}

FakeJvm::Object* FakeJvm::find(void const* reference, char const* function) const {
    auto const found =
        std::find_if(m_Objects.begin(), m_Objects.end(), [&](auto const& object) { return object.get() == reference; });
    if (found == m_Objects.end()) {
        ADD_FAILURE() << function << " called with a null or unknown reference";
        return nullptr;
    }
    return found->get();
}

void FakeJvm::enter(char const* function) const {
    EXPECT_EQ(pendingClass(), "") << function << " called with an exception pending";
}

bool FakeJvm::enterAndFail(char const* function) {
    enter(function);
    if (m_CallsToFailure < 0 || m_CallsToFailure-- > 0) {
        return false;
    }
    m_FailedFunction = function;
    if (m_Failure == Failure::kWithException) {
        makePending(kOutOfMemoryClass);
    }
    return true;
}

}  // namespace kvxtest
