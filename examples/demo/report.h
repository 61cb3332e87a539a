#ifndef TALLOWIN_EXAMPLES_DEMO_REPORT_H
#define TALLOWIN_EXAMPLES_DEMO_REPORT_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace demo {

/// A step that ended otherwise than expected: what comes after it would make no sense.
class UnexpectedResult : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Prints the demonstration on standard output and keeps its steps for the table at the end.
class Report {
public:
    /// `useColours` marks headings and results with terminal useColours.
    explicit Report(bool useColours) : m_UseColours(useColours) {}

    /// Begins the next section, numbered.
    void section(std::string const& title);

    /// A paragraph, broken into lines.
    void paragraph(std::string const& text);

    /// `text` as it is, every line indented and marked.
    void block(std::string const& label, std::string const& text);

    /// A step: what was done, how it ended, how it should have ended, and what that means. Throws UnexpectedResult when
    /// the two differ, after the step was noted.
    void step(std::string const& action, std::string const& result, std::string const& expected,
              std::string const& meaning);

    /// A call of the library as a step.
    void call(std::string const& function, std::int32_t code, std::int32_t expected, std::string const& meaning);

    /// Prints all steps as a table.
    void table() const;

    /// How many steps were taken so far.
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
