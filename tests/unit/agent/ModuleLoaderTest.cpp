#include "ModuleLoader.h"

#include "framework/Engine.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class ModuleLoader : public testing::Test {
protected:
    ~ModuleLoader() override {
        // Modules are code of the libraries, which the loader closes.
        m_engine = nullptr;
    }

    bool Load(const std::string& folder, const std::string& name) {
        return m_loader.Load(*m_engine, folder, name, false);
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    Agent::ModuleLoader m_loader;
    Poco::AutoPtr<Framework::Engine> m_engine = new Framework::Engine;
};

TEST_F(ModuleLoader, StartsCollectorsAndReporterBeforeTheProduct) {
    const std::vector<std::string>& names = Agent::ModuleLoader::ModuleNames();
    ASSERT_EQ(names.size(), 5U);
    EXPECT_EQ(names.front(), "process_collect_module");
    EXPECT_EQ(names.back(), "vmescape_module");
}

TEST_F(ModuleLoader, AddsTheModuleOfALibraryToTheEngine) {
    EXPECT_TRUE(Load(BUILD_FOLDER "/module", "data_comm_module"));
    m_engine->config().setString("report.output", "file:" + m_folder / "alarms");
    m_engine->StartModules();
    EXPECT_NE(m_engine->FindTask("data_comm_report_task"), nullptr);
    m_engine->StopModules();
}

TEST_F(ModuleLoader, RefusesALibraryThatIsMissing) {
    EXPECT_FALSE(Load(m_folder.Path(), "data_comm_module"));
    EXPECT_TRUE(m_log.Contains("Module(data_comm_module) cannot be loaded: "));
    EXPECT_TRUE(m_log.Contains(m_folder / "libdata_comm_module.so"));
}

TEST_F(ModuleLoader, RefusesAFileThatIsNoLibrary) {
    m_folder.Write("libdata_comm_module.so", "no library");
    EXPECT_FALSE(Load(m_folder.Path(), "data_comm_module"));
    EXPECT_TRUE(m_log.Contains("Module(data_comm_module) cannot be loaded: "));
}

TEST_F(ModuleLoader, RefusesALibraryWithoutFactory) {
    std::filesystem::copy_file(BUILD_FOLDER "/lib/libsdk.so", m_folder / "libsdk_module.so");
    EXPECT_FALSE(Load(m_folder.Path(), "sdk_module"));
    EXPECT_TRUE(m_log.Contains("CreateModule"));
}

TEST_F(ModuleLoader, RefusesALibraryThatOthersMayWrite) {
    const std::string file = m_folder / "libdata_comm_module.so";
    std::filesystem::copy_file(BUILD_FOLDER "/module/libdata_comm_module.so", file);
    EXPECT_TRUE(Load(m_folder.Path(), "data_comm_module"));
    std::filesystem::permissions(file, std::filesystem::perms(0777));
    EXPECT_FALSE(Load(m_folder.Path(), "data_comm_module"));
    EXPECT_TRUE(m_log.Contains("Module(data_comm_module) is refused: " + file +
                               " may be written by others (mode 0777), expected 0755 at the most"));
}

TEST_F(ModuleLoader, LooksBesideTheProgramFirst) {
    EXPECT_EQ(Agent::ModuleLoader::DefaultFolder(), BUILD_FOLDER "/module");
}

}  // namespace
