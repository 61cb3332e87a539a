/// What the demonstration prints.
#ifndef TALLOWIN_EXAMPLES_DEMO_REPORT_H
#define TALLOWIN_EXAMPLES_DEMO_REPORT_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace demo {

/// A step had another result than expected, so the later steps cannot run.
class UnexpectedResult : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Prints the demonstration on standard output and keeps its steps for the table at the end.
class Report {
public:
    /// `useColours`: headings and results in terminal colours.
    explicit Report(bool useColours) : m_UseColours(useColours) {}

    /// Prints the heading of the next section with its number.
    void section(std::string const& title);

    /// Prints a paragraph, wrapped to lines of 100 columns.
    void paragraph(std::string const& text);

    /// Prints `text` unchanged, each line indented behind a "|".
    void block(std::string const& label, std::string const& text);

    /// Prints and keeps a step: the action, its result, the expected result, and what the result means. Throws
    /// UnexpectedResult after that when result and expected result differ.
    void step(std::string const& action, std::string const& result, std::string const& expected,
              std::string const& meaning);

    /// The same for a call of the library, with result codes.
    void call(std::string const& function, std::int32_t code, std::int32_t expected, std::string const& meaning);

    /// Prints all steps as a table.
    void table() const;

    /// The number of steps so far.
    [[nodiscard]] std::size_t steps() const { return m_Steps.size(); }

private:
    enum class Printed { kSection, kParagraph, kBlock, kStep };

    struct Step {
        std::string m_Action;
        std::string m_Result;
        std::string m_Meaning;
        bool m_AsExpected;
    };

    [[nodiscard]] std::string coloured(char const* colour, std::string const& text) const;

    bool m_UseColours;
    Printed m_Last = Printed::kSection;  ///< Decides where an empty line goes.
    int m_Sections = 0;
    std::vector<Step> m_Steps;
};

}  // namespace demo

#endif
