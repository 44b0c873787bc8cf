#include "outputs/SecretHeaders.h"

#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using Fields = Engine::SecretHeaders::Fields;

class SecretHeaders : public testing::Test {
protected:
    bool Read(const std::string& text) {
        m_path = m_folder.Write("headers", text);
        EXPECT_EQ(::chmod(m_path.c_str(), 0600), 0);
        return m_headers.Read(m_path, m_why);
    }

    TestSupport::TemporaryFolder m_folder;
    std::string m_path;
    Engine::SecretHeaders m_headers;
    std::string m_why;
};

TEST_F(SecretHeaders, AreOneALine) {
    ASSERT_TRUE(Read("# for the receiver\r\n\nAuthorization: Bearer a:b=c\r\nX-Site:x \n#X-No: y"))
        << m_why;
    EXPECT_EQ(m_headers.GetFields(), (Fields{{"Authorization", "Bearer a:b=c"}, {"X-Site", "x"}}));
}

TEST_F(SecretHeaders, AreRefusedWithTheirLineButNeverTold) {
    for (const char* line : {"no colon secret", ": secret", "Name:", "Na me: secret",
                             "Name : secret", "Name: secret\x01", "Name: secr\xc3\xa9t"}) {
        EXPECT_FALSE(Read("Good: one\n" + std::string(line) + "\n")) << line;
        EXPECT_EQ(m_why, m_path + ", line 2: expected \"Name: value\" in printable ASCII") << line;
        EXPECT_EQ(m_headers.GetFields(), Fields());
    }
}

TEST_F(SecretHeaders, LeaveTheFramingOfRequestsAlone) {
    EXPECT_FALSE(Read("content-length: 0\n"));
    EXPECT_EQ(m_why, m_path + ", line 1: content-length is the agent's to set");
    EXPECT_FALSE(Read("Transfer-Encoding: chunked\n"));
}

TEST_F(SecretHeaders, AreNotTakenFromAFileThatOthersMayRead) {
    ASSERT_TRUE(Read("Name: value\n")) << m_why;
    ASSERT_EQ(::chmod(m_path.c_str(), 0644), 0);
    EXPECT_FALSE(m_headers.Read(m_path, m_why));
    EXPECT_EQ(m_why, m_path + " may be read by others (mode 0644), expected 0600 at the most");
}

TEST_F(SecretHeaders, AreNotTakenFromAFileWithoutEnd) {
    EXPECT_FALSE(Read(std::string(65537, '#')));
    EXPECT_EQ(m_why, m_path + " is longer than 65536 bytes");
}

TEST_F(SecretHeaders, AreHiddenWhereOthersRepeatThem) {
    ASSERT_TRUE(Read("Authorization: Bearer 0123456789\nX-Site: four\n")) << m_why;
    m_headers.AddSecret("/hooks/abcdef");
    EXPECT_EQ(m_headers.Hide("'Bearer 0123456789' 0123456789, 0123456789! POST /hooks/abcdef"),
              "'***' ***, ***! POST ***");
    EXPECT_EQ(m_headers.Hide("Bearer of four"), "Bearer of four") << "too short to be secret";
}

TEST_F(SecretHeaders, HideEachPieceOfAnAddressThatIsLongEnough) {
    m_headers.AddTarget("/hooks/s3cr3ttoken/in?key=0123456789&to=all");
    EXPECT_EQ(m_headers.Hide("POST /hooks/s3cr3ttoken/in?key=0123456789&to=all"), "POST ***");
    EXPECT_EQ(m_headers.Hide("Cannot POST /hooks/s3cr3ttoken/in"), "Cannot POST ***");
    EXPECT_EQ(m_headers.Hide("query key=0123456789&to=all"), "query ***");
    EXPECT_EQ(m_headers.Hide("token s3cr3ttoken, key \"0123456789\""), "token ***, key \"***\"");
    EXPECT_EQ(m_headers.Hide(R"(POST \/hooks\/s3cr3ttoken\/in)"), R"(POST \/hooks\/***\/in)");
    EXPECT_EQ(m_headers.Hide("hooks in all"), "hooks in all") << "too short to be secret";
}

TEST_F(SecretHeaders, HideAnAddressAlsoDecoded) {
    m_headers.AddTarget("/in/s3cr3t%2Ft%6fken?pass=open%26+sesame&bad=%zz1234567");
    EXPECT_EQ(m_headers.Hide("'s3cr3t/token' 's3cr3t%2Ft%6fken'"), "'***' '***'");
    EXPECT_EQ(m_headers.Hide("'open& sesame' 'open&+sesame' 'open%26+sesame'"),
              "'***' '***' '***'");
    EXPECT_EQ(m_headers.Hide("%zz1234567 is not understood"), "*** is not understood");
}

TEST_F(SecretHeaders, HideTheLongerOfTwoWhereOneIsAPartOfTheOther) {
    m_headers.AddSecret("01234567");
    m_headers.AddSecret("0123456789abcdef");
    EXPECT_EQ(m_headers.Hide("0123456789abcdef 01234567"), "*** ***");
}

}  // namespace
