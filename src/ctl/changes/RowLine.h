#pragma once

#include <string>
#include <string_view>

class Query;

/// Makes the JSON lines of one volume's rows. As with setBytes(), only some times as fast.
class RowLine {
public:
    explicit RowLine(const std::string& volumeName);

    /// The columns that the lines are made of, in this order.
    static const char* folderColumns();
    static const char* fileColumns();

    /// The row's line, with its line end; up to the next call.
    const std::string& folder(const Query& row);
    const std::string& file(const Query& row);

private:
    void addNumber(const char* key, long long value);
    void addBytes(const char* key, std::string_view bytes);
    void addEnd(const Query& row, int firstColumn);

    std::string folderStart;
    std::string fileStart;
    std::string line;
};

/// Adds `"key":value` for the bytes to a JSON object's text, in the format that setBytes() defines, with a comma in
/// front.
void addJsonBytes(std::string& json, std::string_view key, std::string_view bytes);
