#include "outputs/WebhookAnswer.h"

#include <gtest/gtest.h>

namespace {

using Engine::WebhookAnswer;
using Verdict = WebhookAnswer::Verdict;

TEST(WebhookAnswer, ThatIsASuccessMeansThatAlarmsHaveArrived) {
    for (const int status : {200, 201, 202, 204, 207, 299}) {
        EXPECT_EQ(WebhookAnswer::Judge(status), Verdict::ARRIVED) << status;
    }
}

TEST(WebhookAnswer, ThatMayBeAnotherLaterKeepsAlarms) {
    for (const int status : {408, 425, 429, 500, 502, 503, 504, 507, 599}) {
        EXPECT_EQ(WebhookAnswer::Judge(status), Verdict::LATER) << status;
    }
}

TEST(WebhookAnswer, ThatTheOperatorCanMendKeepsAlarms) {
    for (const int status :
         {301, 302, 304, 307, 308, 401, 402, 403, 404, 405, 407, 410, 415, 431}) {
        EXPECT_EQ(WebhookAnswer::Judge(status), Verdict::MISCONFIGURED) << status;
    }
}

TEST(WebhookAnswer, ThatSpeaksOfWhatWasSentRefusesIt) {
    for (const int status : {400, 406, 409, 411, 413, 422, 451, 499}) {
        EXPECT_EQ(WebhookAnswer::Judge(status), Verdict::REFUSED) << status;
    }
}

TEST(WebhookAnswer, ThatIsNoAnswerOfTheProtocolKeepsAlarms) {
    for (const int status : {0, 103, 600, 999}) {
        EXPECT_EQ(WebhookAnswer::Judge(status), Verdict::LATER) << status;
    }
}

TEST(WebhookAnswer, IsDescribedWithTheStartOfItsBodyEscaped) {
    WebhookAnswer answer;
    answer.m_status = 400;
    EXPECT_EQ(answer.Describe(), "answered 400 Bad Request");
    answer.m_body = "no\n\x1b[31m" + std::string(300, 'x');
    EXPECT_EQ(answer.Describe(),
              "answered 400 Bad Request: \"no\\n\\x1b[31m" + std::string(200 - 8, 'x') + "...\"");
}

TEST(WebhookAnswer, IsDescribedWithWhatTheServerAsksFor) {
    WebhookAnswer answer;
    answer.m_status = 503;
    answer.m_wait = std::chrono::seconds(7);
    EXPECT_EQ(answer.Describe(), "answered 503 Service Unavailable, asks to wait for 7 s");
}

TEST(WebhookAnswer, OfARedirectSaysThatItIsNotFollowed) {
    WebhookAnswer answer;
    answer.m_status = 302;
    answer.m_location = "https://elsewhere/\x1b";
    EXPECT_EQ(answer.Describe(),
              "answered 302 Found, redirects are not followed (to https://elsewhere/\\x1b)");
}

}  // namespace
