// A host of the plug-in that calls its JSON reader: the header together with jsoncpp.
#include <json/json.h>
#include <rfevent/redfish_event.h>

#include <string>

bool readReport(const std::string& text, Json::Value& report) {
    RF_Json_Reader reader;
    return reader.parse(text, report) && report.isObject();
}
