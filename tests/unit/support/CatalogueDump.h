#pragma once

#include <string>

// The rows of a catalogue as text to compare with, one line a row, read through a plain second connection.

/// Every row outside /.quarrow by path: "[/Music/Rock] in [/Music]"; "root" for the parent -1, " deleted" at the end of
/// those.
std::string dumpFoldersByPath(const std::string& dbPath);
/// Likewise: "[/Music/a.mp3] 2 in [/Music]", with the category.
std::string dumpFilesByPath(const std::string& dbPath);

/// Every row but its created time, by id, folders first: "folder 2 'Rock' in 1 /Music/Rock 77" with the modified time;
/// "file 1 'a.mp3' in 2 /Music/Rock/a.mp3 2 5 88" with category, size and modified time. "deleted", and "written" when
/// the last write was not in second 1, at the end of those.
std::string dumpRowsById(const std::string& dbPath);

/// Every live row by path, folders first: "folder [/Music/Rock] [Rock] in [/Music] ..." with category, created and
/// modified time and whether it is hidden; a file's size comes after its category.
std::string dumpLiveRows(const std::string& dbPath);
/// The other rows: "file [/Music/a.mp3] [a.mp3]".
std::string dumpDeletedRows(const std::string& dbPath);
