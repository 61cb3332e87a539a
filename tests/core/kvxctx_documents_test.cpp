#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/core/core_support.h"
#include "tests/support/system_calls.h"

using namespace kvxtest;

namespace {

struct Parsed {
    explicit Parsed(std::string const& text) {
        xmlElement* element = nullptr;
        KVX_Context().XmlFromString(stringOf(text), &element);
        m_Holder.adopt(element);
    }

    [[nodiscard]] std::string text() const {
        TbStringStream out;
        m_Holder->toStream(out);
        return bytesOf(out.str());
    }

    xmlElementPtr m_Holder;
};

std::string query(Account& account, char const* file, char const* name) {
    TbString value("untouched");
    bool const found = account.m_Context.QueryValue(file, name, value);
    return (found ? "true:" : "false:") + bytesOf(value);
}

void expectFailure(std::function<void()> const& call, std::int32_t code, std::string const& file, long line,
                   std::string const& text) {
    Thrown const failure = thrown(call);
    EXPECT_EQ(failure.m_Code, code);
    EXPECT_EQ(failure.m_File, file);
    EXPECT_EQ(failure.m_Line, line);
    EXPECT_EQ(failure.m_Text, text);
}

/// The highest descriptor that leads to `path`; -1 without one.
int descriptorOf(std::string const& path) {
    int found = -1;
    for (auto const& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;
        if (std::filesystem::read_symlink(entry.path(), ignored) == path) {
            found = std::max(found, std::stoi(entry.path().filename()));
        }
    }
    return found;
}

}  // namespace

TEST(XmlFromString, HandsOutTheFirstTopLevelElement) {
    EXPECT_EQ(Parsed("<KVX A=\"1\"/>").text(), "<KVX A=\"1\"/>");
    EXPECT_EQ(Parsed("<KVX A=\"1\"/><KVX A=\"2\"/>").text(), "<KVX A=\"1\"/>");
    EXPECT_EQ(Parsed("<OTHER/><KVX A=\"1\"><B/></KVX>").text(), "<KVX A=\"1\"><B/></KVX>");
}

TEST(XmlFromString, LeavesTheElementAloneInTheWorld) {
    Parsed const parsed("<KVX/>");
    xmlElement* parent = parsed.m_Holder.get();
    parsed.m_Holder->getParent(&parent);
    EXPECT_EQ(parent, nullptr);
}

TEST(XmlFromString, RefusesWhatIsNoDocument) {
    for (char const* text :
         {"<", "<KVX", "<KVX>", "<?xml version=\"1.0\"?><KVX/>", "</KVX>", "<!-- --><KVX/>", "<a:KVX/>"}) {
        xmlElement* const untouched = nullptr;
        xmlElement* element = untouched;
        expectFailure([&] { KVX_Context().XmlFromString(text, &element); }, KVX_E_INVALID_FORMAT, "kvxctx", 46,
                      "invalid file format");
        EXPECT_EQ(element, untouched) << text;
    }
}

TEST(XmlFromString, RefusesADocumentWithoutTheElement) {
    for (char const* text : {"", "text", "<OTHER/>", "<kvx/>", "<OTHER><KVX A=\"1\"/></OTHER>", "<KVXX/>"}) {
        xmlElement* element = nullptr;
        expectFailure([&] { KVX_Context().XmlFromString(text, &element); }, KVX_E_INVALID_FORMAT, "kvxctx", 49,
                      "invalid file format");
        EXPECT_EQ(element, nullptr) << text;
    }
}

TEST(XmlFromStream, ReadsFromTheStreamsPosition) {
    TbStringStream stream("xx<KVX A=\"1\"/>");
    char skipped = 0;
    stream.get(skipped);
    stream.get(skipped);
    xmlElement* element = nullptr;
    KVX_Context().XmlFromStream(stream, &element);
    xmlElementPtr holder;
    holder.adopt(element);
    TbString value;
    EXPECT_TRUE(holder->getAttribute("A", value));
}

TEST(XmlCreateRequest, MakesAnElementOfTheType) {
    xmlElement* element = nullptr;
    EXPECT_EQ(KVX_Context().XmlCreateRequest("Type & more", &element), 0);
    xmlElementPtr holder;
    holder.adopt(element);
    TbStringStream out;
    holder->toStream(out);
    EXPECT_EQ(bytesOf(out.str()), "<KVX MSGTYPE=\"Type &amp; more\"/>");
}

