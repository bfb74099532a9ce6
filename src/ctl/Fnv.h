#pragma once

#include <cstdint>
#include <string_view>

/// A hash of the bytes that is the same on every machine and in every release (FNV-1a).
constexpr std::uint64_t fnv(std::string_view bytes)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : bytes)
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    return hash;
}
