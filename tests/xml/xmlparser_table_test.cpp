// The transition table, row by row and byte by byte, beside a second list of the same rows.
//
// Every byte is tried in every state, with every ending; result and document must equal those of the reference parser.

#include <gtest/gtest.h>

#include <iterator>
#include <set>

#include "tests/xml/xmlreference.h"
#include "tests/xml/xmlsupport.h"
#include "xml/xmltable.h"

using namespace kvxtest;

namespace {

constexpr std::size_t kRows = 45;

char byteOf(int number) {
    return static_cast<char>(static_cast<unsigned char>(number));
}

/// A beginning of a document that ends in a state, and is good so far.
struct Beginning {
    std::uint32_t m_State;
    std::string m_Text;
};

/// States that are left without reading anything (18, 19, 20, 25, and 30's end) are reached by their one character.
std::vector<Beginning> const& beginnings() {
    static std::vector<Beginning> const all{
        {1, ""},
        {1, "<r>"},
        {1, "<r>text"},
        {2, "<r><"},
        {2, "<r>text< "},
        {3, "<r><n"},
        {4, "<r><n "},
        {4, "<r><n v='1'"},
        {5, "<r><n v"},
        {6, "<r><n v "},
        {7, "<r><n v="},
        {7, "<r><n v= "},
        {8, "<r><n v='"},
        {8, "<r><n v='1"},
        {9, "<r><n v=\""},
        {9, "<r><n v=\"1"},
        {10, "<r></"},
        {10, "<r><n/"},
        {10, "<r><n v/ "},
        {14, "<r><n></e"},
        {15, "<r><n></e "},
        {30, "<r><n v=1"},
    };
    return all;
}

/// Ends for whatever comes before, so that every state can lead to a complete document.
std::vector<std::string> const& endings() {
    static std::vector<std::string> const all{
        "",        ">",         "/>",        "</r>",     "></r>",       "/></r>",    "></n></r>", " ></n></r>",
        "'/></r>", "\"/></r>",  "'></></r>", "=1/></r>", "='2'/></r>",  " w/></r>",  "w=3/></r>", "=\"4\" w></></r>",
        "e></r>",  "t</n></r>", "/n></r>",   "n/></r>",  "e ></r><r/>", "></r>tail", "<n/></r>",  "t<n/></r>",
    };
    return all;
}

TEST(XmlTable, HasTheRowsInTheirOrder) {
    std::vector<ReferenceRow> const& expected = referenceRows();
    ASSERT_EQ(expected.size(), kRows);
    for (std::size_t i = 0; i < kRows; ++i) {
        EXPECT_EQ(xmlTable[i].m_State, expected[i].m_State) << "row " << i;
        EXPECT_EQ(xmlTable[i].m_Symbols & 511U, expected[i].m_Mask) << "row " << i;
        EXPECT_EQ(xmlTable[i].m_Consume, expected[i].m_Consume) << "row " << i;
        EXPECT_EQ(xmlTable[i].m_Next, expected[i].m_Next) << "row " << i;
        EXPECT_EQ(xmlTable[i].m_Action, expected[i].m_Action) << "row " << i;
    }
    EXPECT_EQ(xmlTable[kRows].m_State, 0U);
}

TEST(XmlTable, RowsOfOneStateStandTogether) {
    std::set<std::uint32_t> met;
    for (std::size_t i = 0; i < kRows; ++i) {
        if (i == 0 || xmlTable[i].m_State != xmlTable[i - 1].m_State) {
            EXPECT_TRUE(met.insert(xmlTable[i].m_State).second) << "state " << xmlTable[i].m_State;
        }
    }
    EXPECT_EQ(met, (std::set<std::uint32_t>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 14, 15, 18, 19, 20, 25, 30}));
}

