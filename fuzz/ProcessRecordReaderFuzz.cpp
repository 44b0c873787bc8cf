// Whatever stands in the ring buffer, a record is refused or its texts lie inside it, and the image
// that is made of them keeps the limits.

#include "FuzzInput.h"
#include "ProcessImage.h"
#include "ProcessRecordReader.h"

#include <vector>

namespace {

using ProcessCollect::ProcessEvent;

constexpr std::size_t kCmdlineBytes = 4096;

void CheckInside(const std::vector<char>& record, std::string_view text) {
    Require(text.empty() || (text.data() >= record.data() &&
                             text.data() + text.size() <= record.data() + record.size()));
}

void CheckImage(const ProcessCollect::ProcessImage& image, const ProcessEvent& event) {
    Require(image.m_cmdline.size() <= kCmdlineBytes);
    Require(image.m_cmdline.empty() || image.m_cmdline.back() != ' ');
    Require(image.m_cmdline.find('\0') == std::string::npos);
    Require(image.m_exePath.size() <= event.m_exePath.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::vector<char> exact(data, data + size);  // so that a byte too far is noticed
    ProcessEvent event;
    if (!ProcessCollect::ProcessRecordReader::Read(exact.data(), exact.size(), event)) {
        Require(event.m_pid == 0);
        return 0;
    }
    Require(event.m_pid > 0);
    for (const std::string_view text : {event.m_comm, event.m_exePath, event.m_arguments}) {
        CheckInside(exact, text);
    }
    const auto atExec = ProcessCollect::MakeImageAtExec(event.m_comm, event.m_exePath,
                                                        event.m_arguments, event.m_marks);
    CheckImage(*atExec, event);
    // At an exec the name is the kernel's or one that begins with it.
    Require(atExec->m_name.rfind(event.m_comm, 0) == 0);
    CheckImage(*ProcessCollect::MakeImageLater(event.m_comm, event.m_exePath, event.m_arguments,
                                               event.m_marks),
               event);
    return 0;
}
