/// What every native method does around its call.
///
/// Nothing unwinds into the virtual machine: every failure becomes a kelvane.tallowin.KVXException. Local references
/// are left to the virtual machine, which frees them when a native method returns.
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

/// Thrown when Java's own exception is pending already and must not be replaced.
struct KvxPendingException {};

/// How a call ended.
struct KvxOutcome {
    bool m_Succeeded = true;
    bool m_Pending = false;        ///< Failed with Java's own exception, which is on its way.
    std::int32_t m_Code = KVX_OK;  ///< Failed with this code.
    char const* m_Reason = "";     ///< What stands behind the prefix, of a failure without a text of its own.
    TbString m_Text;               ///< What stands behind the prefix, else.
};

/// Throws a KVXException with the code and the text `prefix` + `message`, in place of whatever exception is pending.
/// Ends the virtual machine when there is no such class, it lacks a method, or it cannot be thrown. A virtual machine
/// that is out of memory or stack keeps its own error instead.
///
/// `message`  in any encoding; borrowed.
void kvxRaise(JNIEnv* env, std::int32_t code, char const* prefix, char const* message) noexcept;

/// Refuses handle or arguments of `native`. Returns false.
bool kvxRefuse(JNIEnv* env, KvxNative native, char const* reason) noexcept;

/// Writes the exception that is being handled into `outcome`. Call it in a handler only.
void kvxTranslateException(KvxOutcome& outcome) noexcept;

/// True when `outcome` is a success; else sees to it that an exception is pending.
bool kvxReport(JNIEnv* env, KvxNative native, KvxOutcome const& outcome) noexcept;

/// The field `m_Handle` of `self`; null, with an exception pending, when it has none.
[[nodiscard]] jfieldID kvxHandleField(JNIEnv* env, jobject self) noexcept;

/// The characters of `text` in modified UTF-8; null counts as "". Throws KvxPendingException when Java has no memory,
/// and KVX_E_OUT_OF_MEMORY (TBFC_Exception) for more than 715 million characters, which virtual machines cut without a
/// word.
[[nodiscard]] TbString kvxTextOf(JNIEnv* env, jstring text);

/// A new Java string. Null, with an exception pending, when memory is exhausted.
[[nodiscard]] jstring kvxNewString(JNIEnv* env, KvxNative native, TbString const& text) noexcept;

/// `nConstruct`: stores the handle of a new object in a field that holds none yet.
void kvxConstruct(JNIEnv* env, jobject self, KvxNative native, KVX_HANDLE (*create)()) noexcept;

/// `nDestruct`: destroys the object of a living handle and ignores any other.
/// Deliberate: the field keeps its value; the Java object is to be discarded.
void kvxDestruct(JNIEnv* env, jobject self, KvxNative native, KvxKind kind, void (*destroy)(KVX_HANDLE)) noexcept;

/// The same for an object of the class.
template <class Object>
void kvxDestruct(JNIEnv* env, jobject self, KvxNative native) noexcept {
    kvxDestruct(env, self, native, Object::kKind, kvxDeleteClaimed<Object>);
}

/// The number under which Java knows `object`.
[[nodiscard]] inline jint kvxHandleOf(KVX_HANDLE object) noexcept {
    return static_cast<jint>(static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(object)));
}

/// Runs `call` and writes how it ended.
template <class Call>
void kvxAttempt(KvxOutcome& outcome, Call call) noexcept {
    try {
        call();
    } catch (...) {
        kvxTranslateException(outcome);
    }
}

/// Every other native method: runs `call` with the object of `self`. False when an exception is pending.
/// `call` runs no Java.
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
    return isLiving ? kvxReport(env, native, outcome) : kvxRefuse(env, native, kKvxInvalidHandle);
}

/// The same for a `call` with a string result.
template <class Object, class Call>
jstring kvxJavaText(JNIEnv* env, jobject self, KvxNative native, Call call) noexcept {
    TbString text;
    bool const done = kvxJavaCall<Object>(env, self, native, [&](Object& object) { call(object, text); });
    return done ? kvxNewString(env, native, text) : nullptr;
}

/// The same for a `call` that makes an object, whose handle is the result; 0 when an exception is pending.
template <class Object, class Call>
jint kvxJavaMake(JNIEnv* env, jobject self, KvxNative native, Call call) noexcept {
    jint handle = 0;
    kvxJavaCall<Object>(env, self, native, [&](Object& object) { handle = kvxHandleOf(call(object)); });
    return handle;
}

#endif
