#pragma once

#include "db/FileIdentity.h"

#include <string>

class CatalogueConnection;

/// The write-ahead log of the open catalogue: a file and its index beside the main file, which SQLite finds by name.
/// With it, readers and the daemon do not hinder each other, and a transaction needs no sync. The caller holds the
/// volume's lock, unless no other thread knows the catalogue.
class WriteAheadLog {
public:
    explicit WriteAheadLog(CatalogueConnection& connection);

    /// Forgets what is known about the catalogue that was open before.
    void forget();
    /// Goes to write-ahead logging unless that is in use. The catalogue stays as it is while another program prevents
    /// it, when the volume is almost full, when the file system cannot map files for sharing, and when the file is
    /// read-only or no database. Failures are not reported.
    void use();
    /// Leaves one plain file that every program can read, unless a reader prevents it. Called before the connection is
    /// closed; the catalogue must be open.
    void leave();
    /// Gives the files of the log in use back to root when another user has become their owner. Only as root.
    void keepFiles() const;
    /// Copies the content of the log into the main file, as far as readers allow. Failures are not reported.
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
    FileIdentity log;        ///< of the log in use; unknown when none is
    FileIdentity index;      ///< of the index of that log
    bool isUnusable = false; ///< a try has shown that files cannot be mapped for sharing here
};
