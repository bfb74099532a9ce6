#include "ctl/CatalogueUri.h"

#include <fmt/format.h>

#include <cctype>

std::string catalogueUri(const std::string& path)
{
    std::string uri = "file://";
    for (const char c : path) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '/' || c == '.' || c == '-' || c == '_' || (byte < 0x80 && std::isalnum(byte) != 0))
            uri += c;
        else
            uri += fmt::format("%{:02X}", byte);
    }
    return uri + "?mode=ro&readonly_shm=1";
}
