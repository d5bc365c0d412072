// Hand-over of SSE messages to the SSE stream server: the SSE FIFO for alert frames, one
// loopback TCP connection per piece for report messages.
#ifndef RFEVENT_SSE_TRANSPORT_H
#define RFEVENT_SSE_TRANSPORT_H

#include <string>

namespace rfevent {

constexpr int kSsePieceSize = 4096;

// Writes msg and its NUL to the SSE FIFO in one write; 0 on success, 1 on failure.
int send_to_sse(const char* msg);
// Sends msg (without NUL) over a fresh connection; always 0, failures are logged.
int send_to_sock_sse(const char* msg);
// Sends a report message of any length in pieces of 4096 bytes, then the end marker; 0.
int sse_chunk_send(const char* msg);

// A report message as the socket carries it: a message of at most 4096 bytes whole and then
// its end marker, a longer one through sse_chunk_send.
void sendReportMessage(const std::string& message);

} // namespace rfevent

#endif
