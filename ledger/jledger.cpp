// The native methods of kelvane.tallowin.ledger.Natives, over the flat functions of tallowin/ledger.h.
//
// Order: copies of Java's arrays, the boundary that lets no C++ exception into Java, the two ways to copy a text, then
// the methods in the order of the class. Results that are reported only once are copied into arrays that the caller has
// made, which needs no memory. Every other array is new; when Java has no memory for it, Java's own error is pending,
// and Java raises it whatever is returned here.
#include <jni.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "tallowin/ledger.h"

namespace {

/// Most texts fit; a longer one costs a second call.
constexpr std::size_t kFirstRoom = 4096;

KVX_HANDLE handleOf(jlong ledger) {
    return reinterpret_cast<KVX_HANDLE>(static_cast<std::uintptr_t>(ledger));
}

/// A copy of the bytes of a Java array, which must not be null.
std::string textOf(JNIEnv* env, jbyteArray bytes) {
    std::string text(static_cast<std::size_t>(env->GetArrayLength(bytes)), '\0');
    env->GetByteArrayRegion(bytes, 0, static_cast<jsize>(text.size()), reinterpret_cast<jbyte*>(text.data()));
    return text;
}

/// A text that is wiped at the end.
class Secret {
public:
    explicit Secret(std::string text) : m_Text(std::move(text)) {}
    Secret(Secret const&) = delete;
    Secret& operator=(Secret const&) = delete;
    ~Secret() { ::explicit_bzero(m_Text.data(), m_Text.size()); }

    [[nodiscard]] char const* get() const noexcept { return m_Text.c_str(); }

private:
    std::string m_Text;
};

/// Stores `text` as a new array in the first element of `reply`.
void setReply(JNIEnv* env, jobjectArray reply, std::string const& text) {
    auto const length = static_cast<jsize>(text.size());
    jbyteArray const bytes = env->NewByteArray(length);
    if (bytes != nullptr) {
        env->SetByteArrayRegion(bytes, 0, length, reinterpret_cast<jbyte const*>(text.data()));
        env->SetObjectArrayElement(reply, 0, bytes);
        env->DeleteLocalRef(bytes);
    }
}

/// Calls `function(size, buffer)` with a buffer that is large enough, and writes the text to `text`.
template <class Function>
std::int32_t copyText(std::string& text, Function function) {
    text.resize(kFirstRoom);
    for (;;) {
        auto size = static_cast<std::int32_t>(text.size());
        std::int32_t const code = function(&size, text.data());
        if (code != KVX_E_BUFFER_TOO_SMALL || static_cast<std::size_t>(size) <= text.size()) {
            text.resize(code == KVX_OK ? static_cast<std::size_t>(size) - 1 : 0);
            return code;
        }
        text.resize(static_cast<std::size_t>(size));
    }
}

/// Runs `call`, which returns a result code, and stores the reason of a failure in `reply`.
template <class Call>
jint guarded(JNIEnv* env, jobjectArray reply, Call call) noexcept {
    try {
        std::int32_t const code = call();
        if (code != KVX_OK) {
            std::string reason;
            copyText(reason, Ledger_GetLastErrorText);
            setReply(env, reply, reason);
        }
        return code;
    } catch (...) {  // no memory, or a length above what a string can have
        return KVX_E_OUT_OF_MEMORY;
    }
}

/// Runs `function(size, buffer)` and stores the text that it copies in `reply`.
template <class Function>
jint replied(JNIEnv* env, jobjectArray reply, Function function) noexcept {
    return guarded(env, reply, [&] {
        std::string text;
        std::int32_t const code = copyText(text, function);
        if (code == KVX_OK) {
            setReply(env, reply, text);
        }
        return code;
    });
}

/// Copies the number of an order, whose `size` counts the terminator, into arrays of the caller.
void setOrder(JNIEnv* env, char const* number, std::int32_t size, jbyteArray order, jintArray numbers) {
    jint const length = size - 1;
    env->SetByteArrayRegion(order, 0, length, reinterpret_cast<jbyte const*>(number));
    env->SetIntArrayRegion(numbers, 0, 1, &length);
}

/// The elements of an array of byte arrays.
std::vector<std::string> textsOf(JNIEnv* env, jobjectArray arrays) {
    jsize const count = env->GetArrayLength(arrays);
    std::vector<std::string> texts;
    for (jsize i = 0; i < count; ++i) {
        auto const bytes = static_cast<jbyteArray>(env->GetObjectArrayElement(arrays, i));
        texts.push_back(textOf(env, bytes));
        env->DeleteLocalRef(bytes);
    }
    return texts;
}

/// An order under construction.
class Order {
public:
    Order() = default;
    Order(Order const&) = delete;
    Order& operator=(Order const&) = delete;
    ~Order() { DestroyLedgerOrder(m_Handle); }

    /// `texts`: number, amount, currency, then name and value of each attribute.
    std::int32_t create(KVX_HANDLE ledger, std::vector<std::string> const& texts) {
        std::int32_t code = Ledger_CreateOrder(ledger, texts[0].c_str(), texts[1].c_str(), texts[2].c_str(), &m_Handle);
        for (std::size_t i = 3; code == KVX_OK && i + 1 < texts.size(); i += 2) {
            code = LedgerOrder_SetAttribute(m_Handle, texts[i].c_str(), texts[i + 1].c_str());
        }
        return code;
    }

