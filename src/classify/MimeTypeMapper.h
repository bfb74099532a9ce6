#pragma once

#include <list>
#include <map>
#include <string>

/// The catch-all MIME type. No look-up ever returns it: an unknown extension has the empty type.
static const std::string catchAllMimeType = "*/*";

namespace oru::util {

/// The table of MIME types and their file-name extensions. Built once, then only read: look-ups need no lock.
/// Types and extensions are compared byte by byte, so "JPG" is another extension than "jpg".
class MimeTypeMapper {
public:
    /// The table of the daemon, read on first use from "/usr/local/quarrow/mime_types.txt". Safe from any thread.
    static MimeTypeMapper& Instance();

    /// Reads the table at `path`. A file that cannot be read gives an empty table, silently.
    explicit MimeTypeMapper(const std::string& path);

    /// The MIME type that owns the extension (given without its dot); empty when no line lists it.
    std::string ExtensionToMimeType(const std::string& extension) const;

    /// The extensions on the first line of the type, in file order; always the same empty list for an unknown type.
    const std::list<std::string>& MimeTypeToExtensions(const std::string& mimeType) const;

    /// Every MIME type that has extensions, in byte order.
    std::list<std::string> MimeTypes() const;

    /// A debugging hook with its output switched off: does nothing.
    void DumpMaps() const;

private:
    static void ParseLine(const std::string& line, std::string& mimeType, std::list<std::string>& extensions);
    static std::string ExrtactWord(const std::string& line, std::string::size_type& position);
    static std::string::size_type SkipSpace(const std::string& line, std::string::size_type position);

    std::map<std::string, std::list<std::string>> mimeToExtensions;
    std::map<std::string, std::string> extensionToMime;
};

} // namespace oru::util
