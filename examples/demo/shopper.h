#ifndef TALLOWIN_EXAMPLES_DEMO_SHOPPER_H
#define TALLOWIN_EXAMPLES_DEMO_SHOPPER_H

#include <string>
#include <utility>
#include <vector>

#include "browserhttp.h"

/// What the shopper does with pages.
namespace demo {

/// `text` without its percent escapes. A "%" that begins none stays.
std::string percentDecoded(std::string const& text);

/// The still encoded value of `name` in the query of `url`; empty when it is absent.
std::string queryValue(std::string const& url, std::string const& name);

/// The form of a payment page.
struct Form {
    std::string m_Action;                                          ///< Absolute.
    std::vector<std::pair<std::string, std::string>> m_Fields;     ///< Hidden ones, name and value.
    std::vector<std::pair<std::string, std::string>> m_Decisions;  ///< Buttons, name and value.
};

/// The form on `page`, which came from `url`.
Form readForm(std::string const& url, std::string const& page);

/// Presses the button whose value is `decision`. Throws std::runtime_error when there is none, and like fetch().
Answer press(Form const& form, std::string const& decision);

/// What a reader sees of `page`, one piece a line.
std::string visibleText(std::string const& page);

}  // namespace demo

#endif
