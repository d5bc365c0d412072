#include "events/sse_path.h"

// Placeholder until the SSE event path lands.
void sendRedFishEvent_SSE(DataEventHeader* header, void* eventContext) {
    (void)header;
    (void)eventContext;
}
