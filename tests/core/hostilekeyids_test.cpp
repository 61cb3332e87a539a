// Key ids that try to leave the key directories.
//
// A key id becomes a file name. It comes from a shopper's confirmation, from the server (its response to a key query,
// VTKEYID, CUSTOMERID) and from keys/current. Every id of the list goes through all five. Valid keys lie in wait where
// an id could lead, so that leaving a directory would show as success; every path that the library passes to the
// system is recorded; the directory and its parent are compared before and after.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "api/cMessageFactory.h"
#include "api/cMessageObject.h"
#include "core/kvxidentifier.h"
#include "tests/core/coresupport.h"
#include "tests/core/forgerysupport.h"
#include "tests/support/encodings.h"
#include "tests/support/exceptions.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/testdata.h"

using namespace kvxtest;
using namespace std::string_literals;

namespace {

/// Every path that the library passes to the system while this lives.
class PathRecorder {
public:
    PathRecorder() {
        s_Original = *m_Calls.operator->();
        s_Paths.clear();
        m_Calls->open = [](char const* path, int flags, mode_t mode) {
            return s_Original.open(record(path), flags, mode);
        };
        m_Calls->lstat = [](char const* path, struct ::stat* result) { return s_Original.lstat(record(path), result); };
        m_Calls->access = [](char const* path, int mode) { return s_Original.access(record(path), mode); };
        m_Calls->rename = [](char const* from, char const* to) { return s_Original.rename(record(from), record(to)); };
        m_Calls->unlink = [](char const* path) { return s_Original.unlink(record(path)); };
        m_Calls->mkdir = [](char const* path, mode_t mode) { return s_Original.mkdir(record(path), mode); };
        m_Calls->opendir = [](char const* path) { return s_Original.opendir(record(path)); };
        m_Calls->realpath = [](char const* path, char* resolved) {
            return s_Original.realpath(record(path), resolved);
        };
        m_Calls->readlink = [](char const* path, char* target, std::size_t bytes) {
            return s_Original.readlink(record(path), target, bytes);
        };
        m_Calls->fsync = [](int) { return 0; };
    }

    [[nodiscard]] static std::vector<std::string> const& paths() { return s_Paths; }

private:
    static char const* record(char const* path) {
        s_Paths.emplace_back(path);
        return path;
    }

    static inline TbSystemCalls s_Original;
    static inline std::vector<std::string> s_Paths;