TEST(XmlTable, FourRowsTakeAllClassesButOne) {
    std::size_t complements = 0;
    for (std::size_t i = 0; i < kRows; ++i) {
        int classes = 0;
        for (std::uint32_t bit = 1; bit <= 256; bit *= 2) {
            classes += (xmlTable[i].m_Symbols & bit) != 0 ? 1 : 0;
        }
        EXPECT_TRUE(classes == 1 || classes == 8) << "row " << i;
        complements += classes == 8 ? 1 : 0;
    }
    EXPECT_EQ(complements, 4U);
}

TEST(XmlTable, ClassifiesEveryByte) {
    for (int number = 0; number < 256; ++number) {
        char const byte = byteOf(number);
        EXPECT_EQ(getSymbol(byte), referenceClass(byte)) << number;
        EXPECT_EQ(isSpace(byte), referenceClass(byte) == 1 ? 1 : 0) << number;
        EXPECT_EQ(isAlnum(byte), referenceClass(byte) == 4 ? 1 : 0) << number;
    }
    EXPECT_EQ(getSymbol(':'), 256U);
    EXPECT_EQ(getSymbol('\0'), 256U);
    EXPECT_EQ(getSymbol('\x0b'), 256U);  // vertical tab and form feed are no white space here
    EXPECT_EQ(getSymbol('\xe9'), 256U);
}

TEST(XmlTable, FindsTheRowOfEveryStateAndByte) {
    std::vector<std::size_t> used(kRows, 0);
    for (std::uint32_t state = 0; state < 40; ++state) {
        for (int number = 0; number < 256; ++number) {
            std::size_t const expected = referenceRowFor(state, byteOf(number));
            xmlTableRow const* const row = getTabEntry(xmlTable, state, byteOf(number));
            if (expected == kRows) {
                ASSERT_EQ(row, nullptr) << "state " << state << " byte " << number;
            } else {
                ASSERT_EQ(row, xmlTable + expected) << "state " << state << " byte " << number;
                ++used[expected];
            }
        }
    }
    for (std::size_t i = 0; i < kRows; ++i) {
        EXPECT_GT(used[i], 0U) << "row " << i << " is never found";
    }
}

TEST(XmlTable, TakesTheFirstRowThatFits) {
    // In memory that the compiler cannot look into, so that the expansion happens here.
    std::vector<xmlTableRow> const rows{{7, 4, 1, 1, 1}, {8, 6, 1, 2, 2}, {8, 4, 0, 3, 3},
                                        {9, 4, 0, 4, 4}, {0, 0, 0, 0, 0}, {8, 1, 1, 4, 4}};
    xmlTableRow const* const table = rows.data();
    EXPECT_EQ(getTabEntry(table, 8, 'a'), table + 1);
    EXPECT_EQ(getTabEntry(table, 8, '<'), table + 1);
    EXPECT_EQ(getTabEntry(table, 7, 'a'), table);
    EXPECT_EQ(getTabEntry(table, 7, '<'), nullptr);
    EXPECT_EQ(getTabEntry(table, 8, ' '), nullptr);  // behind the end
    EXPECT_EQ(getTabEntry(table, 0, 'a'), nullptr);

    xmltable::Transitions const expanded = xmltable::expanded(table);
    EXPECT_EQ(expanded[8][xmltable::classOf('a')].m_Next, 2);
    EXPECT_EQ(expanded[8][xmltable::classOf('<')].m_Next, 2);
    EXPECT_EQ(expanded[7][xmltable::classOf('a')].m_Next, 1);
    EXPECT_EQ(expanded[7][xmltable::classOf('<')].m_Next, xmltable::kNoState);
    EXPECT_EQ(expanded[8][xmltable::classOf(' ')].m_Next, xmltable::kNoState);
    EXPECT_FALSE(expanded[8][xmltable::classOf('a')].m_IsAgain);
    EXPECT_TRUE(expanded[9][xmltable::classOf('a')].m_IsAgain);
}

