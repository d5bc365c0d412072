// A metric report read once. The push filters, the SSE filters and the fan-out all read its
// definition URI and sequence from this one parse; reading a field writes the lines the
// field's accessor writes (the parse's own lines included), at the point where it is read, so
// the log of a report keeps the lines and the order it had when every reader parsed the text.
#ifndef RFEVENT_BASE_REPORT_H
#define RFEVENT_BASE_REPORT_H

#include <exception>
#include <string>

namespace rfevent {

class ParsedReport {
  public:
    // Parses text without a line; text (null allowed) must outlive the value.
    explicit ParsedReport(const char* text);

    // The report text, or null.
    const char* text() const { return text_; }

    // The definition URI, or "" (text must not be null); logs as getMetricReportDefinition.
    const std::string& definitionUri() const;
    // The "ReportSequence" as text, or "" (text must not be null); logs as getReportSequence.
    const std::string& sequence() const;

  private:
    // How the definition was found, in the order of the accessor's steps (compared by order).
    enum class Definition { Unparsed, NameThrew, ByName, Missing, Threw, NoId, IdNotText, Found };
    enum class Sequence { Unparsed, Missing, Threw, Found };

    void findDefinition(const void* parsed); // parsed: the Json::Value of the report
    void findSequence(const void* parsed);

    const char* text_;
    std::string parseErrors_;
    Definition definition_ = Definition::Unparsed;
    std::string definitionUri_;
    std::exception_ptr definitionError_;
    Sequence sequence_ = Sequence::Unparsed;
    std::string sequenceText_;
    std::exception_ptr sequenceError_;
};

// The report's "ReportSequence" as text, or "" (report must not be null).
std::string getReportSequence(const char* report);

} // namespace rfevent

#endif
