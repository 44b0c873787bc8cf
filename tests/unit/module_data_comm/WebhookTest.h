#pragma once

#include "WebServer.h"
#include "outputs/WebhookWriter.h"
#include "support/CapturedLog.h"
#include "support/TemporaryFolder.h"

#include <Poco/AutoPtr.h>
#include <Poco/Util/MapConfiguration.h>
#include <gtest/gtest.h>

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

/// A test of the webhook writer, with settings of its own.
class WebhookTest : public testing::Test {
protected:
    using Request = WebServer::Request;
    using Reply = WebServer::Reply;

    void SetUp() override { ::signal(SIGPIPE, SIG_IGN); }  // as the agent does

    void Set(const std::string& key, const std::string& value) {
        m_settings->setString("report.webhook." + key, value);
    }

    /// The writer to a server; null when it is refused.
    std::unique_ptr<Engine::WebhookWriter> Writer(const std::string& url, bool json = true) {
        Set("url", url);
        return Engine::WebhookWriter::Open(*m_settings, json);
    }

    /// Alarms as the sink gives them: {"event_id":1} and so on.
    static std::vector<Engine::OutgoingAlarm> Alarms(int first, int last) {
        std::vector<Engine::OutgoingAlarm> alarms;
        for (int i = first; i <= last; ++i) {
            const std::string text = "{\"event_id\":" + std::to_string(i) + "}";
            alarms.push_back({text, text});
        }
        return alarms;
    }

    /// Whether a request brings an alarm.
    static bool Holds(const Request& request, int alarm) {
        return request.m_body.find(":" + std::to_string(alarm) + "}") != std::string::npos;
    }

    static WebServer::Script Answer(int status, const std::string& body = "") {
        return [status, body](const Request&) { return Reply{status, body, {}}; };
    }

    TestSupport::CapturedLog m_log;
    TestSupport::TemporaryFolder m_folder;
    Poco::AutoPtr<Poco::Util::MapConfiguration> m_settings = new Poco::Util::MapConfiguration;
    std::string m_why;
};
