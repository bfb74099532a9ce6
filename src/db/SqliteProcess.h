#pragma once

/// Sets SQLite up for a process that is the daemon. Programs that embed the classes have an SQLite of their own
/// business: they call this only if they want the same. Before SQLite is used, while there is one thread.
void setUpSqliteForDaemon();
