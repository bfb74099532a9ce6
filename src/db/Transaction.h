#pragma once

class CatalogueConnection;
class VolumeDBManager;

/// A catalogue transaction as a scope: begun by the constructor, rolled back at the end of the scope unless it was
/// committed. The caller holds the volume's lock throughout.
class Transaction {
public:
    explicit Transaction(VolumeDBManager& catalogue);      ///< throws DBOperationException
    explicit Transaction(CatalogueConnection& connection); ///< throws DBOperationException
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// A failed statement may have rolled everything back (a full volume does that). Throws DBOperationException then:
    /// whatever were written after it would be half of a folder.
    void requireOpen() const;

    void commit(); ///< throws DBOperationException, also when there is nothing left to commit

private:
    CatalogueConnection& connection;
};
