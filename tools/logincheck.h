/// The login of an account: its options on the command line, and what can be sent as user and password.
#ifndef TALLOWIN_TOOLS_LOGINCHECK_H
#define TALLOWIN_TOOLS_LOGINCHECK_H

#include <string>

#include "tools/secret.h"

namespace CLI {
class App;
}

namespace tool {

/// Adds URL, --user and --password-file to `command`. The texts are filled when the command line is parsed, and must
/// live until then.
void addLoginOptions(CLI::App& command, std::string& url, std::string& user, std::string& passwordFile);

/// Credentials become part of a URL, unescaped; what cannot be sent that way is refused. UsageError for the user,
/// ToolFailure for the password.
void requireSendable(std::string const& user, Secret const& password);

}  // namespace tool

#endif
