#pragma once

#include "Status.h"

#include <json/value.h>

#include <chrono>

/// A status as the agent tells it, with everything in it that there may be.
inline Json::Value FullStatus() {
    Agent::Status status(60);
    status.TakePolicy("qemu_cmd_detect_feature", "/p", "{}", 86400);
    status.RefusePolicy("odd", "/p", "why");
    Framework::Engine::TaskStatus task;
    task.m_name = "procs_real_task";
    task.m_inboxDepth = 3;
    task.m_inboxCapacity = 1024;
    task.m_messagesAccepted = 70;
    task.m_messagesLost = 1;
    SDK::Ledger books;
    books.m_name = "alarms";
    books.m_by = "file:/a \"b\"\\";
    books.m_seen = 5000000000;
    books.m_delivered = 4999999996;
    books.m_waiting = 1;
    books.m_filtered = {{"own", 1}};
    books.m_lost = {{"queue_full", 2}};
    books.m_kinds = {{"vmescape_0001", 4}};
    books.m_machines = {{"vmescape_0001", 2}};
    books.m_latency.emplace();
    books.m_latency->Add(std::chrono::microseconds(500));
    books.m_latency->Add(std::chrono::milliseconds(250));
    books.m_latency->Add(std::chrono::seconds(11));
    books.m_lastS = 86400;
    return status.Document({task}, {books}, 7);
}
