// hostile TRICK PROGRAM ARG...: runs a program, with these arguments from its name on, in a way in
// which somebody who broke out of a virtual machine might hope not to be seen. Ends with the
// program's status.

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kUsage = 2;
constexpr int kFailed = 3;

// What the kernel accepts as one argument at the most: MAX_ARG_STRLEN, its end included
// (linux/binfmts.h).
constexpr std::size_t kLongestArgument = 128 * 1024 - 1;

using Arguments = std::vector<std::string>;

std::vector<char*> Pointers(const Arguments& arguments) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// What is to be run.
struct Order {
    std::string m_program;
    Arguments m_arguments;

    [[noreturn]] void Run() const {
        ::execv(m_program.c_str(), Pointers(m_arguments).data());
        std::perror(m_program.c_str());
        ::_exit(kFailed);
    }
};

int WaitFor(pid_t child) {
    int status = 0;
    return child > 0 && ::waitpid(child, &status, __WALL) == child && WIFEXITED(status)
               ? WEXITSTATUS(status)
               : kFailed;
}

/// Runs something in a child and waits for it.
template <typename Act>
int InChild(const Act& act) {
    const pid_t child = ::fork();
    if (child == 0) {
        act();
        ::_exit(kFailed);
    }
    return WaitFor(child);
}

int Fork(const Order& order) {
    return InChild([&] { order.Run(); });
}

/// The child of a child of another session, whose parent is gone when it runs the program.
int DoubleFork(const Order& order) {
    return InChild([&] {
        ::setsid();
        const pid_t middle = ::getpid();
        if (::fork() == 0) {
            while (::getppid() == middle) {
                ::sched_yield();
            }
            order.Run();
        }
        ::_exit(0);
    });
}

/// A child that the kernel gives to our parent.
int CloneParent(const Order& order) {
    if (::syscall(SYS_clone, CLONE_PARENT | SIGCHLD, 0, 0, 0, 0) == 0) {
        order.Run();
    }
    return 0;
}

int Vfork(const Order& order) {
    const std::vector<char*> arguments = Pointers(order.m_arguments);
    const pid_t child = ::vfork();
    if (child == 0) {
        ::execv(order.m_program.c_str(), arguments.data());
        ::_exit(kFailed);
    }
    return WaitFor(child);
}

/// A second thread runs the program, and so replaces the first.
int FromThread(const Order& order) {
    return InChild([&] { std::thread([&] { order.Run(); }).join(); });
}

/// A copy of the program that no folder holds.
int CopyTo(int copy, const Order& order) {
    const int source = ::open(order.m_program.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status {};
    if (copy < 0 || source < 0 || ::fstat(source, &status) != 0) {
        return kFailed;
    }
    while (::sendfile(copy, source, nullptr, static_cast<std::size_t>(status.st_size)) > 0) {
    }
    ::close(source);
    return 0;
}

int RunDescriptor(int program, const Order& order) {
    return InChild([&] {
        ::syscall(SYS_execveat, program, "", Pointers(order.m_arguments).data(), environ,
                  AT_EMPTY_PATH);
    });
}

int FromMemory(const Order& order) {
    const int copy = ::memfd_create("nothing", MFD_CLOEXEC);
    return CopyTo(copy, order) == 0 ? RunDescriptor(copy, order) : kFailed;
}

/// A copy that is deleted before it runs.
int Deleted(const Order& order) {
    std::string path = "/var/tmp/hostile-XXXXXX";
    const int copy = ::mkostemp(path.data(), O_CLOEXEC);
    if (CopyTo(copy, order) != 0 || ::fchmod(copy, 0700) != 0) {
        return kFailed;
    }
    const int program = ::open(path.c_str(), O_PATH | O_CLOEXEC);
    ::close(copy);  // a file that is open for writing cannot run
    ::unlink(path.c_str());
    return RunDescriptor(program, order);
}

int Renamed(const Order& order) {
    ::prctl(PR_SET_NAME, "kworker/0:1", 0, 0, 0);
    return Fork(order);
}

int InNamespaces(const Order& order) {
    if (::unshare(CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWUTS | CLONE_NEWIPC) != 0) {
        return kFailed;
    }
    return Fork(order);
}

/// The whole host once more, in a folder that becomes the root.
int InAnotherRoot(const Order& order) {
    std::string folder = "/var/tmp/hostile-XXXXXX";
    if (::mkdtemp(folder.data()) == nullptr || ::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("/", folder.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        return kFailed;
    }
    const int status = InChild([&] {
        if (::chroot(folder.c_str()) == 0 && ::chdir("/") == 0) {
            order.Run();
        }
    });
    ::umount2(folder.c_str(), MNT_DETACH);
    ::rmdir(folder.c_str());
    return status;
}

int WithLongArgument(Order order) {
    order.m_arguments.emplace_back(kLongestArgument, 'x');
    return Fork(order);
}

int WithOddArguments(Order order) {
    order.m_arguments.emplace_back("\x1b[31mred\x1b[0m\r\n\"quoted\"\\ \xff\xfe \xe2\x80\xae end");
    return Fork(order);
}

int WithoutArguments(Order order) {
    order.m_arguments.clear();
    return Fork(order);
}

/// One process for each is alive when the program runs below the last of them.
int InACrowd(const Order& order, int crowd) {
    std::vector<pid_t> members;
    for (int i = 0; i < crowd; ++i) {
        const pid_t member = ::fork();
        if (member == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
            ::pause();
            ::_exit(0);
        }
        if (member < 0) {
            std::perror("fork");
            break;
        }
        members.push_back(member);
    }
    const int status = static_cast<int>(members.size()) == crowd ? Fork(order) : kFailed;
    for (const pid_t member : members) {
        ::kill(member, SIGKILL);
        ::waitpid(member, nullptr, 0);
    }
    return status;
}

/// Each process starts the next, down to the one that runs the program.
int InAChain(const Order& order, int links) {
    return links == 0 ? Fork(order) : InChild([&] { ::_exit(InAChain(order, links - 1)); });
}

const std::map<std::string, int (*)(const Order&)> kTricks = {
    {"fork", Fork},
    {"double-fork", DoubleFork},
    {"clone-parent", CloneParent},
    {"vfork", Vfork},
    {"thread", FromThread},
    {"memory", FromMemory},
    {"deleted", Deleted},
    {"renamed", Renamed},
    {"namespaces", InNamespaces},
    {"root", InAnotherRoot},
    {"long", [](const Order& order) { return WithLongArgument(order); }},
    {"odd", [](const Order& order) { return WithOddArguments(order); }},
    {"none", [](const Order& order) { return WithoutArguments(order); }},
    {"crowd", [](const Order& order) { return InACrowd(order, 19900); }},
    {"chain", [](const Order& order) { return InAChain(order, 500); }},
};

}  // namespace

int main(int count, char** arguments) {
    const auto trick = count < 4 ? kTricks.end() : kTricks.find(arguments[1]);
    if (trick == kTricks.end()) {
        std::fprintf(stderr, "usage: hostile TRICK PROGRAM ARG...\n");
        return kUsage;
    }
    return trick->second({arguments[2], Arguments(arguments + 3, arguments + count)});
}
