/// HTML from templates.
#ifndef TALLOWIN_EXAMPLES_COMMON_HTMLTEMPLATE_H
#define TALLOWIN_EXAMPLES_COMMON_HTMLTEMPLATE_H

#include <map>
#include <string>
#include <vector>

namespace examples {

/// What a template shows, by name.
using Values = std::map<std::string, std::string>;

/// The template with its names replaced: "{name}" by the value as text, escaped; "{!name}" by the value as HTML. Texts
/// are ISO 8859-1, and what is made of them is plain ASCII, whatever they hold. Throws std::out_of_range for a name
/// without a value.
std::string filled(std::string const& text, Values const& values);

/// The template once for each row.
std::string filledForEach(std::string const& text, std::vector<Values> const& rows);

}  // namespace examples

#endif
