#include "tools/logincheck.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "tools/toolfailure.h"

namespace tool {

void addLoginOptions(CLI::App& command, std::string& url, std::string& user, std::string& passwordFile) {
    command
        .add_option("url", url, "address of the service's configuration; may be left out when the directory has one")
        ->type_name("URL");
    command.add_option("--user", user, "user name of the account")->type_name("NAME")->required();
    command
        .add_option("--password-file", passwordFile,
                    "file whose first line is the password, - for standard input; else the terminal or standard input")
        ->type_name("FILE");
}

void requireSendable(std::string const& user, Secret const& password) {
    bool const isSevenBit = std::all_of(user.begin(), user.end(), [](char character) {
        return static_cast<unsigned char>(character) > 0x1F && static_cast<unsigned char>(character) < 0x7F;
    });
    if (user.empty() || !isSevenBit) {
        throw UsageError("--user takes printable ASCII characters, at least one");
    }
    std::size_t const at = user.find('@');
    std::size_t const question = user.find('?');
    if (question != std::string::npos && (at == std::string::npos || question < at)) {
        throw UsageError("a user with \"?\" cannot be sent in this protocol");
    }
    bool const hasQuestion = at == std::string::npos && password.contains('?');
    if (!password.isSevenBit() || password.contains('@') || hasQuestion) {
        throw ToolFailure(
            "the password has a character that cannot be sent in this protocol: \"@\", \"?\" or one that is "
            "no ASCII character",
            "ask the provider for another password");
    }
}

}  // namespace tool
