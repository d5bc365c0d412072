// Public interface of the Redfish event-delivery plug-in.
//
// The REST server loads libredfishevent.so; the loader runs the plug-in's initialisation
// (libcurl set-up). The host then calls Redfish_telemetry_init() exactly once to start the
// worker threads, and sendRedFishEventAlert() for every platform alert.
#ifndef RFEVENT_REDFISH_EVENT_H
#define RFEVENT_REDFISH_EVENT_H

#include <stddef.h>
#include <stdint.h>

#if defined(RFEVENT_BUILDING_LIBRARY)
#define RFEVENT_API __attribute__((visibility("default")))
#else
#define RFEVENT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

// The alert record handed over by the platform's event system. It is the head of one
// contiguous buffer: text fields are 32-bit byte offsets, counted from the first byte of the
// record, to NUL-terminated strings stored later in the same buffer (0 = field absent).
// All integers are little-endian. The plug-in reads the record only during the call.
typedef struct DataEventHeader {
    uint8_t platformHeader[16]; // bytes 0-15: not read by the plug-in
    int32_t eventId;            // 16-19
    uint16_t reserved20;        // 20-21
    uint16_t severity;          // 22-23: 1 critical, 2 warning, 3 informational
    uint32_t reserved24;        // 24-27
    uint32_t messageIdOffset;   // 28-31: registry message id, e.g. "TVK0182"
    uint32_t messageOffset;     // 32-35: formatted message text
    uint32_t fqddOffset;        // 36-39: FQDD of the component
    uint8_t reserved40[12];     // 40-51
    uint32_t messageArgsOffset; // 52-55: packed NUL-terminated strings, ended by an empty one
    uint8_t reserved56[12];     // 56-67
    int32_t memberId;           // 68-71: 0 = absent
} DataEventHeader;

// The layout is the platform's: a host's compiler and the plug-in's check it alike. Before
// C11 the check is an array declaration whose size is negative when the condition fails.
#if defined(__cplusplus)
#define RFEVENT_LAYOUT(condition) static_assert(condition, "DataEventHeader layout: " #condition)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define RFEVENT_LAYOUT(condition) _Static_assert(condition, "DataEventHeader layout: " #condition)
#else
#define RFEVENT_LAYOUT(condition) extern char rfevent_layout_check[(condition) ? 1 : -1]
#endif
RFEVENT_LAYOUT(sizeof(DataEventHeader) == 72);
RFEVENT_LAYOUT(offsetof(DataEventHeader, platformHeader) == 0);
RFEVENT_LAYOUT(offsetof(DataEventHeader, eventId) == 16);
RFEVENT_LAYOUT(offsetof(DataEventHeader, reserved20) == 20);
RFEVENT_LAYOUT(offsetof(DataEventHeader, severity) == 22);
RFEVENT_LAYOUT(offsetof(DataEventHeader, reserved24) == 24);
RFEVENT_LAYOUT(offsetof(DataEventHeader, messageIdOffset) == 28);
RFEVENT_LAYOUT(offsetof(DataEventHeader, messageOffset) == 32);
RFEVENT_LAYOUT(offsetof(DataEventHeader, fqddOffset) == 36);
RFEVENT_LAYOUT(offsetof(DataEventHeader, reserved40) == 40);
RFEVENT_LAYOUT(offsetof(DataEventHeader, messageArgsOffset) == 52);
RFEVENT_LAYOUT(offsetof(DataEventHeader, reserved56) == 56);
RFEVENT_LAYOUT(offsetof(DataEventHeader, memberId) == 68);
#undef RFEVENT_LAYOUT

// Runs at load (registered as a constructor); initialises libcurl.
RFEVENT_API void RedfishEventPluginInit(void);
// Runs at unload (registered as a destructor); cleans up libcurl. Worker threads keep running.
RFEVENT_API void RedfishEventPluginCleanup(void);
// Starts the five worker threads. The host calls it once, after loading the plug-in.
RFEVENT_API void Redfish_telemetry_init(void);
// Delivers one platform alert to push subscribers and SSE clients, on the caller's thread.
// Both pointers must be non-null; the second one is passed through and never read.
RFEVENT_API void sendRedFishEventAlert(DataEventHeader* header, void* eventContext);
// Writes the Redfish URI of the component named by an FQDD into buffer (at most size - 1
// characters and a NUL) and returns buffer; an unknown or null FQDD gives the empty string.
RFEVENT_API char* MapFQDDToRedfishURI(const char* fqdd, char* buffer, uint32_t size);

#ifdef __cplusplus
} // extern "C"

#include <fstream>
#include <string>

// The JSON reader's parse forms take jsoncpp's value by reference, so a declaration is all
// this header needs: a host that includes it compiles without jsoncpp's headers, and one
// that calls RF_Json_Reader::parse includes <json/json.h> for the value it passes.
namespace Json {
class Value;
} // namespace Json

// Percent-encodes space, colon and vertical bar in place; every other character is kept.
RFEVENT_API void GetEncodedURIsegment(std::string& segment);

// The plug-in's JSON reader: parses with jsoncpp's default reader settings.
class RFEVENT_API RF_Json_Reader {
  public:
    RF_Json_Reader();
    ~RF_Json_Reader();
    // Parses a whole JSON text. The third argument is accepted for compatibility and ignored.
    bool parse(std::string text, Json::Value& root, bool collectComments = true);
    // Parses from an opened stream; the stream is read but not closed.
    bool parse(std::ifstream& in, Json::Value& root, bool collectComments = true);
};
#endif

#endif // RFEVENT_REDFISH_EVENT_H
