// Test-only access to the parsing of the credentials: a parse that meets a failure on the way,
// as an allocation failure would make it, and what the session cache holds of the parses.
#ifndef RFEVENT_DELIVERY_TLS_CREDENTIALS_INTERNAL_H
#define RFEVENT_DELIVERY_TLS_CREDENTIALS_INTERNAL_H

namespace rfevent {

// While on, every parse of the credentials loses its client certificate half-way.
void failCredentialParses(bool on);

// Whether the next transfer (checking: the destination is verified) would take the parsed
// credentials of the session cache rather than load the files itself.
bool sessionCacheHoldsUsableCredentials(bool checking);

} // namespace rfevent

#endif
