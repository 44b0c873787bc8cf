#include "CollectorHarness.h"

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

CopiedProgram::CopiedProgram(const std::string& name, const std::string& of) : m_name(name) {
    std::filesystem::copy_file(std::filesystem::canonical(of), Path());
}

}  // namespace ProcessCollectTest
