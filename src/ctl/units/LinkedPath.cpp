#include "ctl/units/LinkedPath.h"

#include <filesystem>
#include <list>

namespace {

constexpr int mostLinks = 40; // as many as the kernel follows

namespace fs = std::filesystem;

void putInFront(std::list<std::string>& elements, const fs::path& path)
{
    std::list<std::string> more;
    for (const fs::path& element : path.relative_path())
        more.push_back(element.string());
    elements.splice(elements.begin(), more);
}

} // namespace

std::string linkedPath(const std::string& path)
{
    std::list<std::string> left;
    putInFront(left, path);
    fs::path found = "/";
    int links = 0;
    while (!left.empty()) {
        const std::string element = left.front();
        left.pop_front();
        if (element.empty() || element == ".")
            continue;
        if (element == "..") {
            found = found.parent_path();
            continue;
        }
        std::error_code isNoLink;
        const fs::path target = fs::read_symlink(found / element, isNoLink);
        if (isNoLink) {
            found /= element;
            continue;
        }
        if (++links > mostLinks)
            return path;
        if (target.is_absolute())
            found = "/";
        putInFront(left, target);
    }
    return found.string();
}
