#pragma once

#include <exception>

/// Kept for programs that embed the catalogue. Nothing here throws it: VolumeDBManager::open() throws
/// DBOperationException.
class DBOpenException : public std::exception {
public:
    /// "DBOpenException occurred"
    const char* what() const noexcept override;
};
