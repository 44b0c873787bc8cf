#include "FanotifyEventReader.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstring>

namespace FileNotify {

namespace {

constexpr std::size_t kHandleAt = offsetof(fanotify_event_info_fid, handle);
constexpr std::size_t kKeyAt = offsetof(fanotify_event_info_fid, fsid);
constexpr std::size_t kHandleHead = offsetof(file_handle, f_handle);

template <typename T>
T Load(std::string_view bytes, std::size_t at) {
    T value;
    std::memcpy(&value, bytes.data() + at, sizeof(value));
    return value;
}

/// Reads the record of a directory's handle and the name of a file in it.
bool ReadDirectoryAndName(std::string_view record, FanotifyEvent& event) {
    if (record.size() < kHandleAt + kHandleHead) {
        return false;
    }
    const std::size_t handleSize =
        kHandleHead + Load<unsigned int>(record, kHandleAt + offsetof(file_handle, handle_bytes));
    if (handleSize > record.size() - kHandleAt) {
        return false;
    }
    event.m_directory = record.substr(kKeyAt, kHandleAt - kKeyAt + handleSize);
    const std::string_view rest = record.substr(kHandleAt + handleSize);
    event.m_name = rest.substr(0, rest.find('\0'));
    event.m_hasKey = true;
    return true;
}

/// Reads the information records behind an event's fixed part.
bool ReadRecords(std::string_view records, FanotifyEvent& event) {
    while (!records.empty()) {
        if (records.size() < sizeof(fanotify_event_info_header)) {
            return false;
        }
        const auto header = Load<fanotify_event_info_header>(records, 0);
        if (header.len < sizeof(header) || header.len > records.size()) {
            return false;
        }
        if (header.info_type == FAN_EVENT_INFO_TYPE_DFID_NAME &&
            !ReadDirectoryAndName(records.substr(0, header.len), event)) {
            return false;
        }
        records.remove_prefix(header.len);
    }
    return true;
}

}  // namespace

bool FanotifyEventReader::Read(const char* data, std::size_t size, const Sink& sink) {
    std::string_view rest(data, size);
    while (!rest.empty()) {
        if (rest.size() < sizeof(fanotify_event_metadata)) {
            return false;
        }
        const auto metadata = Load<fanotify_event_metadata>(rest, 0);
        if (metadata.vers != FANOTIFY_METADATA_VERSION || metadata.event_len > rest.size() ||
            metadata.metadata_len < sizeof(metadata) ||
            metadata.event_len < metadata.metadata_len) {
            return false;
        }
        FanotifyEvent event;
        event.m_pid = metadata.pid;
        event.m_mask = metadata.mask;
        event.m_descriptor = metadata.fd;
        if (!ReadRecords(
                rest.substr(metadata.metadata_len, metadata.event_len - metadata.metadata_len),
                event)) {
            return false;
        }
        sink(event);
        rest.remove_prefix(metadata.event_len);
    }
    return true;
}

}  // namespace FileNotify
