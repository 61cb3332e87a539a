#ifndef TALLOWIN_TESTS_SANDBOX_SUPPORT_PAGEREADER_H
#define TALLOWIN_TESTS_SANDBOX_SUPPORT_PAGEREADER_H

#include <map>
#include <pugixml.hpp>
#include <string>
#include <vector>

/// Reads the service's pages: the markup by XPath, the style sheet rule by rule.
namespace sandboxtest {

/// One page. It must be well-formed XML behind its document type.
class PageReader {
public:
    /// Throws std::runtime_error when `html` is not such a page.
    explicit PageReader(std::string const& html);

    /// How many nodes the XPath expression selects.
    [[nodiscard]] std::size_t count(std::string const& path) const;

    /// The text in the only node that `path` selects, or its value when that is an attribute. Throws std::runtime_error
    /// when there is not exactly one.
    [[nodiscard]] std::string text(std::string const& path) const;

    /// The same for every node that `path` selects, in document order.
    [[nodiscard]] std::vector<std::string> texts(std::string const& path) const;

private:
    pugi::xml_document m_Document;
};

/// One rule of a style sheet.
struct StyleRule {
    std::string m_Media;  ///< Condition of the @media block around it, empty outside of one.
    std::string m_Selector;
    std::map<std::string, std::string> m_Declarations;
};

/// The rules of `sheet` in their order. Throws std::runtime_error for what it does not understand: it knows rules, and
/// @media blocks of rules.
std::vector<StyleRule> readStyleSheet(std::string const& sheet);

/// The contrast of two colours of the form "#rrggbb", 1 to 21 (WCAG 2.2, "contrast ratio" and "relative luminance").
/// Throws std::invalid_argument for other forms.
double contrastRatio(std::string const& one, std::string const& other);

/// Whether `text` is UTF-8 whose characters may all stand in HTML: no controls but line feed and tab, no surrogates, no
/// overlong forms.
bool isCleanUtf8(std::string const& text);

}  // namespace sandboxtest

#endif  // TALLOWIN_TESTS_SANDBOX_SUPPORT_PAGEREADER_H
