#pragma once

#include <exception>

/// A catalogue operation failed. The log line that precedes it says which one and with what result.
class DBOperationException : public std::exception {
public:
    /// "DBOperationException occurred"
    const char* what() const noexcept override;
};
