/// The calls that the tests of faults make: every flat function on a ready account, and the ways it fails anyway.
#ifndef TALLOWIN_TESTS_FAULTS_FLATCALLS_H
#define TALLOWIN_TESTS_FAULTS_FLATCALLS_H

#include <cstdint>
#include <string>
#include <vector>

#include "tallowin/tallowin.h"
#include "tests/faults/stage.h"

namespace kvxtest {

/// The objects and outputs of one call. Destroys its objects.
struct CallState {
    explicit CallState(Stage const& stage) : m_Stage(stage) {}
    CallState(CallState const&) = delete;
    CallState& operator=(CallState const&) = delete;
    ~CallState();

    /// Prepares the outputs for a call and destroys what the one before has made.
    void clearOutputs();

    Stage const& m_Stage;
    KVX_HANDLE m_Setup = nullptr;
    KVX_HANDLE m_Factory = nullptr;
    KVX_HANDLE m_Message = nullptr;
    KVX_HANDLE m_Out = nullptr;  ///< A made message object.
    std::int32_t m_Size = 0;
    char m_Buffer[4096] = {};
};

/// Which network a call needs.
enum class CallNetwork { kScripted, kTls };

/// One call.
struct FlatCall {
    char const* m_Name;
    std::int32_t m_Code;                  ///< Its result without a fault.
    void (*m_SetUp)(Stage& stage);        ///< Changes the account beforehand; may be null.
    void (*m_Prepare)(CallState& state);  ///< Makes the objects; may be null.
    std::int32_t (*m_Run)(CallState& state);

    /// What is wrong with the effect of a call that succeeded; empty when it is right. May be null.
    std::string (*m_Wrong)(CallState& state);

    bool m_IsOnce = false;  ///< A second call on the same object is another call.
    CallNetwork m_Network = CallNetwork::kScripted;
};

std::vector<FlatCall> const& flatCalls();

/// The contents that files may have after a call, by name.
std::map<std::string, std::set<std::string>> const& newTexts();

/// The TLS servers, to which the accounts of TLS calls point.
struct TlsServers {
    std::uint16_t m_Port = 0;         ///< Of one that no authority answers for.
    std::uint16_t m_TrustedPort = 0;  ///< Of one whose certificate for 127.0.0.1 leads to `m_TrustFile`.
    std::string m_TrustFile;
};

/// Set before any call.
void setTlsServers(TlsServers const& servers);

/// Codes as in the tables: "0", "0x80040217", or decimal for those of the system.
std::string codeText(std::int32_t code);

}  // namespace kvxtest

#endif
