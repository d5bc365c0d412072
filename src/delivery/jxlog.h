// Entries in the controller's event log.
#ifndef RFEVENT_DELIVERY_JXLOG_H
#define RFEVENT_DELIVERY_JXLOG_H

namespace rfevent {

// Submits message msgId with argCount text arguments (at most five); 0 when submitted,
// 12902 for a null msgId, else the first failing platform status.
int SubmitJXLog(const char* msgId, int argCount, ...);

} // namespace rfevent

#endif
