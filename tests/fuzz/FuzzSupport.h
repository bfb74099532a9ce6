#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What every fuzz target stands on. A target turns the fuzzer's bytes into calls, and a broken promise into an abort,
/// which the fuzzer reports together with the bytes that led to it.

/// Ends the program with the place and the broken promise unless `kept`.
void requirePromise(bool kept, const char* promise, const char* file, int line);
#define REQUIRE(promise) requirePromise(static_cast<bool>(promise), #promise, __FILE__, __LINE__)

/// The fuzzer's bytes, taken from the front.
class InputBytes {
public:
    InputBytes(const std::uint8_t* data, std::size_t size);

    /// The next byte; 0 when there is none left.
    std::uint8_t takeByte();
    /// The next `count` bytes, or as many as there are left.
    std::string take(std::size_t count);
    /// Up to and without the next newline, which is taken as well.
    std::string takeLine();
    std::string takeRest();
    bool isEmpty() const { return bytes.empty(); }

private:
    std::string bytes;
};

/// A folder for the files of one target, made on first use and removed with everything in it when the program ends.
class PrivateFolder {
public:
    PrivateFolder();
    ~PrivateFolder();
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    std::string path(const std::string& name) const { return folder + "/" + name; }
    /// Replaces the file by a new one with this content.
    void write(const std::string& name, const std::string& content) const;
    std::string read(const std::string& name) const;
    /// The names in the folder, in byte order.
    std::vector<std::string> names() const;

private:
    std::string folder;
};

/// The targets have a syslog() of their own, so that nothing reaches the machine's. Everything logged since the last
/// call, priorities included, in order: "3 text" for an error, "6 text" for information.
std::vector<std::string> takeLog();
