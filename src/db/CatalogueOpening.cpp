#include "db/CatalogueOpening.h"

#include "core/LongestPath.h"
#include "core/WithoutLinks.h"
#include "db/CatalogueAdmission.h"
#include "db/CatalogueConnection.h"
#include "db/CatalogueFile.h"
#include "db/CatalogueSchema.h"
#include "db/DBOperationException.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cerrno>

namespace {

/// False for the paths that SQLite does not take for a file: for those it makes a database in memory or a temporary
/// one.
bool isFilePath(const std::string& path)
{
    return !path.empty() && path != ":memory:" && path.compare(0, 5, "file:") != 0;
}

/// Makes a new catalogue, complete or not at all: a schema is made for a new file only, so half a schema would stay
/// half for ever. Returns an SQLite status.
int make(const std::string& path)
{
    // When the path cannot be looked at, a good catalogue may be there, on a disk with a fault. It must not be
    // replaced.
    struct stat64 status;
    if (stat64(path.c_str(), &status) == 0 || errno != ENOENT)
        return SQLITE_CANTOPEN;
    const std::string content = emptyCatalogue();
    if (content.empty())
        return SQLITE_NOMEM;
    const int rc = createCatalogueFile(path, content);
    if (rc != SQLITE_FULL)
        return rc;
    syslog(LOG_LOCAL5 | LOG_ERR, "createDBStructure() failed, handleStatus: %d\n", rc);
    throw DBOperationException();
}

bool isDirectory(const char* path)
{
    DIR* directory = opendir(path);
    return directory != nullptr && closedir(directory) == 0;
}

} // namespace

int openOrMakeCatalogue(CatalogueConnection& connection, const std::string& path)
{
    if (!isFilePath(path))
        return SQLITE_CANTOPEN;
    const bool existed = isThereOrMakeFoldersAbove(path.c_str());
    const std::string found = resolveOwnLinks(path, LinkedFile::followed);
    if (found.empty() || found.length() > longestCataloguePath || path.length() > longestCataloguePath)
        return SQLITE_CANTOPEN;
    const bool isMarked = avoidCopyOnWrite(found);
    const int rc = existed ? SQLITE_OK : make(found);
    return rc == SQLITE_OK ? openAdmittedCatalogue(connection, found, isMarked) : rc;
}

int openAdmittedCatalogue(CatalogueConnection& connection, const std::string& path, bool isMarked)
{
    CatalogueAdmission admission(path);
    if (admission.isRefused())
        return SQLITE_CANTOPEN;
    if (isMarked)
        avoidCopyOnWriteOfIndex(path);
    const int rc = connection.open(path);
    if (rc != SQLITE_OK || admission.isTrusted())
        return rc;
    const int harmless = lookForForeignSql(connection.get());
    if (harmless == SQLITE_OK)
        admission.trust();
    return harmless;
}

bool isThereOrMakeFoldersAbove(const char* path)
{
    struct stat64 status;
    if (stat64(path, &status) == 0)
        return true;
    makeFoldersAbove(path);
    return false;
}

bool makeFoldersAbove(const char* path)
{
    if (isDirectory(path))
        return true;
    const std::string whole = path;
    for (std::string::size_type slash = whole.find('/', 1); slash != std::string::npos;
         slash = whole.find('/', slash + 1)) {
        const std::string prefix = whole.substr(0, slash);
        if (!isDirectory(prefix.c_str()) && errno == ENOENT)
            mkdir(prefix.c_str(), 0755); // a failure shows when the catalogue is opened
    }
    return false;
}