TEST(QueryValue, FindsAttributesOfTheElement) {
    Account account;
    account.write("config.xml",
                  "<KVX VTURL=\"http://host/\" EMPTY=\"\" KVX.VTAUTOURL=\"a\" A.B.C=\"d\" E=\"&lt;&amp;&gt;\"><VTURL "
                  "A=\"x\"/></KVX>");
    EXPECT_EQ(query(account, "config.xml", "VTURL"), "true:http://host/");
    EXPECT_EQ(query(account, "config.xml", "KVX.VTAUTOURL"), "true:a");
    EXPECT_EQ(query(account, "config.xml", "A.B.C"), "true:d");
    EXPECT_EQ(query(account, "config.xml", "E"), "true:<&>");
    EXPECT_EQ(query(account, "config.xml", "NONE"), "false:untouched");
    EXPECT_EQ(query(account, "config.xml", "vturl"), "false:untouched");
    EXPECT_EQ(query(account, "config.xml", "VTURL(.0).A"), "false:untouched");
}

TEST(QueryValue, CountsAnEmptyValueAsAbsent) {
    Account account;
    account.write("config.xml", "<KVX VTURL=\"\"/>");
    EXPECT_EQ(query(account, "config.xml", "VTURL"), "false:");
}

TEST(QueryValue, ReadsTheWholeFileForAnEmptyName) {
    Account account;
    std::string const bytes("key\n\0\xFF<", 7);
    account.write("keys/current", bytes);
    EXPECT_EQ(query(account, "keys/current", ""), "true:" + bytes);
    account.write("keys/current", "");
    EXPECT_EQ(query(account, "keys/current", ""), "true:");
    std::string const large(1000000, 'x');
    account.write("keys/current", large);
    EXPECT_EQ(query(account, "keys/current", ""), "true:" + large);
}

TEST(QueryValue, CachesNothing) {
    Account account;
    account.write("config.xml", "<KVX A=\"1\"/>");
    EXPECT_EQ(query(account, "config.xml", "A"), "true:1");
    account.write("config.xml", "<KVX A=\"2\"/>");
    EXPECT_EQ(query(account, "config.xml", "A"), "true:2");
}

TEST(QueryValue, RefusesAMalformedFile) {
    Account account;
    TbString value;
    account.write("config.xml", "<KVX A=\"1\"");
    expectFailure([&] { account.m_Context.QueryValue("config.xml", "A", value); }, KVX_E_INVALID_FORMAT, "kvxctx", 46,
                  "invalid file format");
    account.write("config.xml", "<OTHER><KVX A=\"1\"/></OTHER>");
    expectFailure([&] { account.m_Context.QueryValue("config.xml", "A", value); }, KVX_E_INVALID_FORMAT, "kvxctx", 49,
                  "invalid file format");
}

TEST(QueryValue, RaisesTheReadersCodeForAMissingFile) {
    Account account;
    TbString value("untouched");
    for (char const* name : {"", "A"}) {
        Thrown const failure = thrown([&] { account.m_Context.QueryValue("missing.xml", name, value); });
        EXPECT_EQ(failure.m_Code, KVX_E_CANNOT_OPEN);
        EXPECT_EQ(failure.m_File, "kvxurl");
        EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80040219");
    }
    EXPECT_EQ(bytesOf(value), "untouched");
}

TEST(QueryValue, CannotOpenADirectory) {
    Account account;
    std::filesystem::create_directories(account.m_Dir.file("keys/private"));
    TbString value;
    for (char const* name : {"keys/private/", "keys/private", "keys", ""}) {
        EXPECT_EQ(thrownCode([&] { account.m_Context.QueryValue(name, "", value); }), KVX_E_CANNOT_OPEN) << name;
    }
}

TEST(QueryValue, RefusesAnUnopenedContext) {
    KVX_Context context;
    TbString value;
    for (char const* name : {"", "A"}) {
        expectFailure([&] { context.QueryValue("config.xml", name, value); }, KVX_E_NO_CONTEXT, "kvxctx", 71,
                      "no context present");
        expectFailure([&] { context.QueryValueOrAbsent("config.xml", name, value); }, KVX_E_NO_CONTEXT, "kvxctx", 71,
                      "no context present");
    }
}

