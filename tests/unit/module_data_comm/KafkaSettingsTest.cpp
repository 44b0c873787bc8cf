#include "outputs/KafkaSettings.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using Engine::KafkaSettings;

class Properties : public testing::Test {
protected:
    bool Read(const std::string& text) {
        m_folder.Write("kafka.properties", text);
        ::chmod(m_path.c_str(), S_IRUSR | S_IWUSR);
        return m_settings.ReadProperties(m_path, m_wrong);
    }

    TestSupport::TemporaryFolder m_folder;
    const std::string m_path = m_folder / "kafka.properties";
    KafkaSettings m_settings;
    std::string m_wrong;
};

TEST_F(Properties, AreNamesAndValuesInTheirOrder) {
    ASSERT_TRUE(Read("# TLS\n\n security.protocol = ssl \nsasl.password=a=b\nempty=\n")) << m_wrong;
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"security.protocol", "ssl"}, {"sasl.password", "a=b"}, {"empty", ""}};
    EXPECT_EQ(m_settings.m_properties, expected);
}

TEST_F(Properties, AreRefusedWithFileAndLineAndWithoutTheirText) {
    EXPECT_FALSE(Read("a=b\nsecret\n"));
    EXPECT_EQ(m_wrong, m_path + ":2: expected NAME=VALUE");
    EXPECT_FALSE(Read("=secret\n"));
    EXPECT_EQ(m_wrong, m_path + ":1: expected NAME=VALUE");
}

TEST_F(Properties, MayNotTakeAwayTheReportsOfWhatHasArrived) {
    EXPECT_FALSE(Read("acks=all\ndelivery.report.only.error=true\n"));
    EXPECT_EQ(m_wrong, m_path +
                           ":2: delivery.report.only.error cannot be set, an alarm counts as "
                           "delivered by its report");
}

TEST_F(Properties, OfAFileThatIsNotThereAreAnError) {
    EXPECT_FALSE(m_settings.ReadProperties(m_folder / "nothing", m_wrong));
    EXPECT_EQ(m_wrong, m_folder / "nothing" + " cannot be examined: No such file or directory");
}

TEST_F(Properties, AreRefusedWhereOthersMayReadThem) {
    m_folder.Write("kafka.properties", "sasl.password=a\n");
    ::chmod(m_path.c_str(), 0644);
    EXPECT_FALSE(m_settings.ReadProperties(m_path, m_wrong));
    EXPECT_EQ(m_wrong, m_path + " may be read by others (mode 0644), expected 0600 at the most");
    EXPECT_TRUE(m_settings.m_properties.empty());
}

}  // namespace
