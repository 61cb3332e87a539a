// Prints the demonstration as it runs, then its steps as a table.
//
// Order: sections, paragraphs, blocks, steps, the table. An empty line goes between parts of different kinds, which is
// why the report remembers what it printed last. A step flushes, so that a step that hangs is the last one visible.
#include "report.h"

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

/// `text` with spaces appended up to `width`.
std::string padded(std::string const& text, std::size_t width) {
    return text + std::string(width - std::min(width, text.size()), ' ');
}

}  // namespace

void Report::section(std::string const& title) {
    std::cout << '\n' << coloured(kBold, std::to_string(++m_Sections) + ". " + title) << "\n\n";
    m_Last = Printed::kSection;
}

void Report::paragraph(std::string const& text) {
    std::cout << (m_Last == Printed::kSection ? "" : "\n");
    m_Last = Printed::kParagraph;
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

void Report::block(std::string const& label, std::string const& text) {
    std::cout << (m_Last == Printed::kSection ? "" : "\n") << kMargin << label << '\n';
    m_Last = Printed::kBlock;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        std::cout << kMargin << "  | " << line << '\n';
    }
}

void Report::step(std::string const& action, std::string const& result, std::string const& expected,
                  std::string const& meaning) {
    bool const asExpected = result == expected;
    m_Steps.push_back({action, result, asExpected ? meaning : "expected: " + expected, asExpected});
    std::cout << (m_Last == Printed::kBlock ? "\n" : "") << kMargin << "-> " << action << ": "
              << coloured(asExpected ? kGreen : kRed, result) << " (" << m_Steps.back().m_Meaning << ")" << std::endl;
    m_Last = Printed::kStep;
    if (!asExpected) {
        throw UnexpectedResult(action + " returned \"" + result + "\", expected was \"" + expected + "\"");
    }
}

void Report::call(std::string const& function, std::int32_t code, std::int32_t expected, std::string const& meaning) {
    step(function, resultText(code), resultText(expected), meaning);
}

void Report::table() const {
    std::size_t actionWidth = 0;
    std::size_t resultWidth = 0;
    std::size_t meaningWidth = 0;
    for (Step const& step : m_Steps) {
        actionWidth = std::max(actionWidth, step.m_Action.size());
        resultWidth = std::max(resultWidth, step.m_Result.size());
        meaningWidth = std::max(meaningWidth, step.m_Meaning.size());
    }
    std::cout << '\n'
              << coloured(kBold, " #  " + padded("step", actionWidth) + "  " + padded("result", resultWidth) + "  " +
                                     padded("meaning", meaningWidth))
              << '\n'
              << std::string(4 + actionWidth + 2 + resultWidth + 2 + meaningWidth, '-') << '\n';
    for (std::size_t at = 0; at < m_Steps.size(); ++at) {
        Step const& step = m_Steps[at];
        std::cout << std::setw(2) << at + 1 << "  " << padded(step.m_Action, actionWidth) << "  "
                  << coloured(step.m_AsExpected ? kGreen : kRed, padded(step.m_Result, resultWidth)) << "  "
                  << step.m_Meaning << '\n';
    }
    std::cout << std::flush;
}

std::string Report::coloured(char const* colour, std::string const& text) const {
    return m_UseColours ? colour + text + kPlain : text;
}

}  // namespace demo
