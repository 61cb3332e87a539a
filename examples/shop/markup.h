/// HTML building blocks.
#ifndef TALLOWIN_EXAMPLES_SHOP_MARKUP_H
#define TALLOWIN_EXAMPLES_SHOP_MARKUP_H

#include <string>

namespace storefront {

/// `text` escaped for HTML, between tags and in attribute values. Control characters and bytes that are not UTF-8
/// become U+FFFD.
std::string escaped(std::string const& text);

/// A paragraph of plain text.
std::string paragraph(std::string const& text);

/// A heading, then plain text with its line breaks kept.
std::string verbatim(std::string const& heading, std::string const& text);

/// A form with one button and no fields; the button sends POST to `action`.
std::string buttonTo(std::string const& action, std::string const& label);

/// A whole page. `title` is plain text, `content` is HTML.
std::string wholePage(std::string const& title, std::string const& content);

}  // namespace storefront

#endif
