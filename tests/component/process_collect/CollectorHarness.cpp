#include "CollectorHarness.h"

#include <Poco/TemporaryFile.h>

#include <spawn.h>

namespace ProcessCollectTest {

int Spawn(const std::vector<std::string>& arguments) {
    std::vector<char*> pointers;
    for (const std::string& argument : arguments) {
        pointers.push_back(const_cast<char*>(argument.c_str()));
    }
    pointers.push_back(nullptr);
    int pid = -1;
    const int result =
        ::posix_spawn(&pid, arguments.front().c_str(), nullptr, nullptr, pointers.data(), environ);
    EXPECT_EQ(result, 0) << arguments.front();
    return pid;
}

CopiedProgram::CopiedProgram(const std::string& name, const std::string& of)
    : m_folder(Poco::TemporaryFile::tempName()), m_name(name) {
    std::filesystem::create_directories(m_folder);
    std::filesystem::copy_file(std::filesystem::canonical(of), Path());
}

CopiedProgram::~CopiedProgram() { std::filesystem::remove_all(m_folder); }

}  // namespace ProcessCollectTest
