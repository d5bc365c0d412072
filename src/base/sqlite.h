// Owned SQLite handles.
#ifndef RFEVENT_BASE_SQLITE_H
#define RFEVENT_BASE_SQLITE_H

#include <sqlite3.h>

#include "base/owned.h"

namespace rfevent {

using SqliteDb = Owned<sqlite3, sqlite3_close>;
using SqliteStatement = Owned<sqlite3_stmt, sqlite3_finalize>;

} // namespace rfevent

#endif
