#pragma once

#include "classify/MimeTypeMapper.h"

#include <map>
#include <string>

namespace oru::db {

/// Maps a file's extension to the media category of its catalogue row: 1 video, 2 audio, 3 image, 4 other.
/// Built once from the MIME table, then only read: look-ups need no lock.
class CategoryMapper {
public:
    /// The mapper that the daemon looks files up in. Safe from any thread.
    static CategoryMapper& Instance();

    CategoryMapper();

    /// The category of an extension, given as it stands in the file's name and without its dot; 4 when unknown.
    int ExtensionToCategory(const std::string& extension) const;

    /// Folders are always "other", whatever is known about them.
    template <typename... Anything>
    int FolderToCategory(const Anything&...) const
    {
        return categoryOther;
    }

    static constexpr int categoryVideo = 1;
    static constexpr int categoryAudio = 2;
    static constexpr int categoryImage = 3;
    static constexpr int categoryOther = 4;

private:
    std::map<std::string, int> categories; ///< MIME type -> category
};

} // namespace oru::db
