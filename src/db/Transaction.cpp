#include "db/Transaction.h"

#include "db/DBOperationException.h"
#include "db/VolumeDBManager.h"

Transaction::Transaction(VolumeDBManager& catalogue)
    : db(catalogue)
{
    db.beginTransaction();
    requireOpen(); // without memory or room for the write lock it may be over before anything was done
}

Transaction::~Transaction() { db.abandonTransaction(); }

void Transaction::requireOpen() const
{
    if (!db.isInTransaction())
        throw DBOperationException();
}

void Transaction::commit()
{
    requireOpen();
    db.commitTransaction();
}
