#include "ctl/ConfigurationPlace.h"

#include <libxml/uri.h>
#include <strings.h>
#include <sys/stat.h>

/// The path of a local file: address, as far as the XML library knows it; any other text as it is.
static std::string withoutScheme(const std::string& address)
{
    for (const std::string prefix : { "file://localhost/", "file:///", "file:/" }) {
        if (strncasecmp(address.c_str(), prefix.c_str(), prefix.length()) == 0 && address[prefix.length()] != '/')
            return address.substr(prefix.length() - 1);
    }
    return address;
}

std::string configurationPlace(const std::string& path)
{
    std::string place = withoutScheme(path);
    struct stat64 status;
    if (stat64(place.c_str(), &status) == 0)
        return place;
    char* const unescaped = xmlURIUnescapeString(path.c_str(), 0, nullptr);
    std::string other = unescaped == nullptr ? place : withoutScheme(unescaped);
    xmlFree(unescaped);
    return stat64(other.c_str(), &status) == 0 ? other : place;
}

bool isNoFile(const std::string& place)
{
    struct stat64 status;
    if (stat64(place.c_str(), &status) != 0)
        return place == "-" || place.find("://") != std::string::npos;
    return !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode);
}
