#include "ctl/units/UnitDropIn.h"

#include "core/FileDescriptor.h"
#include "ctl/FolderLook.h"
#include "ctl/LiesBelow.h"
#include "ctl/Text.h"
#include "ctl/units/LinkedPath.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>

#include <algorithm>
#include <filesystem>

namespace {

/// Whether a line of a unit can have it: systemd takes nothing but UTF-8, and has no escape for the end of a line.
bool fitsIntoAUnit(const std::string& path) { return isUtf8(path) && path.find_first_of("\r\n") == std::string::npos; }

std::string withoutSpecifiers(const std::string& path)
{
    std::string text;
    for (const char byte : path)
        text.append(byte == '%' ? 2 : 1, byte);
    return text;
}

/// For a setting that takes a list of words.
std::string word(const std::string& path)
{
    std::string text = "\"";
    for (const char byte : withoutSpecifiers(path)) {
        if (byte == '"' || byte == '\\')
            text += '\\';
        text += byte;
    }
    return text + '"';
}

/// Whether a look into the folder would have it mounted first. At the boot systemd waits for this program meanwhile,
/// and would wait for itself.
bool wouldBeMountedByALook(const std::string& folder)
{
    const FileDescriptor descriptor(open(folder.c_str(), O_PATH | O_CLOEXEC));
    struct statfs status;
    return descriptor.isOpen() && fstatfs(descriptor.get(), &status) == 0 && status.f_type == AUTOFS_SUPER_MAGIC;
}

std::string folderOf(const std::string& path) { return std::filesystem::path(path).parent_path().string(); }

/// The folders of a volume: its root, also by the name that the daemon uses, and that of a catalogue which a link has
/// put elsewhere.
std::vector<std::string> foldersOf(const ConfiguredVolume& volume)
{
    const std::string root = volume.root.empty() ? "/" : volume.root;
    const std::string linkedRoot = linkedPath(root);
    std::vector<std::string> folders = { linkedRoot };
    if (!hasOddElements(root) && root != linkedRoot)
        folders.push_back(root);
    if (wouldBeMountedByALook(linkedRoot))
        return folders;
    const std::string catalogue = volume.cataloguePath();
    for (const std::string& folder : { linkedPath(folderOf(catalogue)), folderOf(linkedPath(catalogue)) }) {
        const bool isKnown = std::any_of(folders.begin(), folders.end(), [&folder](const std::string& known) {
            return folder == known || liesBelow(folder, known == "/" ? "" : known);
        });
        if (!isKnown)
            folders.push_back(folder);
    }
    return folders;
}

} // namespace

UnitDropIn::UnitDropIn(const std::string& configuration, const std::vector<ConfiguredVolume>& volumes)
    : source(std::filesystem::absolute(configuration).string())
{
    for (const ConfiguredVolume& volume : volumes) {
        const std::string subject = "volume '" + volume.name + "'";
        const std::vector<std::string> folders = foldersOf(volume);
        if (!volume.root.empty() && volume.root.front() != '/') {
            unnamed.emplace_back(subject, "The root '" + volume.root + "' does not begin with a slash",
                "Write its absolute path into the configuration");
        } else if (!std::all_of(folders.begin(), folders.end(), fitsIntoAUnit)) {
            unnamed.emplace_back(subject,
                "systemd cannot name the root '" + volume.root + "': it is not UTF-8, or has a line end",
                "Mount the volume under another name, or see to it that it is mounted before the daemon starts");
        } else {
            places.insert(places.end(), folders.begin(), folders.end());
        }
    }
}

std::string UnitDropIn::text() const
{
    std::string content = "# Made by 'quarrowctl units'. To be made again after every change of the configuration.\n"
                          "[Unit]\n";
    if (fitsIntoAUnit(source))
        content += "SourcePath=" + withoutSpecifiers(source) + "\nRequiresMountsFor=" + word(source) + "\n";
    content += "# An empty mount point would be catalogued as an empty volume.\n";
    for (const std::string& place : places)
        content += "RequiresMountsFor=" + word(place) + "\n";
    content += "\n[Service]\n"
               "# Without this quarrow.service does not start.\n"
               "Environment=QUARROW_VOLUMES_NAMED=yes\n";
    // systemd takes the stricter one of two settings for the root of all.
    if (!unnamed.empty() || std::find(places.begin(), places.end(), "/") != places.end())
        return content;
    content += "ProtectSystem=strict\n";
    for (const std::string& place : places)
        content += "ReadWritePaths=-" + word(place) + "\n";
    return content;
}
