#pragma once

#include <string>
#include <string_view>

class Catalogue;
struct sqlite3_stmt;

/// One statement that reads a catalogue, prepared and finalized with the object. Every failure is thrown as a Problem.
class Query {
public:
    /// `text` is complete SQL with a `?` per value.
    Query(const Catalogue& catalogue, const std::string& text);
    ~Query();
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;

    // By position, from left to right.

    Query& bind(long long value);
    Query& bind(std::string_view bytes); ///< as text, whatever the bytes; copied

    /// Steps to the next row; false after the last.
    bool next();
    /// Makes it start anew with other values.
    void reset();

    bool isNull(int column) const;
    long long number(int column) const;
    /// The bytes as they are stored, up to the next step. A NULL is empty.
    std::string_view bytes(int column) const;

private:
    const Catalogue& catalogue;
    sqlite3_stmt* statement = nullptr;
    int bound = 0;
    bool stepped = false;
};
