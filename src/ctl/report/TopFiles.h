#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// A file as a list shows it.
struct ListedFile {
    std::string path; ///< as in the catalogue
    long long size;
    long long time; ///< which of the file's times depends on the list
};

/// The first `most` of all offered files by a key, the greatest first.
class TopFiles {
public:
    explicit TopFiles(std::size_t most)
        : limit(most)
    {
    }

    void offer(long long key, std::string_view path, long long size, long long time);

    /// Sorted; files with equal keys as they were offered.
    std::vector<ListedFile> sorted() const;

private:
    struct Entry {
        long long key;
        long long number; ///< counts what was offered
        ListedFile file;
    };
    static bool isBefore(const Entry& left, const Entry& right);

    const std::size_t limit;
    long long offered = 0;
    std::vector<Entry> heap; ///< its front is the next to go
};
