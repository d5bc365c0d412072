// The text of SSE messages, as the SSE stream server reads them: a key, "=", the sequence
// marker "<id:...>:" and the body; pieces after the first headed by the message's prefix; the
// end marker "<END>" after the prefix. Every sender builds its messages here.
#ifndef RFEVENT_SSE_MESSAGE_H
#define RFEVENT_SSE_MESSAGE_H

#include <string>
#include <string_view>

namespace rfevent {

// "<id:" + id + ">:".
std::string sequenceMarker(std::string_view id);

// key + "=" + marker + body: a report message keyed by a client's filter text.
std::string reportMessage(std::string_view key, std::string_view marker, std::string_view body);

// The prefix of a message: its text before the first "<id:", or all of it. Every piece after
// the first starts with it.
std::string messagePrefix(std::string_view message);

// prefix + "<END>": the piece that closes a message.
std::string endMarker(std::string_view prefix);

// An alert frame for the SSE FIFO: "EventFormatType eq Event=", the marker of id, the document
// and the end marker.
std::string alertFrame(std::string_view id, std::string_view document);

} // namespace rfevent

#endif