TEST(QueryValue, FailsWhenReadingFails) {
    Account account;
    account.write("config.xml", "<KVX/>");
    SystemCalls calls;
    calls->read = [](int, void*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    TbString value;
    EXPECT_EQ(thrownCode([&] { account.m_Context.QueryValue("config.xml", "", value); }), KVX_E_FILE_IO);
    EXPECT_EQ(thrownCode([&] { account.m_Context.QueryValueOrAbsent("config.xml", "", value); }), KVX_E_FILE_IO);
}

TEST(QueryValue, SurvivesInterruptionsAndShortReads) {
    static int s_Call = 0;
    Account account;
    std::string const content = "<KVX A=\"value\"/>";
    account.write("config.xml", content);
    SystemCalls calls;
    calls->read = [](int file, void* buffer, std::size_t) -> ssize_t {
        if (s_Call++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return ::read(file, buffer, 1);
    };
    EXPECT_EQ(query(account, "config.xml", ""), "true:" + content);
    unsigned char bytes[100];
    unsigned long size = sizeof bytes;
    EXPECT_TRUE(account.m_Context.QueryValue("config.xml", bytes, &size));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), size), content);
}

TEST(QueryValueOrAbsent, TurnsExactlyAMissingFileIntoFalse) {
    Account account;
    TbString value("untouched");
    EXPECT_FALSE(account.m_Context.QueryValueOrAbsent("missing.xml", "A", value));
    EXPECT_FALSE(account.m_Context.QueryValueOrAbsent("missing.xml", "", value));
    EXPECT_EQ(bytesOf(value), "untouched");
    account.write("config.xml", "<KVX A=\"1\"/>");
    EXPECT_TRUE(account.m_Context.QueryValueOrAbsent("config.xml", "A", value));
    EXPECT_EQ(bytesOf(value), "1");
    EXPECT_FALSE(account.m_Context.QueryValueOrAbsent("config.xml", "B", value));
    account.write("config.xml", "<KVX");
    EXPECT_EQ(thrownCode([&] { account.m_Context.QueryValueOrAbsent("config.xml", "A", value); }),
              KVX_E_INVALID_FORMAT);
}

TEST(QueryValueOrAbsent, TracesTheExceptionItSwallows) {
    Account account;
    TraceRecorder const recorder;
    TbString value;
    account.m_Context.QueryValueOrAbsent("missing.xml", "A", value);
    ASSERT_EQ(recorder.records().size(), 1U);
    EXPECT_EQ(recorder.records()[0].m_Event, "EXCEPTION");
    EXPECT_EQ(recorder.records()[0].m_Code, KVX_E_CANNOT_OPEN);
    EXPECT_EQ(recorder.records()[0].m_Detail, "ErrorCode = 0x80040219");
}

TEST(RawQueryValue, ReadsBytesUpToTheSizeAndKeepsCuttingLongerFilesSilently) {
    Account account;
    std::string const content("ab\0c\xFF", 5);
    account.write("file", content);
    struct Case {
        unsigned long m_Size;
        unsigned long m_Expected;
    };
    for (Case const& row : {Case{0, 0}, Case{1, 1}, Case{4, 4}, Case{5, 5}, Case{6, 5}, Case{16, 5}}) {
        unsigned char buffer[17] = "????????????????";
        unsigned long size = row.m_Size;
        EXPECT_TRUE(account.m_Context.QueryValue("file", buffer, &size));
        EXPECT_EQ(size, row.m_Expected) << row.m_Size;
        std::string const bytes(reinterpret_cast<char*>(buffer), 16);
        EXPECT_EQ(bytes, content.substr(0, row.m_Expected) + std::string(16 - row.m_Expected, '?')) << row.m_Size;
    }
}

TEST(RawQueryValue, AnswersFalseWhenTheFileCannotBeOpened) {
    Account account;
    unsigned char buffer[4] = {1, 2, 3, 4};
    unsigned long size = 4;
    std::filesystem::create_directory(account.m_Dir.file("directory"));
    for (char const* name : {"missing", "directory", "", "missing/file"}) {
        EXPECT_FALSE(account.m_Context.QueryValue(name, buffer, &size)) << name;
        EXPECT_EQ(size, 4UL);
        EXPECT_EQ(buffer[0], 1);
    }
}

TEST(RawQueryValue, RefusesAnUnopenedContext) {
    KVX_Context context;
    unsigned char buffer[4];
    unsigned long size = 4;
    expectFailure([&] { context.QueryValue("file", buffer, &size); }, KVX_E_NO_CONTEXT, "kvxctx", 112,
                  "no context present");
}

