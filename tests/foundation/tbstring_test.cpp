// The string: construction, growth, search, comparison, and all failures of allocation.
//
// Contents are compared as bytes. Odd: strings order by length first, then by signed bytes; growth is to the need plus
// a fixed slack, never doubled.

#include "foundation/tbstring.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <clocale>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "foundation/tblocalstring.h"
#include "foundation/tbmemory.h"
#include "foundation/tbstringwriter.h"
#include "foundation/tbvector.h"
#include "tallowin/codes.h"
#include "tests/support/allocations.h"
#include "tests/support/costs.h"
#include "tests/support/exceptions.h"
#include "tests/support/freedmemory.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"

using namespace kvxtest;

namespace {

char const* const kNull = nullptr;

/// What a string must look like inside, whatever was done to it.
void expectSound(TbString const& text) {
    if (text.buffer() == nullptr) {
        EXPECT_EQ(text.length(), 0U);
        return;
    }
    EXPECT_EQ(text.buffer()[text.length()], '\0');
    EXPECT_LT(text.length(), text.capacity());
}

TEST(TcsLen, CountsUpToTheFirstZeroAndTakesNull) {
    EXPECT_EQ(TCSLEN(nullptr), 0U);
    EXPECT_EQ(TCSLEN(""), 0U);
    EXPECT_EQ(TCSLEN("abc"), 3U);
    EXPECT_EQ(TCSLEN("ab\0c"), 2U);
}

TEST(TcsCpy, CopiesWithTheTerminator) {
    char target[8] = "xxxxxxx";
    EXPECT_EQ(TCSCPY(target, "abc"), target);
    EXPECT_EQ(std::memcmp(target, "abc\0xxx", 8), 0);
    EXPECT_STREQ(TCSCPY(target, ""), "");
}

TEST(TcsNCpy, KeepsCopyingOneByteMoreThanItsCount) {
    struct {
        char const* m_Source;
        std::uint32_t m_Count;
        char const* m_Expected;  // all eight bytes
    } const rows[] = {
        {"abcdef", 3, "abcdxxx"}, {"abcdef", 0, "axxxxxx"},
        {"abcdef", 5, "abcdefx"}, {"ab", 5, "ab\0xxxx"},  // stops after the terminator
        {"ab", 1, "abxxxxx"},     {"ab", 2, "ab\0xxxx"},
        {"", 4, "\0xxxxxx"},      {"ab", TbString::npos, "ab\0xxxx"},
    };
    for (auto const& row : rows) {
        char target[8] = "xxxxxxx";
        EXPECT_EQ(TCSNCPY(target, row.m_Source, row.m_Count), target);
        EXPECT_EQ(std::memcmp(target, row.m_Expected, 8), 0) << row.m_Source << " / " << row.m_Count;
    }
}

TEST(TcsNCmp, AnswersExactlyMinusOneZeroOrOne) {
    struct {
        char const* m_Left;
        char const* m_Right;
        std::uint32_t m_Count;
        std::int32_t m_Expected;
    } const rows[] = {
        {nullptr, nullptr, TbString::npos, 0},
        {nullptr, "", TbString::npos, -1},
        {"", nullptr, TbString::npos, 1},
        {nullptr, "a", 0, -1},  // null is looked at before the count
        {"a", nullptr, 0, 1},
        {nullptr, nullptr, 0, 0},
        {"", "", TbString::npos, 0},
        {"ab", "abc", TbString::npos, -1},
        {"abc", "ab", TbString::npos, 1},
        {"ab", "ab", TbString::npos, 0},
        {"x", "y", 0, 0},
        {"x", "y", 1, -1},
        {"y", "x", TbString::npos, 1},
        {"z", "a", TbString::npos, 1},
        {"abX", "abY", 2, 0},
        {"abX", "abY", 3, -1},
        {"ab", "abY", 2, 0},
        {"ab", "abY", 3, -1},
        {"a", "", 1, 1},
        {"", "a", 1, -1},
        {"\xE9", "a", TbString::npos, -1},  // signed bytes: 0x80 to 0xFF order before ASCII
        {"a", "\xE9", TbString::npos, 1},
        {"\x80", "\xFF", TbString::npos, -1},
        {"\x80", "", TbString::npos, 1},  // yet the end of a text orders before every byte
        {"", "\x80", TbString::npos, -1},
        {"a\0b", "a\0c", TbString::npos, 0},
    };
    for (auto const& row : rows) {
        EXPECT_EQ(TCSNCMP(row.m_Left, row.m_Right, row.m_Count), row.m_Expected)
            << (row.m_Left == nullptr ? "null" : row.m_Left) << " / " << (row.m_Right == nullptr ? "null" : row.m_Right)
            << " / " << row.m_Count;
    }
}

TEST(WcsToMbs, ConvertsInTheCurrentLocale) {
    char target[8] = "xxxxxxx";
    WCSToMBS(target, L"abc", sizeof(target));
    EXPECT_STREQ(target, "abc");
    char cut[4] = "xxx";
    WCSToMBS(cut, L"abc", 2);
    EXPECT_EQ(std::memcmp(cut, "abx", 4), 0);
}

TEST(MbsToString, TakesNullAsEmptyWithABuffer) {
    EXPECT_EQ(bytesOf(mbstoSTRING("abc")), "abc");
    EXPECT_NE(mbstoSTRING("").buffer(), nullptr);
    TbString const ofNull = mbstoSTRING(nullptr);
    EXPECT_NE(ofNull.buffer(), nullptr);
    EXPECT_EQ(ofNull.length(), 0U);
}

/// One operation on a string that starts as `start`, and what it leaves.
struct OperationRow {
    char const* m_Name;
    char const* m_Start;  ///< Null: a string without a buffer.
    std::function<void(TbString&)> m_Operate;
    std::string m_Expected;
    bool m_HasBuffer;
};

TEST(TbString, OperationsLeaveContentsAndBufferAsListed) {
    std::string const withZeros("a\0b\0c", 5);
    // clang-format off
    OperationRow const rows[] = {
        {"nothing",                      nullptr, [](TbString&) {},                                       "",        false},
        {"from an empty literal",        "",      [](TbString&) {},                                       "",        true},
        {"clear",                        "abc",   [](TbString& s) { s.clear(); },                         "",        false},
        {"clear twice",                  "abc",   [](TbString& s) { s.clear(); s.clear(); },              "",        false},
        {"assign text",                  "abc",   [](TbString& s) { s.assign("de"); },                    "de",      true},
        {"assign empty",                 "abc",   [](TbString& s) { s.assign(""); },                      "",        true},
        {"assign null",                  "abc",   [](TbString& s) { s.assign(kNull); },                   "",        false},
        {"assign null, count",           "abc",   [](TbString& s) { s.assign(kNull, 3); },                "",        false},
        {"assign a prefix",              "x",     [](TbString& s) { s.assign("abcdef", 2); },             "ab",      true},
        {"assign no bytes",              "x",     [](TbString& s) { s.assign("abcdef", 0); },             "",        true},
        {"assign beyond the end",        "x",     [](TbString& s) { s.assign("ab", 4); },                 {"ab\0\0", 4}, true},
        {"assign through a zero",        "x",     [](TbString& s) { s.assign("ab\0cd", 5); },             {"ab\0\0\0", 5}, true},
        {"assign unterminated bytes",    "x",     [](TbString& s) { char const raw[2] = {'a', 'b'}; s.assign(raw, 2); }, "ab", true},
        {"assign itself",                "abc",   [](TbString& s) { s.assign(static_cast<TbObject const&>(s)); }, "abc", true},
        {"assign a string",              "abc",   [](TbString& s) { s.assign(TbString("wxyz")); },        "wxyz",    true},
        {"assign one without a buffer",  "abc",   [](TbString& s) { s.assign(TbString()); },              "",        false},
        {"assign an empty one",          "abc",   [](TbString& s) { s.assign(TbString("")); },            "",        true},
        {"assign one with zeros",        "x",     [&](TbString& s) { s.assign(stringOf(withZeros)); },    withZeros, true},
        {"assign own buffer",            "abcde", [](TbString& s) { s.assign(s.buffer()); },              "abcde",   true},
        {"assign own tail",              "abcde", [](TbString& s) { s.assign(s.buffer() + 2); },          "cde",     true},
        {"assign own tail, count",       "abcde", [](TbString& s) { s.assign(s.buffer() + 2, 2); },       "cd",      true},
        {"assign own terminator",        "abcde", [](TbString& s) { s.assign(s.buffer() + 5); },          "",        true},
        {"append a character",           nullptr, [](TbString& s) { s.append('a'); },                     "a",       true},
        {"append a zero byte",           "a",     [](TbString& s) { s.append('\0').append('b'); },        {"a\0b", 3}, true},
        {"append text",                  "ab",    [](TbString& s) { s.append("cd"); },                    "abcd",    true},
        {"append empty to no buffer",    nullptr, [](TbString& s) { s.append(""); },                      "",        true},
        {"append null to no buffer",     nullptr, [](TbString& s) { s.append(kNull); },                   "",        false},
        {"append null",                  "ab",    [](TbString& s) { s.append(kNull); },                   "ab",      true},
        {"append null, count",           "ab",    [](TbString& s) { s.append(kNull, 2); },                "ab",      true},
        {"append bytes",                 "ab",    [](TbString& s) { s.append("c\0d", 3); },               {"abc\0d", 5}, true},
        {"append a string",              "ab",    [](TbString& s) { s.append(TbString("cd")); },          "abcd",    true},
        {"append one with zeros",        "x",     [&](TbString& s) { s.append(stringOf(withZeros)); },    "x" + withZeros, true},
        {"append no buffer to none",     nullptr, [](TbString& s) { s.append(TbString()); },              "",        false},
        {"append an empty one to none",  nullptr, [](TbString& s) { s.append(TbString("")); },            "",        false},
        {"append itself",                "abc",   [](TbString& s) { s.append(s); },                       "abcabc",  true},
        {"append itself without buffer", nullptr, [](TbString& s) { s.append(s); },                       "",        false},
        {"append own buffer",            "abc",   [](TbString& s) { s.append(s.buffer()); },              "abcabc",  true},
        {"append own tail",              "abc",   [](TbString& s) { s.append(s.buffer() + 1); },          "abcbc",   true},
        {"append own bytes",             "abc",   [](TbString& s) { s.append(s.buffer(), 2); },           "abcab",   true},
        {"chain",                        "a",     [](TbString& s) { s.append('b').append("c").append(TbString("d")); }, "abcd", true},
        {"grow",                         "abc",   [](TbString& s) { s.grow(1000); },                      "abc",     true},
        {"grow nothing",                 nullptr, [](TbString& s) { s.grow(0); },                         "",        true},
        {"operator=",                    "abc",   [](TbString& s) { s = TbString("d"); },                 "d",       true},
        {"operator= itself",             "abc",   [](TbString& s) { TbString const& same = s; s = same; }, "abc",    true},
    };
    // clang-format on
    for (OperationRow const& row : rows) {
        SCOPED_TRACE(row.m_Name);
        TbString text(row.m_Start);
        row.m_Operate(text);
        EXPECT_EQ(bytesOf(text), row.m_Expected);
        EXPECT_EQ(text.length(), row.m_Expected.size());
        EXPECT_EQ(text.buffer() != nullptr, row.m_HasBuffer);
        expectSound(text);
    }
}

TEST(TbString, ReturnsItselfFromItsOperations) {
    TbString text;
    EXPECT_EQ(&text.assign("a"), &text);
    EXPECT_EQ(&text.assign("a", 1), &text);
    EXPECT_EQ(&text.assign(TbString("b")), &text);
    EXPECT_EQ(&text.append('c'), &text);
    EXPECT_EQ(&text.append("d"), &text);
    EXPECT_EQ(&text.append(TbString("e")), &text);
    EXPECT_EQ(&(text = TbString("f")), &text);
}

TEST(TbString, GrowsAcrossItsBlockWhileItAppendsItself) {
    TbString text("0123456789");
    std::string model("0123456789");
    for (int i = 0; i < 12; ++i) {
        text.append(text);
        model += model;
        ASSERT_EQ(bytesOf(text), model);
    }
    text.append(text.buffer() + 3);
    model += model.substr(3);
    EXPECT_EQ(bytesOf(text), model);
}

TEST(TbString, FromAnEmptyLiteralAndFromNullAreEqual) {
    TbString const empty("");
    TbString const none(kNull);
    EXPECT_NE(empty.buffer(), nullptr);
    EXPECT_EQ(empty.buffer()[0], '\0');
    EXPECT_EQ(none.buffer(), nullptr);
    EXPECT_EQ(none.capacity(), 0U);
    EXPECT_TRUE(empty == "");
    EXPECT_TRUE(none == "");
    EXPECT_TRUE(empty == none);
    EXPECT_TRUE(none == empty);
    EXPECT_EQ(empty.compare(none), 0);
    EXPECT_EQ(none.compare(empty), 0);
    TbFindable const& asFindable = none;
    EXPECT_TRUE(asFindable == empty);
    EXPECT_FALSE(asFindable < empty);
    EXPECT_FALSE(static_cast<TbFindable const&>(empty) < none);
    EXPECT_STREQ(none.c_str(), "");
}

TEST(TbString, KeepsGrowingByTheNeedPlusAFixedSlack) {
    TbString text;
    text.append('x');
    EXPECT_EQ(text.capacity(), 66U);
    char const* const first = text.buffer();
    for (int i = 0; i < 64; ++i) {
        text.append('x');
        ASSERT_EQ(text.capacity(), 66U);
        ASSERT_EQ(text.buffer(), first) << "no new block for the first 65 characters";
    }
    text.append('x');
    EXPECT_EQ(text.length(), 66U);
    EXPECT_EQ(text.capacity(), 131U);

    std::uint32_t capacity = 131;
    while (text.length() < 5000) {
        text.append('x');
        if (text.length() + 1 > capacity) {
            capacity = text.length() + 65;
        }
        ASSERT_EQ(text.capacity(), capacity);
    }
}

TEST(TbString, SizesEveryNewBufferToItsTextPlusTheSlack) {
    EXPECT_EQ(TbString("").capacity(), 65U);
    EXPECT_EQ(TbString("abc").capacity(), 68U);
    EXPECT_EQ(TbString(TbString("abcd")).capacity(), 69U);
    TbString text(std::string(1000, 'x').c_str());
    EXPECT_EQ(text.capacity(), 1065U);
    text.assign("ab");
    EXPECT_EQ(text.capacity(), 67U) << "assigning starts with a new buffer";
    text.grow(64);
    EXPECT_EQ(text.capacity(), 67U) << "64 more characters and the terminator fit";
    text.grow(65);
    EXPECT_EQ(text.capacity(), 132U);
}

/// A string as its header describes it: contents, published capacity, and whether there is a buffer.
struct StringModel {
    std::string m_Bytes;
    std::size_t m_Capacity = 0;
    bool m_HasBuffer = false;

