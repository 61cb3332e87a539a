// Random changes of elements, beside a model in standard containers.
//
// Attributes are set, set again and read, children inserted, found and removed, few and many of them, so that both ways
// of finding them are met. Names and tags come again often; some differ behind a zero byte only, which makes them
// equal.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "tallowin/codes.h"
#include "tests/support/exceptions.h"
#include "tests/support/random.h"
#include "tests/support/tbtext.h"
#include "tests/xml/xmlreference.h"
#include "tests/xml/xmlsupport.h"

using namespace kvxtest;
using namespace std::string_literals;

namespace {

/// What decides whether two names or tags are equal: the length, and the bytes up to the first zero byte.
std::string keyOf(std::string const& name) {
    return std::to_string(name.size()) + ":" + name.c_str();
}

std::string someName(Random& random, std::size_t choices) {
    std::string const name = std::to_string(random.below(choices));
    return random.below(10) == 0 ? "z\0"s + name.substr(0, 1) : "n" + name;
}

struct Model {
    std::vector<std::pair<std::string, std::string>> m_Attributes;
    std::vector<std::pair<std::string, xmlElementPtr>> m_Children;

    [[nodiscard]] std::string written() const {
        std::string text = "<T";
        for (auto const& [name, value] : m_Attributes) {
            text += " " + name + "=\"" + referenceEncoded(value) + "\"";
        }
        text += m_Children.empty() ? "/>" : ">";
        for (auto const& [tag, child] : m_Children) {
            text += "<" + tag + "/>";
        }
        return text + (m_Children.empty() ? "" : "</T>");
    }

    [[nodiscard]] std::vector<std::size_t> childrenOf(std::string const& tag) const {
        std::vector<std::size_t> found;
        for (std::size_t i = 0; i < m_Children.size(); ++i) {
            if (keyOf(m_Children[i].first) == keyOf(tag)) {
                found.push_back(i);
            }
        }
        return found;
    }
};

void changeAttribute(Random& random, xmlElement& element, Model& model, std::size_t choices) {
    std::string const name = someName(random, choices);
    std::string const value = random.text("ab<&>\"'", 20);
    EXPECT_TRUE(element.setAttribute(stringOf(name), stringOf(value)));
    auto const present = std::find_if(model.m_Attributes.begin(), model.m_Attributes.end(),
                                      [&](auto const& attribute) { return keyOf(attribute.first) == keyOf(name); });
    if (present == model.m_Attributes.end()) {
        model.m_Attributes.emplace_back(name, value);
    } else {
        *present = {name, value};
    }
}

void insertChild(Random& random, xmlElement& element, Model& model, std::size_t choices) {
    // One time in ten a child that is there already: an element may be a child twice.
    if (random.below(10) == 0 && !model.m_Children.empty()) {
        auto const again = model.m_Children[random.below(model.m_Children.size())];
        element.insertChild(again.second.get());
        model.m_Children.push_back(again);
        return;
    }
    std::string const tag = someName(random, choices);
    model.m_Children.emplace_back(tag, newElement(tag));
    element.insertChild(model.m_Children.back().second.get());
}

void findChild(Random& random, xmlElement& element, Model const& model, std::size_t choices) {
    std::string const tag = someName(random, choices);
    std::vector<std::size_t> const expected = model.childrenOf(tag);
    auto const index = static_cast<long>(random.below(expected.size() + 2)) - (random.below(8) == 0 ? 1 : 0);
    xmlElement* child = nullptr;
    if (expected.empty()) {
        EXPECT_FALSE(element.getChild(stringOf(tag), index, &child));
        EXPECT_TRUE(enumeratedTags(element, tag).empty());
        return;
    }
    EXPECT_EQ(enumeratedTags(element, tag).size(), model.m_Children.size() - expected[0]);
    if (index < 0 || static_cast<std::size_t>(index) >= expected.size()) {
        EXPECT_EQ(thrownCode([&] { element.getChild(stringOf(tag), index, &child); }), KVX_E_OUT_OF_RANGE);
        return;
    }
    ASSERT_TRUE(element.getChild(stringOf(tag), index, &child));
    EXPECT_EQ(child, model.m_Children[expected[static_cast<std::size_t>(index)]].second.get());
    child->release();
}

void removeChild(Random& random, xmlElement& element, Model& model, std::size_t choices) {
    std::string const tag = someName(random, choices);
    std::vector<std::size_t> const expected = model.childrenOf(tag);
    std::size_t const index = random.below(expected.size() + 1);
    bool const isThere = index < expected.size();
    EXPECT_EQ(element.removeChild(stringOf(tag), static_cast<long>(index)), isThere);
    if (isThere) {
        model.m_Children.erase(model.m_Children.begin() + static_cast<std::ptrdiff_t>(expected[index]));
    }
}

/// A parsed element, whose parts lie in one block, and its model; or a made one, without parts.
std::pair<xmlElementPtr, Model> someElement(Random& random, std::size_t choices) {
    if (random.below(3) == 0) {
        return {newElement("T"), {}};
    }
    Model model;
    std::string text = "<T";
    for (std::size_t number = random.below(choices + 4); number > 0; --number) {
        std::string const name = "n" + std::to_string(number);
        std::string const value = random.text("abc", 20);
        model.m_Attributes.emplace_back(name, value);
        text += " " + name + "=\"" + value + "\"";
    }
    std::vector<std::string> tags;
    text += ">";
    for (std::size_t left = random.below(12); left > 0; --left) {
        tags.push_back("n" + std::to_string(random.below(choices)));
        text += "<" + tags.back() + "/>";
    }
    xmlElementPtr const element = childOf(*parsed(text + "</T>").m_Document.get(), "T");
    for (std::string const& tag : tags) {
        std::size_t const index = model.childrenOf(tag).size();
        model.m_Children.emplace_back(tag, childOf(*element.get(), tag, static_cast<long>(index)));
    }
    return {element, model};
}

TEST(RandomElements, AreAsTheModelSays) {
    SCOPED_TRACE("seed " + std::to_string(testSeed()));
    Random random;
    for (int round = 0; round < 400; ++round) {
        std::size_t const choices = 1 + random.below(60);
        auto [element, model] = someElement(random, choices);
        std::size_t const removals = random.below(4);
        for (std::size_t left = random.below(200); left > 0; --left) {
            switch (random.below(4 + removals)) {
                case 0:
                    changeAttribute(random, *element.get(), model, choices);
                    break;
                case 1:
                case 2:
                    insertChild(random, *element.get(), model, choices);
                    break;
                case 3:
                    findChild(random, *element.get(), model, choices);
                    break;
                default:
                    removeChild(random, *element.get(), model, choices);
            }
            ASSERT_EQ(written(*element.get()), model.written());
        }
        for (auto const& [name, value] : model.m_Attributes) {
            EXPECT_EQ(attributeOf(*element.get(), name), value);
        }
        EXPECT_FALSE(hasAttribute(*element.get(), "missing"));
    }
}

}  // namespace
