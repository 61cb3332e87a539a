/// A second reader and writer of the XML dialect, written as a grammar over standard containers.
#ifndef TALLOWIN_FUZZ_XMLMODEL_H
#define TALLOWIN_FUZZ_XMLMODEL_H

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

class xmlElement;

namespace kvxfuzz {

/// The five characters as entities, and back.
std::string modelEncoded(std::string const& text);
std::string modelDecoded(std::string const& text);

struct ModelElement {
    std::string m_Tag;
    std::vector<std::pair<std::string, std::string>> m_Attributes;  ///< Values are plain text.
    std::string m_Text;
    std::vector<std::size_t> m_Children;
    std::size_t m_Parent = 0;

    /// A name already present keeps its place and gets `value`.
    void set(std::string const& name, std::string const& value);

    /// The value under `name`; null when there is none.
    [[nodiscard]] std::string const* valueOf(std::string const& name) const;
};

/// A tree of elements. The first one is the document, which has no tag; the others refer to each other by index.
class ModelDocument {
public:
    ModelDocument() : m_Elements(1) {}

    /// The result of the library's parser for `text`; the tree counts only when it is 0.
    int parse(std::string const& text);

    /// A new last child of `parent`; returns its index.
    std::size_t add(std::size_t parent, std::string const& tag);

    [[nodiscard]] ModelElement& at(std::size_t index) { return m_Elements[index]; }
    [[nodiscard]] ModelElement const& at(std::size_t index) const { return m_Elements[index]; }

    /// The first child of the document named `tag`; 0 when there is none.
    [[nodiscard]] std::size_t top(std::string const& tag) const;

    /// Element `index` as text.
    [[nodiscard]] std::string written(std::size_t index = 0) const;

private:
    std::vector<ModelElement> m_Elements;
};

/// Requires that `element` and all below it are what `model` holds from `index` on.
void requireSameTree(xmlElement* element, ModelDocument const& model, std::size_t index);

/// The library's text for `element`.
std::string libraryText(xmlElement const* element);

}  // namespace kvxfuzz

#endif
