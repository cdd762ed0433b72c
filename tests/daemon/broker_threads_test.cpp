// The broker under threads: readers racing a publisher, exclusive sessions,
// detach and shutdown while readers are blocked.
#include "broker_util.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using brokertest::BrokerTest;
using brokertest::patterned;

constexpr int kLongWaitMs = 20000;  // only a guard against a hang; never reached

// Lets blocked readers reach their wait. Correctness does not depend on it.
void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

struct ReaderLog {
  uint64_t delivered = 0;
  uint64_t lost = 0;
  uint64_t overruns = 0;
  uint64_t faults = 0;  // duplicates, gaps, torn records, unexpected results
};

// Reads until every one of `total` records was either delivered or reported
// lost. The sequence must advance by exactly one per delivery, and by exactly
// the reported loss at an overrun.
void read_all(vxcli_rx_cursor cursor, uint64_t total, bool batched, ReaderLog* log) {
  uint64_t expected = cursor.position;
  std::vector<vxcli_rx_record> batch(batched ? 5 : 1);
  while (expected <= total) {
    size_t count = 0;
    uint64_t lost_before = cursor.lost;
    int rc = batched ? vxcli_rx_broker_read_batch(&cursor, batch.data(), batch.size(), &count,
                                                  kLongWaitMs)
                     : vxcli_rx_broker_read(&cursor, batch.data(), kLongWaitMs);
    if (!batched && rc == 1) count = 1;
    if (rc == 1) {
      for (size_t i = 0; i < count; ++i) {
        if (batch[i].sequence != expected || !brokertest::is_patterned(batch[i])) log->faults++;
        expected = batch[i].sequence + 1;
        log->delivered++;
      }
    } else if (rc == 2) {
      log->overruns++;
      log->lost += cursor.lost - lost_before;
      expected += cursor.lost - lost_before;
      if (cursor.position != expected) log->faults++;
    } else {
      log->faults++;
      return;
    }
  }
  if (expected != total + 1 || cursor.delivered != log->delivered || cursor.lost != log->lost)
    log->faults++;
}

TEST_F(BrokerTest, ReadersSeeEveryRecordOrItsExactLoss) {
  constexpr int kChannel = 11;
  constexpr uint64_t kTotal = 20000;
  constexpr int kReaders = 4;
  ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, 0, 0, 8));
  std::vector<vxcli_rx_cursor> cursors(kReaders);
  for (auto& c : cursors) ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kChannel, 1, &c));

  std::vector<ReaderLog> logs(kReaders);
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i)
    readers.emplace_back(read_all, cursors[i], kTotal, i % 2 == 1, &logs[i]);
  for (uint64_t n = 1; n <= kTotal; ++n) {
    const brokertest::Message m = patterned(n);
    ASSERT_EQ(0, vxcli_rx_broker_publish(kChannel, &m));
    if (n % 32 == 0) std::this_thread::yield();
  }
  for (auto& t : readers) t.join();

  for (const ReaderLog& log : logs) {
    EXPECT_EQ(0u, log.faults);
    EXPECT_EQ(kTotal, log.delivered + log.lost);
  }
  vxcli_rx_channel_stats s{};
  ASSERT_EQ(0, vxcli_rx_broker_stats(kChannel, &s));
  EXPECT_EQ(kTotal, s.published);
  EXPECT_EQ(kTotal - 8, s.overwritten);
}

TEST_F(BrokerTest, ExclusiveSessionResetsBlockedReaders) {
  constexpr int kChannel = 12;
  ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, 0, 0, 16));
  for (uint64_t n = 1; n <= 3; ++n) publish(kChannel, patterned(n));

  constexpr int kReaders = 3;
  std::vector<vxcli_rx_cursor> cursors(kReaders);
  for (auto& c : cursors) ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kChannel, 0, &c));
  std::vector<int> first(kReaders, 99);
  std::vector<int> second(kReaders, 99);
  std::vector<uint64_t> sequence(kReaders, 0);
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&, i] {
      vxcli_rx_record r{};
      first[i] = vxcli_rx_broker_read(&cursors[i], &r, kLongWaitMs);
      second[i] = vxcli_rx_broker_read(&cursors[i], &r, kLongWaitMs);
      sequence[i] = r.sequence;
    });
  }
  settle();
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 1000));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));
  publish(kChannel, patterned(1));
  for (auto& t : readers) t.join();
  for (int i = 0; i < kReaders; ++i) {
    EXPECT_EQ(3, first[i]);
    EXPECT_EQ(1, second[i]);
    EXPECT_EQ(1u, sequence[i]);
  }
}

TEST_F(BrokerTest, ExclusiveSessionsNeverOverlap) {
  constexpr int kChannel = 13;
  constexpr int kThreads = 4;
  constexpr int kRounds = 50;
  ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, 0, 0, 16));
  std::atomic<int> holders{0};
  std::atomic<int> overlaps{0};
  std::atomic<int> refused{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < kRounds; ++round) {
        if (vxcli_rx_broker_exclusive_begin(kChannel, kLongWaitMs) != 0) {
          refused++;
          continue;
        }
        if (holders.fetch_add(1) != 0) overlaps++;
        std::this_thread::yield();
        holders.fetch_sub(1);
        if (vxcli_rx_broker_exclusive_end(kChannel) != 0) refused++;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, overlaps.load());
  EXPECT_EQ(0, refused.load());
  vxcli_rx_channel_stats s{};
  ASSERT_EQ(0, vxcli_rx_broker_stats(kChannel, &s));
  EXPECT_EQ(static_cast<uint64_t>(kThreads * kRounds), s.exclusive_sessions);
}

// Detach, and shutdown, wake every blocked reader with "not attached".
TEST_F(BrokerTest, DetachAndShutdownReleaseBlockedReaders) {
  for (bool shutdown : {false, true}) {
    SCOPED_TRACE(shutdown ? "shutdown" : "detach");
    ASSERT_EQ(0, vxcli_rx_broker_init());
    constexpr int kChannel = 14;
    ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, 0, 0, 16));
    constexpr int kReaders = 4;
    std::vector<vxcli_rx_cursor> cursors(kReaders);
    for (auto& c : cursors) ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kChannel, 0, &c));
    std::vector<int> results(kReaders, 99);
    std::vector<std::thread> readers;
    for (int i = 0; i < kReaders; ++i) {
      readers.emplace_back([&, i] {
        std::vector<vxcli_rx_record> r(4);
        size_t count = 0;
        results[i] = i == 0 ? vxcli_rx_broker_read_batch(&cursors[i], r.data(), r.size(), &count,
                                                         -1)
                            : vxcli_rx_broker_read(&cursors[i], r.data(), -1);
      });
    }
    settle();
    if (shutdown)
      vxcli_rx_broker_shutdown();
    else
      ASSERT_EQ(0, vxcli_rx_broker_detach(kChannel));
    for (auto& t : readers) t.join();
    // A reader that only arrives after shutdown finds no broker at all.
    for (int rc : results) EXPECT_TRUE(rc == -2 || (shutdown && rc == -1)) << rc;
  }
}

}  // namespace
