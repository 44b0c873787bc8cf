#include "ProcessImage.h"

#include "ProcessRecord.h"

#include <algorithm>

namespace ProcessCollect {

namespace {

// TASK_COMM_LEN is 16 with the NUL.
constexpr std::size_t kCommLength = PROCESS_COMM_BYTES - 1;

// What the kernel's d_path appends to the path of an unlinked file.
constexpr std::string_view kDeleted = " (deleted)";

std::string_view LastComponent(std::string_view path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// The argument at the front; the rest is left behind it.
std::string_view TakeArgument(std::string_view& arguments) {
    const std::size_t end = arguments.find('\0');
    const std::string_view argument = arguments.substr(0, end);
    arguments.remove_prefix(end == std::string_view::npos ? arguments.size() : end + 1);
    return argument;
}

// Whether the kernel would have called a program of this path so.
bool Explains(std::string_view path, std::string_view comm) {
    return !comm.empty() && LastComponent(path).substr(0, kCommLength) == comm;
}

ProcessImagePtr MakeImage(std::string name, std::string_view exePath, std::string_view arguments,
                          const RunMarks& marks) {
    auto image = std::make_shared<ProcessImage>();
    image->m_name = std::move(name);
    image->m_exePath = exePath;
    image->m_cmdline = JoinArguments(arguments);
    image->m_marks = marks;
    return image;
}

}  // namespace

ProcessImagePtr MakeImageAtExec(std::string_view comm, std::string_view exePath,
                                std::string_view arguments, const RunMarks& marks) {
    exePath = StripDeleted(exePath);
    std::string_view rest = arguments;
    return MakeImage(CompleteName(comm, exePath, TakeArgument(rest)), exePath, arguments, marks);
}

ProcessImagePtr MakeImageLater(std::string_view comm, std::string_view exePath,
                               std::string_view arguments, const RunMarks& marks) {
    exePath = StripDeleted(exePath);
    std::string_view rest = arguments;
    const std::string_view first = TakeArgument(rest);
    const std::string_view second = TakeArgument(rest);
    const bool believed = exePath.empty() || Explains(exePath, comm) || Explains(first, comm) ||
                          Explains(second, comm);
    std::string name =
        believed ? CompleteName(comm, exePath, first) : std::string(LastComponent(exePath));
    return MakeImage(std::move(name), exePath, arguments, marks);
}

std::string CompleteName(std::string_view comm, std::string_view exePath,
                         std::string_view firstArgument) {
    if (comm.size() == kCommLength) {
        for (const std::string_view path : {exePath, firstArgument}) {
            const std::string_view name = LastComponent(path);
            if (name.substr(0, kCommLength) == comm) {
                return std::string(name);
            }
        }
    }
    return std::string(comm);
}

std::string JoinArguments(std::string_view arguments) {
    std::string text(arguments.substr(0, PROCESS_ARGUMENT_BYTES));
    std::replace(text.begin(), text.end(), '\0', ' ');
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

std::string_view StripDeleted(std::string_view path) {
    if (path.size() > kDeleted.size() && path.substr(path.size() - kDeleted.size()) == kDeleted) {
        path.remove_suffix(kDeleted.size());
    }
    return path;
}

}  // namespace ProcessCollect
