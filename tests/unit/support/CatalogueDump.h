#pragma once

#include <string>

// The rows of a catalogue as text to compare with, one line a row, read through a plain second connection.

/// Every row outside /.quarrow by path: "[/Music/Rock] in [/Music]"; "root" for the parent -1, " deleted" at the end of
/// those.
std::string dumpFoldersByPath(const std::string& dbPath);
/// Likewise: "[/Music/a.mp3] 2 in [/Music]", with the category.
std::string dumpFilesByPath(const std::string& dbPath);

/// Every row by id: "2 in 1 '/Music' live"; the path as SQL writes it.
std::string dumpFoldersById(const std::string& dbPath);
std::string dumpFilesById(const std::string& dbPath);

/// Every column of every row, a row a line, folders first, by id, from `firstId` on in both. The numbers after the name
/// are modified and created time; of a file category and size before them. Then "live" or "deleted", what is not as
/// usual (hidden, ...), and "now" for a row written since the second `start` instead of in second 30.
std::string dumpRowsInFull(const std::string& dbPath, int firstId, long long start);

/// Every column of one row but its id and its last write.
std::string dumpFolderRow(const std::string& dbPath, int id);
std::string dumpFileRow(const std::string& dbPath, int id);

/// Every row but its created time, by id, folders first: "folder 2 'Rock' in 1 /Music/Rock 77" with the modified time;
/// "file 1 'a.mp3' in 2 /Music/Rock/a.mp3 2 5 88" with category, size and modified time. "deleted", and "written" when
/// the last write was not in second 1, at the end of those.
std::string dumpRowsById(const std::string& dbPath);

/// Every live row by path, folders first: "folder [/Music/Rock] [Rock] in [/Music] ..." with category, created and
/// modified time and whether it is hidden; a file's size comes after its category.
std::string dumpLiveRows(const std::string& dbPath);
/// The other rows: "file [/Music/a.mp3] [a.mp3]".
std::string dumpDeletedRows(const std::string& dbPath);
