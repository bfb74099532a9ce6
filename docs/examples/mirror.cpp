// Keeps in the file STATE what the catalogues hold: the cursor, then each live row as a JSON line.
//
//     quarrowctl changes --since "$(head -n 1 STATE)" | mirror STATE
//
// Ends with status 3 when a full listing is due: run it again with --full instead of --since.
// Build: c++ -std=c++17 -o mirror mirror.cpp (needs nlohmann-json)
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>

using Json = nlohmann::ordered_json;
using Key = std::tuple<std::string, std::string, long long>;
using Rows = std::map<Key, std::string>; // the lines as they came

static std::string volumeOf(const Json& line) { return line.value("volume_hex", line.at("volume").get<std::string>()); }

static Key keyOf(const Json& row)
{
    return { volumeOf(row), row.at("kind").get<std::string>(), row.at("id").get<long long>() };
}

static Rows load(const std::string& path)
{
    Rows rows;
    std::ifstream file(path);
    std::string line;
    std::getline(file, line); // the cursor
    while (std::getline(file, line))
        rows[keyOf(Json::parse(line))] = line;
    return rows;
}

// Rows and cursor in one step: whenever this program dies, both are of the same batch.
static void store(const std::string& path, const std::string& cursor, const Rows& rows)
{
    const std::string temporary = path + ".new";
    std::ofstream file(temporary);
    file << cursor << '\n';
    for (const auto& [key, line] : rows)
        file << line << '\n';
    file.close();
    const int descriptor = open(temporary.c_str(), O_RDONLY);
    const bool isOnDisk = file && descriptor >= 0 && fsync(descriptor) == 0;
    if (descriptor >= 0)
        close(descriptor);
    if (!isOnDisk || std::rename(temporary.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot store " + path);
}

int main(int, char** argv)
{
    const std::string path = argv[1];
    Rows rows = load(path);
    std::set<std::string> restarts; // the volumes that need one
    std::string text;
    while (std::getline(std::cin, text) && !std::cin.eof()) { // a line without its end is half a line
        const Json line = Json::parse(text);
        const std::string event = line.value("event", "");
        if (line.contains("cursor")) {
            store(path, line["cursor"].get<std::string>(), rows);
        } else if (event == "full-listing") {
            const std::string volume = volumeOf(line);
            for (auto row = rows.begin(); row != rows.end();)
                row = std::get<0>(row->first) == volume ? rows.erase(row) : std::next(row);
            restarts.erase(volume);
        } else if (event == "restart-needed") {
            restarts.insert(volumeOf(line));
        } else if (line.contains("kind") && line.at("deleted").get<bool>()) {
            rows.erase(keyOf(line));
        } else if (line.contains("kind")) {
            rows[keyOf(line)] = text;
        }
    }
    return restarts.empty() ? 0 : 3;
}
