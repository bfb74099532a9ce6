#include "db/Transaction.h"

#include "db/CatalogueConnection.h"
#include "db/DBOperationException.h"
#include "db/VolumeDBManager.h"

Transaction::Transaction(VolumeDBManager& catalogue)
    : Transaction(*catalogue.connection)
{
}

Transaction::Transaction(CatalogueConnection& catalogueConnection)
    : connection(catalogueConnection)
{
    connection.beginTransaction();
    requireOpen(); // without memory or room for the write lock it may be over before anything was done
}

Transaction::~Transaction() { connection.abandonTransaction(); }

void Transaction::requireOpen() const
{
    if (!connection.isInTransaction())
        throw DBOperationException();
}

void Transaction::commit()
{
    requireOpen();
    connection.commitTransaction();
}
