// The platform seam: every controller service the plug-in calls, declared once.
// A stand-alone build links librfevent-platform (src/platform/standalone); a controller
// build links the controller's own libraries, which provide the same symbols.
#ifndef RFEVENT_PLATFORM_PLATFORM_H
#define RFEVENT_PLATFORM_PLATFORM_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#define RFEVENT_PLATFORM_API __attribute__((visibility("default")))

extern "C" {

// ---- Logging -------------------------------------------------------------------------------
// One line per call. Level 2 = error, 4 = entry/exit and debug detail, 5 = progress.
RFEVENT_PLATFORM_API int orvaprintf(int level, int module, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// ---- Configuration manager -----------------------------------------------------------------
// Attribute type codes carried by configuration objects.
enum {
    CFG_TYPE_INTEGER = 0x4051,
    CFG_TYPE_STRING = 0x4052,
    CFG_TYPE_ENUMERATION = 0x4053,
};

// A configuration object as the configuration manager hands it out: a header, a typed body,
// then the texts the body refers to. A string reference is a byte offset from the start of
// the object (0 = no string).
typedef struct SMILObj {
    uint32_t size;     // bytes in the whole object
    uint16_t typeCode; // one of CFG_TYPE_* or another code
    uint16_t reserved;
    uint32_t bodyOffset; // offset of the body from the object's start, 0 = no body
} SMILObj;

typedef struct CfgIntAttrBody {
    int32_t value;
} CfgIntAttrBody;

typedef struct CfgStringAttrBody {
    uint32_t valueRef;
} CfgStringAttrBody;

typedef struct CfgEnumAttrBody {
    uint32_t currentValueRef;
} CfgEnumAttrBody;

RFEVENT_PLATFORM_API int client_get_obj_by_key(const char* service, const char* key,
                                               SMILObj** object, int flags);
RFEVENT_PLATFORM_API int client_get_obj_body_ptr(SMILObj* object, void** body,
                                                 uint16_t expectedType);
RFEVENT_PLATFORM_API int client_get_string_ptr(SMILObj* object, uint32_t stringRef, char** text);
RFEVENT_PLATFORM_API void SMILFreeGeneric(SMILObj* object);
// Reads an attribute as text into buffer; *length is the capacity on input and the text
// length on output. Non-zero when the attribute is missing or does not fit with its NUL.
RFEVENT_PLATFORM_API int CfgGetAttribute(const char* key, char* buffer, uint32_t* length);
// Stores value as a string attribute; *status receives the manager's detail code.
RFEVENT_PLATFORM_API int CfgSetAttribute(const char* key, const char* value, int flags,
                                         uint32_t* status);

// ---- Event log -----------------------------------------------------------------------------
typedef struct JXLogTLVList JXLogTLVList;

RFEVENT_PLATFORM_API int JXLOGWRAPBuildMsgArgsBuffer(char** args, uint32_t argCount, char* buffer,
                                                     uint32_t* bufferSize);
RFEVENT_PLATFORM_API int JXLOGWRAPCreateTLVList(JXLogTLVList** list);
RFEVENT_PLATFORM_API int JXLOGWRAPAddTLVToList(int type, uint16_t length, const void* data,
                                               JXLogTLVList* list);
RFEVENT_PLATFORM_API int JXLOGWRAPSubmitEvent(int category, int severityCode, int eventType,
                                              const char* messageId, int reserved1, int reserved2,
                                              JXLogTLVList* list);
RFEVENT_PLATFORM_API void JXLOGWRAPFreeTLVList(JXLogTLVList* list);

// ---- Telemetry service client ----------------------------------------------------------------
RFEVENT_PLATFORM_API int telemetrySvc_registerForReportTriggers(const char* fifoPath, int id);

// ---- File utilities ------------------------------------------------------------------------
// Opens path and takes a non-blocking exclusive write lock; returns the descriptor or < 0.
RFEVENT_PLATFORM_API int utl_trylock_write(const char* path);
// Releases the lock and closes the descriptor; 0 on success.
RFEVENT_PLATFORM_API int utl_close_unlock(int fd);
// Truncates path to zero length; 0 on success.
RFEVENT_PLATFORM_API int utl_trunc_file(const char* path);
// Replaces the whole content of path with length bytes of text; 0 on success.
RFEVENT_PLATFORM_API int utl_echo_write(const char* text, size_t length, const char* path,
                                        int create, int truncate);

} // extern "C"

// ---- Numeric identifiers -------------------------------------------------------------------
// Rewrites dynamic URI segments of a response to the controller's numeric identifiers.
class RFEVENT_PLATFORM_API NumericDynamicSegment {
  public:
    NumericDynamicSegment();
    ~NumericDynamicSegment();
    // Returns 0 when the text was rewritten.
    int FormatResponseWithNumericId(std::string& text);
};

#endif // RFEVENT_PLATFORM_PLATFORM_H
