#include "ctl/find/RowOutput.h"

#include "ctl/Problem.h"
#include "ctl/Text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iterator>
#include <string_view>
#include <unistd.h>

std::string absolutePath(const ConfiguredVolume& volume, const Row& row)
{
    const std::string path = volume.root + row.path;
    return path.empty() ? "/" : path;
}

void RowOutput::add(const ConfiguredVolume& volume, const Row& row)
{
    if (form.kind == Form::json) {
        addJson(volume, row);
        return;
    }
    if (form.detailed)
        fmt::format_to(std::back_inserter(text), "{:>15}  {}  ", row.isFolder ? "-" : std::to_string(row.size),
            localTime(row.changed()));
    const std::string path = absolutePath(volume, row);
    text += form.readable ? visible(path) : path;
    text += form.end;
}

void RowOutput::addJson(const ConfiguredVolume& volume, const Row& row)
{
    nlohmann::ordered_json object;
    setBytes(object, "volume", volume.name);
    object["type"] = row.isFolder ? "folder" : "file";
    setBytes(object, "path", absolutePath(volume, row));
    if (!row.isFolder) {
        object["size"] = row.size;
        object["category"] = categoryName(row.category);
    }
    object["modified"] = row.modified;
    object["changed"] = row.changed();
    object["deleted"] = row.isDeleted;
    text += jsonText(object);
    text += '\n';
}

void RowOutput::add(const std::string& line) { text += line + form.end; }

void RowOutput::flush()
{
    // Whoever started this program may have had the signal ignored.
    std::signal(SIGPIPE, SIG_DFL);
    for (std::string_view rest = text; !rest.empty();) {
        const ssize_t written = write(STDOUT_FILENO, rest.data(), rest.size());
        if (written >= 0)
            rest.remove_prefix(static_cast<std::size_t>(written));
        else if (errno != EINTR)
            throw Problem("standard output", std::string("Not all of it could be written: ") + std::strerror(errno));
    }
    text.clear();
}
