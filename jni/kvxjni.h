/// The helper functions shared by all native methods.
///
/// Nothing unwinds into the virtual machine: every failure becomes a kelvane.tallowin.KVXException. Local references
/// are not deleted here: the virtual machine frees them when the native method returns.
#ifndef TALLOWIN_JNI_KVXJNI_H
#define TALLOWIN_JNI_KVXJNI_H

#include <jni.h>

#include <cstdint>

#include "api/kvxboundary.h"
#include "api/kvxhandle.h"
#include "core/kvxbase.h"
#include "foundation/tbstring.h"
#include "jni/kvxhandlelock.h"
#include "jni/kvxnatives.h"

/// Thrown when a Java exception is already pending and must not be replaced.
struct KvxPendingException {};

/// The result of a call: success, a pending Java exception, or a code with a text.
struct KvxOutcome {
    bool m_Succeeded = true;
    bool m_Pending = false;        ///< Failed; Java has raised its own exception.
    std::int32_t m_Code = KVX_OK;  ///< The result code of a failure.
    char const* m_Reason = "";     ///< The message after the prefix when `m_Text` is empty.
    TbString m_Text;               ///< The message after the prefix.
};

/// Throws a KVXException with the code and the text `prefix` + `message`, replacing any pending exception.
/// Ends the virtual machine when the class is missing, lacks a method or is no Throwable. When the virtual machine is
/// out of memory or stack, its own error stays pending instead.
///
/// `message`  in any encoding; borrowed.
void kvxRaise(JNIEnv* env, std::int32_t code, char const* prefix, char const* message) noexcept;

/// Raises an exception about the handle or an argument of `native`. Always returns false.
bool kvxRefuse(JNIEnv* env, KvxNative native, char const* reason) noexcept;

/// Writes the exception being handled into `outcome`.
/// Requires: called from a catch block.
void kvxTranslateException(KvxOutcome& outcome) noexcept;

/// True when `outcome` is a success. Otherwise raises its exception, unless Java's own is pending, and returns false.
bool kvxReport(JNIEnv* env, KvxNative native, KvxOutcome const& outcome) noexcept;

/// The field `m_Handle` of `self`. Null, with an exception pending, when the class has no such field.
[[nodiscard]] jfieldID kvxHandleField(JNIEnv* env, jobject self) noexcept;

/// The characters of `text` in modified UTF-8, a secret string; null counts as "". Throws KvxPendingException when Java
/// has no memory, and KVX_E_OUT_OF_MEMORY (TBFC_Exception) above 715 million characters, because virtual machines
/// silently truncate longer strings.
[[nodiscard]] TbString kvxTextOf(JNIEnv* env, jstring text);

/// A new Java string. Null, with an exception pending, when memory is exhausted.
[[nodiscard]] jstring kvxNewString(JNIEnv* env, KvxNative native, TbString const& text) noexcept;

/// `nConstruct`: creates an object and stores its handle in `m_Handle`, which must be 0.
void kvxConstruct(JNIEnv* env, jobject self, KvxNative native, KVX_HANDLE (*create)()) noexcept;

/// `nDestruct`: destroys the object of a living handle; ignores any other handle.
/// Deliberate (field-keeps-handle): `m_Handle` keeps its value; the caller discards the Java object.
void kvxDestruct(JNIEnv* env, jobject self, KvxNative native, KvxKind kind, void (*destroy)(KVX_HANDLE)) noexcept;

/// The same for an object of class `Object`.
template <class Object>
void kvxDestruct(JNIEnv* env, jobject self, KvxNative native) noexcept {
    kvxDestruct(env, self, native, Object::kKind, kvxDeleteClaimed<Object>);
}

/// The number that stands for `object` in Java.
[[nodiscard]] inline jint kvxHandleOf(KVX_HANDLE object) noexcept {
    return static_cast<jint>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object)));
}

/// Runs `call` and writes an exception it throws into `outcome`.
template <class Call>
void kvxAttempt(KvxOutcome& outcome, Call call) noexcept {
    try {
        call();
    } catch (...) {
        kvxTranslateException(outcome);
    }
}

/// Every other native method: locks the object of `self` and runs `call` with it. False when an exception is pending.
/// Requires: `call` runs no Java code.
template <class Object, class Call>
bool kvxJavaCall(JNIEnv* env, jobject self, KvxNative native, Call call) noexcept {
    jfieldID const field = kvxHandleField(env, self);
    if (field == nullptr) {
        return kvxRefuse(env, native, kKvxNoField);
    }
    KvxOutcome outcome;
    bool isLiving = false;
    {
        KvxHandleLock const lock(Object::kKind, env->GetIntField(self, field));
        isLiving = lock.object() != nullptr;
        if (isLiving) {
            kvxAttempt(outcome, [&] { call(*static_cast<Object*>(lock.object())); });
        }
    }
    // Deliberate (java-bad-handle-unexpected): the code of a refusal is KVX_E_UNEXPECTED, not KVX_E_BAD_HANDLE.
    return isLiving ? kvxReport(env, native, outcome) : kvxRefuse(env, native, kKvxInvalidHandle);
}

/// The same for a `call` that returns a string. Null when an exception is pending.
template <class Object, class Call>
jstring kvxJavaText(JNIEnv* env, jobject self, KvxNative native, Call call) noexcept {
    TbString text;
    bool const done = kvxJavaCall<Object>(env, self, native, [&](Object& object) { call(object, text); });
    return done ? kvxNewString(env, native, text) : nullptr;
}

/// The same for a `call` that creates an object. Returns its handle; 0 when an exception is pending.
template <class Object, class Call>
jint kvxJavaMake(JNIEnv* env, jobject self, KvxNative native, Call call) noexcept {
    jint handle = 0;
    kvxJavaCall<Object>(env, self, native, [&](Object& object) { handle = kvxHandleOf(call(object)); });
    return handle;
}

#endif