    void grow(std::size_t extra) {
        std::size_t const need = m_Bytes.size() + extra;
        m_Capacity = need + 1 > m_Capacity ? need + 65 : m_Capacity;
        m_HasBuffer = true;
    }

    void clear() { *this = StringModel(); }

    void append(std::string const& bytes) {
        grow(bytes.size());
        m_Bytes += bytes;
    }

    void assign(std::string const& bytes) {
        clear();
        append(bytes);
    }

    void assign(StringModel const& other) {
        if (&other != this) {
            clear();
            if (other.m_HasBuffer) {
                append(other.m_Bytes);
            }
        }
    }

    void appendString(StringModel const& other) {
        if (!other.m_Bytes.empty()) {
            append(std::string(other.m_Bytes));
        }
    }

    static StringModel of(std::string const& bytes) {
        StringModel text;
        text.append(bytes);
        return text;
    }

    [[nodiscard]] StringModel substring(std::size_t from, std::size_t count) const {
        StringModel part;
        part.append("");
        if (from < m_Bytes.size()) {
            part.append(m_Bytes.substr(from, count));
        }
        return part;
    }

    [[nodiscard]] StringModel plus(StringModel const& right) const {
        StringModel sum;
        sum.assign(*this);
        sum.appendString(right);
        return sum;
    }
};

/// A string and its model, and one operation on both.
struct ModelledString {
    TbString& m_Text;
    StringModel m_Model = {};

