#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QSqlDatabase>
#include <QString>

namespace kestrel::internal {

// Connect options set before a catalogue connection opens: SQLite waits up to a minute for another
// process's write instead of failing; MariaDB gives up connecting after a few seconds and on a
// server that stops answering after a minute.
KESTREL_TEST_EXPORT QString catalogConnectOptions(const QString& driverName);

// Settings of a freshly opened catalogue connection: SQLite in write-ahead-log mode (readers never
// wait for a writer), MariaDB talking utf8mb4 so that every character of a name arrives.
KESTREL_TEST_EXPORT Status prepareConnection(QSqlDatabase db);


// Clones the application's default connection under a fresh QUuid name and opens it. Works from
// any thread (the clone is made by name). The caller owns the name and removes it with
// removeClonedConnection() once every QSqlDatabase/QSqlQuery copy of it is gone.
KESTREL_TEST_EXPORT QSqlDatabase cloneDefaultConnection();

// The catalogue as the calling thread reaches it: the application's default connection on the
// thread that made it; on any other thread a clone of it, opened on first use, made anew when the
// default connection is made anew, and removed when the thread ends. (Qt lets a connection be used
// by the thread that opened it only.) The library reads and writes the default catalogue through this.
KESTREL_TEST_EXPORT QSqlDatabase catalogDatabase();
// Called by createConnection() once it has made the default connection on the calling thread.
void noteDefaultConnectionMade();
KESTREL_TEST_EXPORT void removeClonedConnection(const QString& name);

// Makes DB usable again after its server went away and came back: an open MySQL connection is
// probed and, when the probe fails, closed and opened anew; a closed one is opened. Call it at
// the start of a unit of work, never while queries of the connection are still in use. True when
// the connection is open afterwards.
KESTREL_TEST_EXPORT bool reopenIfLost(QSqlDatabase db);

} // namespace kestrel::internal
