/// Reads the service's payment page and submits its form, as a shopper's browser does.
#ifndef TALLOWIN_EXAMPLES_DEMO_PAYMENTPAGE_H
#define TALLOWIN_EXAMPLES_DEMO_PAYMENTPAGE_H

#include <string>
#include <utility>
#include <vector>

#include "httpfetch.h"

namespace demo {

/// `text` with its percent escapes decoded. A "%" without two hexadecimal digits stays.
std::string percentDecoded(std::string const& text);

/// The value of parameter `name` in the query of `url`, still encoded; empty when absent.
std::string queryValue(std::string const& url, std::string const& name);

/// The form of a payment page.
struct Form {
    std::string m_Action;                                        ///< Absolute URL.
    std::vector<std::pair<std::string, std::string>> m_Fields;   ///< Hidden fields, name and value.
    std::vector<std::pair<std::string, std::string>> m_Buttons;  ///< Submit buttons, name and value.
};

/// Reads the form of `page`, which was loaded from `url`. Throws std::runtime_error when the page does not have exactly
/// one form.
Form readForm(std::string const& url, std::string const& page);

/// Submits the form with the button whose value is `decision`. Throws std::runtime_error when the form has no such
/// button, and like fetch().
Response submit(Form const& form, std::string const& decision);

/// The text that a browser displays for `page`, without empty lines.
std::string visibleText(std::string const& page);

}  // namespace demo

#endif
