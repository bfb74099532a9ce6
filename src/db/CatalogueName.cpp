#include "db/CatalogueName.h"

#include "core/WithoutLinks.h"
#include "db/FitToOpen.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace {

constexpr mode_t permissionBits = 0777; // without the set-uid bit: no such program may become root's
constexpr mode_t writableByOthers = 0022;
/// The mark of a file that belongs to root by now, but whose content has not been checked. This bit has no effect on a
/// regular file. The log carries a mark too, because somebody could put it beside another catalogue.
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
    // The mode is set twice on purpose. It is set before the change of owner, so that a kill in between leaves no file
    // of root's without the mark. It is set after it again, because the change of owner may clear the mark.
    return absent
        || (chmod(self.c_str(), mode) == 0 && fchownat(file.get(), "", 0, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0
            && chmod(self.c_str(), mode) == 0);
}
