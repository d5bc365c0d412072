// A host of the plug-in written in C++ that does not use jsoncpp: the header's C++ part must
// compile with the header's own include path alone.
#include <rfevent/redfish_event.h>

#include <string>

namespace {

// The shapes a host resolves with dlsym.
using AlertFn = void (*)(DataEventHeader*, void*);
using EncodeFn = void (*)(std::string&);

} // namespace

AlertFn alertEntry() {
    return &sendRedFishEventAlert;
}

EncodeFn encodeEntry() {
    return &GetEncodedURIsegment;
}
