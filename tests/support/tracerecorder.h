/// Trace records of the library.
#ifndef TALLOWIN_TESTS_SUPPORT_TRACERECORDER_H
#define TALLOWIN_TESTS_SUPPORT_TRACERECORDER_H

#include <cstdint>
#include <string>
#include <vector>

namespace kvxtest {

/// Collects the trace records written while it lives.
class TraceRecorder {
public:
    struct Record {
        std::string m_File;
        long m_Line;
        std::int32_t m_Code;
        std::string m_Event;
        std::string m_Detail;
    };
    TraceRecorder();
    TraceRecorder(TraceRecorder const&) = delete;
    TraceRecorder& operator=(TraceRecorder const&) = delete;
    ~TraceRecorder();

    [[nodiscard]] std::vector<Record> const& records() const;

    /// The records with that heading.
    [[nodiscard]] std::vector<Record> of(std::string const& event) const;
};

/// Records as lines "file:line:code:event:detail", the code in hexadecimal.
std::vector<std::string> linesOf(std::vector<TraceRecorder::Record> const& records);

}  // namespace kvxtest

#endif
