// The receiver behind /dev/log while the daemon is measured. It has to be quick: on a small machine what it costs is
// taken from the daemon. So it takes many lines with one call and drops the three that every folder of a walk sends; of
// the few others it prints the text behind the monotonic time of its arrival.
//
//     bench_log_sink SOCKET
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

constexpr unsigned batchSize = 64;
std::array<std::array<char, 8192>, batchSize> buffers;

bool startsWith(std::string_view text, std::string_view beginning)
{
    return text.substr(0, beginning.size()) == beginning;
}

void take(std::string_view datagram, const timespec& now)
{
    const std::size_t header = datagram.find(": "); // "<priority>date time name: text"
    std::string_view text = header == std::string_view::npos ? datagram : datagram.substr(header + 2);
    if (startsWith(text, "For folder ") || startsWith(text, "Add file count") || startsWith(text, "Add folder count"))
        return;
    while (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    std::printf("%lld.%09ld %.*s\n", static_cast<long long>(now.tv_sec), now.tv_nsec, static_cast<int>(text.size()),
        text.data());
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv)
{
    sockaddr_un address {};
    address.sun_family = AF_UNIX;
    if (argc != 2 || std::strlen(argv[1]) >= sizeof address.sun_path) {
        std::fprintf(stderr, "usage: bench_log_sink SOCKET\n");
        return 2;
    }
    prctl(PR_SET_PDEATHSIG, SIGTERM); // no receiver stays behind when the runner is killed
    std::memcpy(address.sun_path, argv[1], std::strlen(argv[1]) + 1);
    const int receiver = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (receiver < 0 || bind(receiver, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        std::perror("bench_log_sink");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);

    std::array<iovec, batchSize> parts {};
    std::array<mmsghdr, batchSize> messages {};
    for (unsigned i = 0; i < batchSize; ++i) {
        parts[i] = { buffers[i].data(), buffers[i].size() };
        messages[i].msg_hdr.msg_iov = &parts[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    for (;;) {
        const int received = recvmmsg(receiver, messages.data(), batchSize, MSG_WAITFORONE, nullptr);
        timespec now {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        for (int i = 0; i < received; ++i) {
            const auto index = static_cast<unsigned>(i);
            take({ buffers[index].data(), messages[index].msg_len }, now);
        }
    }
}
