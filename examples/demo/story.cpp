#include "story.h"

#include <algorithm>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "../common/printable.h"

namespace demo {

using examples::resultText;

namespace {

constexpr std::size_t kLineWidth = 100;
constexpr char kMargin[] = "   ";

constexpr char kBold[] = "\033[1m";
constexpr char kGreen[] = "\033[32m";
constexpr char kRed[] = "\033[1;31m";
constexpr char kPlain[] = "\033[0m";

/// `text` filled up with spaces to `width`.
std::string padded(std::string const& text, std::size_t width) {
    return text + std::string(width - std::min(width, text.size()), ' ');
}

}  // namespace

void Story::chapter(std::string const& title) {
    std::cout << '\n' << painted(kBold, std::to_string(++m_Chapters) + ". " + title) << "\n\n";
    m_Last = Told::kChapter;
}

void Story::say(std::string const& text) {
    std::cout << (m_Last == Told::kChapter ? "" : "\n");
    m_Last = Told::kParagraph;
    std::istringstream words(text);
    std::string line = kMargin;
    std::string word;
    std::string separator;
    while (words >> word) {
        if (line.size() + separator.size() + word.size() > kLineWidth) {
            std::cout << line << '\n';
            line = kMargin;
            separator.clear();
        }
        line += separator + word;
        separator = " ";
    }
    std::cout << line << '\n';
}

void Story::show(std::string const& label, std::string const& text) {
    std::cout << (m_Last == Told::kChapter ? "" : "\n") << kMargin << label << '\n';
    m_Last = Told::kBlock;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::cout << kMargin << "  | " << line << '\n';
    }
}

void Story::step(std::string const& action, std::string const& result, std::string const& expected,
                 std::string const& happened) {
    bool const asExpected = result == expected;
    m_Steps.push_back({action, result, asExpected ? happened : "expected: " + expected, asExpected});
    std::cout << (m_Last == Told::kBlock ? "\n" : "") << kMargin << "-> " << action << ": "
              << painted(asExpected ? kGreen : kRed, result) << " (" << m_Steps.back().m_Happened << ")" << std::endl;
    m_Last = Told::kStep;
    if (!asExpected) {
        throw Unexpected(action + " ended with \"" + result + "\", expected was \"" + expected + "\"");
    }
}

void Story::call(std::string const& function, std::int32_t code, std::int32_t expected, std::string const& happened) {
    step(function, resultText(code), resultText(expected), happened);
}

void Story::table() const {
    std::size_t actionWidth = 0;
    std::size_t resultWidth = 0;
    std::size_t happenedWidth = 0;
    for (Step const& step : m_Steps) {
        actionWidth = std::max(actionWidth, step.m_Action.size());
        resultWidth = std::max(resultWidth, step.m_Result.size());
        happenedWidth = std::max(happenedWidth, step.m_Happened.size());
    }
    std::cout << '\n'
              << painted(kBold, " #  " + padded("step", actionWidth) + "  " + padded("result", resultWidth) + "  " +
                                    padded("what happened", happenedWidth))
              << '\n'
              << std::string(4 + actionWidth + 2 + resultWidth + 2 + happenedWidth, '-') << '\n';
    for (std::size_t at = 0; at < m_Steps.size(); ++at) {
        Step const& step = m_Steps[at];
        std::cout << std::setw(2) << at + 1 << "  " << padded(step.m_Action, actionWidth) << "  "
                  << painted(step.m_AsExpected ? kGreen : kRed, padded(step.m_Result, resultWidth)) << "  "
                  << step.m_Happened << '\n';
    }
    std::cout << std::flush;
}

std::string Story::painted(char const* colour, std::string const& text) const {
    return m_Colours ? colour + text + kPlain : text;
}

}  // namespace demo
