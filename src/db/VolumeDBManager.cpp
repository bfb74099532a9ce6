#include "db/VolumeDBManager.h"

#include "db/CatalogueConnection.h"
#include "db/CatalogueFile.h"
#include "db/CatalogueOpening.h"
#include "db/CatalogueSchema.h"
#include "db/DBOperationException.h"
#include "db/WriteAheadLog.h"

#include <sqlite3.h>
#include <syslog.h>

#include <utility>

VolumeDBManager::VolumeDBManager()
    : VolumeDBManager(std::make_unique<CatalogueConnection>())
{
}

VolumeDBManager::VolumeDBManager(StopRequest& stopRequest)
    : VolumeDBManager(std::make_unique<CatalogueConnection>(stopRequest))
{
}

VolumeDBManager::VolumeDBManager(std::unique_ptr<CatalogueConnection> newConnection)
    : connection(std::move(newConnection))
    , writeAheadLog(std::make_unique<WriteAheadLog>(*connection))
{
}

VolumeDBManager::~VolumeDBManager()
{
    closeCatalogue();
    syslog(LOG_LOCAL5 | LOG_INFO, "sqlite3 handle closed\n");
}

// The catalogue file

bool VolumeDBManager::open(const char* path)
{
    syslog(LOG_LOCAL5 | LOG_INFO, "sqlite version: %s\n", sqlite3_libversion());
    closeCatalogue();
    const int rc = openOrMakeCatalogue(*connection, path);
    if (rc != SQLITE_OK) {
        connection->close();
        syslog(LOG_LOCAL5 | LOG_ERR, "open() failed, handleStatus: %d\n", rc);
        throw DBOperationException();
    }
    connection->configure();
    connection->rememberFile();
    writeAheadLog->forget();
    writeAheadLog->use();
    return true;
}

void VolumeDBManager::closeCatalogue()
{
    try {
        if (connection->isOpen())
            writeAheadLog->leave();
    } catch (const std::exception&) {
        // The rows are not lost: SQLite copies its log into the file when it closes, or the next start does.
    }
    connection->close();
}

bool VolumeDBManager::checkIfDBExists(const char* path) { return isThereOrMakeFoldersAbove(path); }

bool VolumeDBManager::createPath(const char* path) { return makeFoldersAbove(path); }

bool VolumeDBManager::createDBStructure()
{
    makeCatalogueSchema(connection->get());
    return false;
}

void VolumeDBManager::requestStop() { connection->requestStop(); }

void VolumeDBManager::useWriteAheadLog() { writeAheadLog->use(); }

void VolumeDBManager::keepFiles()
{
    if (!connection->isOpen())
        return;
    connection->keepFile();
    writeAheadLog->keepFiles();
}

void VolumeDBManager::checkpoint() { writeAheadLog->checkpoint(); }

// Statements and transactions

int VolumeDBManager::executeSQLStmt(sqlite3_stmt* statement) { return connection->step(statement); }

bool VolumeDBManager::beginTransaction()
{
    connection->beginTransaction();
    return true;
}

bool VolumeDBManager::commitTransaction()
{
    connection->commitTransaction();
    return true;
}

bool VolumeDBManager::rollbackTransaction()
{
    connection->rollbackTransaction();
    return true;
}

bool VolumeDBManager::isInTransaction() const { return connection->isInTransaction(); }

void VolumeDBManager::abandonTransaction() { connection->abandonTransaction(); }
