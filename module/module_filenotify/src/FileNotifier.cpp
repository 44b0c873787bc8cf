#include "FileNotifier.h"

#include "FileNotifyLog.h"

#include <Poco/Error.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace FileNotify {

namespace {

// Directories marked before events are looked at again: a few milliseconds' work.
constexpr int kScanStep = 256;

// How soon an inbox that was full is tried again.
constexpr int kRetryMs = 1;
constexpr int kIdleMs = 1000;

// After a loss the tree is read again, but a loss that goes on must not be answered by nothing
// else. The same holds for a host that mounts without end.
constexpr std::int64_t kCheckEveryS = 5;

std::int64_t Now() {
    using std::chrono::duration_cast;
    return duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

FileNotifier::FileNotifier(std::size_t backlog)
    : m_tree(m_marks, m_changes), m_router(m_tree, backlog) {}

bool FileNotifier::Start() {
    const int error = m_changes.Open();
    if (error != 0) {
        SDK::LogError(Logger(), "The kernel gives no notification of changes (inotify): %s",
                      Poco::Error::getMessage(error));
        return false;
    }
    m_mounts.Open();
    m_started = m_marks.Open();
    return m_started;
}

void FileNotifier::Stop() {
    if (std::exchange(m_started, false)) {
        TakeEvents();
        LogBooks();
    }
    m_marks.Close();
    m_changes.Close();
    m_mounts.Close();
    m_tree.Clear();
}

void FileNotifier::Watch(const std::string& path, bool recursive,
                         const std::shared_ptr<Framework::Inbox>& inbox) {
    m_tree.Add(path, recursive, m_router.Subscriber(inbox));
}

bool FileNotifier::Unwatch(const std::string& path,
                           const std::shared_ptr<Framework::Inbox>& inbox) {
    // What happened before belongs to the subscriber still.
    TakeEvents();
    return m_tree.Remove(path, m_router.Subscriber(inbox));
}

std::vector<int> FileNotifier::Descriptors() const {
    std::vector<int> descriptors{m_changes.Descriptor()};
    for (const int descriptor : m_marks.Descriptors()) {
        if (descriptor >= 0) {
            descriptors.push_back(descriptor);
        }
    }
    return descriptors;
}

int FileNotifier::Pass() {
    TakeEvents();
    m_tree.TakeChanges();
    CheckAfterOverflow();
    CheckAfterMounts();
    for (const EventRouter::SubscriberPtr& subscriber : m_router.DropAbandoned()) {
        m_tree.RemoveAll(subscriber);
    }
    PublishBooks();
    if (m_tree.Scan(kScanStep)) {
        return 0;
    }
    return m_router.HasBacklog() ? kRetryMs : kIdleMs;
}

std::size_t FileNotifier::TakeEvents() {
    const std::size_t events = m_marks.Read([this](const FanotifyEvent& event) {
        m_tree.TakeEvent(event);
        m_router.Route(event);
    });
    m_router.Flush();
    return events;
}

void FileNotifier::CheckAfterOverflow() {
    const std::uint64_t overflows = m_router.GetCounters().m_overflows;
    const std::int64_t now = Now();
    if (overflows != m_overflowsChecked && now >= m_nextCheck) {
        m_overflowsChecked = overflows;
        m_nextCheck = now + kCheckEveryS;
        m_tree.Check();
    }
}

void FileNotifier::CheckAfterMounts() {
    m_mountsChanged = m_mounts.Changed() || m_mountsChanged;
    const std::int64_t now = Now();
    if (m_mountsChanged && now >= m_nextMountCheck) {
        m_mountsChanged = false;
        m_nextMountCheck = now + kCheckEveryS;
        m_tree.CheckPlaces();
    }
}

void FileNotifier::PublishBooks() {
    const SDK::LockGuard lock(m_booksMutex);
    m_books = m_router.GetCounters();
}

Counters FileNotifier::PublishedBooks() const {
    const SDK::LockGuard lock(m_booksMutex);
    return m_books;
}

SDK::Ledger FileNotifier::EventLedger() const {
    const Counters counters = PublishedBooks();
    SDK::Ledger books;
    books.m_name = "file_events";
    books.m_by = "fanotify";
    books.m_seen = counters.m_events;
    books.m_delivered = counters.m_routed;
    books.m_filtered = {{"own", counters.m_own},
                        {"outside", counters.m_outside},
                        {"of_directories", counters.m_changes}};
    // How many each of the times cost, the kernel does not tell.
    books.m_lost = {{"times_in_kernel", counters.m_overflows}};
    books.m_kinds = {{"open", counters.m_accesses[0]},
                     {"access", counters.m_accesses[1]},
                     {"modify", counters.m_accesses[2]},
                     {"close_write", counters.m_accesses[3]},
                     {"close_nowrite", counters.m_accesses[4]}};
    return books;
}

SDK::Ledger FileNotifier::MessageLedger() const {
    const Counters counters = PublishedBooks();
    SDK::Ledger books;
    books.m_name = "file_messages";
    books.m_seen = counters.m_messages;
    books.m_delivered = counters.m_delivered;
    books.m_waiting = counters.m_waiting;
    books.m_lost = {{"behind", counters.m_lostBehind}, {"with_subscriber", counters.m_lostGone}};
    return books;
}

void FileNotifier::LogBooks() const {
    const Counters counters = m_router.GetCounters();
    const auto number = [](std::uint64_t value) { return static_cast<unsigned long>(value); };
    SDK::LogInformation(Logger(),
                        "File events: %lu from the kernel, %lu of the agent, %lu outside, %lu of "
                        "directories, %lu times lost by the kernel.",
                        number(counters.m_events), number(counters.m_own),
                        number(counters.m_outside), number(counters.m_changes),
                        number(counters.m_overflows));
    SDK::LogInformation(Logger(),
                        "File messages: %lu made, %lu delivered, %lu lost because the task was "
                        "behind, %lu because it was gone, %lu waiting.",
                        number(counters.m_messages), number(counters.m_delivered),
                        number(counters.m_lostBehind), number(counters.m_lostGone),
                        number(counters.m_waiting));
}

}  // namespace FileNotify
