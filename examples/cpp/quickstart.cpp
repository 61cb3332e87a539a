/// A payment in twenty lines, between the two markers. The rest stands for code that a shop already has.
///
///     tallowin-quickstart-cpp DIRECTORY SERVICE
///
/// DIRECTORY   the configuration directory; this program creates it and sets it up for the sandbox's account "demo".
///             Every start sets up again and makes a new merchant key; a shop does this once.
/// SERVICE     set-up address of a running tallowin-sandbox, such as http://127.0.0.1:8080/auto
///
/// The program prints the payment URL, then reads DATA and SIGNATURE of the confirmation from standard input: one per
/// line, percent-decoded, as a web framework returns them.
#include <cstdlib>
#include <iostream>
#include <string>
#include <tallowin/tallowin.hpp>
#include <utility>

namespace {

/// A merchant does this once per account.
void setUp(std::string const& directory, std::string const& service) {
    tallowin::ConfigurationSetup(directory).reconfigure(service, "demo", "demo");
}

/// A shop redirects the browser to `url`; its return page then receives DATA and SIGNATURE.
std::pair<std::string, std::string> sendShopperTo(std::string const& url) {
    std::cout << url << std::endl;
    std::string data;
    std::string signature;
    std::getline(std::cin, data);
    std::getline(std::cin, signature);
    return {data, signature};
}

void sell(std::string const& directory) {
    // [quickstart]
    tallowin::MessageFactory shop(directory);
    tallowin::MessageObject order = shop.createPayInit();
    order.setAttribute("AMOUNT", "19.90");
    order.setAttribute("CURRENCY", "EUR");
    std::string const token = order.getAttribute("TOKEN");
    auto const [data, signature] = sendShopperTo(order.getUrl());  // the shopper returns with DATA and SIGNATURE
    shop.verifyPayConfirm(data, signature)
        .require({{"MSGTYPE", "PayConfirm"},
                  {"RESULT", "authorised"},
                  {"TOKEN", token},
                  {"AMOUNT", "19.90"},
                  {"CURRENCY", "EUR"}});
    tallowin::MessageObject capture(directory);
    capture.fromString(data);
    capture.capture();
    std::cout << "The payment is captured.\n";
    // [/quickstart]
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: " << argv[0] << " DIRECTORY SERVICE\n";
        return 2;
    }
    try {
        setUp(argv[1], argv[2]);
        sell(argv[1]);
        return EXIT_SUCCESS;
    } catch (tallowin::MismatchError const& mismatch) {
        std::cerr << "not paid: " << mismatch.what() << '\n';
    } catch (tallowin::Error const& failure) {
        std::cerr << failure.what() << '\n';
    }
    return EXIT_FAILURE;
}
