// The built-in report types: the reports the plug-in builds itself from capture files (the
// serial log, the CPU register dump). One table holds what each type is called and where its
// files are; the pipe thread, the report builder, the SSE sender, the replay and the
// definition fallback of a report all read it.
#ifndef RFEVENT_BASE_BUILTIN_REPORTS_H
#define RFEVENT_BASE_BUILTIN_REPORTS_H

#include <atomic>
#include <cstddef>
#include <string>

#include "base/paths.h"

namespace rfevent {

struct BuiltInReport {
    const char* type;          // "SerialLog": the report's Id, label and metric prefix
    const char* command;       // "seriallog": its name in the telemetry pipe and in a replay
    std::size_t commandLength; // strlen(command)
    const char* reportName;    // "SerialLog Report": the report's "Name"
    const char* resource;      // the report's "@odata.id"
    const char* definitionUri; // its definition, for a report that names none
    const char* sseFilter;     // the SSE key its live messages go out under
    FixedPath capture;         // the capture the report is built from
    FixedPath stored;          // the last report, kept for a replay
    FixedPath sequenceFile;    // the sequence of the next report
    std::atomic<int>* counter; // the sequence as last loaded (the SSE id)
};

extern const BuiltInReport kSerialLogReport;
extern const BuiltInReport kCpuRegistersReport;

// Which type a given type name is tested against first: the report builder tests the CPU
// registers first, the SSE sender the serial log.
enum class BuiltInOrder { SerialLogFirst, CpuRegistersFirst };

// The type named by type: type names match when the given one equals the start of the type's
// name over its own length (case-sensitive), so the order decides for a shortened name. Null
// for no type.
const BuiltInReport* builtInReportOfType(const char* type, BuiltInOrder order);

// The length of the longest command: a longer name commands nothing.
constexpr std::size_t kLongestBuiltInCommand = sizeof "CPURegisters" - 1;

// builtInReportCommanded for a name no longer than kLongestBuiltInCommand.
const BuiltInReport* builtInReportCommandedShort(const char* name, std::size_t length);

// The type whose command the name (length characters, case ignored) is a leading part of, the
// serial log tested first; an empty name is one. Null for no type. Every announced report name
// passes here: the usual, longer one is answered without a call.
inline const BuiltInReport* builtInReportCommanded(const char* name, std::size_t length) {
    return length > kLongestBuiltInCommand ? nullptr : builtInReportCommandedShort(name, length);
}

// The type whose command is exactly name, or null.
const BuiltInReport* builtInReportByCommand(const std::string& name);

// The type whose report carries exactly this "Name", or null.
const BuiltInReport* builtInReportNamed(const std::string& reportName);

} // namespace rfevent

#endif
