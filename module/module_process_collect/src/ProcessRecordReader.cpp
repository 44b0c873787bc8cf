#include "ProcessRecordReader.h"

#include "ProcessRecord.h"

#include <chrono>
#include <cstddef>
#include <cstring>

namespace ProcessCollect {

namespace {

using Engine::ProcsMessage;

static_assert(static_cast<unsigned>(ProcsMessage::FORK) == PROCESS_FORK);
static_assert(static_cast<unsigned>(ProcsMessage::EXEC) == PROCESS_EXEC);
static_assert(static_cast<unsigned>(ProcsMessage::EXIT) == PROCESS_EXIT);

bool WellFormed(const ProcessRecord& record, std::size_t size) {
    const std::size_t texts = std::size_t{record.argumentBytes} + record.pathBytes;
    return record.version == PROCESS_RECORD_VERSION && record.type >= PROCESS_FORK &&
           record.type <= PROCESS_EXIT && record.argumentBytes <= PROCESS_ARGUMENT_BYTES &&
           record.pathBytes <= PROCESS_PATH_BYTES && record.pid > 0 &&
           // The ring buffer hands out multiples of eight bytes for short records.
           size >= sizeof(ProcessRecord) + texts;
}

}  // namespace

bool ProcessRecordReader::Read(const void* data, std::size_t size, ProcessEvent& event) {
    ProcessRecord record;
    if (size < sizeof(record)) {
        return false;
    }
    std::memcpy(&record, data, sizeof(record));
    if (!WellFormed(record, size)) {
        return false;
    }
    const char* bytes = static_cast<const char*>(data);
    const char* texts = bytes + sizeof(record);
    const char* comm = bytes + offsetof(ProcessRecord, comm);
    ProcessEvent parsed;
    parsed.m_type = static_cast<ProcsMessage::Flag>(record.type);
    parsed.m_pid = record.pid;
    parsed.m_parentPid = record.parentPid;
    parsed.m_startTime = record.startTime;
    // The kernel's CLOCK_MONOTONIC and the library's steady clock are one.
    parsed.m_time =
        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(record.eventTime));
    parsed.m_marks = RunMarks{record.stackStart, record.argumentStart};
    parsed.m_comm = std::string_view(comm, ::strnlen(comm, PROCESS_COMM_BYTES));
    parsed.m_arguments = std::string_view(texts, record.argumentBytes);
    parsed.m_exePath = std::string_view(texts + record.argumentBytes, record.pathBytes);
    parsed.m_incomplete = (record.flags & (PROCESS_ARGUMENTS_UNREADABLE | PROCESS_PATH_CUT)) != 0;
    event = parsed;
    return true;
}

}  // namespace ProcessCollect
