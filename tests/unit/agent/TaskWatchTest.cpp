#include "TaskWatch.h"

#include <gtest/gtest.h>

namespace {

using Status = Framework::Engine::TaskStatus;
using Strings = std::vector<std::string>;

Status TaskWith(std::uint64_t accepted, unsigned int waiting) {
    Status task;
    task.m_name = "t";
    task.m_messagesAccepted = accepted;
    task.m_inboxDepth = waiting;
    return task;
}

TEST(TaskWatch, IsContentWithTasksThatHaveNothingToDo) {
    Agent::TaskWatch watch;
    EXPECT_TRUE(watch.Look({TaskWith(10, 0)}).empty());
    EXPECT_TRUE(watch.Look({TaskWith(10, 0)}).empty());
}

TEST(TaskWatch, IsContentWithATaskThatTakesAMessageBetweenTwoLooks) {
    Agent::TaskWatch watch;
    EXPECT_TRUE(watch.Look({TaskWith(10, 10)}).empty());
    EXPECT_TRUE(watch.Look({TaskWith(10, 9)}).empty());
    EXPECT_TRUE(watch.Look({TaskWith(20, 18)}).empty());
}

TEST(TaskWatch, FindsATaskThatTakesNothingAlthoughSomethingWaits) {
    Agent::TaskWatch watch;
    EXPECT_TRUE(watch.Look({TaskWith(10, 2)}).empty());
    EXPECT_EQ(watch.Look({TaskWith(15, 7)}), Strings{"Task(t) is stuck, 7 messages wait for it"});
    EXPECT_EQ(watch.Look({TaskWith(15, 7)}).size(), 1U);
    EXPECT_TRUE(watch.Look({TaskWith(15, 0)}).empty());
}

TEST(TaskWatch, GivesAMessageThatCameLatelyUntilTheNextLook) {
    Agent::TaskWatch watch;
    EXPECT_TRUE(watch.Look({TaskWith(10, 0)}).empty());
    EXPECT_TRUE(watch.Look({TaskWith(11, 1)}).empty());
}

TEST(TaskWatch, FindsATaskWhoseThreadHasEnded) {
    Agent::TaskWatch watch;
    Status task = TaskWith(0, 0);
    task.m_ended = true;
    EXPECT_EQ(watch.Look({task}), Strings{"Task(t) has ended"});
}

TEST(TaskWatch, LeavesPassiveTasksAlone) {
    Agent::TaskWatch watch;
    Status task = TaskWith(5, 5);
    task.m_passive = true;
    watch.Look({task});
    EXPECT_TRUE(watch.Look({task}).empty());
}

TEST(TaskWatch, BeginsAnewWithATaskThatWasAway) {
    Agent::TaskWatch watch;
    watch.Look({TaskWith(10, 2)});
    watch.Look({});
    EXPECT_TRUE(watch.Look({TaskWith(10, 2)}).empty());
}

}  // namespace
