#include "subscriptions/invalid_dest.h"

#include <unistd.h>

// Placeholder thread bodies: they park until their subsystem lands.
void* InvalidDestHandlingThread1(void* unused) {
    (void)unused;
    for (;;) {
        sleep(3600);
    }
}

void* InvalidDestHandlingThread2(void* unused) {
    (void)unused;
    for (;;) {
        sleep(3600);
    }
}

namespace rfevent {

InvalidDestinationQueue& invalidDestinationQueue() {
    static InvalidDestinationQueue* queue = new InvalidDestinationQueue;
    return *queue;
}

// Build the queue at load rather than on first use.
[[maybe_unused]] static InvalidDestinationQueue& g_queueAtLoad = invalidDestinationQueue();

}  // namespace rfevent
