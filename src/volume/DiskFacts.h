#pragma once

#include <sys/stat.h>

#include <ctime>

class DBFile;
class VolumeDBManager;

// What the catalogue takes over from the disk.

/// A time as the catalogue stores and compares it: in 32 bits.
int storedTime(time_t seconds);

/// Fills the record of a file that has no live row yet: category of its name, times, size.
void describeNewFile(DBFile& file, const struct stat64& status);

/// Writes time and size of the live row that `file` was filled from, unless they are those of the disk. The caller
/// holds the volume's lock. Throws DBOperationException.
void updateIfChanged(VolumeDBManager& dbManager, DBFile& file, const struct stat64& status);
