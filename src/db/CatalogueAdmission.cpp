#include "db/CatalogueAdmission.h"

#include "core/HeldFolder.h"
#include "db/CatalogueName.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <iterator>
#include <optional>

/// The files under the names of a catalogue, held as they were found.
class CatalogueAdmission::Files {
public:
    explicit Files(const std::string& cataloguePath)
        : path(cataloguePath)
        , folder(path)
        , verdict(judge())
    {
    }

    enum Verdict { refused, untrusted, trusted };
    Verdict getVerdict() const { return verdict; }

    void trust()
    {
        files[mainFile]->giveToRoot(CatalogueName::unmarked);
        if (logWasOpened)
            files[logFile]->giveToRoot(CatalogueName::unmarked);
    }

    bool allows(const char* filePath, const struct stat64& status) const
    {
        for (std::size_t name = 0; name < files.size(); ++name) {
            if (isAt(name, filePath))
                return files[name]->covers(status);
        }
        return !CatalogueName::isMarked(status);
    }

    void noteOpened(const char* filePath) { logWasOpened = logWasOpened || isAt(logFile, filePath); }

private:
    enum Name { mainFile, logFile, indexFile, journalFile };
    static constexpr const char* suffixes[] = { "", "-wal", "-shm", "-journal" };

    bool isAt(std::size_t name, const char* filePath) const
    {
        return std::strncmp(filePath, path.c_str(), path.length()) == 0
            && std::strcmp(filePath + path.length(), suffixes[name]) == 0;
    }

    std::string nameFor(std::size_t name) const { return HeldFolder::nameOf(path) + suffixes[name]; }

    Verdict judge()
    {
        bool foreign = false;
        bool marked = false;
        bool fit = true;
        for (std::size_t name = 0; name < files.size(); ++name) {
            const CatalogueName& file = files[name].emplace(folder, nameFor(name));
            foreign = foreign || file.isForeign();
            marked = marked || file.isMarked();
            fit = fit && file.isFit();
        }
        if (!fit || !isJournalFit() || (foreign && geteuid() != 0) || !renewIndex() || (foreign && !takeOver()))
            return refused;
        return foreign || marked ? untrusted : trusted;
    }

    /// Refuses a journal that was another user's. Also refuses one of a transaction over several files: it names
    /// another file, which SQLite would remove, and no catalogue has such transactions.
    bool isJournalFit() const
    {
        const CatalogueName& journal = *files[journalFile];
        if (journal.isAbsent())
            return true;
        if (journal.isForeign() || journal.isMarked())
            return false;
        // The last bytes of a journal that names another file.
        static constexpr char endOfName[] = "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
        constexpr std::size_t length = sizeof endOfName - 1;
        const FileDescriptor file(folder.open(nameFor(journalFile), O_RDONLY | O_NONBLOCK));
        struct stat64 status;
        if (!file.isOpen() || fstat64(file.get(), &status) != 0 || !journal.covers(status))
            return false;
        char end[length];
        return pread64(file.get(), end, length, status.st_size - static_cast<off64_t>(length))
            != static_cast<ssize_t>(length)
            || std::memcmp(end, endOfName, length) != 0;
    }

    /// Removes an index that was another user's. The former owner may still have it open and could shorten it, which
    /// would kill the daemon: it maps the index. False when the index cannot be removed.
    bool renewIndex()
    {
        if (!files[indexFile]->isForeign() && !files[indexFile]->isMarked())
            return true;
        folder.remove(nameFor(indexFile));
        return files[indexFile].emplace(folder, nameFor(indexFile)).isAbsent();
    }

    bool takeOver()
    {
        return files[mainFile]->giveToRoot(CatalogueName::marked)
            && (!files[logFile]->isForeign() || files[logFile]->giveToRoot(CatalogueName::marked));
    }

    const std::string path;
    const HeldFolder folder;
    std::array<std::optional<CatalogueName>, std::size(suffixes)> files;
    const Verdict verdict;
    bool logWasOpened = false;
};

thread_local CatalogueAdmission::Files* CatalogueAdmission::current = nullptr;

CatalogueAdmission::CatalogueAdmission(const std::string& path)
    : files(std::make_unique<Files>(path))
{
    current = files.get();
}

CatalogueAdmission::~CatalogueAdmission() { current = nullptr; }

bool CatalogueAdmission::isRefused() const { return files->getVerdict() == Files::refused; }

bool CatalogueAdmission::isTrusted() const { return files->getVerdict() == Files::trusted; }

void CatalogueAdmission::trust() { files->trust(); }

bool CatalogueAdmission::allows(const char* path, const struct stat64& status)
{
    return current != nullptr ? current->allows(path, status) : !CatalogueName::isMarked(status);
}

void CatalogueAdmission::noteOpened(const char* path)
{
    if (current != nullptr)
        current->noteOpened(path);
}
