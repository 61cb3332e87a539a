/// The native methods and the texts of their exceptions.
#ifndef TALLOWIN_JNI_KVXNATIVES_H
#define TALLOWIN_JNI_KVXNATIVES_H

#include <cstddef>

/// The native methods, in the order of the table of texts.
enum class KvxNative : std::size_t {
    kSetupConstruct,
    kSetupDestruct,
    kSetupSetConfiguration,
    kSetupReconfigure,
    kSetupSetOption,
    kSetupGetAttribute,
    kSetupSetAttribute,
    kFactoryConstruct,
    kFactoryDestruct,
    kFactoryOpen,
    kFactoryCreatePayInit,
    kFactoryVerifyPayConfirm,
    kFactoryCreatePayComplete,
    kFactoryCreateRequest,
    kMessageConstruct,
    kMessageDestruct,
    kMessageOpen,
    kMessageSetAttribute,
    kMessageGetAttribute,
    kMessageGetURL,
    kMessageCapture,
    kMessageExecute,
    kMessageFromString,
    kMessageToString,
};
constexpr std::size_t kKvxNativeCount = 24;

/// One row of the table of texts.
struct KvxNativeTexts {
    char const* m_Class;          ///< The Java class.
    char const* m_Method;         ///< The Java method.
    char const* m_HandlePrefix;   ///< Starts messages about the handle or an argument.
    char const* m_FailurePrefix;  ///< Starts messages about a failure of the call itself.
};

/// The row of `native`.
[[nodiscard]] KvxNativeTexts const& kvxTextsOf(KvxNative native) noexcept;

// The messages after `m_HandlePrefix`. Do not change.
constexpr char kKvxNoField[] = "member m_Handle not found";
constexpr char kKvxInvalidHandle[] = "Invalid Handle";
constexpr char kKvxHandleNotZero[] = "m_Handle != 0";
// Deliberate (three-refuse-null): only SetOption and the two SetAttribute refuse null arguments.
constexpr char kKvxNullNameOrValue[] = "Value or Name of the Attribute is NULL";
constexpr char kKvxNullFileNameOrValue[] = "Value or File, Name or newVal is NULL";
constexpr char kKvxInUse[] = "object is in use by another thread";

#endif
