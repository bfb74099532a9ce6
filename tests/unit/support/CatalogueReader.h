#pragma once

#include <string>

/// Runs a query on the catalogue through a plain second connection. One line a row, columns separated by a blank, NULL
/// as "NULL"; "" without rows. A query that fails gives "error: " and SQLite's message, which no expectation matches.
std::string queryCatalogue(const std::string& dbPath, const std::string& sql);

/// Runs statements on the catalogue through a plain second connection, behind the back of whoever has it open. Fails
/// the test when they fail.
void changeCatalogue(const std::string& dbPath, const std::string& sql);