    SystemCalls m_Calls;
};

/// What lies at a place of the tree: kind and permissions, and the content of a file.
using Tree = std::map<std::string, std::string>;

Tree treeBelow(std::string const& root) {
    Tree tree;
    for (auto const& entry : std::filesystem::recursive_directory_iterator(root)) {
        struct ::stat status = {};
        ::lstat(entry.path().c_str(), &status);
        std::string const content = entry.is_regular_file() ? contentOf(entry.path()) : "";
        tree[entry.path().lexically_relative(root)] = std::to_string(status.st_mode) + " " + content;
    }
    return tree;
}

/// The places where two trees differ.
std::vector<std::string> changedPlaces(Tree const& before, Tree const& after) {
    std::vector<std::string> places;
    for (auto const& [place, content] : after) {
        auto const old = before.find(place);
        if (old == before.end() || old->second != content) {
            places.push_back(place);
        }
    }
    for (auto const& [place, content] : before) {
        if (after.find(place) == after.end()) {
            places.push_back(place);
        }
    }
    return places;
}

/// Ids that hold a separator or a zero byte, or are a directory's own name. "$" at the start stands for the parent
/// directory.
std::vector<std::string> const kLeaving = {
    ".",
    "..",
    "/",
    "//",
    "./",
    "../",
    "/.",
    "/..",
    "./server",
    "server/",
    "server/.",
    "server/..",
    "../server",
    "../../server",
    "../../../server",
    "../public/server",
    "../private/server",
    "../private/own",
    "../current",
    "../../config.xml",
    "../../settings.xml",
    "a/b",
    "a/../server",
    "missing/../server",
    "public/server",
    "$/server",
    "$/shop/keys/server",
    "//server",
    "/etc/passwd",
    "/etc/shadow",
    "/dev/zero",
    "/dev/null",
    "/dev/stdin",
    "/proc/self/environ",
    "../../../../../../../../../../../../etc/passwd",
    "....//server",
    "..;/server",
    "http://127.0.0.1:1/server",
    "file:///etc/passwd",
    "~/server",
    "server\n/../server",
    "caf\xc3\xa9/../server",
    "server\0"s,
    "server\0.pub"s,
    "\0server"s,
    "\0"s,
    ".\0"s,
    "..\0"s,
    "../server\0"s,
    "server\0/../x"s,
};

/// Ids that are plain file names, however they look. No file has one of them.
std::vector<std::string> const kPlain = {
    "...",
    ".server",
    "server.",
    "server ",
    " server",
    "Server",
    "SERVER",
    "server\n",
    "\nserver",
    "server\r\n",
    "server\t",
    "\x01",
    "\x7f",
    "\x1b[2J",
    "\b\b\b\b\b\bserver",
    "..\\server",
    "..\\..\\server",
    "C:\\server",
    "\\\\host\\share\\server",
    "%2e%2e%2fserver",
    "..%2fserver",
    "%2e%2e",
    "server%00",
    "..%c0%afserver",
    "\xc0\xae\xc0\xae\xc0\xafserver",
    "..\xef\xbc\x8fserver",
    "\xe2\x80\xaeserver",
    "caf\xc3\xa9",
    "caf\xe9",
    "\xff\xfe",
    "current",
    "config.xml",
    ".tallowin-1-0.tmp",
    ".tallowin-99999999-1.tmp",
    "server~",
    "server.bak",
    "CON",
    "NUL",
    "aux.txt",
    "server:stream",
    "~",
    "~root",
    "$HOME",
    "$(touch x)",
    "`touch x`",
    "; touch x",
    "| cat",
    "&& x",
    "*",
    "?",
    "[a-z]*",
    "{a,b}",
    "-rf",
    "--",
    "a b",
    "'",
    "\"",
    "<",
    "<!--",
    "&amp;",
    "#",
    "&",
    "0x00",
    "null",
    "-1",
    std::string(250, 'x'),
    std::string(255, 'y'),
};

/// Ids that are too long for a file name.
std::vector<std::string> const kTooLong = {std::string(256, 'x'), std::string(4096, 'x'), std::string(70000, 'x')};

std::string escaped(std::string const& value) {
    std::string text;
    for (char const c : value) {
        text += c == '&' ? "&amp;" : c == '"' ? "&quot;" : c == '<' ? "&lt;" : std::string(1, c);
    }
    return text;
}

/// A shop in a folder of its own, with keys lying in wait wherever an id could lead.
class HostileKeyIds : public testing::Test {
protected:
    /// Everything that one id did.
    struct Outcome {
        std::int32_t m_Code = -1;
        std::vector<std::string> m_Changed;  ///< Places below the parent directory.
    };

    std::string shop() const { return m_Parent->file("shop"); }
    static std::string shown(std::string const& keyId) { return percentEncoded(keyId.substr(0, 80)); }
    std::string idOf(std::string const& listed) const {
        return listed[0] == '$' && listed[1] == '/' ? m_Parent->path() + listed.substr(1) : listed;
    }

