#pragma once

/// Gives SQLite its memory from lists of free blocks, one set per thread. A prepared statement is a hundred small
/// blocks that come and go together, which is more than the C library keeps at hand. Larger blocks are the C library's.
///
/// Called before SQLite is used, while there is one thread; counts for the whole process. Does nothing when SQLite is
/// in use already.
void giveSqliteMemoryPerThread();
