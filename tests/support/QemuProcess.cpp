#include "support/QemuProcess.h"

#include "support/WaitUntil.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstring>

namespace TestSupport {

namespace {

constexpr const char* kProgram = "/usr/bin/qemu-system-x86_64";
constexpr const char* kPrompt = "(qemu) ";
constexpr int kPatienceMs = 20000;

bool EndsWithPrompt(const std::string& text) {
    const std::string prompt = kPrompt;
    return text.size() >= prompt.size() &&
           text.compare(text.size() - prompt.size(), prompt.size(), prompt) == 0;
}

std::string ReadToPrompt(int link) {
    std::string text;
    std::array<char, 4096> buffer;
    pollfd waited{link, POLLIN, 0};
    while (!EndsWithPrompt(text) && ::poll(&waited, 1, kPatienceMs) > 0) {
        const ssize_t size = ::read(link, buffer.data(), buffer.size());
        if (size <= 0) {
            break;
        }
        text.append(buffer.data(), static_cast<std::size_t>(size));
    }
    return text;
}

}  // namespace

QemuProcess::QemuProcess(const std::vector<std::string>& arguments) {
    std::vector<std::string> all = {kProgram, "-accel",  "tcg",  "-m",          "32", "-display",
                                    "none",   "-serial", "none", "-nodefaults", "-S", "-monitor"};
    all.push_back("unix:" + m_folder / "monitor" + ",server,nowait");
    all.insert(all.end(), arguments.begin(), arguments.end());
    m_child = std::make_unique<ChildProcess>(all);
    int link = -1;
    EXPECT_TRUE(WaitUntil([&] { return (link = Connect()) >= 0; }, std::chrono::seconds(20)))
        << m_child->Errors();
    ::close(link);
}

std::string QemuProcess::Command(const std::string& text) const {
    const int link = Connect();
    if (link < 0) {
        ADD_FAILURE() << "QEMU's monitor does not answer: " << m_child->Errors();
        return "";
    }
    ReadToPrompt(link);
    const std::string line = text + '\n';
    EXPECT_EQ(::write(link, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    std::string answer = ReadToPrompt(link);
    ::close(link);
    return answer;
}

std::string QemuProcess::Missing() {
    return ::access(kProgram, X_OK) == 0 ? "" : std::string(kProgram) + " is not installed";
}

int QemuProcess::Connect() const {
    const int link = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = m_folder / "monitor";
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    if (::connect(link, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(link);
        return -1;
    }
    return link;
}

}  // namespace TestSupport
