#include "jni/kvxnatives.h"

namespace {

// Java programs see these texts. Do not change.
// Deliberate (texts-name-the-factory): failures of MessageObject calls name MessageFactory, and ToString reports a bad
// handle as GetAttribute.
// clang-format off
constexpr KvxNativeTexts kTexts[] = {
    {"ConfigurationSetup", "nConstruct",        "ConfigurationSetup::Construct(): ",        "ConfigurationSetup::Construct(): "},
    {"ConfigurationSetup", "nDestruct",         "ConfigurationSetup::Destruct(): ",         "ConfigurationSetup::Destruct(): "},
    {"ConfigurationSetup", "SetConfiguration",  "ConfigurationSetup::SetConfiguration(): ", "ConfigurationSetup::SetConfiguration(): "},
    {"ConfigurationSetup", "Reconfigure",       "ConfigurationSetup::Reconfigure(): ",      "ConfigurationSetup::Reconfigure(): "},
    {"ConfigurationSetup", "SetOption",         "ConfigurationSetup::SetOption(): ",        "ConfigurationSetup::SetOption(): "},
    {"ConfigurationSetup", "GetAttribute",      "ConfigurationSetup::GetAttribute(): ",     "ConfigurationSetup::GetAttribute(): "},
    {"ConfigurationSetup", "SetAttribute",      "ConfigurationSetup::SetAttribute(): ",     "ConfigurationSetup::SetAttribute(): "},
    {"MessageFactory",     "nConstruct",        "MessageFactory::Construct(): ",            "MessageFactory::Construct(): "},
    {"MessageFactory",     "nDestruct",         "MessageFactory::Destruct(): ",             "MessageFactory::Destruct(): "},
    {"MessageFactory",     "Open",              "MessageFactory::Open(): ",                 "MessageFactory::Open(): "},
    {"MessageFactory",     "nCreatePayInit",    "MessageFactory::CreatePayInit(): ",        "MessageFactory::CreatePayInit(): "},
    {"MessageFactory",     "nVerifyPayConfirm", "MessageFactory::VerifyPayConfirm(): ",     "MessageFactory::VerifyPayConfirm(): "},
    {"MessageFactory",     "nCreatePayComplete", "MessageFactory::CreatePayComplete(): ",   "MessageFactory::CreatePayComplete(): "},
    {"MessageFactory",     "nCreateRequest",    "MessageFactory::CreateRequest(): ",        "MessageFactory::CreateRequest(): "},
    {"MessageObject",      "nConstruct",        "MessageObject::Construct(): ",             "MessageFactory::Construct(): "},
    {"MessageObject",      "nDestruct",         "MessageObject::Destruct(): ",              "MessageFactory::Destruct(): "},
    {"MessageObject",      "Open",              "MessageObject::Open(): ",                  "MessageFactory::Open(): "},
    {"MessageObject",      "SetAttribute",      "MessageObject::SetAttribute(): ",          "MessageFactory::SetAttribute(): "},
    {"MessageObject",      "GetAttribute",      "MessageObject::GetAttribute(): ",          "MessageFactory::GetAttribute(): "},
    {"MessageObject",      "GetURL",            "MessageObject::GetURL(): ",                "MessageFactory::GetURL(): "},
    {"MessageObject",      "Capture",           "MessageObject::Capture(): ",               "MessageFactory::Capture(): "},
    {"MessageObject",      "nExecute",          "MessageObject::Execute(): ",               "MessageFactory::Execute(): "},
    {"MessageObject",      "FromString",        "MessageObject::FromString(): ",            "MessageFactory::FromString(): "},
    {"MessageObject",      "ToString",          "MessageObject::GetAttribute(): ",          "MessageFactory::ToString(): "},
};
// clang-format on
static_assert(sizeof kTexts / sizeof kTexts[0] == kKvxNativeCount, "one row per native method");

}  // namespace

KvxNativeTexts const& kvxTextsOf(KvxNative native) noexcept {
    return kTexts[static_cast<std::size_t>(native)];
}
