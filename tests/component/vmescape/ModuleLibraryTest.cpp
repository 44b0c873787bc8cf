#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>

namespace {

std::string Library() { return std::string(BUILD_FOLDER) + "/module/libvmescape_module.so"; }

/// What a command prints.
std::string Output(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen(command.c_str(), "r"), ::pclose);
    std::string text;
    std::array<char, 4096> buffer{};
    while (const std::size_t size = std::fread(buffer.data(), 1, buffer.size(), pipe.get())) {
        text.append(buffer.data(), size);
    }
    return text;
}

TEST(ModuleLibrary, LooksForTheAgentsLibrariesWhereTheAgentKeepsThem) {
    const std::string dynamic = Output("readelf -d " + Library());
    EXPECT_NE(dynamic.find("Library runpath: "
                           "[$ORIGIN/:/usr/local/corvex/lib/:/usr/local/corvex/module/]\n"),
              std::string::npos)
        << dynamic;
}

TEST(ModuleLibrary, ExportsItsFactoryAndNothingElse) {
    const std::string symbols = Output("nm -D --defined-only --format=posix " + Library());
    EXPECT_EQ(symbols.rfind("CreateModule T ", 0), 0U) << symbols;
    EXPECT_EQ(symbols.find('\n'), symbols.size() - 1) << symbols;
}

TEST(ModuleLibrary, NeedsNoOtherModule) {
    const std::string dynamic = Output("readelf -d " + Library());
    EXPECT_EQ(dynamic.find("_module.so]"), std::string::npos) << dynamic;
}

}  // namespace