    /// A shop that no id has changed. Its settings name no proxy.
    void open() {
        if (m_IsFresh) {
            m_Parent->write("shop/keys/current", "own");
            return;
        }
        m_Parent.emplace();
        std::string const publicKey = dataHex("rsa/key512.public.hex");
        std::string const privateKey = dataHex("rsa/key512.private.hex");
        for (char const* folder : {"shop/keys/public/", "shop/keys/", "shop/", ""}) {
            m_Parent->write(folder + "server"s, publicKey);
        }
        for (char const* folder : {"shop/keys/private/", "shop/keys/", "shop/", ""}) {
            m_Parent->write(folder + "own"s, privateKey);
        }
        m_Parent->write("shop/keys/private/server", privateKey);
        m_Parent->write("shop/keys/public/own", publicKey);
        m_Parent->write("shop/keys/current", "own");
        m_Parent->write("shop/config.xml", R"(<KVX VTURL="https://pay.example/page"/>)");
        m_Parent->write("shop/settings.xml", "<KVX/>");
    }

    /// The outcome of `call`, after checking each path that it passed to the system.
    Outcome watched(std::string const& keyId, std::function<void()> const& call) {
        Tree const before = treeBelow(m_Parent->path());
        Outcome outcome;
        {
            PathRecorder const recorder;
            outcome.m_Code = thrownCode(call);
            EXPECT_FALSE(PathRecorder::paths().empty());
            for (std::string const& path : PathRecorder::paths()) {
                EXPECT_PRED2(isPermitted, path, shop()) << "id " << shown(keyId);
            }
        }
        outcome.m_Changed = changedPlaces(before, treeBelow(m_Parent->path()));
        m_IsFresh = outcome.m_Changed.empty();
        return outcome;
    }

    /// A context of the shop whose set-up talks to `server`.
    static void configure(KVX_Context& context, std::string const& path, ExchangeServer const& server) {
        context.Open(path.c_str());
        context.SetOption("VTAUTOURL", server.url("/auto").c_str());
    }

    Outcome verifying(std::string const& keyId) {
        open();
        std::string const text = R"(<KVX MSGTYPE="PayConfirm" KEYID=")" + escaped(keyId) + "\"/>";
        std::string const signature = BlockSigner::sign(BlockSigner::blockFor(text));
        return watched(keyId, [&] {
            KVXCIMPL_MessageFactory factory;
            factory.Open(shop().c_str());
            std::unique_ptr<KVXCIMPL_MessageObject> const verified(
                factory.VerifyPayConfirm(stringOf(text), stringOf(signature)));
        });
    }

    /// The server's response to a key query names the key.
    Outcome importing(std::string const& keyId) {
        open();
        ExchangeServer server({R"(<KVX MSGTYPE="KeyQueryResponse" KEYBLOB="00" KEYID=")" + escaped(keyId) + "\"/>"});
        KVX_Context context;
        configure(context, shop(), server);
        return watched(keyId, [&] {
            TbString asked("server");
            context.ImportKey(asked);
        });
    }

    /// A whole set-up with these attributes of the account; the response to the key query names no key.
    Outcome settingUp(std::string const& keyId, std::string const& attributes) {
        open();
        ExchangeServer server(
            {"<KVX MSGTYPE=\"SetupResponse\" " + attributes + "/>", "<KVX MSGTYPE=\"LoadDefaultsResponse\"/>",
             "<KVX MSGTYPE=\"KeyQueryResponse\" KEYBLOB=\"00\"/>", "<KVX MSGTYPE=\"KeyExportResponse\"/>"});
        KVX_Context context;
        configure(context, shop(), server);
        return watched(keyId, [&] { context.Reconfigure(); });
    }

    /// The file that names the signing key.
    Outcome signing(std::string const& keyId) {
        open();
        m_Parent->write("shop/keys/current", keyId);
        return watched(keyId, [&] {
            KVXCIMPL_MessageFactory factory;
            factory.Open(shop().c_str());
            std::unique_ptr<KVXCIMPL_MessageObject> const payment(factory.CreatePayInit());
            TbString url;
            payment->GetURL(url);
        });
    }

private:
    /// Whether `path` is one of the fixed files of the directory `shop`, or lies in a key directory itself.
    static bool isPermitted(std::string const& path, std::string const& shop) {
        if (path == shop) {
            return true;
        }
        if (path.rfind(shop + "/", 0) != 0) {
            return false;
        }
        std::string const below = path.substr(shop.size() + 1);
        std::string const name = below.substr(below.rfind('/') + 1);
        std::string const folder = below.substr(0, below.size() - name.size());
        if (folder == "keys/public/" || folder == "keys/private/") {
            return name != "." && name != "..";
        }
        bool const isTemporary = name.rfind(".tallowin-", 0) == 0;
        return below == "config.xml" || below == "default.xml" || below == "settings.xml" || below == "keys" ||
               below == "keys/public" || below == "keys/private" || below == "keys/current" ||
               (isTemporary && (folder.empty() || folder == "keys/"));
    }