    std::int32_t begin(std::int32_t* size, char* url) const { return LedgerOrder_Begin(m_Handle, size, url); }

private:
    KVX_HANDLE m_Handle = nullptr;
};

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_kelvane_tallowin_ledger_Natives_create(JNIEnv* /*env*/, jclass /*type*/) {
    return static_cast<jlong>(reinterpret_cast<std::uintptr_t>(CreateLedger()));
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_ledger_Natives_destroy(JNIEnv* /*env*/, jclass /*type*/, jlong ledger) {
    DestroyLedger(handleOf(ledger));
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_setOption(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                      jbyteArray name, jbyteArray value,
                                                                      jobjectArray reply) {
    return guarded(env, reply, [&] {
        Secret const secret(textOf(env, value));  // it may be KEYSECRET
        return Ledger_SetOption(handleOf(ledger), textOf(env, name).c_str(), secret.get());
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_open(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                 jbyteArray store, jbyteArray directory,
                                                                 jobjectArray reply) {
    return guarded(env, reply, [&] {
        return Ledger_Open(handleOf(ledger), textOf(env, store).c_str(), textOf(env, directory).c_str());
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_begin(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                  jobjectArray order, jobjectArray reply) {
    Order made;
    jint const code = guarded(env, reply, [&] { return made.create(handleOf(ledger), textsOf(env, order)); });
    if (code != KVX_OK) {
        return code;
    }
    return replied(env, reply, [&](std::int32_t* size, char* url) { return made.begin(size, url); });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_confirm(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                    jbyteArray messenger, jbyteArray data,
                                                                    jbyteArray signature, jbyteArray order,
                                                                    jintArray numbers, jobjectArray reply) {
    std::int32_t outcome = KVX_LEDGER_REFUSED;
    jint const code = guarded(env, reply, [&] {
        std::array<char, KVX_LEDGER_NUMBER_SIZE> number{};
        auto size = static_cast<std::int32_t>(number.size());
        std::int32_t const result =
            Ledger_Confirm(handleOf(ledger), textOf(env, messenger).c_str(), textOf(env, data).c_str(),
                           textOf(env, signature).c_str(), &outcome, &size, number.data());
        if (result == KVX_OK) {
            jint const said = outcome;
            setOrder(env, number.data(), size, order, numbers);
            env->SetIntArrayRegion(numbers, 1, 1, &said);
        }
        return result;
    });
    if (code != KVX_OK || (outcome != KVX_LEDGER_REFUSED && outcome != KVX_LEDGER_KEPT)) {
        return code;
    }
    return replied(env, reply, [&](std::int32_t* size, char* sentence) {
        std::int32_t reason = KVX_LEDGER_REASON_NONE;
        std::int32_t const result = Ledger_GetReason(handleOf(ledger), &reason, size, sentence);
        if (result == KVX_OK) {
            jint const why = reason;
            env->SetIntArrayRegion(numbers, 2, 1, &why);
        }
        return result;
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_nextPaid(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                     jbyteArray order, jintArray numbers,
                                                                     jobjectArray reply) {
    return guarded(env, reply, [&] {
        std::array<char, KVX_LEDGER_NUMBER_SIZE> number{};
        auto size = static_cast<std::int32_t>(number.size());
        std::int32_t const code = Ledger_NextPaid(handleOf(ledger), &size, number.data());
        if (code == KVX_OK) {
            setOrder(env, number.data(), size, order, numbers);
        }
        return code;
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_delivered(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                      jbyteArray order, jobjectArray reply) {
    return guarded(env, reply, [&] { return Ledger_Delivered(handleOf(ledger), textOf(env, order).c_str()); });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_runDue(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                   jint limit, jintArray numbers, jobjectArray reply) {
    return guarded(env, reply, [&] {
        std::int32_t done = 0;
        std::int32_t const code = Ledger_RunDue(handleOf(ledger), limit, &done);
        jint const count = done;
        env->SetIntArrayRegion(numbers, 0, 1, &count);
        return code;
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_resolve(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                    jbyteArray order, jbyteArray state, jbyteArray note,
                                                                    jobjectArray reply) {
    return guarded(env, reply, [&] {
        return Ledger_Resolve(handleOf(ledger), textOf(env, order).c_str(), textOf(env, state).c_str(),
                              textOf(env, note).c_str());
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_renewKeys(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                      jbyteArray url, jbyteArray user,
                                                                      jbyteArray password, jintArray numbers,
                                                                      jobjectArray reply) {
    return guarded(env, reply, [&] {
        Secret const secret(textOf(env, password));
        std::int32_t outcome = KVX_LEDGER_RENEWAL_UNCHANGED;
        std::int32_t const code = Ledger_RenewKeys(handleOf(ledger), textOf(env, url).c_str(),
                                                   textOf(env, user).c_str(), secret.get(), &outcome);
        jint const said = outcome;
        env->SetIntArrayRegion(numbers, 0, 1, &said);
        return code;
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_getState(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                     jbyteArray order, jobjectArray reply) {
    return replied(env, reply, [&](std::int32_t* size, char* state) {
        return Ledger_GetState(handleOf(ledger), textOf(env, order).c_str(), size, state);
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_getOrder(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                     jbyteArray order, jobjectArray reply) {
    return replied(env, reply, [&](std::int32_t* size, char* json) {
        return Ledger_GetOrder(handleOf(ledger), textOf(env, order).c_str(), size, json);
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_exportOrder(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                        jbyteArray order, jobjectArray reply) {
    return replied(env, reply, [&](std::int32_t* size, char* json) {
        return Ledger_ExportOrder(handleOf(ledger), textOf(env, order).c_str(), size, json);
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_ledger_Natives_listOrders(JNIEnv* env, jclass /*type*/, jlong ledger,
                                                                       jbyteArray filter, jbyteArray after, jint limit,
                                                                       jobjectArray reply) {
    return replied(env, reply, [&](std::int32_t* size, char* json) {
        return Ledger_ListOrders(handleOf(ledger), textOf(env, filter).c_str(), textOf(env, after).c_str(), limit, size,
                                 json);
    });
}

}  // extern "C"
