// The helper functions of the native methods: raising exceptions, converting strings, constructing and destructing.
//
// `kvxRaise` looks up KVXException and its three methods at every failure; nothing is cached, because class loaders
// come and go. A VirtualMachineError met on the way (no memory, no stack) stays pending in place of a KVXException.
// Only a missing or incompatible exception class ends the virtual machine. C++ exceptions are turned into a
// `KvxOutcome` first and raised afterwards, when no handle lock is held.

#include "jni/kvxjni.h"

#include <cstring>
#include <limits>
#include <new>

#include "core/kvxlog.h"
#include "core/kvxreason.h"
#include "foundation/tbexception.h"
#include "jni/kvxmodifiedutf8.h"

namespace {

// Names and texts that Java code relies on. Do not change.
constexpr char kExceptionClass[] = "kelvane/tallowin/KVXException";
constexpr char kExceptionClassMissing[] = "Class kelvane/tallowin/KVXException not found";
constexpr char kExceptionClassIncompatible[] = "Incompatible class kelvane/tallowin/KVXException";

/// Limit of a string's characters: each takes up to three bytes, and their sum must fit a signed 32-bit length.
constexpr jsize kMaxCharacters = std::numeric_limits<jsize>::max() / 3;

constexpr char kOutOfMemory[] = "out of memory";
constexpr char kUnexpected[] = "unexpected error";

/// The methods needed to make a KVXException. Lookup stops at the first that is missing.
struct ExceptionMembers {
    ExceptionMembers(JNIEnv* env, jclass type) noexcept : m_Constructor(env->GetMethodID(type, "<init>", "()V")) {
        if (m_Constructor != nullptr) {
            m_PutHR = env->GetMethodID(type, "putHR", "(I)V");
        }
        if (m_PutHR != nullptr) {
            m_PutErrorMessage = env->GetMethodID(type, "putErrorMessage", "(Ljava/lang/String;)V");
        }
    }

    [[nodiscard]] bool areComplete() const noexcept { return m_PutErrorMessage != nullptr; }

    jmethodID m_Constructor;
    jmethodID m_PutHR = nullptr;
    jmethodID m_PutErrorMessage = nullptr;
};

/// Whether `type` is a subclass of Throwable.
bool isThrowable(JNIEnv* env, jclass type) noexcept {
    jclass const throwable = env->FindClass("java/lang/Throwable");
    return throwable != nullptr && env->IsAssignableFrom(type, throwable) != JNI_FALSE;
}

/// Whether the pending exception is a VirtualMachineError, such as OutOfMemoryError. It stays pending then, and the
/// lookup that raised it proves nothing about the class. Any other pending exception is cleared.
bool keepVirtualMachineError(JNIEnv* env) noexcept {
    jthrowable const pending = env->ExceptionOccurred();
    env->ExceptionClear();
    if (pending == nullptr) {
        return false;
    }
    jclass const errorClass = env->FindClass("java/lang/VirtualMachineError");
    bool const isError = errorClass == nullptr || env->IsInstanceOf(pending, errorClass) != JNI_FALSE;
    if (isError) {
        env->ExceptionClear();  // FindClass has raised another one when `errorClass` is null
        env->Throw(pending);
    }
    return isError;
}

/// Ends the virtual machine with `reason`, unless a VirtualMachineError is pending.
void endVirtualMachine(JNIEnv* env, char const* reason) noexcept {
    if (!keepVirtualMachineError(env)) {
        env->FatalError(reason);
    }
}

/// The characters of a Java string; wiped and released by the destructor.
class Characters {
public:
    Characters(JNIEnv* env, jstring text) noexcept
        : m_Env(env), m_Text(text), m_Bytes(env->GetStringUTFChars(text, &m_IsCopy)) {}
    Characters(Characters const&) = delete;
    Characters& operator=(Characters const&) = delete;
    ~Characters() {
        if (m_Bytes != nullptr) {
            if (m_IsCopy != JNI_FALSE) {
                // Java frees the copy as it is, and the text may be a password.
                ::explicit_bzero(const_cast<char*>(m_Bytes), std::strlen(m_Bytes));
            }
            m_Env->ReleaseStringUTFChars(m_Text, m_Bytes);
        }
    }

    /// Null when Java has no memory.
    [[nodiscard]] char const* get() const noexcept { return m_Bytes; }

private:
    JNIEnv* m_Env;
    jstring m_Text;
    jboolean m_IsCopy = JNI_FALSE;
    char const* m_Bytes;
};

/// `prefix` + `message` in modified UTF-8; empty when memory is exhausted.
TbString modifiedUtf8Of(char const* prefix, char const* message) noexcept {
    TbString text;
    text.keepSecret();  // a server's message may repeat what it was sent
    try {
        kvxToModifiedUtf8(prefix, text);
        kvxToModifiedUtf8(message, text);
    } catch (TBFC_Exception const&) {
        text.clear();
    }
    return text;
}

/// Throws a new exception of class `type`. When a step fails, Java's own exception stays pending instead.
void throwNew(JNIEnv* env, jclass type, ExceptionMembers const& members, std::int32_t code, char const* prefix,
              char const* message) noexcept {
    auto const exception = static_cast<jthrowable>(env->NewObject(type, members.m_Constructor));
    if (exception == nullptr) {
        return;
    }
    env->CallVoidMethod(exception, members.m_PutHR, static_cast<jint>(code));
    if (env->ExceptionCheck() != JNI_FALSE) {
        return;
    }
    TbString const text = modifiedUtf8Of(prefix, message);
    jstring const javaText = env->NewStringUTF(text.isEmpty() ? prefix : text.c_str());
    if (javaText != nullptr) {
        env->CallVoidMethod(exception, members.m_PutErrorMessage, javaText);
    }
    if (env->ExceptionCheck() == JNI_FALSE) {
        env->Throw(exception);
    }
}

}  // namespace

