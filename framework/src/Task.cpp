#include "framework/Task.h"

#include "FrameworkLog.h"
#include "framework/Engine.h"
#include "sdk/TimeUtils.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

namespace Framework {

namespace {

constexpr int kThreadStartFailed = -3;

using std::chrono::milliseconds;

// A task that an exception ended, for want of memory as a rule, is started again after a pause that
// doubles each time. A stop is noticed after a step.
constexpr milliseconds kFirstPause(100);
constexpr milliseconds kLongestPause(60000);
constexpr milliseconds kPauseStep(20);

// The kernel keeps 15 bytes of a thread's name and refuses longer ones (pthread_setname_np(3)).
constexpr std::size_t kThreadNameLength = 15;

}  // namespace

Task::Task(const std::string& name, const std::string& feature, TaskCondition::TaskType type,
           unsigned int capacity)
    : Poco::Task(name),
      MessageConsumer(name, capacity),
      m_featureName(feature),
      m_taskType(type),
      m_eventWaiter(GetInbox()) {}

Task::~Task() = default;

void Task::runTask() {
    milliseconds pause = kFirstPause;
    while (!m_stopRequested.load(std::memory_order_acquire) && !RunOnce()) {
        SDK::LogWarning(Logger(), "Task(%s) is started again", name());
        Pause(pause);
        pause = std::min(2 * pause, kLongestPause);
    }
}

/// @return false when an exception ended it
bool Task::RunOnce() {
    try {
        Run();
        return true;
    } catch (const Poco::Exception& exception) {
        SDK::LogError(Logger(), "Task(%s) ended by an exception: %s", name(),
                      exception.displayText());
    } catch (const std::exception& exception) {
        SDK::LogError(Logger(), "Task(%s) ended by an exception: %s", name(),
                      std::string(exception.what()));
    }
    return false;
}

/// Waits, but no longer than until a stop.
void Task::Pause(milliseconds pause) const {
    const auto end = std::chrono::steady_clock::now() + pause;
    while (!m_stopRequested.load(std::memory_order_acquire) &&
           std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(kPauseStep);
    }
}

int Task::Init() { return 0; }

int Task::UnInit() {
    std::vector<std::shared_ptr<Message>> leftOver;
    BulkRecvMsg(leftOver, static_cast<int>(GetInbox()->Capacity()));
    return 0;
}

int Task::Run() { return 0; }

int Task::EnqueueMsg(std::shared_ptr<Message>& message) { return GetInbox()->Send(message); }

int Task::InterceptMsg(std::shared_ptr<Message>& /*message*/) { return 0; }

int Task::HandleMsg(const Message* /*message*/) { return 0; }

int Task::SendDirectMsg(const std::string& taskName, Message* message) {
    std::shared_ptr<Message> owned(message);
    Engine* engine = Engine::Current();
    return engine == nullptr ? -1 : engine->DeliverMessage(taskName, std::move(owned));
}

int Task::BulkRecvMsg(std::vector<std::shared_ptr<Message>>& messages, int max) {
    return GetInbox()->Receive(messages, max);
}

int Task::HandleQueuedMsgs(int max) {
    std::vector<std::shared_ptr<Message>> messages;
    const int taken = BulkRecvMsg(messages, max);
    for (const std::shared_ptr<Message>& message : messages) {
        HandleMsg(message.get());
    }
    return taken;
}

std::shared_ptr<FeaturePolicy> Task::GetFeaturePolicy() {
    const std::int64_t now = SDK::TimeUtils::GetCurrentTimestampS();
    const SDK::LockGuard lock(m_policyMutex);
    ++m_policyUseCount;
    m_policyLastUse = now;
    return m_featurePolicy;
}

void Task::AttachFeaturePolicy(std::shared_ptr<FeaturePolicy> policy) {
    // Swapped, so that the old policy is freed after the lock is.
    const SDK::LockGuard lock(m_policyMutex);
    m_featurePolicy.swap(policy);
}

std::uint64_t Task::GetPolicyUseCount() const {
    const SDK::LockGuard lock(m_policyMutex);
    return m_policyUseCount;
}

std::int64_t Task::GetPolicyLastUse() const {
    const SDK::LockGuard lock(m_policyMutex);
    return m_policyLastUse;
}

int Task::Start(bool passive) {
    reset();
    m_stopRequested.store(false, std::memory_order_release);
    const int result = Init();
    if (result != 0) {
        SDK::LogError(Logger(), "Task(%s) refused to start, its Init returned %d", name(), result);
        return result;
    }
    if (passive) {
        return 0;
    }
    try {
        m_thread = std::thread([this] {
            pthread_setname_np(pthread_self(), name().substr(0, kThreadNameLength).c_str());
            run();
        });
    } catch (const std::system_error& error) {
        SDK::LogError(Logger(), "Task(%s) got no thread: %s", name(), std::string(error.what()));
        UnInit();
        return kThreadStartFailed;
    }
    return 0;
}

void Task::Stop() {
    // The order matters: whichever way the thread's start and this stop interleave, it meets either
    // the flag or the state.
    m_stopRequested.store(true, std::memory_order_release);
    cancel();
    m_eventWaiter.Wakeup();
    if (m_thread.joinable()) {
        m_thread.join();
    }
    UnInit();
}

}  // namespace Framework