TEST(XmlTable, IsExpandedToTheFirstRowThatFits) {
    for (std::uint32_t state = 0; state < xmltable::kStateCount; ++state) {
        for (int number = 0; number < 256; ++number) {
            xmltable::Transition const& found = xmltable::transitionOf(state, byteOf(number));
            xmlTableRow const* const row = getTabEntry(xmlTable, state, byteOf(number));
            std::string const where = "state " + std::to_string(state) + " byte " + std::to_string(number);
            ASSERT_EQ(found.m_Next != xmltable::kNoState, row != nullptr) << where;
            if (row != nullptr) {
                EXPECT_EQ(found.m_Next, row->m_Next) << where;
                EXPECT_EQ(found.m_Action, row->m_Action) << where;
                EXPECT_EQ(found.m_IsAgain, row->m_Consume == 0) << where;
            }
        }
    }
    for (std::size_t i = 0; i < kRows; ++i) {
        EXPECT_LT(xmlTable[i].m_State, xmltable::kStateCount) << "row " << i;
    }
}

TEST(XmlTable, KnowsWhereRunsEnd) {
    for (std::uint32_t state = 0; state < xmltable::kStateCount; ++state) {
        std::vector<int> ends;
        for (int number = 0; number < 256; ++number) {
            xmlTableRow const* const row = getTabEntry(xmlTable, state, byteOf(number));
            bool const stays = row != nullptr && row->m_Next == state && row->m_Consume == 1;
            bool const isCollected = stays && row->m_Action == 2;
            EXPECT_EQ((xmltable::kIdle[state] >> xmltable::classOf(byteOf(number)) & 1U) != 0,
                      stays && row->m_Action == 0)
                << "state " << state << " byte " << number;
            EXPECT_EQ((xmltable::kCollected[state] >> xmltable::classOf(byteOf(number)) & 1U) != 0, isCollected)
                << "state " << state << " byte " << number;
            if (!isCollected) {
                ends.push_back(number);
            }
        }
        EXPECT_EQ(xmltable::kRunEnd[state], ends.size() == 1 ? ends[0] : xmltable::kNoEnd) << "state " << state;
    }
    EXPECT_EQ(xmltable::kRunEnd[xmltable::kText], '<');
    EXPECT_EQ(xmltable::kRunEnd[xmltable::kSingleQuoted], '\'');
    EXPECT_EQ(xmltable::kRunEnd[xmltable::kDoubleQuoted], '"');
}

// Every byte in every state, followed by every ending: result and document must be those of the reference, which tells
// apart the row taken, its next state, its action, and whether it read the byte.
TEST(XmlTable, DrivesTheParser) {
    std::set<std::size_t> taken;
    int accepted = 0;
    for (Beginning const& beginning : beginnings()) {
        for (int number = 0; number < 256; ++number) {
            taken.insert(referenceRowFor(beginning.m_State, byteOf(number)));
            for (std::string const& ending : endings()) {
                std::string const text = beginning.m_Text + byteOf(number) + ending;
                std::string const expected = referenceReparsed(text);
                ASSERT_EQ(reparsed(text), expected) << "state " << beginning.m_State << ": " << text;
                accepted += expected.rfind("error", 0) == 0 ? 0 : 1;
            }
        }
    }
    // The four rows of states that no beginning can stop in are walked through by their neighbours.
    for (std::uint32_t const state : {18U, 20U, 25U}) {
        taken.insert(referenceRowFor(state, state == 25 ? '>' : '/'));
    }
    taken.insert(referenceRowFor(19, 'a'));
    taken.erase(kRows);
    EXPECT_EQ(taken.size(), kRows);
    EXPECT_GT(accepted, 1000);
}

