#pragma once

#include <exception>

/// A catalogue operation failed. A log line before it says which one, and with what result. There is no such line when
/// a transaction cannot be begun, committed or rolled back, when SQLite has ended it, and when a stop ended the
/// operation.
class DBOperationException : public std::exception {
public:
    /// "DBOperationException occurred"
    const char* what() const noexcept override;
};
