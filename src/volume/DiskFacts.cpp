#include "volume/DiskFacts.h"

#include "classify/CategoryOf.h"
#include "db/DBFile.h"
#include "db/VolumeDBManager.h"

int storedTime(time_t seconds) { return static_cast<int>(seconds); }

void describeNewFile(DBFile& file, const struct stat64& status)
{
    file.setCategory(categoryOf(file.getName()));
    file.setModified_time(storedTime(status.st_mtime));
    file.setCreated_time(storedTime(status.st_ctime)); // the inode's change: the nearest to a birth that is everywhere
    file.setSize(status.st_size);
}

void updateIfChanged(VolumeDBManager& dbManager, DBFile& file, const struct stat64& status)
{
    if (file.getModified_time() == storedTime(status.st_mtime) && file.getSize() == status.st_size)
        return;
    file.setModified_time(storedTime(status.st_mtime));
    file.setSize(status.st_size);
    file.setIs_deleted(false);
    dbManager.updateFile(file);
}
