// Inside the report lookup, for its tests.
#ifndef RFEVENT_TELEMETRY_REPORT_DB_INTERNAL_H
#define RFEVENT_TELEMETRY_REPORT_DB_INTERNAL_H

#include <pthread.h>
#include <sqlite3.h>

namespace rfevent {

// Serialises every lookup and guards the connection handle.
extern pthread_mutex_t reportViewMutex;

// Opens the database read-only and registers "GetISODateTime"; 0 on success, 1 otherwise.
int intialize_tdb(void);

// SQL function "GetISODateTime": the local time as text, e.g. "2024-05-01T13:45:10+05:30".
void sqlGetISODateTime(sqlite3_context* context, int argc, sqlite3_value** argv);

// Turns a "+hhmm" zone offset at the end of text into "+hh:mm", in place. The text grows by
// one character: the byte after its terminator must be zero and belong to the buffer.
void addColonToZoneOffset(char* text);

} // namespace rfevent

#endif
