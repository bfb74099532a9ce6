#include "db/CatalogueAdmission.h"

#include "core/HeldFolder.h"
#include "db/CatalogueName.h"

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

    void trust() const
    {
        for (const auto& file : files) {
            if (file->isMarked() || file->isForeign())
                file->giveToRoot(CatalogueName::unmarked);
        }
    }

    bool covers(const char* opened, int descriptor) const
    {
        if (std::strncmp(opened, path.c_str(), path.length()) != 0)
            return true;
        struct stat64 status;
        for (std::size_t name = 0; name < files.size(); ++name) {
            if (std::strcmp(opened + path.length(), suffixes[name]) == 0)
                return fstat64(descriptor, &status) == 0 && files[name]->covers(status);
        }
        return true;
    }

private:
    enum Name { mainFile, logFile, indexFile, journalFile };
    static constexpr const char* suffixes[] = { "", "-wal", "-shm", "-journal" };

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
        // A journal of somebody else could name any file, for SQLite to remove it.
        if (!fit || files[journalFile]->isForeign() || (foreign && !takeOver()))
            return refused;
        return foreign || marked ? untrusted : trusted;
    }

    bool takeOver()
    {
        if (geteuid() != 0)
            return false;
        // The former owner may still have the index open, and could cut it off under the daemon, which maps it.
        if (files[indexFile]->isForeign()) {
            folder.remove(nameFor(indexFile));
            if (!files[indexFile].emplace(folder, nameFor(indexFile)).isAbsent())
                return false;
        }
        return files[mainFile]->giveToRoot(CatalogueName::marked)
            && (!files[logFile]->isForeign() || files[logFile]->giveToRoot(CatalogueName::marked));
    }

    const std::string path;
    const HeldFolder folder;
    std::array<std::optional<CatalogueName>, std::size(suffixes)> files;
    const Verdict verdict;
};

static thread_local const CatalogueAdmission* currentAdmission = nullptr;

CatalogueAdmission::CatalogueAdmission(const std::string& path)
    : files(std::make_unique<const Files>(path))
{
    currentAdmission = this;
}

CatalogueAdmission::~CatalogueAdmission() { currentAdmission = nullptr; }

const CatalogueAdmission* CatalogueAdmission::current() { return currentAdmission; }

bool CatalogueAdmission::isRefused() const { return files->getVerdict() == Files::refused; }

bool CatalogueAdmission::isTrusted() const { return files->getVerdict() == Files::trusted; }

void CatalogueAdmission::trust() const { files->trust(); }

bool CatalogueAdmission::covers(const char* path, int descriptor) const { return files->covers(path, descriptor); }
