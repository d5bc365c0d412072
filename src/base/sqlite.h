// Owned SQLite handles.
#ifndef RFEVENT_BASE_SQLITE_H
#define RFEVENT_BASE_SQLITE_H

#include <sqlite3.h>

#include <memory>

namespace rfevent {

struct SqliteClose {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
struct SqliteFinalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};

using SqliteDb = std::unique_ptr<sqlite3, SqliteClose>;
using SqliteStatement = std::unique_ptr<sqlite3_stmt, SqliteFinalize>;

} // namespace rfevent

#endif
