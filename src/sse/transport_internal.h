// Inside the SSE transport, for its tests.
#ifndef RFEVENT_SSE_TRANSPORT_INTERNAL_H
#define RFEVENT_SSE_TRANSPORT_INTERNAL_H

#include <pthread.h>

namespace rfevent {

// Serialises every FIFO write and every socket connection.
extern pthread_mutex_t sse_send_mutex;
// Descriptors of the FIFO write and the socket send in progress; -1 between calls.
extern int sse_fifo_fd;
extern int sse_sock_fd;

} // namespace rfevent

#endif
