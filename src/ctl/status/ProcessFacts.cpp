#include "ctl/status/ProcessFacts.h"

#include "core/FileDescriptor.h"
#include "ctl/LiesBelow.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>

namespace {

/// Calls `take` with each piece of the file; false when it cannot be read.
template <typename Take>
bool readPieces(const std::string& path, const Take& take)
{
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.isOpen())
        return false;
    std::array<char, 65536> buffer;
    ssize_t length;
    while ((length = read(file.get(), buffer.data(), buffer.size())) > 0)
        take(std::string_view(buffer.data(), static_cast<std::size_t>(length)));
    return length == 0;
}

/// Counts the lines that begin with "inotify ", which may be cut anywhere by the pieces that they come in.
class WatchLineCount {
public:
    void take(std::string_view piece)
    {
        for (const char c : piece) {
            if (c == '\n')
                matched = 0;
            else if (matched < begin.size())
                matched = c == begin[matched] ? matched + 1 : noMatch;
            else
                continue;
            count += matched == begin.size() ? 1 : 0;
        }
    }
    long long count = 0;

private:
    static constexpr std::string_view begin = "inotify ";
    static constexpr std::size_t noMatch = begin.size() + 1;
    std::size_t matched = 0;
};

} // namespace

std::optional<std::string> readKernelFile(const std::string& path)
{
    std::string text;
    if (!readPieces(path, [&text](std::string_view piece) { text += piece; }))
        return std::nullopt;
    return text;
}

std::vector<int> numbersIn(const std::string& folder)
{
    std::vector<int> numbers;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(folder.c_str()), closedir);
    while (const dirent* entry = directory != nullptr ? readdir(directory.get()) : nullptr) {
        char* end = nullptr;
        const long number = std::strtol(entry->d_name, &end, 10);
        if (*end == '\0' && entry->d_name[0] >= '0' && entry->d_name[0] <= '9' && number <= INT_MAX)
            numbers.push_back(static_cast<int>(number));
    }
    return numbers;
}

std::optional<long long> kilobytesIn(const std::string& status, const std::string& name)
{
    std::istringstream lines(status);
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, name.size() + 1, name + ":") == 0)
            return std::atoll(line.c_str() + name.size() + 1) * 1024;
    }
    return std::nullopt;
}

std::optional<long long> secondsSince1970(long long startTicks, const std::string& procFolder)
{
    std::istringstream lines(readKernelFile(procFolder + "/stat").value_or(""));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 6, "btime ") == 0)
            return std::atoll(line.c_str() + 6) + startTicks / sysconf(_SC_CLK_TCK);
    }
    return std::nullopt;
}

std::optional<ProcessStat> parseProcessStat(const std::string& text)
{
    // The name may hold anything, parentheses and blanks too.
    const std::size_t begin = text.find('(');
    const std::size_t end = text.rfind(')');
    if (begin == std::string::npos || end == std::string::npos || end < begin)
        return std::nullopt;
    ProcessStat stat;
    stat.name = text.substr(begin + 1, end - begin - 1);
    std::istringstream fields(text.substr(end + 1));
    constexpr int fieldsBetween = 18; // from the parent's id to the number before the start
    std::string skipped;
    fields >> stat.state;
    for (int i = 0; i < fieldsBetween; ++i)
        fields >> skipped;
    fields >> stat.startTicks;
    return fields ? std::optional(stat) : std::nullopt;
}

ProcessFacts::ProcessFacts(int processId, const std::string& procFolder)
    : number(processId)
    , folder(procFolder + "/" + std::to_string(processId))
{
}

std::optional<ProcessStat> ProcessFacts::stat() const
{
    const std::optional<std::string> text = readKernelFile(file("stat"));
    const std::optional<ProcessStat> stat = text ? parseProcessStat(*text) : std::nullopt;
    return stat && stat->isAlive() ? stat : std::nullopt;
}

std::vector<uid_t> ProcessFacts::users() const
{
    constexpr std::size_t kinds = 3; // real, effective, saved
    std::istringstream words(readKernelFile(file("status")).value_or(""));
    std::vector<uid_t> users;
    for (std::string word; users.empty() && words >> word;) {
        if (word != "Uid:")
            continue;
        for (uid_t user; users.size() < kinds && words >> user;)
            users.push_back(user);
    }
    return users.size() == kinds ? users : std::vector<uid_t>();
}

