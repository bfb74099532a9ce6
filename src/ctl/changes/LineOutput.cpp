#include "ctl/changes/LineOutput.h"

#include "ctl/Problem.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

namespace {

constexpr std::size_t mostGathered = 8 << 20;

} // namespace

LineOutput::LineOutput(int stopDescriptor)
    : stop(stopDescriptor)
{
}

void LineOutput::add(const std::string& line)
{
    gathered += line;
    if (gathered.size() >= mostGathered)
        writeOut();
}

void LineOutput::finish()
{
    writeOut();
    fdatasync(STDOUT_FILENO); // a pipe or a terminal refuses, which is no failure
}

void LineOutput::takeBack(std::size_t mark)
{
    if (mark >= written)
        gathered.resize(std::min(gathered.size(), mark - written));
}

void LineOutput::writeOut()
{
    for (std::size_t done = 0; done < gathered.size();) {
        std::size_t length = gathered.size() - done;
        if (stop >= 0) {
            waitForReader();
            length = std::min<std::size_t>(length, PIPE_BUF); // a pipe that is ready takes that much without waiting
        }
        const ssize_t taken = write(STDOUT_FILENO, gathered.data() + done, length);
        if (taken < 0 && errno != EINTR && errno != EAGAIN)
            throw Problem("standard output", std::string("Not all of it could be written: ") + std::strerror(errno));
        done += taken < 0 ? 0 : static_cast<std::size_t>(taken);
    }
    written += gathered.size();
    gathered.clear();
}

void LineOutput::waitForReader() const
{
    pollfd waits[] = { { STDOUT_FILENO, POLLOUT, 0 }, { stop, POLLIN, 0 } };
    while (poll(waits, 2, -1) < 0 && errno == EINTR) { }
    if (waits[1].revents != 0)
        throw StopRequested();
}