    std::optional<TemporaryDirectory> m_Parent;
    bool m_IsFresh = false;  ///< Whether there is a shop as `open` makes it.
};

using Places = std::vector<std::string>;

TEST_F(HostileKeyIds, AreManyAndTheKeysInWaitFit) {
    EXPECT_GE(kLeaving.size() + kPlain.size() + kTooLong.size(), 120U);
    EXPECT_EQ(verifying("server").m_Code, KVX_OK);
    EXPECT_EQ(signing("own").m_Code, KVX_OK);
    Outcome const imported = importing("server");
    EXPECT_EQ(imported.m_Code, KVX_OK);
    EXPECT_EQ(imported.m_Changed, Places{"shop/keys/public/server"});
}

TEST_F(HostileKeyIds, OfConfirmationsNameNoKey) {
    for (auto const* ids : {&kLeaving, &kPlain, &kTooLong}) {
        for (std::string const& listed : *ids) {
            Outcome const outcome = verifying(idOf(listed));
            EXPECT_EQ(outcome.m_Code, KVX_E_NOT_FOUND) << shown(listed);
            EXPECT_EQ(outcome.m_Changed, Places{}) << shown(listed);
        }
    }
    EXPECT_EQ(verifying("").m_Code, KVX_E_NOT_FOUND);
}

TEST_F(HostileKeyIds, OfKeyQueriesAreWrittenInTheKeyDirectoryOrNotAtAll) {
    for (std::string const& listed : kLeaving) {
        Outcome const outcome = importing(idOf(listed));
        // The stream from the server ends a chunk at a zero byte, and the rest is no document.
        EXPECT_EQ(outcome.m_Code, listed.find('\0') == std::string::npos ? KVX_E_FILE_NOT_FOUND : KVX_E_INVALID_FORMAT)
            << shown(listed);
        EXPECT_EQ(outcome.m_Changed, Places{}) << shown(listed);
    }
    for (std::string const& listed : kPlain) {
        Outcome const outcome = importing(listed);
        EXPECT_EQ(outcome.m_Code, KVX_OK) << shown(listed);
        EXPECT_EQ(outcome.m_Changed, Places{"shop/keys/public/" + listed}) << shown(listed);
    }
    for (std::string const& listed : kTooLong) {
        Outcome const outcome = importing(listed);
        EXPECT_EQ(outcome.m_Code, KVX_E_FILE_NOT_FOUND) << shown(listed);
        EXPECT_EQ(outcome.m_Changed, Places{}) << shown(listed);
    }
}

