#include "diagnosis/directoryevidence.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <system_error>
#include <utility>

#include "sandbox/crypto/signature.h"
#include "sandbox/text/httperror.h"

namespace diagnosis {

namespace {

namespace fs = std::filesystem;

// A longer file is no key and no configuration.
constexpr std::size_t kMaxFileBytes = std::size_t{1024} * 1024;

/// The content of a regular file, without the zero bytes that a write in place leaves behind it. Nothing when it cannot
/// be read or is too long.
std::optional<std::string> readWhole(fs::path const& path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) {
        return std::nullopt;
    }
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxFileBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (file.bad() || text.size() > kMaxFileBytes) {
        return std::nullopt;
    }
    text.erase(text.find_last_not_of('\0') + 1);
    return text;
}

/// What `config.xml` says about keys.
struct Account {
    std::string m_ServerKeyId;
    std::string m_CustomerId;
};

Account readAccount(fs::path const& path, std::vector<std::string>& problems) {
    try {
        std::optional<std::string> const text = readWhole(path);
        if (!text) {
            throw sandbox::HttpError("it is missing or cannot be read");
        }
        Message const message = Message::parse(*text);
        return {message.find("VTKEYID").value_or(""), message.find("CUSTOMERID").value_or("")};
    } catch (sandbox::HttpError const& error) {
        problems.push_back("config.xml: " + std::string(error.what()));
        return {};
    }
}

/// Adds the key in the file `path`.
void addKey(fs::path const& path, fs::path const& directory, Account const& account, DirectoryEvidence& out) {
    std::string const id = path.filename().string();
    std::error_code error;
    bool const isOwn = fs::exists(directory / "keys" / "private" / id, error) ||
                       (!account.m_CustomerId.empty() && id.rfind("0-" + account.m_CustomerId + "-", 0) == 0);
    try {
        std::optional<std::string> const blob = readWhole(path);
        if (!blob) {
            throw sandbox::HttpError("it cannot be read");
        }
        std::string const owner = account.m_CustomerId.empty() ? "of this directory" : account.m_CustomerId;
        out.m_Evidence.m_Keys.push_back({id, isOwn && id != account.m_ServerKeyId ? owner : "",
                                         id == account.m_ServerKeyId, sandbox::readPublicKeyBlob(*blob)});
    } catch (sandbox::HttpError const& problem) {
        out.m_Problems.push_back("keys/public/" + id + ": " + problem.what());
    }
}

/// The rest of the Evidence, for `keys`.
Evidence withSearch(std::vector<KnownKey> keys, std::string const& unknown, std::vector<SeenMessage> originals,
                    Attributes expected) {
    Evidence evidence;
    evidence.m_Wording = {"the server", unknown, ""};
    if (!originals.empty()) {
        evidence.m_Wording.m_Searched =
            "Nor does it belong to one of the " + std::to_string(originals.size()) + " originals.";
    }
    evidence.m_Keys = std::move(keys);
    evidence.m_Recall = recallAmong(std::move(originals));
    evidence.m_SearchesChanges = true;
    evidence.m_Expected = std::move(expected);
    return evidence;
}

}  // namespace

Recall recallAmong(std::vector<SeenMessage> messages) {
    return [messages = std::move(messages)](KnownKey const&, std::string const& digest) -> std::optional<SeenMessage> {
        for (SeenMessage const& message : messages) {
            if (sandbox::digestOf(message.m_Text, sandbox::Widening::kZero) == digest ||
                sandbox::digestOf(message.m_Text, sandbox::Widening::kSign) == digest) {
                return message;
            }
        }
        return std::nullopt;
    };
}

DirectoryEvidence directoryEvidence(std::string const& path, std::vector<SeenMessage> originals, Attributes expected) {
    fs::path const directory(path.empty() ? "." : path);
    DirectoryEvidence out;
    Account const account = readAccount(directory / "config.xml", out.m_Problems);
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator it(directory / "keys" / "public", error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().filename().string()[0] != '.') {
            files.push_back(it->path());
        }
    }
    if (error) {
        out.m_Problems.push_back("keys/public: " + error.message());
    }
    std::sort(files.begin(), files.end());
    for (fs::path const& file : files) {
        addKey(file, directory, account, out);
    }
    out.m_Evidence = withSearch(std::move(out.m_Evidence.m_Keys), "is not a key of this directory",
                                std::move(originals), std::move(expected));
    return out;
}

Evidence keyEvidence(std::string const& keyId, std::string const& blob, std::vector<SeenMessage> originals,
                     Attributes expected) {
    std::vector<KnownKey> keys;
    keys.push_back({keyId, "", true, sandbox::readPublicKeyBlob(blob)});
    return withSearch(std::move(keys), "is not the given key", std::move(originals), std::move(expected));
}

}  // namespace diagnosis
