// A text that begins with "<", or with its encoding, is DATA; anything else must hold DATA as a parameter. DATA alone
// is decoded only when it is encoded as a whole, because a "%" or "+" inside a message is one.

#include "tools/confirmationinput.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "tools/toolfailure.h"
#include "tools/tooltext.h"

namespace tool {

namespace {

constexpr std::size_t kMaxInput = 1 << 20;

bool isEncoded(std::string const& text) {
    return text.size() >= 3 && text[0] == '%' && text[1] == '3' && (text[2] == 'c' || text[2] == 'C');
}

std::string decoded(std::string const& text, char const* name) {
    std::string out;
    if (!percentDecoded(text, out)) {
        throw ToolFailure(std::string(name) + " has a \"%\" without two hexadecimal digits behind it",
                          "the address was probably cut when it was copied");
    }
    return out;
}

ConfirmationInput checked(ConfirmationInput input) {
    if (input.m_Data.find('\0') != std::string::npos || input.m_Signature.find('\0') != std::string::npos) {
        throw ToolFailure("the confirmation has a zero byte; no message has one");
    }
    return input;
}

/// Stores the value of the parameter `name`; false when the parameter is another one.
bool takeParameter(std::string const& parameter, std::string const& name, bool& isThere, std::string& value) {
    if (parameter.compare(0, name.size() + 1, name + '=') != 0) {
        return false;
    }
    if (isThere) {
        throw ToolFailure("the address has " + name + " twice");
    }
    isThere = true;
    value = decoded(parameter.substr(name.size() + 1), name.c_str());
    return true;
}

ConfirmationInput fromQuery(std::string const& text) {
    std::size_t const question = text.find('?');
    std::string query = question == std::string::npos ? text : text.substr(question + 1);
    query = query.substr(0, query.find('#'));
    ConfirmationInput input;
    bool hasData = false;
    bool hasSignature = false;
    for (std::size_t begin = 0; begin <= query.size();) {
        std::size_t const end = std::min(query.find('&', begin), query.size());
        std::string const parameter = query.substr(begin, end - begin);
        if (!takeParameter(parameter, "DATA", hasData, input.m_Data)) {
            takeParameter(parameter, "SIGNATURE", hasSignature, input.m_Signature);
        }
        begin = end + 1;
    }
    if (!hasData) {
        throw ToolFailure("there is no confirmation: neither an address with DATA and SIGNATURE nor the two values");
    }
    return input;
}

ConfirmationInput fromValues(std::string const& data, std::string const& signature) {
    std::string const text = trimmed(data);
    return {isEncoded(text) ? decoded(text, "DATA") : text, trimmed(signature)};
}

std::string readAll(int descriptor, bool isLine) {
    std::string text;
    char block[4096];
    for (;;) {
        ssize_t const count = ::read(descriptor, block, sizeof block);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            throw ToolFailure(systemFailure("cannot read the confirmation", errno));
        }
        text.append(block, static_cast<std::size_t>(count));
        if (text.size() > kMaxInput) {
            throw ToolFailure("the confirmation is longer than a megabyte");
        }
        if (count == 0 || (isLine && text.find('\n') != std::string::npos)) {
            return text;
        }
    }
}

std::string readFile(std::string const& file) {
    int const descriptor = ::open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (descriptor < 0) {
        throw ToolFailure(systemFailure("cannot open " + file, errno));
    }
    try {
        std::string const text = readAll(descriptor, false);
        ::close(descriptor);
        return text;
    } catch (...) {
        ::close(descriptor);
        throw;
    }
}

}  // namespace

void addConfirmationOptions(CLI::App& command, ConfirmationSource& source) {
    command
        .add_option("confirmation", source.m_First,
                    "the address that the browser showed after the payment, its query, or DATA; else standard input")
        ->type_name("ADDRESS");
    command.add_option("signature", source.m_Second, "SIGNATURE, when the first is DATA")->type_name("SIGNATURE");
    command.add_option("--file", source.m_File, "read the confirmation from this file; - is standard input")
        ->type_name("FILE");
}

ConfirmationInput confirmationIn(std::string const& text) {
    std::string const whole = trimmed(text);
    if (whole.empty()) {
        throw ToolFailure("there is no confirmation in the input");
    }
    if (whole[0] != '<' && !isEncoded(whole)) {
        return checked(fromQuery(whole));
    }
    std::size_t const line = whole.rfind('\n');
    return checked(line == std::string::npos ? fromValues(whole, "")
                                             : fromValues(whole.substr(0, line), whole.substr(line + 1)));
}

ConfirmationInput readConfirmation(StandardStreams const& streams, ConfirmationSource const& source) {
    if (!source.m_First.empty() && !source.m_File.empty()) {
        throw UsageError("give the confirmation as an argument or with --file, not both");
    }
    if (!source.m_Second.empty()) {
        return checked(fromValues(source.m_First, source.m_Second));
    }
    if (!source.m_First.empty() && source.m_First != "-") {
        return confirmationIn(source.m_First);
    }
    if (!source.m_File.empty() && source.m_File != "-") {
        return confirmationIn(readFile(source.m_File));
    }
    if (streams.isInputTerminal()) {
        StandardStreams::writeError("Paste the address that the browser shows after the payment:\n");
    }
    return confirmationIn(readAll(STDIN_FILENO, streams.isInputTerminal()));
}

}  // namespace tool