    void operate(Random& random, ModelledString const& other) {
        std::string const bytes = randomBytes(random);
        auto const count = static_cast<std::uint32_t>(bytes.size());
        auto const from = static_cast<std::uint32_t>(random.below(m_Model.m_Bytes.size() + 2));
        switch (random.below(17)) {
            case 0:
                m_Text.clear();
                m_Model.clear();
                break;
            case 1:
                m_Text.assign(bytes.c_str());
                m_Model.assign(bytes);
                break;
            case 2:
                m_Text.assign(bytes.data(), count);
                m_Model.assign(bytes);
                break;
            case 3:
                m_Text = other.m_Text;
                m_Model.assign(other.m_Model);
                break;
            case 4:
                m_Text.append(other.m_Text);
                m_Model.appendString(other.m_Model);
                break;
            case 5:
                m_Text.append(m_Text);
                m_Model.appendString(m_Model);
                break;
            case 6:
                m_Text.append(bytes.c_str());
                m_Model.append(bytes);
                break;
            case 7:
                m_Text.append(bytes.data(), count);
                m_Model.append(bytes);
                break;
            case 8:
                m_Text.grow(count);
                m_Model.grow(count);
                break;
            case 9:
                m_Text = other.m_Text.substring(from, count);
                m_Model.assign(other.m_Model.substring(from, count));
                break;
            case 10:
                m_Text = m_Text + other.m_Text;
                m_Model.assign(m_Model.plus(other.m_Model));
                break;
            case 11:
                m_Text = bytes.c_str() + other.m_Text;
                m_Model.assign(StringModel::of(bytes).plus(other.m_Model));
                break;
            case 12:
                if (from <= m_Model.m_Bytes.size() && m_Model.m_HasBuffer) {
                    m_Text.assign(m_Text.buffer() + from);
                    m_Model.assign(std::string(m_Model.m_Bytes, from));
                }
                break;
            case 13: {
                TbString given(other.m_Text);
                TbInPlaceText::handOver(given, m_Text);
                m_Model.assign(StringModel(other.m_Model));
                break;
            }
            default:
                for (char const byte : bytes) {
                    m_Text.append(byte);
                    m_Model.append(std::string(1, byte));
                }
        }
        if (m_Model.m_Bytes.size() > 3000) {
            m_Text.clear();
            m_Model.clear();
        }
    }

