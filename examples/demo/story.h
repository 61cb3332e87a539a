#ifndef TALLOWIN_EXAMPLES_DEMO_STORY_H
#define TALLOWIN_EXAMPLES_DEMO_STORY_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace demo {

/// A step that ended otherwise than expected: what comes after it would make no sense.
class Unexpected : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Tells the walk on standard output and keeps its steps for the table at the end.
class Story {
public:
    /// `colours` marks headings and results with terminal colours.
    explicit Story(bool colours) : m_Colours(colours) {}

    /// Begins the next chapter, numbered.
    void chapter(std::string const& title);

    /// A paragraph, broken into lines.
    void say(std::string const& text);

    /// `text` as it is, every line set off from the story.
    void show(std::string const& label, std::string const& text);

    /// A step: what was done, how it ended, how it should have ended, and what that means. Throws Unexpected when the
    /// two differ, after the step was noted.
    void step(std::string const& action, std::string const& result, std::string const& expected,
              std::string const& happened);

    /// A call of the library as a step.
    void call(std::string const& function, std::int32_t code, std::int32_t expected, std::string const& happened);

    /// Prints all steps as a table.
    void table() const;

    /// How many steps were told so far.
    [[nodiscard]] std::size_t steps() const { return m_Steps.size(); }

private:
    enum class Told { kChapter, kParagraph, kBlock, kStep };

    struct Step {
        std::string m_Action;
        std::string m_Result;
        std::string m_Happened;
        bool m_AsExpected;
    };

    [[nodiscard]] std::string painted(char const* colour, std::string const& text) const;

    bool m_Colours;
    Told m_Last = Told::kChapter;  ///< Decides where an empty line goes.
    int m_Chapters = 0;
    std::vector<Step> m_Steps;
};

}  // namespace demo

#endif
