#pragma once

#include <string>

/// Which content the catalogue at a path has, without opening it: the identity, size and times of its files, and the
/// header of its log's index, which the writer changes with each transaction.
///
/// No connection to this catalogue may be open in this process: reading the index would end that connection's locks.
class CatalogueState {
public:
    explicit CatalogueState(const std::string& catalogue);

    /// One line of text. The same text, the same content, provided that the first one was settled.
    const std::string& text() const { return description; }
    /// Whether the files were last changed long enough ago that a further change would show in their times, which are
    /// coarse on some file systems. False also when a time lies in the future.
    bool isSettled() const { return settled; }

private:
    void addFile(const std::string& path, long long now);
    void addIndexHeader(const std::string& path);

    std::string description;
    bool settled = true;
};
