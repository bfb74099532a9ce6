#include "ctl/find/UnderFolder.h"

#include "ctl/LiesBelow.h"
#include "ctl/Problem.h"

#include <filesystem>
#include <functional>
#include <system_error>

namespace {

/// Absolute, without doubled slashes, dots and a slash at the end; empty for the root of all.
std::string tidy(const std::string& path)
{
    std::error_code error;
    std::string text = std::filesystem::absolute(path, error).lexically_normal().native();
    while (!text.empty() && text.back() == '/')
        text.pop_back();
    return text;
}

std::string resolved(const std::string& path)
{
    std::error_code error;
    const std::filesystem::path real = std::filesystem::weakly_canonical(path.empty() ? "/" : path, error);
    return error ? tidy(path) : tidy(real.native());
}

std::vector<SearchedVolume> select(const std::string& folder, const std::vector<ConfiguredVolume>& volumes,
    const std::function<std::string(const std::string&)>& rootOf)
{
    std::vector<SearchedVolume> chosen;
    for (const ConfiguredVolume& volume : volumes) {
        const std::string root = rootOf(volume.root);
        if (liesBelow(root, folder))
            chosen.push_back({ volume, std::nullopt });
        else if (folder == root || liesBelow(folder, root))
            chosen.push_back({ volume, folder.substr(root.size()) });
    }
    return chosen;
}

} // namespace

std::vector<SearchedVolume> everywhere(const std::vector<ConfiguredVolume>& volumes)
{
    std::vector<SearchedVolume> chosen;
    chosen.reserve(volumes.size());
    for (const ConfiguredVolume& volume : volumes)
        chosen.push_back({ volume, std::nullopt });
    return chosen;
}

std::vector<SearchedVolume> below(const std::string& folder, const std::vector<ConfiguredVolume>& volumes)
{
    if (folder.empty())
        throw Problem("--under", "The folder is empty", "Name a folder, or leave the option out to search everything");
    std::vector<SearchedVolume> chosen = select(tidy(folder), volumes, tidy);
    if (chosen.empty())
        chosen = select(resolved(folder), volumes, resolved);
    if (chosen.empty()) {
        std::string roots;
        for (const ConfiguredVolume& volume : volumes)
            roots += (roots.empty() ? "" : ", ") + volume.root + "/";
        throw Problem(folder, "This folder is in none of the volumes that are searched", "Name one in " + roots);
    }
    return chosen;
}
