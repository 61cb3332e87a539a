// Documents of a directory: reading values, setting them, writing files as text and as bytes.
//
// Malformed, missing and unreadable files differ in code and trace. Odd: an absent document reads as an absent
// value only where the call says so.

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "core/kvxdirectory.h"
#include "core/kvxdocument.h"
#include "tests/core/coresupport.h"
#include "tests/support/exceptions.h"
#include "tests/support/processes.h"
#include "tests/support/systemcalls.h"
#include "tests/support/tbtext.h"
#include "tests/support/tracerecorder.h"

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

class DocumentsTest : public AccountTest {
protected:
    std::string query(char const* file, char const* name) {
        TbString value("untouched");
        bool const found = m_Context.QueryValue(file, name, value);
        return (found ? "true:" : "false:") + bytesOf(value);
    }
};

class QueryValue : public DocumentsTest {};
class QueryValueOrAbsent : public DocumentsTest {};
class RawQueryValue : public DocumentsTest {};
class SetValue : public DocumentsTest {};
class TextUpdateFile : public DocumentsTest {};
class BinaryUpdateFile : public DocumentsTest {};

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

TEST_F(QueryValue, FindsAttributesOfTheElement) {
    write("config.xml",
          "<KVX VTURL=\"http://host/\" EMPTY=\"\" KVX.VTAUTOURL=\"a\" A.B.C=\"d\" E=\"&lt;&amp;&gt;\"><VTURL "
          "A=\"x\"/></KVX>");
    EXPECT_EQ(query("config.xml", "VTURL"), "true:http://host/");
    EXPECT_EQ(query("config.xml", "KVX.VTAUTOURL"), "true:a");
    EXPECT_EQ(query("config.xml", "A.B.C"), "true:d");
    EXPECT_EQ(query("config.xml", "E"), "true:<&>");
    EXPECT_EQ(query("config.xml", "NONE"), "false:untouched");
    EXPECT_EQ(query("config.xml", "vturl"), "false:untouched");
    EXPECT_EQ(query("config.xml", "VTURL(.0).A"), "false:untouched");
}

TEST_F(QueryValue, CountsAnEmptyValueAsAbsent) {
    write("config.xml", "<KVX VTURL=\"\"/>");
    EXPECT_EQ(query("config.xml", "VTURL"), "false:");
}

TEST_F(QueryValue, ReadsTheWholeFileForAnEmptyName) {
    std::string const bytes("key\n\0\xFF<", 7);
    write("keys/current", bytes);
    EXPECT_EQ(query("keys/current", ""), "true:" + bytes);
    write("keys/current", "");
    EXPECT_EQ(query("keys/current", ""), "true:");
    std::string const large(1000000, 'x');
    write("keys/current", large);
    EXPECT_EQ(query("keys/current", ""), "true:" + large);
}

TEST_F(QueryValue, CachesNothing) {
    write("config.xml", "<KVX A=\"1\"/>");
    EXPECT_EQ(query("config.xml", "A"), "true:1");
    write("config.xml", "<KVX A=\"2\"/>");
    EXPECT_EQ(query("config.xml", "A"), "true:2");
}

TEST_F(QueryValue, RefusesAMalformedFile) {
    TbString value;
    write("config.xml", "<KVX A=\"1\"");
    expectFailure([&] { m_Context.QueryValue("config.xml", "A", value); }, KVX_E_INVALID_FORMAT, "kvxctx", 46,
                  "invalid file format (config.xml)");
    write("config.xml", "<OTHER><KVX A=\"1\"/></OTHER>");
    expectFailure([&] { m_Context.QueryValue("config.xml", "A", value); }, KVX_E_INVALID_FORMAT, "kvxctx", 49,
                  "invalid file format (config.xml)");
}

TEST_F(QueryValue, RaisesTheReadersCodeForAMissingFile) {
    TbString value("untouched");
    std::string const impossible(300, 'x');
    for (char const* file : {"missing.xml", impossible.c_str()}) {
        for (char const* name : {"", "A"}) {
            Thrown const failure = thrown([&] { m_Context.QueryValue(file, name, value); });
            EXPECT_EQ(failure.m_Code, KVX_E_CANNOT_OPEN) << file;
            EXPECT_EQ(failure.m_File, "kvxurl") << file;
            EXPECT_EQ(failure.m_Text, "ErrorCode = 0x80040219") << file;
        }
    }
    EXPECT_EQ(bytesOf(value), "untouched");
}

