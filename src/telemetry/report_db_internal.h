// Test-only access to the report database: opening the connection, and the zone offset of the
// time the database's "GetISODateTime" gives.
#ifndef RFEVENT_TELEMETRY_REPORT_DB_INTERNAL_H
#define RFEVENT_TELEMETRY_REPORT_DB_INTERNAL_H

namespace rfevent {

// Opens the database read-only and registers "GetISODateTime"; 0 on success, 1 otherwise.
int intialize_tdb(void);

// Turns a "+hhmm" zone offset at the end of text into "+hh:mm", in place. The text grows by
// one character: the byte after its terminator must be zero and belong to the buffer.
void addColonToZoneOffset(char* text);

} // namespace rfevent

#endif
