#include "ctl/changes/RowLine.h"

#include "ctl/Query.h"
#include "ctl/Text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>

namespace {

/// Whether the text stands in JSON as it is.
bool isPlain(std::string_view bytes)
{
    bool isAscii = true;
    unsigned char before = 0;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f || c == '"' || c == '\\' || (before == 0xc2 && byte < 0xa0))
            return false;
        isAscii = isAscii && byte < 0x80;
        before = byte;
    }
    return isAscii || isUtf8(bytes);
}

std::string startOf(const std::string& volumeName, const char* kind)
{
    nlohmann::ordered_json object;
    setBytes(object, "volume", volumeName);
    object["kind"] = kind;
    std::string text = jsonText(object);
    text.pop_back();
    return text;
}

} // namespace

void addJsonBytes(std::string& json, std::string_view key, std::string_view bytes)
{
    json += ',';
    if (isPlain(bytes)) {
        ((json += '"') += key) += "\":\"";
        (json += bytes) += '"';
        return;
    }
    nlohmann::ordered_json object;
    setBytes(object, std::string(key), bytes);
    const std::string text = jsonText(object);
    json.append(text, 1, text.size() - 2);
}

RowLine::RowLine(const std::string& volumeName)
    : folderStart(startOf(volumeName, "folder"))
    , fileStart(startOf(volumeName, "file"))
{
}

const char* RowLine::folderColumns()
{
    return "folder_id, parent_id, path, name, created_time, modified_time, last_updated_time, is_deleted";
}

const char* RowLine::fileColumns()
{
    return "file_id, folder_id, path, name, category, size, created_time, modified_time, last_updated_time, is_deleted";
}

const std::string& RowLine::folder(const Query& row)
{
    line = folderStart;
    addNumber("id", row.number(0));
    addNumber("parent_id", row.number(1));
    addBytes("path", row.bytes(2));
    addBytes("name", row.bytes(3));
    addEnd(row, 4);
    return line;
}

const std::string& RowLine::file(const Query& row)
{
    line = fileStart;
    addNumber("id", row.number(0));
    addNumber("folder_id", row.number(1));
    addBytes("path", row.bytes(2));
    addBytes("name", row.bytes(3));
    addBytes("category", categoryName(row.number(4)));
    addNumber("size", row.number(5));
    addEnd(row, 6);
    return line;
}

void RowLine::addNumber(const char* key, long long value)
{
    const fmt::format_int digits(value);
    ((line += ",\"") += key) += "\":";
    line.append(digits.data(), digits.size());
}

void RowLine::addBytes(const char* key, std::string_view bytes) { addJsonBytes(line, key, bytes); }

void RowLine::addEnd(const Query& row, int firstColumn)
{
    addNumber("created_time", row.number(firstColumn));
    addNumber("modified_time", row.number(firstColumn + 1));
    addNumber("last_updated_time", row.number(firstColumn + 2));
    line += row.number(firstColumn + 3) != 0 ? ",\"deleted\":true}\n" : ",\"deleted\":false}\n";
}
