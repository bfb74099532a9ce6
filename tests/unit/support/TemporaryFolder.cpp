#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

TemporaryFolder::TemporaryFolder()
    : folder((fs::temp_directory_path() / "quarrow-test-XXXXXX").string())
{
    if (mkdtemp(folder.data()) == nullptr)
        throw std::runtime_error("no temporary folder " + folder);
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code ignored;
    fs::remove_all(folder, ignored);
}

std::string TemporaryFolder::makeFolder(const std::string& below) const
{
    fs::create_directories(path(below));
    return path(below);
}

std::string TemporaryFolder::writeFile(const std::string& below, const std::string& content) const
{
    fs::create_directories(fs::path(path(below)).parent_path());
    std::ofstream file(path(below), std::ios::binary);
    file << content;
    file.close();
    EXPECT_TRUE(file.good()) << path(below);
    return path(below);
}

std::string TemporaryFolder::readFile(const std::string& below) const
{
    std::ifstream file(path(below), std::ios::binary);
    EXPECT_TRUE(file.good()) << path(below);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void TemporaryFolder::remove(const std::string& below) const { fs::remove_all(path(below)); }

bool TemporaryFolder::exists(const std::string& below) const { return fs::exists(fs::symlink_status(path(below))); }