    static std::string randomBytes(Random& random) {
        // The slack is 65: lengths around its multiples decide between two capacities.
        std::string bytes(random.below(4) == 0 ? 60 + random.below(12) : random.below(200), 'x');
        for (char& byte : bytes) {
            byte = static_cast<char>('a' + random.below(26));
        }
        return bytes;
    }

    void expectAgreement() const {
        ASSERT_EQ(bytesOf(m_Text), m_Model.m_Bytes);
        ASSERT_EQ(m_Text.length(), m_Model.m_Bytes.size());
        ASSERT_EQ(m_Text.capacity(), m_Model.m_Capacity);
        ASSERT_EQ(m_Text.buffer() != nullptr, m_Model.m_HasBuffer);
        expectSound(m_Text);
    }
};

/// Random operations on three strings and their models.
void compareWithModels(TbString& first, TbString& second, TbString& third) {
    Random random;
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    ModelledString strings[3] = {{first}, {second}, {third}};
    third.keepSecret();
    for (int i = 0; i < 20000; ++i) {
        ModelledString& changed = strings[random.below(3)];
        changed.operate(random, strings[random.below(3)]);
        for (ModelledString const& text : strings) {
            text.expectAgreement();
        }
        TbString const copy(changed.m_Text);
        ASSERT_EQ(copy.capacity(), changed.m_Model.m_HasBuffer ? changed.m_Model.m_Bytes.size() + 65 : 0);
    }
}

TEST(TbString, HasThePublishedCapacityAfterEveryOperation) {
    TbString strings[3];
    compareWithModels(strings[0], strings[1], strings[2]);
}

TEST(TbLocalString, HasThePublishedCapacityAfterEveryOperation) {
    TbShortString strings[2];
    TbLocalString<240> secret;
    compareWithModels(strings[0], strings[1], secret);
}

TEST(TbString, HasRoomForItsPublishedCapacityOnceItGrows) {
    // An assigned text has no slack until it is appended to; then it takes the rest of its capacity at once.
    TbString const text("abc");
    for (int i = 0; i < 2; ++i) {
        TbString copy;
        copy = text;
        if (i == 0) {
            copy.append(std::string(24, 'd').c_str());
        } else {
            copy.grow(64);
        }
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        while (copy.length() + 1 < copy.capacity()) {
            copy.append('x');
        }
        EXPECT_EQ(copy.capacity(), 68U);
        EXPECT_EQ(FailingAllocation::requested(), 0);
    }
}

TEST(TbString, IsAssignedWithoutSlackAndSharesNothingButAnEmptyText) {
    TbString const text(std::string(1000, 'x').c_str());
    std::uint64_t const bytes = costOf([&] {
                                    TbString copy;
                                    copy = text;
                                }).m_Bytes;
    EXPECT_GE(bytes, 1001U);
    EXPECT_LE(bytes, 1016U);
    EXPECT_EQ(costOf([&] { TbString(text).append("more"); }).m_Calls, 1U) << "a new copy has its slack";
    EXPECT_EQ(costOf([] {
                  TbString const empty("");
                  TbString const copy(empty);
              }).m_Calls,
              0U);
    TbString first("");
    TbString const second("");
    first.append('a');
    EXPECT_EQ(bytesOf(first), "a");
    EXPECT_EQ(bytesOf(second), "");
}

TEST(TbString, JoinsTwoTextsWithOneAllocation) {
    TbString const left(std::string(500, 'l').c_str());
    TbString const right(std::string(700, 'r').c_str());
    EXPECT_EQ(costOf([&] { TbString const sum = left + right; }).m_Calls, 1U);
    EXPECT_EQ(costOf([&] { TbString const sum = "left" + right; }).m_Calls, 1U);
    EXPECT_EQ(bytesOf(left + right), std::string(500, 'l') + std::string(700, 'r'));
    EXPECT_EQ((left + right).capacity(), 1200U + 65U);
}

TEST(TbString, ComparesEightBytesAtATimeAsOneByOne) {
    // Bytes around the two ends of the order, and zero, which ends a comparison.
    constexpr char kBytes[] = {'a', 'b', '\0', '\x01', '\x7F', '\x80', '\xFF'};
    Random random;
    for (int i = 0; i < 20000; ++i) {
        std::string left(random.below(40), 'a');
        for (char& byte : left) {
            byte = random.below(8) == 0 ? kBytes[random.below(sizeof kBytes)] : 'a';
        }
        std::string right = left;
        for (std::size_t changes = random.below(3); changes > 0 && !right.empty(); --changes) {
            right[random.below(right.size())] = kBytes[random.below(sizeof kBytes)];
        }
        ASSERT_EQ(stringOf(left).compare(stringOf(right)), TCSNCMP(left.c_str(), right.c_str(), TbString::npos))
            << testing::PrintToString(left) << " / " << testing::PrintToString(right);
    }
}

TEST(TbString, OrdersLengthFirst) {
    struct {
        char const* m_Left;
        char const* m_Right;
        std::int32_t m_Sign;
    } const rows[] = {
        {"b", "aa", -1},     {"zz", "aaa", -1},    {"aa", "b", 1},     {"abc", "abd", -1}, {"abd", "abc", 1},
        {"abc", "abc", 0},   {"", "\x80", -1},     {"\xE9", "a", -1},  {"a", "\xE9", 1},   {"", "", 0},
        {nullptr, "", 0},    {"", nullptr, 0},     {nullptr, "a", -1}, {"a", nullptr, 1},  {nullptr, nullptr, 0},
        {"\xE9z", "ab", -1}, {"\x80z", "\xFF", 1},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(std::string(row.m_Left == nullptr ? "null" : row.m_Left) + " / " +
                     (row.m_Right == nullptr ? "null" : row.m_Right));
        TbString const left(row.m_Left);
        TbString const right(row.m_Right);
        std::int32_t const result = left.compare(right);
        EXPECT_EQ(result < 0 ? -1 : result > 0 ? 1 : 0, row.m_Sign);
        TbFindable const& asFindable = left;
        EXPECT_EQ(asFindable < right, row.m_Sign < 0);
        EXPECT_EQ(asFindable == static_cast<TbFindable const&>(right), row.m_Sign == 0);
        EXPECT_EQ(left == right, row.m_Sign == 0);
        EXPECT_EQ(left != right, row.m_Sign != 0);
    }
}

TEST(TbString, ComparesByTheDifferenceOfTheLengths) {
    EXPECT_EQ(TbString("zz").compare(TbString("aaaaa")), -3);
    EXPECT_EQ(TbString("aaaaa").compare(TbString("zz")), 3);
    EXPECT_EQ(TbString().compare(TbString("aaaaa")), -5);
}

TEST(TbString, KeepsComparingWithATextByLetters) {
    // The asymmetry is wanted: against a C string no length counts.
    struct {
        char const* m_Text;
        char const* m_Other;
        std::int32_t m_Expected;
    } const rows[] = {
        {"b", "aa", 1},  // length first it would be less
        {"aa", "b", -1},   {"abc", "abc", 0},     {"abc", "abd", -1},
        {"ab", "abc", -1}, {"abc", "ab", 1},      {"abc", nullptr, 3},  // null gives the length
        {"", nullptr, 0},  {nullptr, nullptr, 0}, {"", "", 0},
        {nullptr, "", 0},  {nullptr, "abcd", -4},  // no buffer gives minus the other length
        {"", "abcd", -1},  {"\xE9", "a", -1},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(std::string(row.m_Text == nullptr ? "null" : row.m_Text) + " / " +
                     (row.m_Other == nullptr ? "null" : row.m_Other));
        TbString const text(row.m_Text);
        EXPECT_EQ(text.compare(row.m_Other), row.m_Expected);
        EXPECT_EQ(text == row.m_Other, row.m_Expected == 0);
        EXPECT_EQ(text != row.m_Other, row.m_Expected != 0);
    }
}

TEST(TbString, KeepsComparingUpToAnEmbeddedZeroOnly) {
    TbString const left = stringOf(std::string("a\0b", 3));
    TbString const right = stringOf(std::string("a\0c", 3));
    EXPECT_TRUE(left == right);
    EXPECT_FALSE(left == stringOf(std::string("a\0", 2))) << "the lengths count still";
    EXPECT_TRUE(left == "a");
}

TEST(TbString, ConcatenatesIntoANewString) {
    TbString const left("ab");
    TbString const right("cd");
    EXPECT_EQ(bytesOf(left + right), "abcd");
    EXPECT_EQ(bytesOf("x" + right), "xcd");
    EXPECT_EQ(bytesOf(kNull + right), "cd");
    EXPECT_EQ(bytesOf(left + TbString()), "ab");
    EXPECT_EQ(bytesOf(TbString() + right), "cd");
    EXPECT_EQ(bytesOf(left + "ef"), "abef");
    EXPECT_EQ(bytesOf(left + left), "abab");
    TbString const none = TbString() + TbString();
    EXPECT_EQ(none.buffer(), nullptr);
    EXPECT_EQ(bytesOf(left), "ab");
    TbString const zeros = stringOf(std::string("\0x", 2));
    EXPECT_EQ(bytesOf(zeros + zeros), std::string("\0x\0x", 4));
}

TEST(TbString, CopiesAreSeparate) {
    TbString original("abc");
    TbString copy(original);
    copy.append('d');
    EXPECT_EQ(bytesOf(original), "abc");
    EXPECT_EQ(bytesOf(copy), "abcd");
    EXPECT_NE(original.buffer(), copy.buffer());
    TbString const ofNone{TbString()};
    EXPECT_EQ(ofNone.buffer(), nullptr);
    TbString const ofEmpty{TbString("")};
    EXPECT_NE(ofEmpty.buffer(), nullptr);
}

TEST(TbString, NposHasAllBitsSet) {
    EXPECT_EQ(TbString::npos, 4294967295U);
    std::uint32_t const& bound = TbString::npos;
    EXPECT_EQ(bound, 0xFFFFFFFFU) << "the constant has an address";
}

TEST(TbString, FindsTexts) {
    struct {
        char const* m_Text;
        char const* m_What;
        std::uint32_t m_From;
        std::uint32_t m_Expected;
    } const rows[] = {
        {"abcabc", "bc", 0, 1},
        {"abcabc", "bc", 2, 4},
        {"abcabc", "bc", 5, TbString::npos},
        {"abcabc", "x", 0, TbString::npos},
        {"abc", "abcd", 0, TbString::npos},
        {"abc", "", 0, 0},
        {"abc", "", 3, 3},
        {"abc", "", 4, TbString::npos},
        {nullptr, "", 0, 0},
        {nullptr, "a", 0, TbString::npos},
        {"abc", nullptr, 1, 1},
        {"abc", "c", TbString::npos, TbString::npos},
    };
    for (auto const& row : rows) {
        EXPECT_EQ(TbString(row.m_Text).find(row.m_What, row.m_From), row.m_Expected)
            << (row.m_Text == nullptr ? "null" : row.m_Text) << " / " << (row.m_What == nullptr ? "null" : row.m_What);
    }
    EXPECT_EQ(stringOf(std::string("a\0bc", 4)).find("c"), 3U) << "zero bytes are bytes like others";
}

TEST(TbString, CutsPiecesOut) {
    TbString const text("abcdef");
    EXPECT_EQ(bytesOf(text.substring(2)), "cdef");
    EXPECT_EQ(bytesOf(text.substring(2, 2)), "cd");
    EXPECT_EQ(bytesOf(text.substring(4, 100)), "ef");
    EXPECT_EQ(bytesOf(text.substring(6)), "");
    EXPECT_EQ(bytesOf(text.substring(TbString::npos)), "");
    EXPECT_EQ(bytesOf(TbString().substring(0)), "");
    EXPECT_EQ(bytesOf(stringOf(std::string("a\0b", 3)).substring(1)), std::string("\0b", 2));
}

TEST(TbString, GivesItsBytesToReadAndChange) {
    TbString text("abc");
    text[1] = 'X';
    TbString const& reader = text;
    EXPECT_EQ(reader[1], 'X');
    EXPECT_EQ(bytesOf(text), "aXc");
    EXPECT_FALSE(text.isEmpty());
    EXPECT_TRUE(TbString("").isEmpty());
}

TEST(TbString, RefusesALengthThatWouldNotFit32Bits) {
    for (std::uint32_t const extra : {0xFFFFFFFFU, 0xFFFFFFFEU, 0xFFFFFFFFU - 67, 0xFFFFFFFFU - 65}) {
        TbString text("abc");
        EXPECT_EQ(thrownCode([&] { text.grow(extra); }), KVX_E_OUT_OF_MEMORY) << extra;
        EXPECT_EQ(bytesOf(text), "abc");
        text.append("def");
        EXPECT_EQ(bytesOf(text), "abcdef");
        expectSound(text);
    }
    TbString none;
    EXPECT_EQ(thrownCode([&] { none.grow(0xFFFFFFFFU); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(none.capacity(), 0U);
    EXPECT_EQ(bytesOf(none.append('x')), "x");
}

#if SIZE_MAX > UINT32_MAX

/// A text of 2^32 bytes: one piece of memory, mapped again and again, and a page with the terminator.
class HugeText {
public:
    HugeText() {
        int const file = ::memfd_create("text", MFD_CLOEXEC);
        std::string const content(kPiece, 'x');
        EXPECT_EQ(::write(file, content.data(), kPiece), static_cast<ssize_t>(kPiece));
        m_Text = static_cast<char*>(
            ::mmap(nullptr, kLength + kPage, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
        for (std::size_t at = 0; m_Text != MAP_FAILED && at < kLength; at += kPiece) {
            EXPECT_EQ(::mmap(m_Text + at, kPiece, PROT_READ, MAP_SHARED | MAP_FIXED, file, 0), m_Text + at);
        }
        ::close(file);
    }
    HugeText(HugeText const&) = delete;
    HugeText& operator=(HugeText const&) = delete;
    ~HugeText() { ::munmap(m_Text, kLength + kPage); }

    /// MAP_FAILED where the address space has no room.
    [[nodiscard]] char const* get() const { return m_Text; }

private:
    static constexpr std::size_t kPiece = std::size_t{1} << 20;
    static constexpr std::size_t kPage = 4096;
    static constexpr std::size_t kLength = std::size_t{1} << 32;

    char* m_Text;
};

TEST(TbString, RefusesATextWhoseLengthDoesNotFit32Bits) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer keeps a record of each byte that is read";
#endif
    HugeText const huge;
    ASSERT_NE(huge.get(), MAP_FAILED);
    TbString text("abc");
    EXPECT_EQ(thrownCode([&] { text.append(huge.get()); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(bytesOf(text), "abc");
    EXPECT_EQ(thrownCode([&] { TbString const copy(huge.get()); }), KVX_E_OUT_OF_MEMORY);
}

#endif

TEST(TbString, KeepsTheRaisedCapacityOfAFailedGrowth) {
    TbString text(std::string(65, 'x').c_str());
    ASSERT_EQ(text.capacity(), 130U);
    while (text.length() + 1 < text.capacity()) {
        text.append('y');
    }
    std::string model = bytesOf(text);
    {
        FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
        EXPECT_EQ(thrownCode([&] { text.append('z'); }), KVX_E_OUT_OF_MEMORY);
        EXPECT_EQ(text.capacity(), 130U + 65U);
        EXPECT_EQ(bytesOf(text), model);
        EXPECT_EQ(thrownCode([&] { text.append('z'); }), KVX_E_OUT_OF_MEMORY)
            << "the real block decides, not the published capacity";
        EXPECT_EQ(text.capacity(), 130U + 65U);
    }
    for (int i = 0; i < 500; ++i) {
        text.append('z');
        model.push_back('z');
        ASSERT_EQ(bytesOf(text), model);
        expectSound(text);
    }
}

TEST(TbString, NeedsNoMoreThanItAsksForAfterAHugeGrowthHasFailed) {
    TbString text("abc");
    tbSetAllocationGate([](std::size_t bytes) { return bytes < 100000; });
    EXPECT_EQ(thrownCode([&] { text.grow(0x7FFFFFFF); }), KVX_E_OUT_OF_MEMORY);
    EXPECT_EQ(text.capacity(), 0x80000002U + 65U);
    for (int i = 0; i < 1000; ++i) {
        text.append("0123456789");
    }
    tbSetAllocationGate(nullptr);
    EXPECT_EQ(text.length(), 10003U);
    expectSound(text);
}

TEST(TbString, StaysUsableWhenAnAssignmentRunsOutOfMemory) {
    std::function<void(TbString&)> const operations[] = {
        [](TbString& s) { s.assign("abcdef"); },
        [](TbString& s) { s.assign("abcdef", 4); },
        [](TbString& s) { s.assign(s.buffer() + 1); },
        [](TbString& s) {
            TbObject const& same = s;
            s.assign(same);
            s.append(std::string(300, 'x').c_str());
        },
    };
    for (auto const& operate : operations) {
        TbString text("old text");
        {
            FailingAllocation const failing(0, FailingAllocation::Mode::kAllFromThere);
            EXPECT_EQ(thrownCode([&] { operate(text); }), KVX_E_OUT_OF_MEMORY);
        }
        expectSound(TbString(text));
        text.append("new");
        text.append(text);
        EXPECT_EQ(text.buffer()[text.length()], '\0');
        EXPECT_EQ(bytesOf(text).substr(text.length() - 3), "new");
    }
}

TEST(TbString, LosesNothingWhenAnyAllocationFails) {
    long const runs = survivesEveryFailingAllocation([] {
        TbString text("abc");
        text.append(std::string(200, 'x').c_str());
        TbString const copy(text);
        TbString const sum = "left" + (text + copy);
        text = mbstoSTRING("narrow") + sum.substring(3, 20);
        text.assign(text.buffer() + 2);
        text.append(text);
    });
    EXPECT_GT(runs, 8);
}

TEST(TbString, ReadsNoByteBehindAnUnterminatedSource) {
    // A sanitizer run would find the byte after the source.
    std::vector<char> const raw = {'a', 'b', 'c'};
    TbString text;
    text.assign(raw.data(), 3);
    EXPECT_EQ(bytesOf(text), "abc");
    text.append(raw.data(), 3);
    EXPECT_EQ(bytesOf(text), "abcabc");
}

TEST(TbString, FillsByBytesInFewReallocations) {
    constexpr std::uint32_t kBytes = 16U << 20;
    FailingAllocation const counting(-1, FailingAllocation::Mode::kOnlyThat);
    TbString text;
    for (std::uint32_t i = 0; i < kBytes; ++i) {
        text.append(static_cast<char>('a' + i % 26));
    }
    EXPECT_EQ(text.length(), kBytes);
    EXPECT_EQ(text[kBytes - 1], static_cast<char>('a' + (kBytes - 1) % 26));
    EXPECT_LT(FailingAllocation::requested(), 50) << "logarithmic, although the capacity rises by 65";
    EXPECT_GT(FailingAllocation::requested(), 5);
}

TbString secretOf(char const* text) {
    TbString secret;
    secret.keepSecret();
    secret.assign(text);
    return secret;
}

TEST(SecretString, PassesItsSecrecyOn) {
    TbString const secret = secretOf("password");
    EXPECT_TRUE(secret.isSecret());
    EXPECT_TRUE(TbString(secret).isSecret());
    EXPECT_TRUE(secret.substring(2, 3).isSecret());
    EXPECT_TRUE((secret + ":").isSecret());
    EXPECT_TRUE((TbString("user:") + secret).isSecret());
    EXPECT_TRUE(("user:" + secret).isSecret());
    TbString assigned("x");
    assigned = secret;
    EXPECT_TRUE(assigned.isSecret());
    assigned = TbString("plain");
    EXPECT_TRUE(assigned.isSecret());
    assigned.clear();
    EXPECT_TRUE(assigned.isSecret());
    EXPECT_FALSE(TbString("plain").isSecret());
    EXPECT_FALSE(TbString(secret.c_str()).isSecret());
}

TEST(StringWriter, RefusesMoreThanAStringHolds) {
    for (std::uint64_t const bytes : {std::uint64_t{UINT32_MAX} - 65 - 2, std::uint64_t{1} << 40}) {
        TbString text("abc");
        std::uint32_t const capacity = text.capacity();
        EXPECT_EQ(thrownCode([&] { TbStringWriter const writer(text, bytes); }), KVX_E_OUT_OF_MEMORY);
        EXPECT_EQ(bytesOf(text), "abc");
        EXPECT_EQ(text.capacity(), capacity);
    }
}

TEST(SecretString, LeavesNoBytesBehind) {
    TbString const plain(kCanaryPassword);
    FreedMemory const freed;
    {
        TbString secret = secretOf(kCanaryPassword);
        for (int i = 0; i < 20; ++i) {
            secret.append(secret);  // grows
            EXPECT_FALSE(secret.substring(0, 100).isEmpty());
            secret.assign(secret.c_str() + 1, 30);  // lies in its own buffer
        }
        TbString copy;
        copy = plain;
        copy.keepSecret();  // the buffer that it has counts too
        copy = secret;
        copy.clear();
    }
    EXPECT_GT(FreedMemory::searched(), 40);
    EXPECT_EQ(FreedMemory::leaks(), 0);
}

TEST(SecretString, LeavesNoBytesBehindWhereItGrows) {
    struct {
        char const* m_Name;
        void (*m_Grow)(TbString& secret);
    } const cases[] = {
        {"grow", [](TbString& secret) { secret.grow(1000); }},
        {"many characters",
         [](TbString& secret) {
             for (int i = 0; i < 1000; ++i) {
                 secret.append('x');
             }
         }},
        {"text", [](TbString& secret) { secret.append(std::string(1000, 'x').c_str()); }},
        {"string", [](TbString& secret) { secret.append(TbString(std::string(1000, 'x').c_str())); }},
    };
    for (auto const& row : cases) {
        TbString secret = secretOf(kCanaryPassword);
        FreedMemory const freed;
        void const* const before = secret.buffer();
        row.m_Grow(secret);
        EXPECT_NE(static_cast<void const*>(secret.buffer()), before) << row.m_Name;
        EXPECT_EQ(bytesOf(secret).substr(0, std::strlen(kCanaryPassword)), kCanaryPassword) << row.m_Name;
        EXPECT_GT(FreedMemory::searched(), 0) << row.m_Name;
        EXPECT_EQ(FreedMemory::leaks(), 0) << row.m_Name;
    }
}

TEST(SecretString, SurvivesFailingAllocations) {
    FreedMemory const freed;
    survivesEveryFailingAllocation([] {
        TbString secret = secretOf(kCanaryPassword);
        secret.append(secret).append(secret).append(secret).append(secret).append(secret);
    });
    EXPECT_EQ(FreedMemory::leaks(), 0);
}

}  // namespace
