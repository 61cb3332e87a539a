#ifndef TALLOWIN_TESTS_SANDBOX_SUPPORT_SANDBOXFIXTURE_H
#define TALLOWIN_TESTS_SANDBOX_SUPPORT_SANDBOXFIXTURE_H

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "sandbox/service.h"
#include "tests/sandbox/support/rawclient.h"
#include "tests/sandbox/support/servicerows.h"
#include "tests/sandbox/support/testmerchant.h"
#include "tests/support/directories.h"

namespace sandboxtest {

/// How long a test waits for an event that is due.
inline constexpr std::chrono::seconds kTimeout{60};

/// Whether `condition` comes true within kTimeout.
bool comesTrue(std::function<bool()> const& condition);

using kvxtest::TemporaryDirectory;

/// A running service with an account demo:demo, and a merchant whose key is published there.
class SandboxTest : public ::testing::Test {
protected:
    SandboxTest();

    [[nodiscard]] sandbox::Options options();

    /// Starts over on the same data directory, with options() or others.
    void restart();
    void restart(sandbox::Options const& others);

    /// Sends the merchant's GET and splits the response.
    [[nodiscard]] RawResponse get(std::string const& target, std::string const& user = "",
                                  std::string const& password = "") const;

    /// The body of the response of `/auto` to the message `text`.
    std::string askAuto(std::string const& text, std::string const& user = "demo",
                        std::string const& password = "demo") const;

    void publishKey() const;

    /// Opens the payment page for the message `text`.
    RawResponse openPage(std::string const& text) const;

    /// Presses one of the buttons of `page`.
    RawResponse press(RawResponse const& page, std::string const& decision) const;

    /// The body of the response of `/capture` to the message `text`.
    std::string askCapture(std::string const& text) const;

    /// Brings a payment to "authorised" and returns its PayConfirm with this merchant's KEYID in it, ready to be
    /// captured.
    std::string authorise(std::string const& token) const;

    /// The reason of an Error message; empty for any other.
    [[nodiscard]] static std::string reasonOf(std::string const& body);

    [[nodiscard]] std::string lastVerdict() const;

    TemporaryDirectory m_Directory;
    std::atomic<std::time_t> m_Now{1700000000};  ///< What the service takes for the present: 2023-11-14T22:13:20Z.
    bool m_Lenient = false;                      ///< Of options(): odd content of payments is accepted.
    TestMerchant m_Merchant{"0-1001-testkey"};
    std::unique_ptr<sandbox::Service> m_Service;
};

}  // namespace sandboxtest

#endif  // TALLOWIN_TESTS_SANDBOX_SUPPORT_SANDBOXFIXTURE_H
