/// The examination of a configuration directory and of the way to its service.
#ifndef TALLOWIN_TOOLS_DOCTOR_H
#define TALLOWIN_TOOLS_DOCTOR_H

#include <cstddef>
#include <string>
#include <vector>

namespace tool {

/// The result of one check.
enum class Health {
    kGood,
    kSkipped,   ///< It could not be made, or was not asked for.
    kRepaired,  ///< It was a problem, and is none any more.
    kWarning,   ///< Works, but not as it should.
    kProblem,   ///< Something fails because of it.
};

/// "good", "skipped", "repaired", "warning" or "problem".
char const* nameOf(Health health);

struct Finding {
    std::string m_Check;  ///< The check's name, such as "modes"; docs/doctor.md lists them.
    Health m_Health;
    std::string m_Text;
    std::string m_Cure;  ///< What to do, or what a repair has done; empty when nothing is to be done.
};

/// Collects findings in their order.
class DoctorReport {
public:
    void good(std::string const& check, std::string const& text);
    void skipped(std::string const& check, std::string const& text);
    void repaired(std::string const& check, std::string const& text, std::string const& done);
    void warning(std::string const& check, std::string const& text, std::string const& cure);
    void problem(std::string const& check, std::string const& text, std::string const& cure);

    [[nodiscard]] std::vector<Finding> const& findings() const { return m_Findings; }
    [[nodiscard]] std::size_t count(Health health) const;

    /// Whether `check` has a warning or a problem so far.
    [[nodiscard]] bool hasFinding(std::string const& check) const;

private:
    std::vector<Finding> m_Findings;
};

struct DoctorOptions {
    bool m_Repairs = false;
    bool m_Offline = false;     ///< Nothing is connected to.
    std::string m_User;         ///< The user that the shop runs as; empty for the one that runs this.
    int m_TimeoutSeconds = 10;  ///< For each connect, read and write, and each answer as a whole.
};

/// What the checks share.
struct Examination {
    std::string m_Directory;  ///< Absolute.
    DoctorOptions const& m_Options;
    DoctorReport& m_Report;

    [[nodiscard]] std::string path(std::string const& name) const { return m_Directory + '/' + name; }
};

/// Makes all checks on `directory`. With repairs it holds the directory's lock; ToolFailure while a set-up runs.
void examine(std::string const& directory, DoctorOptions const& options, DoctorReport& report);

/// Checks "directory" and "owner". False when the others can find nothing.
bool examineDirectory(Examination const& examination);

/// Whether repairs may begin. Root makes none through a link, which may lead to files of the system: the directory's
/// owner, who can make links, would have them changed. Adds a finding then.
bool mayRepair(Examination const& examination);

/// Checks "modes": nobody else may read private keys or write anything.
void examineModes(Examination const& examination);

/// Checks "leftovers": temporary files of writers that have ended.
void examineLeftovers(Examination const& examination);

/// Checks "files" and "settings". False when a document that all calls read cannot be used.
bool examineDocuments(Examination const& examination);

/// Checks "keys", "server key", "old keys" and "signing".
void examineKeys(Examination const& examination);

/// Checks "addresses", "proxy", "connection", "tls" and "clock".
void examineService(Examination const& examination);

/// A value of a document; empty when there is none, also when the document cannot be read, which "files" reports.
std::string valueIn(Examination const& examination, std::string const& file, std::string const& name);

/// Replaces the file `path` whole, keeping its mode, or makes it with `mode`; it belongs to the owner of its folder.
/// ToolFailure.
void replaceFile(std::string const& path, std::string const& content, unsigned mode);

/// The content of a regular file without the zero bytes at its end. False, leaving `content` alone, when it is absent,
/// is no file, cannot be read or has more than a megabyte; `reason` then says which.
bool readSmallFile(std::string const& path, std::string& content, std::string& reason);

}  // namespace tool

#endif