// For each row one text that reads correctly only if the row does.
TEST(XmlTable, EveryRowHasItsEffect) {
    struct Effect {
        char const* m_Text;
        char const* m_Expected;
    };
    static constexpr Effect kEffects[] = {
        {"t<a/>", "t<a/>"},                        // 1 <
        {"<a>x></a>", "<a>x></a>"},                // 1 other
        {"< \n<", "error 1"},                      // 2 space: stays in 2
        {"<ab/>", "<ab/>"},                        // 2 name: first character counts
        {"<a></>", "<a/>"},                        // 2 slash closes
        {"<a b/>", "<a b=\"\"/>"},                 // 3 space
        {"<abc/>", "<abc/>"},                      // 3 name
        {"<a/><b/>", "<a/><b/>"},                  // 3 slash: opened, closed once
        {"<a>t</a>", "<a>t</a>"},                  // 3 >
        {"<a \t b/>", "<a b=\"\"/>"},              // 4 space
        {"<a bc/>", "<a bc=\"\"/>"},               // 4 name
        {"<a /><b/>", "<a/><b/>"},                 // 4 slash
        {"<a >t</a>", "<a>t</a>"},                 // 4 >
        {"<a b =1 />", "<a b=\"1\"/>"},            // 5 space
        {"<a bcd=1 />", "<a bcd=\"1\"/>"},         // 5 name
        {"<a b=1 />", "<a b=\"1\"/>"},             // 5 =
        {"<a b/><c/>", "<a b=\"\"/><c/>"},         // 5 slash
        {"<a b>t</a>", "<a b=\"\">t</a>"},         // 5 >
        {"<a b  =1 />", "<a b=\"1\"/>"},           // 6 space
        {"<a b c/>", "<a b=\"\" c=\"\"/>"},        // 6 name
        {"<a b ='1'/>", "<a b=\"1\"/>"},           // 6 =
        {"<a b /><c/>", "<a b=\"\"/><c/>"},        // 6 slash
        {"<a b >t</a>", "<a b=\"\">t</a>"},        // 6 >
        {"<a b= '1'/>", "<a b=\"1\"/>"},           // 7 space
        {"<a b='\"'/>", "<a b=\"&quot;\"/>"},      // 7 '
        {"<a b=\"'\"/>", "<a b=\"&apos;\"/>"},     // 7 "
        {"<a b=12/>", "<a b=\"12\"/>"},            // 7 name
        {"<a b='1'c/>", "<a b=\"1\" c=\"\"/>"},    // 8 '
        {"<a b='x>y'/>", "<a b=\"x&gt;y\"/>"},     // 8 other
        {"<a b=\"1\"c/>", "<a b=\"1\" c=\"\"/>"},  // 9 "
        {"<a b=\"x<y\"/>", "<a b=\"x&lt;y\"/>"},   // 9 other
        {"<a></ \n>", "<a/>"},                     // 10 space
        {"<a></b>", "<a/>"},                       // 10 name
        {"<a></>t<b/>", "t<a/><b/>"},              // 10 >
        {"<a></b >", "<a/>"},                      // 14 space
        {"<a></bcd>", "<a/>"},                     // 14 name
        {"<a></b>t<b/>", "t<a/><b/>"},             // 14 >
        {"<a></b  >", "<a/>"},                     // 15 space
        {"<a></b >t<b/>", "t<a/><b/>"},            // 15 >
        {"<a><b/></a>", "<a><b/></a>"},            // 18 slash: closes b, not a
        {"<a b cd/>", "<a b=\"\" cd=\"\"/>"},      // 19 name: it is not lost
        {"<a bc/></>", "error 3"},                 // 20 slash: closes once
        {"<a b></a></a>", "error 3"},              // 25 >: opens nothing more
        {"<a b=123/>", "<a b=\"123\"/>"},          // 30 name
        {"<a b=1></a>", "<a b=\"1\"/>"},           // 30 other: looked at again
    };
    static_assert(std::size(kEffects) == kRows);
    for (std::size_t i = 0; i < kRows; ++i) {
        EXPECT_EQ(reparsed(kEffects[i].m_Text), kEffects[i].m_Expected) << "row " << i << ": " << kEffects[i].m_Text;
    }
}

}  // namespace
