#include "FuzzSupport.h"

#include "db/VolumeDBManager.h"

/// The bytes are the path.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static VolumeDBManager catalogue; // none is open: the helpers need none
    const std::string path(reinterpret_cast<const char*>(data), size);

    int elements = 0;
    std::string last; // what stands after the last slash
    bool isBetweenElements = true;
    for (const char c : path) {
        if (c == '/') {
            last.clear();
        } else {
            last += c;
            elements += isBetweenElements ? 1 : 0;
        }
        isBetweenElements = c == '/';
    }
    REQUIRE(catalogue.getPathElementCount(path) == elements - 1);
    REQUIRE(catalogue.getLastElementOfPathFromFullPath(path) == last);

    // Slashes without anything between them do not count; what follows one does.
    REQUIRE(catalogue.getPathElementCount("//" + path + "//") == elements - 1);
    REQUIRE(catalogue.getPathElementCount(path + "/x") == elements);
    REQUIRE(catalogue.getLastElementOfPathFromFullPath(path + "/x") == "x");
    REQUIRE(catalogue.getLastElementOfPathFromFullPath(path + "/").empty());
    REQUIRE(takeLog().empty());
    return 0;
}
