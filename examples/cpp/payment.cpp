/// A whole payment in C++. Shows how to set up an account, create a payment URL, verify a confirmation, capture and
/// complete with the library's classes, and which exceptions to catch.
///
///     TALLOWIN_PASSWORD=... tallowin-payment-cpp DIRECTORY SERVICE USER
///
/// DIRECTORY   the configuration directory of the account; the first run sets it up
/// SERVICE     the payment service's set-up address, such as http://127.0.0.1:8080/auto of a running tallowin-sandbox
/// USER        the account's user; a new sandbox has "demo" with password "demo"
///
/// The program prints a payment URL. Open it in a browser, pay, and paste the address that the browser shows then.
///
/// Build a program that uses the classes again for each release of the library; the C functions stay compatible.
#include <tallowin/cConfigurationSetup.h>
#include <tallowin/cMessageFactory.h>
#include <tallowin/cMessageObject.h>
#include <tallowin/kvxbase.h>
#include <tallowin/tbexception.h>

#include <cstddef>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

namespace {

constexpr char kAmount[] = "19.90";
constexpr char kCurrency[] = "EUR";

using MessagePtr = std::unique_ptr<KVXCIMPL_MessageObject>;

/// The parameters of the return address, percent-decoded.
struct Confirmation {
    std::string m_Data;
    std::string m_Signature;
};

/// Whether the system says that there is no such file. The library has one result for a missing file and for one that
/// cannot be opened.
bool isMissing(std::filesystem::path const& file) {
    std::error_code ignored;
    return std::filesystem::status(file, ignored).type() == std::filesystem::file_type::not_found;
}

/// Sets up the directory unless an earlier run did. A set-up writes the current key id last. One that is there and
/// cannot be read ends the program: a new set-up would replace the key.
void setUp(char const* directory, char const* service, char const* user, char const* password) {
    KVXCIMPL_ConfigurationSetup setup;
    setup.SetConfiguration(directory);
    try {
        TbString currentKey;
        setup.GetAttribute("keys/current", "", currentKey);
    } catch (KVX_Exception const& failure) {
        if (failure.code() != KVX_E_CANNOT_OPEN || !isMissing(std::string(directory) + "/keys/current")) {
            throw;
        }
        setup.Reconfigure(service, user, password);
    }
}

/// Starts a payment and prints its URL. Returns its token, which a shop stores with the order.
TbString startPayment(KVXCIMPL_MessageFactory& factory) {
    MessagePtr const payment(factory.CreatePayInit());
    payment->SetAttribute("ORDERID", "1001");
    payment->SetAttribute("AMOUNT", kAmount);
    payment->SetAttribute("CURRENCY", kCurrency);
    TbString token;
    payment->GetAttribute("TOKEN", token);
    TbString url;
    payment->GetURL(url);
    std::cout << "Send the shopper to:\n" << url.c_str() << std::endl;
    return token;
}

/// The value of query parameter `name`, percent-decoded. A shop's web framework does this.
std::string parameter(std::string const& address, std::string const& name) {
    std::size_t const found = address.find(name + "=");
    if (found == std::string::npos) {
        throw std::runtime_error("the address has no " + name);
    }
    std::size_t const start = found + name.size() + 1;
    std::string const raw = address.substr(start, address.find_first_of("&#", start) - start);
    std::string value;
    for (std::size_t at = 0; at < raw.size(); ++at) {
        bool const escape = raw[at] == '%' && at + 2 < raw.size();
        value += escape ? static_cast<char>(std::stoi(raw.substr(at + 1, 2), nullptr, 16)) : raw[at];
        at += escape ? 2 : 0;
    }
    return value;
}

Confirmation readReturnAddress() {
    std::cout << "Paste the address that the browser shows now:" << std::endl;
    std::string address;
    std::getline(std::cin, address);
    return {parameter(address, "DATA"), parameter(address, "SIGNATURE")};
}

void mustBe(KVXCIMPL_MessageObject& message, char const* name, TbString const& wanted) {
    TbString value;
    message.GetAttribute(name, value);
    if (value != wanted) {
        throw std::runtime_error(std::string("refused: ") + name + " is not \"" + wanted.c_str() + "\"");
    }
}

/// Throws unless the payment is paid. A valid signature is not enough: the message must be a confirmation, of this
/// payment, of the whole amount, with a result that means paid; the service confirms cancelled payments too. Returns
/// the payment's id.
TbString mustBePaid(KVXCIMPL_MessageFactory& factory, Confirmation const& confirmation, TbString const& token) {
    MessagePtr const message(factory.VerifyPayConfirm(confirmation.m_Data.c_str(), confirmation.m_Signature.c_str()));
    mustBe(*message, "MSGTYPE", "PayConfirm");
    mustBe(*message, "TOKEN", token);
    mustBe(*message, "AMOUNT", kAmount);
    mustBe(*message, "CURRENCY", kCurrency);
    mustBe(*message, "RESULT", "authorised");
    TbString id;
    message->GetAttribute("ID", id);
    return id;
}

/// Captures the payment. Open() gives the object the merchant's signing key; FromString() then fills it with the
/// confirmation.
void capture(char const* directory, Confirmation const& confirmation) {
    KVXCIMPL_MessageObject message;
    message.Open(directory);
    message.FromString(confirmation.m_Data.c_str());
    message.Capture();
}

/// Completes the payment: reports to the service that the order is fulfilled.
void complete(KVXCIMPL_MessageFactory& factory, TbString const& id, TbString const& token) {
    MessagePtr const completion(factory.CreatePayComplete(id, token));
    MessagePtr const answer(completion->Execute());
}

void sell(char const* directory) {
    KVXCIMPL_MessageFactory factory;
    factory.Open(directory);
    TbString const token = startPayment(factory);
    Confirmation const confirmation = readReturnAddress();
    TbString const id = mustBePaid(factory, confirmation, token);
    capture(directory, confirmation);
    complete(factory, id, token);
    std::cout << "Payment " << id.c_str() << " is captured and completed.\n";
}

int fail(std::int32_t code, char const* text) {
    std::cerr << "result 0x" << std::hex << std::uppercase << static_cast<std::uint32_t>(code) << ", " << text << '\n';
    return EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    char const* const password = std::getenv("TALLOWIN_PASSWORD");
    if (argc != 4 || password == nullptr) {
        std::cerr << "usage: TALLOWIN_PASSWORD=... " << argv[0] << " DIRECTORY SERVICE USER\n";
        return 2;
    }
    try {
        setUp(argv[1], argv[2], argv[3], password);
        sell(argv[1]);
        return EXIT_SUCCESS;
    } catch (KVX_Exception const& failure) {
        return fail(failure.code(), failure.text().c_str());
    } catch (TBFC_Exception const& failure) {
        return fail(failure.code(), "no memory");
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
        return EXIT_FAILURE;
    }
}
