#include "ctl/units/UnitDropIn.h"

#include "ctl/FolderLook.h"
#include "ctl/Text.h"

#include <algorithm>
#include <filesystem>

namespace {

/// Whether a line of a unit can have it: systemd takes nothing but UTF-8, and has no escape for the end of a line.
bool fitsIntoAUnit(const std::string& path) { return isUtf8(path) && path.find('\n') == std::string::npos; }

/// As a setting takes it that is the rest of its line.
std::string withoutSpecifiers(const std::string& path)
{
    std::string text;
    for (const char byte : path)
        text.append(byte == '%' ? 2 : 1, byte);
    return text;
}

/// As a setting takes it that is a list of words.
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

/// The folders of a volume, by the names that the daemon uses and by those that links lead to: the root, and where the
/// catalogue is.
std::vector<std::string> foldersOf(const ConfiguredVolume& volume)
{
    const std::string root = volume.root.empty() ? "/" : volume.root;
    const std::string state = volume.root + "/.quarrow";
    const std::string canonicalRoot = canonicalPath(root);
    std::vector<std::string> folders = { canonicalRoot };
    if (!hasOddElements(root) && root != canonicalRoot)
        folders.push_back(root);
    std::error_code none;
    if (std::filesystem::is_symlink(state, none))
        folders.push_back(canonicalPath(state));
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
        content += "SourcePath=" + withoutSpecifiers(source) + "\n";
    content += "# An empty mount point would be catalogued as an empty volume.\n";
    for (const std::string& place : places)
        content += "RequiresMountsFor=" + word(place) + "\n";
    if (!unnamed.empty())
        return content;
    content += "\n[Service]\n"
               "ProtectSystem=strict\n";
    for (const std::string& place : places)
        content += "ReadWritePaths=-" + word(place) + "\n";
    return content;
}
