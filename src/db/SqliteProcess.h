#pragma once

/// Sets SQLite up for the daemon's process: it gets memory of its own kind, which is not counted, and every file is
/// opened, removed and given away through checks. It counts for the whole process, so a program that embeds the classes
/// calls it only when it wants the same. Called before SQLite is used, while there is one thread.
void setUpSqliteForDaemon();
