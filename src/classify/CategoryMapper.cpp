#include "classify/CategoryMapper.h"

namespace oru::db {

namespace {

/// Looks at the first five characters alone, so that "videos/x" counts as video too.
int categoryOfMimeType(const std::string& mimeType)
{
    const std::string kind = mimeType.substr(0, 5);
    if (kind == "video")
        return CategoryMapper::categoryVideo;
    if (kind == "audio")
        return CategoryMapper::categoryAudio;
    if (kind == "image")
        return CategoryMapper::categoryImage;
    return CategoryMapper::categoryOther;
}

} // namespace

CategoryMapper& CategoryMapper::Instance()
{
    static CategoryMapper mapper;
    return mapper;
}

CategoryMapper::CategoryMapper()
{
    for (const std::string& mimeType : oru::util::MimeTypeMapper::Instance().MimeTypes())
        categories.insert({ mimeType, categoryOfMimeType(mimeType) });
}

int CategoryMapper::ExtensionToCategory(const std::string& extension) const
{
    const auto found = categories.find(oru::util::MimeTypeMapper::Instance().ExtensionToMimeType(extension));
    return found == categories.end() ? categoryOther : found->second;
}

} // namespace oru::db