TEST_F(QueryValue, CannotOpenADirectory) {
    std::filesystem::create_directories(m_Dir.file("keys/private"));
    TbString value;
    for (char const* name : {"keys/private/", "keys/private", "keys", ""}) {
        EXPECT_EQ(thrownCode([&] { m_Context.QueryValue(name, "", value); }), KVX_E_CANNOT_OPEN) << name;
    }
}

TEST_F(QueryValue, RefusesAnUnopenedContext) {
    KVX_Context context;
    TbString value;
    for (char const* name : {"", "A"}) {
        expectFailure([&] { context.QueryValue("config.xml", name, value); }, KVX_E_NO_CONTEXT, "kvxctx", 71,
                      "no context present");
        expectFailure([&] { context.QueryValueOrAbsent("config.xml", name, value); }, KVX_E_NO_CONTEXT, "kvxctx", 71,
                      "no context present");
    }
}

TEST_F(QueryValue, FailsWhenReadingFails) {
    write("config.xml", "<KVX/>");
    SystemCalls calls;
    calls->read = [](int, void*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    TbString value;
    EXPECT_EQ(thrownCode([&] { m_Context.QueryValue("config.xml", "", value); }), KVX_E_FILE_IO);
    Thrown const optional = thrown([&] { m_Context.QueryValueOrAbsent("config.xml", "", value); });
    EXPECT_EQ(optional.m_Code, KVX_E_CANNOT_OPEN) << "nothing may go on as if the file were absent";
    EXPECT_EQ(optional.m_Line, 98);
}

TEST_F(QueryValue, SurvivesInterruptionsAndShortReads) {
    static int s_Call = 0;
    std::string const content = "<KVX A=\"value\"/>";
    write("config.xml", content);
    SystemCalls calls;
    calls->read = [](int file, void* buffer, std::size_t) -> ssize_t {
        if (s_Call++ % 2 == 0) {
            errno = EINTR;
            return -1;
        }
        return ::read(file, buffer, 1);
    };
    EXPECT_EQ(query("config.xml", ""), "true:" + content);
    unsigned char bytes[100];
    unsigned long size = sizeof bytes;
    EXPECT_TRUE(m_Context.QueryValue("config.xml", bytes, &size));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), size), content);
}

TEST_F(QueryValueOrAbsent, TurnsExactlyAMissingFileIntoFalse) {
    TbString value("untouched");
    EXPECT_FALSE(m_Context.QueryValueOrAbsent("missing.xml", "A", value));
    EXPECT_FALSE(m_Context.QueryValueOrAbsent("missing.xml", "", value));
    EXPECT_EQ(bytesOf(value), "untouched");
    write("config.xml", "<KVX A=\"1\"/>");
    EXPECT_TRUE(m_Context.QueryValueOrAbsent("config.xml", "A", value));
    EXPECT_EQ(bytesOf(value), "1");
    EXPECT_FALSE(m_Context.QueryValueOrAbsent("config.xml", "B", value));
    write("config.xml", "<KVX");
    EXPECT_EQ(thrownCode([&] { m_Context.QueryValueOrAbsent("config.xml", "A", value); }), KVX_E_INVALID_FORMAT);
}

TEST_F(QueryValueOrAbsent, TracesTheExceptionItSwallows) {
    TraceRecorder const recorder;
    TbString value;
    m_Context.QueryValueOrAbsent("missing.xml", "A", value);
    ASSERT_EQ(recorder.records().size(), 1U);
    EXPECT_EQ(recorder.records()[0].m_Event, "EXCEPTION");
    EXPECT_EQ(recorder.records()[0].m_Code, KVX_E_CANNOT_OPEN);
    EXPECT_EQ(recorder.records()[0].m_Detail, "ErrorCode = 0x80040219");
}

