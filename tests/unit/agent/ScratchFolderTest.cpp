#include "ScratchFolder.h"

#include "FileTrust.h"
#include "support/TemporaryFolder.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>

namespace {

namespace fs = std::filesystem;
using Agent::ScratchFolder;

TEST(ScratchFolder, IsGoneWithAllThatIsInIt) {
    std::string path;
    {
        const ScratchFolder folder("unittest");
        path = folder.Path();
        EXPECT_EQ(path.rfind("/tmp/vmescape-unittest-", 0), 0U) << path;
        folder.MakeFolder("a/b");
        EXPECT_EQ(TestSupport::ReadText(folder.Write("a/b/file", "text")), "text");
    }
    EXPECT_FALSE(fs::exists(path));
}

TEST(ScratchFolder, IsTrustedWhateverTheUmaskIs) {
    const mode_t mask = ::umask(0);
    const ScratchFolder folder("unittest");
    folder.MakeFolder("policies");
    const std::string file = folder.Write("policies/a.json", "{}");
    ::umask(mask);
    EXPECT_EQ(Agent::FileTrust::WhyNot(file), "");
    EXPECT_EQ(fs::status(folder.Path()).permissions(), fs::perms::owner_all);
}

TEST(ScratchFolder, SaysThatAFileCannotBeWritten) {
    const ScratchFolder folder("unittest");
    EXPECT_THROW(folder.Write("no/such/folder", "text"), Poco::SystemException);
}

}  // namespace
