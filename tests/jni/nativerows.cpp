// The table of native methods, and helpers that compare what a call left behind.
//
// The functions are declared here and linked by name, as a virtual machine would look them up. Parameter count and kind
// of result of each row come from the declaration; prefixes, codes and texts are literals, not taken from the library.

#include "tests/jni/nativerows.h"

#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

#include "api/cConfigurationSetup.h"
#include "api/cMessageFactory.h"
#include "api/cMessageObject.h"

extern "C" {

void JNICALL Java_kelvane_tallowin_ConfigurationSetup_nConstruct(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_ConfigurationSetup_nDestruct(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_ConfigurationSetup_SetConfiguration(JNIEnv*, jobject, jstring);
void JNICALL Java_kelvane_tallowin_ConfigurationSetup_Reconfigure(JNIEnv*, jobject, jstring, jstring, jstring);
void JNICALL Java_kelvane_tallowin_ConfigurationSetup_SetOption(JNIEnv*, jobject, jstring, jstring);
jstring JNICALL Java_kelvane_tallowin_ConfigurationSetup_GetAttribute(JNIEnv*, jobject, jstring, jstring);
void JNICALL Java_kelvane_tallowin_ConfigurationSetup_SetAttribute(JNIEnv*, jobject, jstring, jstring, jstring);
void JNICALL Java_kelvane_tallowin_MessageFactory_nConstruct(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_MessageFactory_nDestruct(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_MessageFactory_Open(JNIEnv*, jobject, jstring);
jint JNICALL Java_kelvane_tallowin_MessageFactory_nCreatePayInit(JNIEnv*, jobject);
jint JNICALL Java_kelvane_tallowin_MessageFactory_nVerifyPayConfirm(JNIEnv*, jobject, jstring, jstring);
jint JNICALL Java_kelvane_tallowin_MessageFactory_nCreatePayComplete(JNIEnv*, jobject, jstring, jstring);
jint JNICALL Java_kelvane_tallowin_MessageFactory_nCreateRequest(JNIEnv*, jobject, jstring);
void JNICALL Java_kelvane_tallowin_MessageObject_nConstruct(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_MessageObject_nDestruct(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_MessageObject_Open(JNIEnv*, jobject, jstring);
void JNICALL Java_kelvane_tallowin_MessageObject_SetAttribute(JNIEnv*, jobject, jstring, jstring);
jstring JNICALL Java_kelvane_tallowin_MessageObject_GetAttribute(JNIEnv*, jobject, jstring);
jstring JNICALL Java_kelvane_tallowin_MessageObject_GetURL(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_MessageObject_Capture(JNIEnv*, jobject);
jint JNICALL Java_kelvane_tallowin_MessageObject_nExecute(JNIEnv*, jobject);
void JNICALL Java_kelvane_tallowin_MessageObject_FromString(JNIEnv*, jobject, jstring);
jstring JNICALL Java_kelvane_tallowin_MessageObject_ToString(JNIEnv*, jobject);

}  // extern "C"

namespace kvxtest {

namespace {

template <class Result, class... Texts>
constexpr std::size_t argumentCountOf(Result(JNIEnv*, jobject, Texts...)) {
    return sizeof...(Texts);
}

template <class Wanted, class Result, class... Texts>
constexpr bool returns(Result(JNIEnv*, jobject, Texts...)) {
    return std::is_same_v<Wanted, Result>;
}

template <class Result, class... Texts, std::size_t... Indices>
Returned callWith(Result (*function)(JNIEnv*, jobject, Texts...), JNIEnv* env, jobject self, Arguments const& arguments,
                  std::index_sequence<Indices...>) {
    Returned returned;
    if constexpr (std::is_same_v<Result, jint>) {
        returned.m_Number = function(env, self, arguments[Indices]...);
    } else if constexpr (std::is_same_v<Result, jstring>) {
        returned.m_Text = function(env, self, arguments[Indices]...);
    } else {
        function(env, self, arguments[Indices]...);
    }
    return returned;
}

template <auto function>
Returned callOf(JNIEnv* env, jobject self, Arguments const& arguments) {
    return callWith(function, env, self, arguments, std::make_index_sequence<argumentCountOf(*function)>());
}

constexpr char kNullNameOrValue[] = "Value or Name of the Attribute is NULL";
constexpr char kNullFileNameOrValue[] = "Value or File, Name or newVal is NULL";

/// A new object uses the current directory, which has no key.
constexpr char kCannotOpen[] = "ErrorCode = 0x80040219";

std::array<jstring, 3> javaStrings(FakeJvm& jvm, std::array<std::string, 3> const& texts) {
    return {jvm.newString(texts[0]), jvm.newString(texts[1]), jvm.newString(texts[2])};
}

}  // namespace

Returned NativeRow::call(FakeJvm& jvm, jobject self, std::array<std::string, 3> const& texts) const {
    return m_Call(jvm.env(), self, javaStrings(jvm, texts));
}

Returned NativeRow::callBare(FakeJvm& jvm, jobject self) const {
    return call(jvm, self, {m_BareArguments[0], m_BareArguments[1], m_BareArguments[2]});
}

std::vector<NativeRow> const& nativeRows() {
// The symbol by which Java finds a native method.
#define KVX_NATIVE(Class, Method) Java_kelvane_tallowin_##Class##_##Method
#define KVX_ROW(native, Class, Method, handlePrefix, failurePrefix, nullRefusal, bareArguments, bareCode, bareText) \
    NativeRow {                                                                                                     \
        KvxNative::native, #Class, #Method, handlePrefix, failurePrefix, nullRefusal, bareArguments, bareCode,      \
            bareText, KVXCIMPL_##Class::kKind, &Create##Class, &Destroy##Class,                                     \
            argumentCountOf(KVX_NATIVE(Class, Method)), returns<jint>(KVX_NATIVE(Class, Method)),                   \
            returns<jstring>(KVX_NATIVE(Class, Method)), &callOf<&KVX_NATIVE(Class, Method)>                        \
    }
    using Texts = std::array<char const*, 3>;
    Texts const none = {"", "", ""};
    // clang-format off
    static std::vector<NativeRow> const rows = {
        KVX_ROW(kSetupConstruct, ConfigurationSetup, nConstruct, "ConfigurationSetup::Construct(): ",
                "ConfigurationSetup::Construct(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kSetupDestruct, ConfigurationSetup, nDestruct, "ConfigurationSetup::Destruct(): ",
                "ConfigurationSetup::Destruct(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kSetupSetConfiguration, ConfigurationSetup, SetConfiguration,
                "ConfigurationSetup::SetConfiguration(): ", "ConfigurationSetup::SetConfiguration(): ", nullptr,
                (Texts{"/no/such/place", "", ""}), 2,
                "ErrorCode = 0x2 (KVX_Context::CreatePath(): failed to create directory)"),
        KVX_ROW(kSetupReconfigure, ConfigurationSetup, Reconfigure, "ConfigurationSetup::Reconfigure(): ",
                "ConfigurationSetup::Reconfigure(): ", nullptr, none, KVX_E_NO_CONTEXT, "no context present"),
        KVX_ROW(kSetupSetOption, ConfigurationSetup, SetOption, "ConfigurationSetup::SetOption(): ",
                "ConfigurationSetup::SetOption(): ", kNullNameOrValue, (Texts{"nonsense", "v", ""}),
                KVX_E_INVALID_OPTION, "invalid option"),
        KVX_ROW(kSetupGetAttribute, ConfigurationSetup, GetAttribute, "ConfigurationSetup::GetAttribute(): ",
                "ConfigurationSetup::GetAttribute(): ", nullptr, none, KVX_E_NO_CONTEXT, "no context present"),
        KVX_ROW(kSetupSetAttribute, ConfigurationSetup, SetAttribute, "ConfigurationSetup::SetAttribute(): ",
                "ConfigurationSetup::SetAttribute(): ", kNullFileNameOrValue, (Texts{"f", "n", "v"}), KVX_E_NO_CONTEXT,
                "no context present"),
        KVX_ROW(kFactoryConstruct, MessageFactory, nConstruct, "MessageFactory::Construct(): ",
                "MessageFactory::Construct(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kFactoryDestruct, MessageFactory, nDestruct, "MessageFactory::Destruct(): ",
                "MessageFactory::Destruct(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kFactoryOpen, MessageFactory, Open, "MessageFactory::Open(): ",
                "MessageFactory::Open(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kFactoryCreatePayInit, MessageFactory, nCreatePayInit, "MessageFactory::CreatePayInit(): ",
                "MessageFactory::CreatePayInit(): ", nullptr, none, KVX_E_CANNOT_OPEN, kCannotOpen),
        KVX_ROW(kFactoryVerifyPayConfirm, MessageFactory, nVerifyPayConfirm, "MessageFactory::VerifyPayConfirm(): ",
                "MessageFactory::VerifyPayConfirm(): ", nullptr, none, KVX_E_INVALID_FORMAT, "invalid file format"),
        KVX_ROW(kFactoryCreatePayComplete, MessageFactory, nCreatePayComplete, "MessageFactory::CreatePayComplete(): ",
                "MessageFactory::CreatePayComplete(): ", nullptr, none, KVX_E_CANNOT_OPEN, kCannotOpen),
        KVX_ROW(kFactoryCreateRequest, MessageFactory, nCreateRequest, "MessageFactory::CreateRequest(): ",
                "MessageFactory::CreateRequest(): ", nullptr, none, KVX_E_NO_MESSAGE_TYPE, "ErrorCode = 0x80040218"),
        KVX_ROW(kMessageConstruct, MessageObject, nConstruct, "MessageObject::Construct(): ",
                "MessageFactory::Construct(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kMessageDestruct, MessageObject, nDestruct, "MessageObject::Destruct(): ",
                "MessageFactory::Destruct(): ", nullptr, none, KVX_OK, ""),
        KVX_ROW(kMessageOpen, MessageObject, Open, "MessageObject::Open(): ",
                "MessageFactory::Open(): ", nullptr, none, KVX_E_CANNOT_OPEN, kCannotOpen),
        KVX_ROW(kMessageSetAttribute, MessageObject, SetAttribute, "MessageObject::SetAttribute(): ",
                "MessageFactory::SetAttribute(): ", kNullNameOrValue, (Texts{"n", "v", ""}), KVX_E_UNEXPECTED,
                "unexpected error"),
        KVX_ROW(kMessageGetAttribute, MessageObject, GetAttribute, "MessageObject::GetAttribute(): ",
                "MessageFactory::GetAttribute(): ", nullptr, none, KVX_E_UNEXPECTED, "unexpected error"),
        KVX_ROW(kMessageGetURL, MessageObject, GetURL, "MessageObject::GetURL(): ",
                "MessageFactory::GetURL(): ", nullptr, none, KVX_E_UNEXPECTED, "unexpected error"),
        KVX_ROW(kMessageCapture, MessageObject, Capture, "MessageObject::Capture(): ",
                "MessageFactory::Capture(): ", nullptr, none, KVX_E_UNEXPECTED, "unexpected error"),
        KVX_ROW(kMessageExecute, MessageObject, nExecute, "MessageObject::Execute(): ",
                "MessageFactory::Execute(): ", nullptr, none, KVX_E_UNEXPECTED, "unexpected error"),
        KVX_ROW(kMessageFromString, MessageObject, FromString, "MessageObject::FromString(): ",
                "MessageFactory::FromString(): ", nullptr, none, KVX_E_INVALID_FORMAT, "invalid file format"),
        KVX_ROW(kMessageToString, MessageObject, ToString, "MessageObject::GetAttribute(): ",
                "MessageFactory::ToString(): ", nullptr, none, KVX_E_UNEXPECTED, "unexpected error"),
    };
    // clang-format on
#undef KVX_ROW
#undef KVX_NATIVE
    return rows;
}

NativeRow const& rowOf(KvxNative native) {
    return nativeRows().at(static_cast<std::size_t>(native));
}

void expectRaised(FakeJvm const& jvm, Returned const& returned, std::int32_t code, std::string const& text) {
    EXPECT_EQ(jvm.pendingClass(), kExceptionClass);
    EXPECT_EQ(jvm.pendingCode(), code);
    EXPECT_EQ(jvm.pendingText(), text);
    EXPECT_TRUE(jvm.fatalErrors().empty());
    EXPECT_EQ(returned.m_Number, 0);
    EXPECT_EQ(returned.m_Text, nullptr);
}

void expectFine(FakeJvm const& jvm) {
    EXPECT_EQ(jvm.pendingClass(), "");
    EXPECT_EQ(jvm.pendingText(), "");
    EXPECT_TRUE(jvm.fatalErrors().empty());
}

KVX_HANDLE objectOf(jint handle) {
    return reinterpret_cast<KVX_HANDLE>(std::uintptr_t{static_cast<std::uint32_t>(handle)});
}

jint JavaObject::handle() const {
    return static_cast<jint>(reinterpret_cast<std::intptr_t>(m_Object));
}

}  // namespace kvxtest