void kvxRaise(JNIEnv* env, std::int32_t code, char const* prefix, char const* message) noexcept {
    env->ExceptionClear();
    jclass const type = env->FindClass(kExceptionClass);
    if (type == nullptr) {
        endVirtualMachine(env, kExceptionClassMissing);
        return;
    }
    ExceptionMembers const members(env, type);
    if (!members.areComplete() || !isThrowable(env, type)) {
        endVirtualMachine(env, kExceptionClassIncompatible);
        return;
    }
    throwNew(env, type, members, code, prefix, message);
    if (env->ExceptionCheck() == JNI_FALSE) {
        // Without memory a virtual machine may fail and raise nothing, but no failure may look like a success.
        jclass const outOfMemory = env->FindClass("java/lang/OutOfMemoryError");
        if (outOfMemory != nullptr) {
            env->ThrowNew(outOfMemory, prefix);
        }
    }
}

bool kvxRefuse(JNIEnv* env, KvxNative native, char const* reason) noexcept {
    kvxRaise(env, KVX_E_UNEXPECTED, kvxTextsOf(native).m_HandlePrefix, reason);
    return false;
}

void kvxTranslateException(KvxOutcome& outcome) noexcept {
    outcome.m_Succeeded = false;
    try {
        throw;
    } catch (KvxPendingException const&) {
        outcome.m_Pending = true;
    } catch (KVX_Exception const& failure) {
        if (kvxLogIsOn()) {
            kvxRecordFailure(failure);  // writes the log
        }
        outcome.m_Code = failure.code();
        try {
            outcome.m_Text = failure.text();
        } catch (TBFC_Exception const&) {
            outcome.m_Reason = kOutOfMemory;  // no memory for the text; the code stays
        }
    } catch (TBFC_Exception const& failure) {
        if (kvxLogIsOn()) {
            kvxRecordFailure(failure.code());
        }
        outcome.m_Code = failure.code();
        outcome.m_Reason = failure.code() == KVX_E_OUT_OF_MEMORY ? kOutOfMemory : kUnexpected;
    } catch (std::bad_alloc const&) {
        outcome.m_Code = KVX_E_OUT_OF_MEMORY;
        outcome.m_Reason = kOutOfMemory;
    } catch (...) {
        outcome.m_Code = KVX_E_UNEXPECTED;
        outcome.m_Reason = kUnexpected;
    }
}

bool kvxReport(JNIEnv* env, KvxNative native, KvxOutcome const& outcome) noexcept {
    if (outcome.m_Succeeded) {
        return true;
    }
    char const* const prefix = kvxTextsOf(native).m_FailurePrefix;
    if (!outcome.m_Pending) {
        kvxRaise(env, outcome.m_Code, prefix, outcome.m_Text.isEmpty() ? outcome.m_Reason : outcome.m_Text.c_str());
    } else if (env->ExceptionCheck() == JNI_FALSE) {
        kvxRaise(env, KVX_E_OUT_OF_MEMORY, prefix, kOutOfMemory);  // some virtual machines raise nothing here
    }
    return false;
}

jfieldID kvxHandleField(JNIEnv* env, jobject self) noexcept {
    jclass const type = env->GetObjectClass(self);
    return type == nullptr ? nullptr : env->GetFieldID(type, "m_Handle", "I");
}

TbString kvxTextOf(JNIEnv* env, jstring text) {
    if (text == nullptr) {
        return kvxSecretText(nullptr);
    }
    if (env->GetStringLength(text) > kMaxCharacters) {
        throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
    }
    Characters const characters(env, text);
    if (characters.get() == nullptr) {
        throw KvxPendingException{};
    }
    return kvxSecretText(characters.get());
}

jstring kvxNewString(JNIEnv* env, KvxNative native, TbString const& text) noexcept {
    KvxOutcome outcome;
    TbString modified;
    modified.joinSecrecyOf(text);
    jstring result = nullptr;
    kvxAttempt(outcome, [&] {
        kvxToModifiedUtf8(text.c_str(), modified);
        result = env->NewStringUTF(modified.c_str());
        if (result == nullptr) {
            throw KvxPendingException{};
        }
    });
    kvxReport(env, native, outcome);
    return result;
}

void kvxConstruct(JNIEnv* env, jobject self, KvxNative native, KVX_HANDLE (*create)()) noexcept {
    jfieldID const field = kvxHandleField(env, self);
    if (field == nullptr) {
        kvxRefuse(env, native, kKvxNoField);
        return;
    }
    if (env->GetIntField(self, field) != 0) {
        kvxRefuse(env, native, kKvxHandleNotZero);
        return;
    }
    KvxOutcome outcome;
    kvxAttempt(outcome, [&] {
        KVX_HANDLE const object = create();
        if (object == nullptr) {
            throw TBFC_Exception(KVX_E_OUT_OF_MEMORY);
        }
        env->SetIntField(self, field, kvxHandleOf(object));
    });
    kvxReport(env, native, outcome);
}

void kvxDestruct(JNIEnv* env, jobject self, KvxNative native, KvxKind kind, void (*destroy)(KVX_HANDLE)) noexcept {
    jfieldID const field = kvxHandleField(env, self);
    if (field == nullptr) {
        env->ExceptionClear();
        return;
    }
    if (!kvxDestroyUnlessLocked(kind, env->GetIntField(self, field), destroy)) {
        kvxRefuse(env, native, kKvxInUse);
    }
}