TEST(RawQueryValue, FailsWhenReadingFailsAndClosesTheFile) {
    Account account;
    account.write("file", "content");
    std::size_t const before = countDescriptors();
    SystemCalls calls;
    calls->read = [](int, void*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    unsigned char buffer[4];
    unsigned long size = 4;
    expectFailure([&] { account.m_Context.QueryValue("file", buffer, &size); }, KVX_E_FILE_IO, "kvxctx", 131,
                  "file I/O error");
    EXPECT_EQ(countDescriptors(), before);
}

TEST(SetValue, SetsOneAttributeAndKeepsTheRest) {
    Account account;
    account.write("config.xml", "<KVX A=\"1\" B=\"2\"><CHILD C=\"3\"/>text</KVX>");
    account.m_Context.SetValue("config.xml", "A", "<new>", false);
    EXPECT_EQ(account.read("config.xml"), "<KVX A=\"&lt;new&gt;\" B=\"2\">text<CHILD C=\"3\"/></KVX>");
    account.m_Context.SetValue("config.xml", "KVX.ISVALID", "yes", true);
    EXPECT_EQ(query(account, "config.xml", "KVX.ISVALID"), "true:yes");
    EXPECT_EQ(query(account, "config.xml", "A"), "true:<new>");
    account.m_Context.SetValue("config.xml", "B", "", false);
    EXPECT_EQ(query(account, "config.xml", "B"), "false:");
}

TEST(SetValue, KeepsOnlyTheElementOfADocument) {
    Account account;
    account.write("config.xml", "lead<OTHER/><KVX A=\"1\"/><KVX A=\"2\"/>");
    account.m_Context.SetValue("config.xml", "B", "2", false);
    EXPECT_EQ(account.read("config.xml"), "<KVX A=\"1\" B=\"2\"/>");
}

TEST(SetValue, ReplacesWhatIsNoDocumentOnlyWhenAskedTo) {
    for (char const* content : {"", "no document", "<KVX", "<OTHER/>", "<OTHER><KVX/></OTHER>"}) {
        Account account;
        account.write("config.xml", content);
        EXPECT_EQ(thrownCode([&] { account.m_Context.SetValue("config.xml", "A", "1", false); }), KVX_E_INVALID_FORMAT);
        EXPECT_EQ(account.read("config.xml"), content);
        account.m_Context.SetValue("config.xml", "A", "1", true);
        EXPECT_EQ(account.read("config.xml"), "<KVX A=\"1\"/>") << content;
    }
}

TEST(SetValue, NeverMakesAFile) {
    Account account;
    for (bool const create : {false, true}) {
        EXPECT_EQ(thrownCode([&] { account.m_Context.SetValue("config.xml", "A", "1", create); }), KVX_E_CANNOT_OPEN);
        EXPECT_FALSE(account.exists("config.xml"));
    }
}

TEST(SetValue, RefusesAnUnopenedContextAtTheReading) {
    KVX_Context context;
    for (bool const create : {false, true}) {
        expectFailure([&] { context.SetValue("config.xml", "A", "1", create); }, KVX_E_NO_CONTEXT, "kvxctx", 71,
                      "no context present");
    }
}

TEST(SetValue, KeepsRewritingTheFileForANameThatLeadsNowhere) {
    Account account;
    account.write("config.xml", "<KVX  A = \"1\" ></KVX>");
    TraceRecorder const recorder;
    account.m_Context.SetValue("config.xml", "CHILD(.0).A", "2", false);
    EXPECT_EQ(account.read("config.xml"), "<KVX A=\"1\"/>");
    EXPECT_EQ(recorder.of("UPDATE").size(), 1U);
}

TEST(SetValue, TracesTheSwallowedExceptionAndTheUpdate) {
    Account account;
    account.write("config.xml", "");
    TraceRecorder const recorder;
    account.m_Context.SetValue("config.xml", "A", "1", true);
    EXPECT_EQ(linesOf(recorder.records()),
              (std::vector<std::string>{"kvxctx:49:80040204:EXCEPTION:invalid file format",
                                        "kvxctx:217:0:UPDATE:" + account.m_Dir.file("config.xml")}));
}

TEST(TextUpdateFile, WritesAndTraces) {
    Account account;
    TraceRecorder const recorder;
    std::string const content("a\0\xFF\n", 4);
    account.m_Context.UpdateFile("keys.txt", stringOf(content));
    EXPECT_EQ(account.read("keys.txt"), content);
    account.m_Context.UpdateFile("keys.txt", "s");
    EXPECT_EQ(account.read("keys.txt"), "s");
    account.m_Context.UpdateFile("keys.txt", TbString());
    EXPECT_EQ(account.read("keys.txt"), "");
    std::string const line = "kvxctx:217:0:UPDATE:" + account.m_Dir.file("keys.txt");
    EXPECT_EQ(linesOf(recorder.records()), (std::vector<std::string>{line, line, line}));
}

TEST(TextUpdateFile, RefusesAnUnopenedContext) {
    KVX_Context context;
    expectFailure([&] { context.UpdateFile("file", "x"); }, KVX_E_NO_CONTEXT, "kvxctx", 193, "no context present");
}

TEST(TextUpdateFile, FailsWhereTheFileCannotBeOpened) {
    Account account;
    std::filesystem::create_directory(account.m_Dir.file("directory"));
    account.write("file", "x");
    for (std::string const& name :
         {std::string("missing/file"), std::string("directory"), std::string("directory/"), std::string(),
          std::string("file/below"), std::string(300, 'x'), std::string("file/")}) {
        TraceRecorder const recorder;
        expectFailure([&] { account.m_Context.UpdateFile(name.c_str(), "new"); }, KVX_E_FILE_NOT_FOUND, "kvxctx", 205,
                      "file not found");
        EXPECT_TRUE(recorder.of("UPDATE").empty());
    }
    EXPECT_EQ(account.filesIn(""), (std::vector<std::string>{"directory", "file"}));
    EXPECT_EQ(account.read("file"), "x");
}

TEST(BinaryUpdateFile, SucceedsForNoByteAndForOne) {
    Account account;
    account.write("file", "old content");
    unsigned char bytes[] = {'a', 'b'};
    std::size_t const before = countDescriptors();
    TraceRecorder const recorder;
    account.m_Context.UpdateFile("file", bytes, 1UL);
    EXPECT_EQ(account.read("file"), "a");
    account.m_Context.UpdateFile("file", bytes, 0UL);
    EXPECT_EQ(account.read("file"), "");
    account.m_Context.UpdateFile("file", nullptr, 0UL);
    EXPECT_EQ(account.read("file"), "");
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_TRUE(recorder.records().empty()) << "it is only a message, not a trace record";
}

TEST(BinaryUpdateFile, KeepsReportingLongerWritesAsFailuresAndLeavesTheFileOpen) {
    Account account;
    unsigned char bytes[] = {'a', '\0', 'c'};
    for (unsigned long const length : {2UL, 3UL}) {
        expectFailure([&] { account.m_Context.UpdateFile("file", bytes, length); }, KVX_E_FILE_IO, "kvxctx", 181,
                      "file I/O error");
        EXPECT_EQ(account.read("file"), std::string("a\0c", length)) << "the data has reached the file";
        int const left = descriptorOf(account.m_Dir.file("file"));
        ASSERT_NE(left, -1);
        EXPECT_NE(::fcntl(left, F_GETFD) & FD_CLOEXEC, 0);
        ::close(left);
    }
}

TEST(BinaryUpdateFile, FailsWhenAByteCannotBeWritten) {
    Account account;
    SystemCalls calls;
    calls->write = [](int, void const*, std::size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    unsigned char byte = 'a';
    expectFailure([&] { account.m_Context.UpdateFile("file", &byte, 1UL); }, KVX_E_FILE_IO, "kvxctx", 181,
                  "file I/O error");
    ::close(descriptorOf(account.m_Dir.file("file")));
}

TEST(BinaryUpdateFile, FailsWhereTheFileCannotBeOpened) {
    Account account;
    unsigned char byte = 'a';
    for (char const* name : {"missing/file", "", "."}) {
        expectFailure([&] { account.m_Context.UpdateFile(name, &byte, 1UL); }, KVX_E_FILE_NOT_FOUND, "kvxctx", 178,
                      "file not found");
    }
}

TEST(BinaryUpdateFile, RefusesAnUnopenedContext) {
    KVX_Context context;
    unsigned char byte = 'a';
    expectFailure([&] { context.UpdateFile("file", &byte, 1UL); }, KVX_E_NO_CONTEXT, "kvxctx", 166,
                  "no context present");
}
