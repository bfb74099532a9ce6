#include "db/Transaction.h"

#include "db/DBOperationException.h"
#include "db/VolumeDBManager.h"

Transaction::Transaction(VolumeDBManager& catalogue)
    : db(catalogue)
{
    db.beginTransaction();
}

Transaction::~Transaction()
{
    if (!db.isInTransaction())
        return;
    try {
        db.rollbackTransaction();
    } catch (const DBOperationException&) {
        // Nothing was committed all the same; the next transaction on this connection reports what is wrong.
    }
}

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
