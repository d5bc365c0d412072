// Subscription stores written by the REST server, through the three store operations.
// Input: store text NUL subscription id NUL state text.
#ifndef RFEVENT_FUZZ_STORE_OPS_H
#define RFEVENT_FUZZ_STORE_OPS_H

#include <exception>
#include <string>

#include "base/paths.h"
#include "fuzz_support.h"
#include "subscriptions/store.h"

namespace rfevent::fuzz {

inline int storeOps(const uint8_t* data, std::size_t size) {
    ensureRoot();
    const std::vector<std::string> in = pieces(data, size, 3);
    const std::string store = fixedPath(FixedPath::SubscriptionStore);
    const std::string id = cText(in[1]);
    const std::string state = cText(in[2]);
    // Type errors of jsoncpp propagate from the store operations by design; their callers
    // drop that unit of work.
    writeWhole(store, in[0]);
    try {
        (void)addInvalidMemberinSubscription(id);
    } catch (const std::exception&) {
    }
    writeWhole(store, in[0]);
    try {
        (void)setSubscriptionState(id, state.c_str());
    } catch (const std::exception&) {
    }
    writeWhole(store, in[0]);
    try {
        (void)removeSubscription(id);
    } catch (const std::exception&) {
    }
    return 0;
}

} // namespace rfevent::fuzz

#endif // RFEVENT_FUZZ_STORE_OPS_H