bool ProcessFacts::isSetUserProgram() const
{
    struct stat64 status;
    return stat64(file("exe").c_str(), &status) == 0 && (status.st_mode & S_ISUID) != 0;
}

std::optional<MemoryUse> ProcessFacts::memory() const
{
    const std::string text = readKernelFile(file("status")).value_or("");
    const std::optional<long long> resident = kilobytesIn(text, "VmRSS");
    const std::optional<long long> peak = kilobytesIn(text, "VmHWM");
    if (!resident || !peak)
        return std::nullopt;
    return MemoryUse { *resident, *peak };
}

std::vector<ThreadFacts> ProcessFacts::threads() const
{
    std::vector<ThreadFacts> threads;
    for (const int id : numbersIn(file("task"))) {
        const auto text = readKernelFile(file("task/" + std::to_string(id) + "/stat"));
        const auto stat = text ? parseProcessStat(*text) : std::nullopt;
        if (stat && stat->isAlive())
            threads.push_back({ id, stat->startTicks });
    }
    std::sort(threads.begin(), threads.end(), [](const ThreadFacts& a, const ThreadFacts& b) {
        return a.startTicks != b.startTicks ? a.startTicks < b.startTicks : a.id < b.id;
    });
    return threads;
}

std::optional<bool> ProcessFacts::hasSignal(const char* set, int signal) const
{
    std::istringstream lines(readKernelFile(file("status")).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        const std::size_t colon = line.find(':');
        if (line.compare(0, colon, set) == 0)
            return ((std::strtoull(line.c_str() + colon + 1, nullptr, 16) >> static_cast<unsigned>(signal - 1)) & 1U)
                != 0;
    }
    return std::nullopt;
}

bool ProcessFacts::isPending(int signal) const { return hasSignal("ShdPnd", signal) == true; }

bool ProcessFacts::handles(int signal) const { return hasSignal("SigCgt", signal) == true; }

bool ProcessFacts::letsIn(int signal) const { return hasSignal("SigBlk", signal) == false; }

std::optional<long long> ProcessFacts::timeOfThread(int thread) const
{
    const auto text = readKernelFile(file("task/" + std::to_string(thread) + "/schedstat"));
    return text ? std::optional(std::atoll(text->c_str())) : std::nullopt;
}

std::optional<long long> ProcessFacts::timeOfThreads() const
{
    long long sum = 0;
    for (const int id : numbersIn(file("task"))) {
        const std::optional<long long> time = timeOfThread(id);
        if (!time)
            return std::nullopt;
        sum += *time;
    }
    return sum;
}

std::optional<std::string> ProcessFacts::environment() const { return readKernelFile(file("environ")); }

std::string ProcessFacts::ownPath(const std::string& path) const
{
    std::error_code failure;
    const std::string root = std::filesystem::read_symlink(file("root"), failure).string();
    return liesBelow(path, root) ? path.substr(root.length()) : path;
}

std::string ProcessFacts::seenByProcess(const std::string& path) const
{
    return file(path.compare(0, 1, "/") == 0 ? "root" + path : "cwd/" + path);
}

std::vector<std::pair<int, std::string>> ProcessFacts::descriptors() const
{
    std::vector<std::pair<int, std::string>> found;
    for (const int descriptor : numbersIn(file("fd"))) {
        std::array<char, PATH_MAX> target;
        const ssize_t length = readlink(descriptorPath(descriptor).c_str(), target.data(), target.size());
        if (length > 0)
            found.emplace_back(descriptor, std::string(target.data(), static_cast<std::size_t>(length)));
    }
    return found;
}

std::string ProcessFacts::descriptorPath(int descriptor) const { return file("fd/" + std::to_string(descriptor)); }

std::optional<long long> ProcessFacts::watches() const
{
    std::optional<long long> sum;
    for (const auto& [descriptor, target] : descriptors()) {
        WatchLineCount lines;
        if (target == "anon_inode:inotify"
            && readPieces(
                file("fdinfo/" + std::to_string(descriptor)), [&lines](std::string_view piece) { lines.take(piece); }))
            sum = sum.value_or(0) + lines.count;
    }
    return sum;
}
