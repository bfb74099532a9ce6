#pragma once

#include <exception>

/// For programs that embed the catalogue; a catalogue that cannot be opened surfaces as DBOperationException.
class DBOpenException : public std::exception {
public:
    /// "DBOpenException occurred"
    const char* what() const noexcept override;
};
