#pragma once

#include "db/FileIdentity.h"

#include <string>

class CatalogueConnection;

/// The write-ahead log of the open catalogue: a file and its index beside the main file, found by their names. Readers
/// and the daemon then do not hinder one another, and a transaction needs no sync.
class WriteAheadLog {
public:
    explicit WriteAheadLog(CatalogueConnection& connection);

    /// Forgets what was found out about another catalogue, which was open before.
    void forget();
    /// Goes (back) to write-ahead logging; does nothing when that is in use. A catalogue that is foreign, locked,
    /// read-only or no database at all is used as far as it goes. It stays as it is when another program stands in the
    /// way, when the volume is all but full, or when the file system cannot map files for sharing.
    void use();
    /// Leaves one plain file that anybody can read from anywhere, unless a reader is in the way. Before the connection
    /// is closed; the catalogue must be open.
    void leave();
    /// Keeps the files of the log that is in use its own.
    void keepFiles() const;
    /// Copies what the log holds into the main file, as far as readers allow.
    void checkpoint();

private:
    std::string journalModeAfter(const char* pragma) const;
    bool isEntered() const;
    bool enter() const;
    void takeBack();
    bool hasRoom() const;
    static bool hasDescriptors();
    std::string logPath() const;
    std::string indexPath() const;
    void removeOwn() const;
    bool isCopied() const;
    void keepFilesAtClose(bool shallKeep) const;
    void execute(const char* sql) const;

    CatalogueConnection& catalogue;
    FileIdentity log;        ///< the one that is in use
    FileIdentity index;      ///< of that log
    bool isUnusable = false; ///< it was tried: files cannot be mapped for sharing here
};
