/// Other XML libraries behind one face: each parses into a tree of its own and writes the tree as text.
#ifndef TALLOWIN_BENCH_XMLCONTESTANTS_H
#define TALLOWIN_BENCH_XMLCONTESTANTS_H

#include <memory>
#include <string>
#include <vector>

namespace kvxbench {

/// A tree in the memory of its library. Owns all it refers to.
class XmlDocument {
public:
    XmlDocument() = default;
    XmlDocument(XmlDocument const&) = delete;
    XmlDocument& operator=(XmlDocument const&) = delete;
    virtual ~XmlDocument() = default;

    /// The document without declaration, indentation or line ends.
    [[nodiscard]] virtual std::string write() const = 0;
};

struct XmlLibrary {
    char const* m_Name;
    std::unique_ptr<XmlDocument> (*m_Parse)(std::string const& text);
    bool m_Writes;              ///< Whether the library has a writer; otherwise write() is for checks alone.
    double m_ParseGoal;         ///< At every size.
    double m_MessageParseGoal;  ///< For a message.
    double m_WriteGoal;
    double m_MessageWriteGoal;
};

/// All contestants, with how many times faster than each the library must be.
std::vector<XmlLibrary> const& xmlLibraries();

}  // namespace kvxbench

#endif
