#include "db/CatalogueName.h"

#include "core/WithoutLinks.h"
#include "db/FitToOpen.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr mode_t permissionBits = 0777; // a program that is set-uid must not become root's
constexpr mode_t writableByOthers = 0022;
/// The mark of a file that is root's already and not yet looked into. This bit has no effect on a regular file. A log
/// has a mark of its own, since somebody could put it beside another catalogue.
constexpr mode_t notLookedInto = S_ISVTX;

} // namespace

CatalogueName::CatalogueName(const HeldFolder& folder, const std::string& name)
    : file(folder.open(name, O_PATH))
    , absent(!file.isOpen() && errno == ENOENT)
{
    if (!file.isOpen() || fstat64(file.get(), &status) != 0)
        status = {};
    if (S_ISREG(status.st_mode) && !hasItsName(file.get()))
        status = {};
}

bool CatalogueName::isFit() const { return absent || (S_ISREG(status.st_mode) && status.st_nlink == 1); }

bool CatalogueName::isForeign() const { return !absent && !isOwnUser(status.st_uid); }

bool CatalogueName::isMarked(const struct stat64& status)
{
    return S_ISREG(status.st_mode) && (status.st_mode & notLookedInto) != 0;
}

bool CatalogueName::covers(const struct stat64& opened) const
{
    return absent ? !isMarked(opened) : opened.st_dev == status.st_dev && opened.st_ino == status.st_ino;
}

bool CatalogueName::giveToRoot(Mark mark) const
{
    const std::string self = "/proc/self/fd/" + std::to_string(file.get());
    const mode_t kept = status.st_mode & permissionBits & ~(writableByOthers | notLookedInto);
    const mode_t mode = mark == marked ? kept | notLookedInto : kept;
    // The mode is set twice on purpose. Before the change of owner: a kill in between must not leave a file that is
    // root's and has no mark. After it: the change of owner may take the mark away.
    return absent
        || (chmod(self.c_str(), mode) == 0 && fchownat(file.get(), "", 0, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0
            && chmod(self.c_str(), mode) == 0);
}