TEST_F(HostileKeyIds, OfTheConfigurationAreWrittenInTheKeyDirectoryOrNotAtAll) {
    Places const beforeKeys = {"shop/config.xml", "shop/default.xml"};
    for (auto const* ids : {&kLeaving, &kTooLong}) {
        for (std::string const& listed : *ids) {
            bool const isCut = listed.find('\0') != std::string::npos;
            Outcome const outcome = settingUp(listed, "VTKEYID=\"" + escaped(idOf(listed)) + "\"");
            EXPECT_EQ(outcome.m_Code, isCut ? KVX_E_INVALID_FORMAT : KVX_E_FILE_NOT_FOUND) << shown(listed);
            EXPECT_EQ(outcome.m_Changed, isCut ? Places{} : beforeKeys) << shown(listed);
        }
    }
    for (std::string const& listed : kPlain) {
        Outcome const outcome = settingUp(listed, "VTKEYID=\"" + escaped(listed) + "\"");
        EXPECT_EQ(outcome.m_Code, KVX_OK) << shown(listed);
        // The next key is written in the same directory, and a writer removes what looks like a left-over.
        bool const isSwept = listed.rfind(".tallowin-", 0) == 0;
        EXPECT_EQ(std::count(outcome.m_Changed.begin(), outcome.m_Changed.end(), "shop/keys/public/" + listed),
                  isSwept ? 0 : 1)
            << shown(listed);
        // config.xml, default.xml, keys/current, a new pair, and the imported key.
        EXPECT_EQ(outcome.m_Changed.size(), isSwept ? 5U : 6U) << shown(listed);
    }
    EXPECT_EQ(settingUp("", "VTKEYID=\"\"").m_Code, KVX_E_NO_CONFIGURATION);
}

TEST_F(HostileKeyIds, MadeOfCustomerNumbersAreWrittenInTheKeyDirectoryOrNotAtAll) {
    for (std::string const& listed : kLeaving) {
        bool const isCut = listed.find('\0') != std::string::npos;
        bool const isName = listed == "." || listed == "..";  // the number is only a part of the id
        Outcome const outcome = settingUp(listed, "VTKEYID=\"vt\" CUSTOMERID=\"" + escaped(idOf(listed)) + "\"");
        EXPECT_EQ(outcome.m_Code, isCut    ? KVX_E_INVALID_FORMAT
                                  : isName ? KVX_OK
                                           : KVX_E_FILE_NOT_FOUND)
            << shown(listed);
        EXPECT_EQ(outcome.m_Changed.size(), isCut ? 0U : isName ? 6U : 3U) << shown(listed);
    }
    for (std::string const& listed : kPlain) {
        Outcome const outcome = settingUp(listed, "VTKEYID=\"vt\" CUSTOMERID=\"" + escaped(listed) + "\"");
        bool const fits = listed.size() < 250;
        EXPECT_EQ(outcome.m_Code, fits ? KVX_OK : KVX_E_FILE_NOT_FOUND) << shown(listed);
        EXPECT_EQ(outcome.m_Changed.size(), fits ? 6U : 3U) << shown(listed);
    }
}

TEST_F(HostileKeyIds, OfTheCurrentKeySignNothing) {
    for (auto const* ids : {&kLeaving, &kPlain, &kTooLong}) {
        for (std::string const& listed : *ids) {
            Outcome const outcome = signing(idOf(listed));
            // Zero bytes at the end are padding of a write that was cut off; the id before them counts.
            bool const isPadded = listed == std::string("server\0", 7);
            EXPECT_EQ(outcome.m_Code, isPadded ? KVX_OK : KVX_E_NOT_FOUND) << shown(listed);
            EXPECT_EQ(outcome.m_Changed, Places{}) << shown(listed);
        }
    }
    EXPECT_EQ(signing("").m_Code, KVX_E_NOT_FOUND);
}

TEST(KeyIds, AreDirectoriesOwnNamesOrFilesOfOne) {
    struct Row {
        std::string m_KeyId;
        bool m_IsDirectory;
        bool m_IsFile;
    };
    Row const rows[] = {
        {"", true, true},       {".", true, false},      {"..", true, false},  {"...", false, true},
        {".a", false, true},    {"a.", false, true},     {"a", false, true},   {"a/b", false, false},
        {".\0"s, false, false}, {"..\0"s, false, false}, {"./", false, false}, {"\0"s, false, false},
    };
    for (Row const& row : rows) {
        EXPECT_EQ(kvxNamesDirectory(stringOf(row.m_KeyId)), row.m_IsDirectory) << row.m_KeyId;
        EXPECT_EQ(kvxNamesFileInDirectory(stringOf(row.m_KeyId)), row.m_IsFile) << row.m_KeyId;
    }
}

}  // namespace