TEST_F(RawQueryValue, ReadsBytesUpToTheSizeAndKeepsCuttingLongerFilesSilently) {
    std::string const content("ab\0c\xFF", 5);
    write("file", content);
    struct Case {
        unsigned long m_Size;
        unsigned long m_Expected;
    };
    for (Case const& row : {Case{0, 0}, Case{1, 1}, Case{4, 4}, Case{5, 5}, Case{6, 5}, Case{16, 5}}) {
        unsigned char buffer[17] = "????????????????";
        unsigned long size = row.m_Size;
        EXPECT_TRUE(m_Context.QueryValue("file", buffer, &size));
        EXPECT_EQ(size, row.m_Expected) << row.m_Size;
        std::string const bytes(reinterpret_cast<char*>(buffer), 16);
        EXPECT_EQ(bytes, content.substr(0, row.m_Expected) + std::string(16 - row.m_Expected, '?')) << row.m_Size;
    }
}

TEST_F(RawQueryValue, AnswersFalseWhenTheFileCannotBeOpened) {
    unsigned char buffer[4] = {1, 2, 3, 4};
    unsigned long size = 4;
    std::filesystem::create_directory(m_Dir.file("directory"));
    for (char const* name : {"missing", "directory", "", "missing/file"}) {
        EXPECT_FALSE(m_Context.QueryValue(name, buffer, &size)) << name;
        EXPECT_EQ(size, 4UL);
        EXPECT_EQ(buffer[0], 1);
    }
}

TEST_F(RawQueryValue, RefusesAnUnopenedContext) {
    KVX_Context context;
    unsigned char buffer[4];
    unsigned long size = 4;
    expectFailure([&] { context.QueryValue("file", buffer, &size); }, KVX_E_NO_CONTEXT, "kvxctx", 112,
                  "no context present");
}

TEST_F(RawQueryValue, FailsWhenReadingFailsAndClosesTheFile) {
    write("file", "content");
    std::size_t const before = countDescriptors();
    SystemCalls calls;
    calls->read = [](int, void*, std::size_t) -> ssize_t {
        errno = EIO;
        return -1;
    };
    unsigned char buffer[4];
    unsigned long size = 4;
    expectFailure([&] { m_Context.QueryValue("file", buffer, &size); }, KVX_E_FILE_IO, "kvxctx", 131, "file I/O error");
    EXPECT_EQ(countDescriptors(), before);
}

TEST_F(SetValue, SetsOneAttributeAndKeepsTheRest) {
    write("config.xml", "<KVX A=\"1\" B=\"2\"><CHILD C=\"3\"/>text</KVX>");
    m_Context.SetValue("config.xml", "A", "<new>", false);
    EXPECT_EQ(read("config.xml"), "<KVX A=\"&lt;new&gt;\" B=\"2\">text<CHILD C=\"3\"/></KVX>");
    m_Context.SetValue("config.xml", "KVX.ISVALID", "yes", true);
    EXPECT_EQ(query("config.xml", "KVX.ISVALID"), "true:yes");
    EXPECT_EQ(query("config.xml", "A"), "true:<new>");
    m_Context.SetValue("config.xml", "B", "", false);
    EXPECT_EQ(query("config.xml", "B"), "false:");
}

TEST_F(SetValue, KeepsOnlyTheElementOfADocument) {
    write("config.xml", "lead<OTHER/><KVX A=\"1\"/><KVX A=\"2\"/>");
    m_Context.SetValue("config.xml", "B", "2", false);
    EXPECT_EQ(read("config.xml"), "<KVX A=\"1\" B=\"2\"/>");
}

TEST_F(SetValue, ReplacesWhatIsNoDocumentOnlyWhenAskedTo) {
    for (char const* content : {"", "no document", "<KVX", "<OTHER/>", "<OTHER><KVX/></OTHER>"}) {
        Account account;
        account.write("config.xml", content);
        EXPECT_EQ(thrownCode([&] { account.m_Context.SetValue("config.xml", "A", "1", false); }), KVX_E_INVALID_FORMAT);
        EXPECT_EQ(account.read("config.xml"), content);
        account.m_Context.SetValue("config.xml", "A", "1", true);
        EXPECT_EQ(account.read("config.xml"), "<KVX A=\"1\"/>") << content;
    }
}

