#include "FuzzSupport.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace fs = std::filesystem;

void requirePromise(bool kept, const char* promise, const char* file, int line)
{
    if (kept)
        return;
    std::fprintf(stderr, "%s:%d: broken: %s\n", file, line, promise);
    std::abort();
}

InputBytes::InputBytes(const std::uint8_t* data, std::size_t size)
    : bytes(reinterpret_cast<const char*>(data), size)
{
}

std::uint8_t InputBytes::takeByte()
{
    const std::string byte = take(1);
    return byte.empty() ? 0 : static_cast<std::uint8_t>(byte[0]);
}

std::string InputBytes::take(std::size_t count)
{
    std::string taken = bytes.substr(0, count);
    bytes.erase(0, count);
    return taken;
}

std::string InputBytes::takeLine()
{
    std::string line = take(bytes.find('\n'));
    take(1);
    return line;
}

std::string InputBytes::takeRest() { return std::exchange(bytes, std::string()); }

PrivateFolder::PrivateFolder()
    : folder("/tmp/quarrow-fuzz-XXXXXX") // in memory where the tests run: their /tmp is private
{
    REQUIRE(mkdtemp(folder.data()) != nullptr);
}

PrivateFolder::~PrivateFolder()
{
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

void PrivateFolder::write(const std::string& name, const std::string& content) const
{
    std::ofstream file(path(name), std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    REQUIRE(file.good());
}

std::string PrivateFolder::read(const std::string& name) const
{
    std::ifstream file(path(name), std::ios::binary);
    REQUIRE(file.good());
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::vector<std::string> PrivateFolder::names() const
{
    std::vector<std::string> found;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder))
        found.push_back(entry.path().filename().string());
    std::sort(found.begin(), found.end());
    return found;
}

static std::vector<std::string> loggedLines;

void takeLogLine(int priority, const std::string& text)
{
    REQUIRE((priority & LOG_FACMASK) == LOG_LOCAL5);
    loggedLines.push_back(std::to_string(priority & LOG_PRIMASK) + " " + text);
}

std::vector<std::string> takeLog() { return std::exchange(loggedLines, {}); }
