#include "events/subscriber_path.h"

// Placeholder until the subscriber path lands.
void sendRedFishEvent(DataEventHeader* header, void* eventContext) {
    (void)header;
    (void)eventContext;
}
