#include "classify/CategoryOf.h"

#include "classify/CategoryMapper.h"

int categoryOf(const std::string& fileName)
{
    const std::string::size_type dot = fileName.rfind('.');
    if (dot == std::string::npos || dot + 1 == fileName.length())
        return oru::db::CategoryMapper::categoryOther;
    return oru::db::CategoryMapper::Instance().ExtensionToCategory(fileName.substr(dot + 1));
}
