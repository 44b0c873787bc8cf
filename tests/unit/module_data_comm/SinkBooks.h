#pragma once

#include "AlarmSink.h"

#include <gtest/gtest.h>

#include <cstdint>

/// What a sink's ledger says. It is balanced whenever it is read.
inline SDK::Ledger BooksOf(const Engine::AlarmSink& sink) {
    SDK::Ledger books = sink.GetLedger();
    EXPECT_TRUE(books.Balanced());
    return books;
}
inline SDK::LatencyHistogram Latency(const Engine::AlarmSink& sink) {
    return BooksOf(sink).m_latency.value();
}
inline std::uint64_t Written(const Engine::AlarmSink& sink) { return BooksOf(sink).m_delivered; }
inline std::uint64_t Dropped(const Engine::AlarmSink& sink) {
    return BooksOf(sink).m_lost.at("queue_full");
}
inline std::uint64_t Failed(const Engine::AlarmSink& sink) {
    return BooksOf(sink).m_lost.at("not_written");
}
