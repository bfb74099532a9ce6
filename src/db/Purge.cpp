#include "db/VolumeDBManager.h"

#include "db/Statement.h"

#include <ctime>

namespace {

int purgeCutoff(int threshold)
{
    const auto now = static_cast<unsigned>(std::time(nullptr));
    return static_cast<int>(now - static_cast<unsigned>(threshold)); // wraps in 32 bits, like the stored times
}

} // namespace

int VolumeDBManager::purgeDeletedFolders(int threshold)
{
    Statement stmt(*connection, "delete from folders where is_deleted=1 and last_updated_time < ?");
    stmt.bind(purgeCutoff(threshold));
    stmt.run("purgeDeletedFolders() failed, handleStatus: %d\n");
    return stmt.finalize();
}

int VolumeDBManager::purgeDeletedFiles(int threshold)
{
    Statement stmt(*connection, "delete from files where is_deleted = 1 and last_updated_time < ?");
    stmt.bind(purgeCutoff(threshold));
    stmt.run("purgeDeletedFiles() failed, handleStatus: %d\n");
    return stmt.finalize();
}
