// libFuzzer entry for rfevent::fuzz::subscriptionWalk (subscription_walk.h).
#include "subscription_walk.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Errors are expected for most inputs; writing them would only slow the run down.
    ::setenv("RFEVENT_LOG_LEVEL", "0", 0);
    rfevent::fuzz::ensureRoot();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return rfevent::fuzz::subscriptionWalk(data, size);
}
