#include "core/DurableFile.h"

#include <unistd.h>

bool writeDurably(int descriptor, const std::string& bytes)
{
    std::string::size_type done = 0;
    while (done < bytes.length()) {
        const ssize_t n = write(descriptor, bytes.data() + done, bytes.length() - done);
        if (n < 0)
            return false;
        done += static_cast<std::string::size_type>(n);
    }
    return fsync(descriptor) == 0;
}