TEST_F(SetValue, NeverMakesAFile) {
    for (bool const create : {false, true}) {
        EXPECT_EQ(thrownCode([&] { m_Context.SetValue("config.xml", "A", "1", create); }), KVX_E_CANNOT_OPEN);
        EXPECT_FALSE(exists("config.xml"));
    }
}

TEST_F(SetValue, RefusesAnUnopenedContextAtTheReading) {
    KVX_Context context;
    for (bool const create : {false, true}) {
        expectFailure([&] { context.SetValue("config.xml", "A", "1", create); }, KVX_E_NO_CONTEXT, "kvxctx", 71,
                      "no context present");
    }
}

TEST_F(SetValue, KeepsRewritingTheFileForANameThatLeadsNowhere) {
    write("config.xml", "<KVX  A = \"1\" ></KVX>");
    TraceRecorder const recorder;
    m_Context.SetValue("config.xml", "CHILD(.0).A", "2", false);
    EXPECT_EQ(read("config.xml"), "<KVX A=\"1\"/>");
    EXPECT_EQ(recorder.of("UPDATE").size(), 1U);
}

TEST_F(SetValue, TracesTheSwallowedExceptionAndTheUpdate) {
    write("config.xml", "");
    TraceRecorder const recorder;
    m_Context.SetValue("config.xml", "A", "1", true);
    EXPECT_EQ(linesOf(recorder.records()),
              (std::vector<std::string>{"kvxctx:49:80040204:EXCEPTION:invalid file format",
                                        "kvxctx:217:0:UPDATE:" + m_Dir.file("config.xml")}));
}

TEST_F(TextUpdateFile, WritesAndTraces) {
    TraceRecorder const recorder;
    std::string const content("a\0\xFF\n", 4);
    m_Context.UpdateFile("keys.txt", stringOf(content));
    EXPECT_EQ(read("keys.txt"), content);
    m_Context.UpdateFile("keys.txt", "s");
    EXPECT_EQ(read("keys.txt"), "s");
    m_Context.UpdateFile("keys.txt", TbString());
    EXPECT_EQ(read("keys.txt"), "");
    std::string const line = "kvxctx:217:0:UPDATE:" + m_Dir.file("keys.txt");
    EXPECT_EQ(linesOf(recorder.records()), (std::vector<std::string>{line, line, line}));
}

TEST_F(TextUpdateFile, RefusesAnUnopenedContext) {
    KVX_Context context;
    expectFailure([&] { context.UpdateFile("file", "x"); }, KVX_E_NO_CONTEXT, "kvxctx", 193, "no context present");
}

TEST_F(TextUpdateFile, FailsWhereTheFileCannotBeOpened) {
    std::filesystem::create_directory(m_Dir.file("directory"));
    write("file", "x");
    for (std::string const& name :
         {std::string("missing/file"), std::string("directory"), std::string("directory/"), std::string(),
          std::string("file/below"), std::string(300, 'x'), std::string("file/")}) {
        TraceRecorder const recorder;
        expectFailure([&] { m_Context.UpdateFile(name.c_str(), "new"); }, KVX_E_FILE_NOT_FOUND, "kvxctx", 205,
                      "file not found");
        EXPECT_TRUE(recorder.of("UPDATE").empty());
    }
    EXPECT_EQ(filesIn(""), (std::vector<std::string>{"directory", "file"}));
    EXPECT_EQ(read("file"), "x");
}

TEST_F(BinaryUpdateFile, SucceedsForNoByteAndForOne) {
    write("file", "old content");
    unsigned char bytes[] = {'a', 'b'};
    std::size_t const before = countDescriptors();
    TraceRecorder const recorder;
    m_Context.UpdateFile("file", bytes, 1UL);
    EXPECT_EQ(read("file"), "a");
    m_Context.UpdateFile("file", bytes, 0UL);
    EXPECT_EQ(read("file"), "");
    m_Context.UpdateFile("file", nullptr, 0UL);
    EXPECT_EQ(read("file"), "");
    EXPECT_EQ(countDescriptors(), before);
    EXPECT_TRUE(recorder.records().empty()) << "it is only a message, not a trace record";
}

