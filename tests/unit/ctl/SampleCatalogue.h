#pragma once

#include "support/TemporaryFolder.h"

#include <string>

struct sqlite3;

/// A catalogue as the daemon lays it out, in a temporary folder, with a connection that can write. The file is in
/// write-ahead mode, as while the daemon runs.
class SampleCatalogue {
public:
    SampleCatalogue();
    ~SampleCatalogue(); ///< disconnects first
    SampleCatalogue(const SampleCatalogue&) = delete;
    SampleCatalogue& operator=(const SampleCatalogue&) = delete;

    /// Runs SQL as the writer.
    void run(const std::string& sql) const;
    /// As after the daemon's clean stop: one file with a rollback journal.
    void stopWriter();
    /// As after a kill: the files of the log stay.
    void killWriter();

    std::string path() const { return folder.path(".quarrow/quarrow.db"); }

    TemporaryFolder folder;

private:
    sqlite3* writer = nullptr;
};

/// The statements that make the two tables and their indexes.
extern const char* const catalogueSchema;
