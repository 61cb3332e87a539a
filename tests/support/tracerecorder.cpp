#include "tests/support/tracerecorder.h"

#include <cstdio>

#include "core/kvxbase.h"
#include "foundation/tbstring.h"

namespace kvxtest {

namespace {

std::vector<TraceRecorder::Record> g_Records;

void sink(char const* file, long line, long code, TbString const& event, TbString const& detail) {
    g_Records.push_back({file, line, static_cast<std::int32_t>(code), event.c_str(), detail.c_str()});
}

}  // namespace

TraceRecorder::TraceRecorder() {
    g_Records.clear();
    KVX_SetTraceSink(&sink);
}

TraceRecorder::~TraceRecorder() {
    KVX_SetTraceSink(nullptr);
}

std::vector<TraceRecorder::Record> const& TraceRecorder::records() const {
    return g_Records;
}

std::vector<TraceRecorder::Record> TraceRecorder::of(std::string const& event) const {
    std::vector<Record> found;
    for (Record const& record : g_Records) {
        if (record.m_Event == event) {
            found.push_back(record);
        }
    }
    return found;
}

std::vector<std::string> linesOf(std::vector<TraceRecorder::Record> const& records) {
    std::vector<std::string> lines;
    for (TraceRecorder::Record const& record : records) {
        char numbers[64];
        std::snprintf(numbers, sizeof numbers, ":%ld:%x:", record.m_Line, static_cast<unsigned>(record.m_Code));
        lines.push_back(record.m_File + numbers + record.m_Event + ":" + record.m_Detail);
    }
    return lines;
}

}  // namespace kvxtest