TEST_F(BinaryUpdateFile, KeepsReportingLongerWritesAsFailuresAndLeavesTheFileOpen) {
    unsigned char bytes[] = {'a', '\0', 'c'};
    for (unsigned long const length : {2UL, 3UL}) {
        expectFailure([&] { m_Context.UpdateFile("file", bytes, length); }, KVX_E_FILE_IO, "kvxctx", 181,
                      "file I/O error");
        EXPECT_EQ(read("file"), std::string("a\0c", length)) << "the data has reached the file";
        int const left = descriptorOf(m_Dir.file("file"));
        ASSERT_NE(left, -1);
        EXPECT_NE(::fcntl(left, F_GETFD) & FD_CLOEXEC, 0);
        ::close(left);
    }
}

TEST_F(BinaryUpdateFile, FailsWhenAByteCannotBeWritten) {
    SystemCalls calls;
    calls->write = [](int, void const*, std::size_t) -> ssize_t {
        errno = ENOSPC;
        return -1;
    };
    unsigned char byte = 'a';
    expectFailure([&] { m_Context.UpdateFile("file", &byte, 1UL); }, KVX_E_FILE_IO, "kvxctx", 181, "file I/O error");
    ::close(descriptorOf(m_Dir.file("file")));
}

TEST_F(BinaryUpdateFile, FailsWhereTheFileCannotBeOpened) {
    unsigned char byte = 'a';
    for (char const* name : {"missing/file", "", "."}) {
        expectFailure([&] { m_Context.UpdateFile(name, &byte, 1UL); }, KVX_E_FILE_NOT_FOUND, "kvxctx", 178,
                      "file not found");
    }
}

TEST_F(BinaryUpdateFile, RefusesAnUnopenedContext) {
    KVX_Context context;
    unsigned char byte = 'a';
    expectFailure([&] { context.UpdateFile("file", &byte, 1UL); }, KVX_E_NO_CONTEXT, "kvxctx", 166,
                  "no context present");
}

TEST(IsWord, ComparesAllOfAValue) {
    EXPECT_TRUE(kvxIsWord("Error", "Error"));
    for (std::string const& other : {std::string(), std::string("Erro"), std::string("Errors"), std::string("error"),
                                     std::string("Error\0", 6), std::string("Err\0r", 5)}) {
        EXPECT_FALSE(kvxIsWord(stringOf(other), "Error")) << other;
    }
}

TEST(StreamFromUrl, MakesWhatItReadFromAFileReadable) {
    TemporaryDirectory dir;
    dir.write("empty", "");
    dir.write("file", "ab");
    KVX_Context context;
    TbStringStream out;
    context.StreamFromURL(dir.file("empty").c_str(), out);
    EXPECT_TRUE(out.atEnd()) << "an empty file gives nothing to read";
    context.StreamFromURL(dir.file("file").c_str(), out);
    ASSERT_FALSE(out.atEnd());
    char character = 0;
    out.get(character);
    EXPECT_EQ(character, 'a');
    for (int i = 0; i < 2; ++i) {
        out.get(character);
    }
    ASSERT_TRUE(out.atEnd());
    context.StreamFromURL(dir.file("file").c_str(), out);
    EXPECT_FALSE(out.atEnd()) << "more has come";
    EXPECT_EQ(bytesOf(out), "abab");
}

TEST(JoinedPath, JoinsBothPartsAndTheSecrecyOfTheFile) {
    TbString file("f");
    EXPECT_EQ(bytesOf(kvx::JoinedPath("", file)), "/f");
    EXPECT_EQ(bytesOf(kvx::JoinedPath("dir/", file)), "dir//f");
    EXPECT_FALSE(kvx::JoinedPath("dir", file).isSecret());
    file.keepSecret();
    EXPECT_TRUE(kvx::JoinedPath("dir", file).isSecret());
}

}  // namespace
