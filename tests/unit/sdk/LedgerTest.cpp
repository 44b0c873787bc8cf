#include "sdk/Ledger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

namespace {

using SDK::Ledger;
using SDK::OpenLedger;

Ledger Named(const std::string& name) {
    Ledger ledger;
    ledger.m_name = name;
    return ledger;
}

std::vector<std::string> Names() {
    std::vector<std::string> names;
    for (const Ledger& ledger : OpenLedger::ReadAll()) {
        names.push_back(ledger.m_name);
    }
    return names;
}

TEST(Ledger, IsBalancedWhenEverythingIsAccountedFor) {
    Ledger ledger;
    EXPECT_TRUE(ledger.Balanced());
    ledger.m_seen = 10;
    EXPECT_FALSE(ledger.Balanced());
    ledger.m_delivered = 4;
    ledger.m_waiting = 1;
    ledger.m_filtered = {{"own", 2}, {"outside", 1}};
    ledger.m_lost = {{"kernel", 2}};
    EXPECT_EQ(ledger.Filtered(), 3U);
    EXPECT_EQ(ledger.Lost(), 2U);
    EXPECT_TRUE(ledger.Balanced());
}

TEST(OpenLedger, IsReadInTheOrderOfOpeningUntilItIsClosed) {
    auto first = std::make_unique<OpenLedger>([] { return Named("first"); });
    const OpenLedger second([] { return Named("second"); });
    EXPECT_EQ(Names(), (std::vector<std::string>{"first", "second"}));
    first.reset();
    EXPECT_EQ(Names(), std::vector<std::string>{"second"});
}

TEST(OpenLedger, IsReadAnewEachTime) {
    std::uint64_t seen = 0;
    const OpenLedger open([&seen] {
        Ledger ledger;
        ledger.m_seen = ++seen;
        return ledger;
    });
    EXPECT_EQ(OpenLedger::ReadAll()[0].m_seen, 1U);
    EXPECT_EQ(OpenLedger::ReadAll()[0].m_seen, 2U);
}

TEST(OpenLedger, HasNoReaderInsideAfterItsEnd) {
    std::atomic<bool> ended{false};
    std::thread reader([&ended] {
        while (!ended) {
            OpenLedger::ReadAll();
        }
    });
    for (int i = 0; i < 1000; ++i) {
        auto books = std::make_unique<Ledger>(Named("short-lived"));
        auto open = std::make_unique<OpenLedger>([&books] { return *books; });
        open.reset();
        books.reset();  // a reader inside would meet nothing here
    }
    ended = true;
    reader.join();
}

}  // namespace
