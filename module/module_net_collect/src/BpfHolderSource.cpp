#include "BpfHolderSource.h"

#include "NetCollectLog.h"
#include "SocketHolder.h"

#include <Poco/Error.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <unistd.h>

#include <array>
#include <cerrno>

// The generated header is C.
#include "SocketHolders.skel.h"

namespace NetCollect {

namespace {

constexpr const char* kKernelTypes = "/sys/kernel/btf/vmlinux";

// Holders read at once.
constexpr std::size_t kRecords = 512;

// What libbpf has to say is covered by our own lines, which name the consequence.
int Mute(enum libbpf_print_level /*level*/, const char* /*format*/, va_list /*arguments*/) {
    return 0;
}

}  // namespace

void BpfHolderSource::SkeletonCloser::operator()(SocketHolders* skeleton) const {
    SocketHolders__destroy(skeleton);
}

BpfHolderSource::BpfHolderSource() = default;

BpfHolderSource::~BpfHolderSource() = default;

bool BpfHolderSource::Start() {
    if (::access(kKernelTypes, R_OK) != 0) {
        SDK::LogWarning(Logger(), "Finding holders with BPF needs kernel type information(%s): %s",
                        std::string(kKernelTypes), Poco::Error::getMessage(errno));
        return false;
    }
    // The print function is the whole process's, and this library may be unloaded: it is given
    // back.
    const libbpf_print_fn_t previous = libbpf_set_print(Mute);
    const bool loaded = Load();
    libbpf_set_print(previous);
    if (!loaded) {
        m_skeleton.reset();
    }
    return loaded;
}

bool BpfHolderSource::Load() {
    m_skeleton.reset(SocketHolders__open());
    if (m_skeleton == nullptr || SocketHolders__load(m_skeleton.get()) != 0 ||
        SocketHolders__attach(m_skeleton.get()) != 0) {
        SDK::LogWarning(Logger(), "The BPF program that finds holders cannot be loaded: %s",
                        Poco::Error::getMessage(errno));
        return false;
    }
    return true;
}

bool BpfHolderSource::Read(const SocketSet& sockets, Holders& holders) {
    int error = Run(m_skeleton->links.report_tables, sockets, holders);
    if (error == E2BIG) {
        error = Run(m_skeleton->links.report_files, sockets, holders);
    }
    if (error != 0) {
        SDK::LogError(Logger(), "The holders of sockets cannot be read with BPF: %s",
                      Poco::Error::getMessage(error));
        return false;
    }
    SortHolders(holders);
    return true;
}

int BpfHolderSource::Run(bpf_link* program, const SocketSet& sockets, Holders& holders) {
    holders.clear();
    const SDK::UniqueDescriptor run(::bpf_iter_create(bpf_link__fd(program)));
    if (!run) {
        return errno;
    }
    std::array<SocketHolder, kRecords> records;
    for (;;) {
        const ssize_t got = ::read(run.Get(), records.data(), sizeof(records));
        if (got == 0) {
            return 0;
        }
        if (got < 0 && errno != EINTR) {
            return errno;
        }
        const std::size_t count = got < 0 ? 0 : static_cast<std::size_t>(got) / sizeof(records[0]);
        for (std::size_t i = 0; i < count; ++i) {
            const SocketHolder& holder = records[i];
            if (holder.inode == 0) {
                return E2BIG;
            }
            if (sockets.count(holder.inode) != 0) {
                holders[holder.inode].push_back(static_cast<int>(holder.pid));
            }
        }
    }
}

}  // namespace NetCollect
