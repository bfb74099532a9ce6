#include "db/Transaction.h"

#include "db/DBOperationException.h"
#include "db/VolumeDBManager.h"

Transaction::Transaction(VolumeDBManager& catalogue)
    : db(catalogue)
{
    db.beginTransaction();
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
