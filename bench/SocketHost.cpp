// SocketHost PROCESSES DESCRIPTORS SOCKETS: processes with open files, for the benchmark of the
// socket table. Each has so many descriptors, and together they have so many sockets open for
// others: two thirds listen on TCP, one third is bound on UDP, on the loopback. Prints "ready" and
// holds them until its standard input is closed.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

bool OpenSocket(int type) {
    const int opened = ::socket(AF_INET, type, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return opened >= 0 &&
           ::bind(opened, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
           (type != SOCK_STREAM || ::listen(opened, 1) == 0);
}

/// One process: its sockets, then files until it has enough.
int Hold(int descriptors, int sockets, int ready) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int i = 0; i < sockets; ++i) {
        if (!OpenSocket(i % 3 == 2 ? SOCK_DGRAM : SOCK_STREAM)) {
            return 1;
        }
    }
    while (::open("/dev/null", O_RDONLY) < descriptors) {
    }
    if (::write(ready, "x", 1) != 1) {
        return 1;
    }
    for (;;) {
        ::pause();
    }
}

}  // namespace

int main(int count, char** arguments) {
    if (count != 4) {
        std::fprintf(stderr, "usage: SocketHost PROCESSES DESCRIPTORS SOCKETS\n");
        return 2;
    }
    const int processes = std::atoi(arguments[1]);
    const int sockets = std::atoi(arguments[3]);
    int ready[2];
    if (::pipe(ready) != 0) {
        return 1;
    }
    std::vector<pid_t> children;
    for (int i = 0; i < processes; ++i) {
        const int share = sockets * (i + 1) / processes - sockets * i / processes;
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(Hold(std::atoi(arguments[2]), share, ready[1]));
        }
        children.push_back(child);
    }
    char byte = 0;
    for (int i = 0; i < processes; ++i) {
        if (::read(ready[0], &byte, 1) != 1) {
            return 1;
        }
    }
    std::puts("ready");
    std::fflush(stdout);
    while (::read(STDIN_FILENO, &byte, 1) > 0) {
    }
    for (const pid_t child : children) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    return 0;
}
