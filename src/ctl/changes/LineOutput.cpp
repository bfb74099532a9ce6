#include "ctl/changes/LineOutput.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t mostGathered = 8 << 20;
constexpr std::size_t pieceOfSpool = 1 << 20;

int openTemporaryFile()
{
    const char* const folder = std::getenv("TMPDIR");
    return open(folder != nullptr && *folder != '\0' ? folder : "/tmp", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
}

} // namespace

OutputFailure::OutputFailure(const std::string& reason)
    : Problem("standard output", "Not all of it could be written: " + reason)
{
}

LineOutput::LineOutput(int stopDescriptor)
    : stop(stopDescriptor)
    , spoolFile(openTemporaryFile())
{
}

void LineOutput::add(const std::string& line)
{
    gathered += line;
    if (gathered.size() >= mostGathered && !spool())
        send();
}

/// Moves what is in memory behind what is in the file. False when the file does not take it.
bool LineOutput::spool()
{
    for (std::size_t done = 0; done < gathered.size();) {
        const auto at = static_cast<off_t>(spooled + done);
        const ssize_t taken = pwrite(spoolFile.get(), gathered.data() + done, gathered.size() - done, at);
        if (taken < 0)
            return false; // what it has taken of this is written over, or never read
        done += static_cast<std::size_t>(taken);
    }
    spooled += gathered.size();
    gathered.clear();
    return true;
}

void LineOutput::send()
{
    std::vector<char> piece(std::min(spooled, pieceOfSpool));
    for (std::size_t done = 0; done < spooled;) {
        const ssize_t length
            = pread(spoolFile.get(), piece.data(), std::min(piece.size(), spooled - done), static_cast<off_t>(done));
        if (length <= 0)
            throw OutputFailure("the temporary file cannot be read");
        write(piece.data(), static_cast<std::size_t>(length));
        done += static_cast<std::size_t>(length);
    }
    if (spooled > 0 && ftruncate(spoolFile.get(), 0) != 0)
        throw OutputFailure(std::strerror(errno));
    spooled = 0;
    write(gathered.data(), gathered.size());
    gathered.clear();
}

void LineOutput::finish()
{
    send();
    const bool canSync = fdatasync(STDOUT_FILENO) == 0 || errno == EINVAL || errno == EROFS || errno == ENOTSUP;
    if (!canSync) // a pipe or a terminal cannot, which is no failure
        throw OutputFailure(std::strerror(errno));
}

void LineOutput::takeBack(std::size_t mark)
{
    if (mark < written)
        return;
    const std::size_t kept = mark - written;
    if (kept < spooled)
        gathered.clear();
    else
        gathered.resize(std::min(gathered.size(), kept - spooled));
    spooled = std::min(spooled, kept);
}

void LineOutput::write(const char* bytes, std::size_t length)
{
    while (length > 0) {
        std::size_t portion = length;
        if (stop >= 0) {
            waitForReader();
            portion = std::min<std::size_t>(length, PIPE_BUF); // a pipe that is ready takes that much without waiting
        }
        const ssize_t taken = ::write(STDOUT_FILENO, bytes, portion);
        if (taken < 0 && errno == EAGAIN)
            waitForReader();
        else if (taken < 0 && errno != EINTR)
            throw OutputFailure(std::strerror(errno));
        if (taken <= 0)
            continue;
        bytes += taken;
        length -= static_cast<std::size_t>(taken);
        written += static_cast<std::size_t>(taken);
    }
}

/// A stop counts only while nobody reads: what is complete is still written, and the cursor behind it.
void LineOutput::waitForReader() const
{
    pollfd waits[] = { { STDOUT_FILENO, POLLOUT, 0 }, { stop, POLLIN, 0 } };
    while (poll(waits, stop >= 0 ? 2 : 1, -1) < 0 && errno == EINTR) { }
    if (waits[0].revents == 0 && waits[1].revents != 0)
        throw StopRequested();
}
