// The broker under threads: readers racing a publisher, exclusive sessions,
// detach and shutdown while readers are blocked.
#include "broker_util.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace {

using brokertest::BrokerTest;

constexpr int kGuardMs = 20000;  // only stops a hang; never reached when correct

// Lets blocked readers reach their wait. Correctness does not depend on it.
void settle() { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }

// Reads until each of `total` records was delivered or reported lost; counts
// every duplicate, gap, torn record or unexpected result as a fault.
uint64_t read_all(vxcli_rx_cursor* cursor, uint64_t total, bool batched) {
  uint64_t faults = 0;
  uint64_t expected = cursor->position;
  std::vector<vxcli_rx_record> batch(batched ? 5 : 1);
  while (expected <= total) {
    size_t count = 1;
    const uint64_t lost_before = cursor->lost;
    const int rc =
        batched ? vxcli_rx_broker_read_batch(cursor, batch.data(), batch.size(), &count, kGuardMs)
                : vxcli_rx_broker_read(cursor, batch.data(), kGuardMs);
    if (rc == 1) {
      for (size_t i = 0; i < count; ++i, ++expected)
        faults += batch[i].sequence != expected || !brokertest::is_patterned(batch[i]);
    } else if (rc == 2) {
      expected += cursor->lost - lost_before;  // the loss is exact: reading resumes there
      faults += cursor->position != expected;
    } else {
      return faults + 1;
    }
  }
  return faults + (cursor->delivered + cursor->lost != total);
}

TEST_F(BrokerTest, ReadersSeeEveryRecordOrItsExactLoss) {
  constexpr uint64_t kTotal = 20000;
  ASSERT_EQ(0, vxcli_rx_broker_attach(11, nullptr, 0, 8));
  std::vector<vxcli_rx_cursor> cursors(4);
  std::vector<uint64_t> faults(cursors.size(), 0);
  for (auto& c : cursors) c = open(11, 1);
  std::vector<std::thread> readers;
  for (size_t i = 0; i < cursors.size(); ++i)
    readers.emplace_back([&, i] { faults[i] = read_all(&cursors[i], kTotal, i % 2 == 1); });
  for (uint64_t n = 1; n <= kTotal; n += 32) {
    publish(11, n, std::min(n + 31, kTotal));
    std::this_thread::yield();
  }
  for (auto& t : readers) t.join();
  for (uint64_t f : faults) EXPECT_EQ(0u, f);
  EXPECT_EQ(kTotal - 8, stats(11).overwritten);
}

TEST_F(BrokerTest, ExclusiveSessionResetsBlockedReaders) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(12, nullptr, 0, 16));
  publish(12, 1, 3);
  std::vector<vxcli_rx_cursor> cursors(3);
  for (auto& c : cursors) c = open(12, 0);
  std::vector<int> first(cursors.size(), 99);
  std::vector<uint64_t> next(cursors.size(), 0);
  std::vector<std::thread> readers;
  for (size_t i = 0; i < cursors.size(); ++i) {
    readers.emplace_back([&, i] {
      vxcli_rx_record r{};
      first[i] = vxcli_rx_broker_read(&cursors[i], &r, kGuardMs);
      if (vxcli_rx_broker_read(&cursors[i], &r, kGuardMs) == 1) next[i] = r.sequence;
    });
  }
  settle();
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(12, 1000));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(12));
  publish(12, 1, 1);
  for (auto& t : readers) t.join();
  for (size_t i = 0; i < cursors.size(); ++i) {
    EXPECT_EQ(3, first[i]);
    EXPECT_EQ(1u, next[i]);
  }
}

TEST_F(BrokerTest, ExclusiveSessionsNeverOverlap) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(13, nullptr, 0, 16));
  std::atomic<int> holders{0};
  std::atomic<int> faults{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        if (vxcli_rx_broker_exclusive_begin(13, kGuardMs) != 0) {
          faults++;
          continue;
        }
        faults += holders.fetch_add(1) != 0;
        std::this_thread::yield();
        holders.fetch_sub(1);
        faults += vxcli_rx_broker_exclusive_end(13) != 0;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(0, faults.load());
  EXPECT_EQ(200u, stats(13).exclusive_sessions);
}

TEST_F(BrokerTest, DetachAndShutdownReleaseBlockedReaders) {
  for (bool shutdown : {false, true}) {
    SCOPED_TRACE(shutdown ? "shutdown" : "detach");
    ASSERT_EQ(0, vxcli_rx_broker_init());
    ASSERT_EQ(0, vxcli_rx_broker_attach(14, nullptr, 0, 16));
    std::vector<vxcli_rx_cursor> cursors(4);
    for (auto& c : cursors) c = open(14, 0);
    std::vector<int> results(cursors.size(), 99);
    std::vector<std::thread> readers;
    for (size_t i = 0; i < cursors.size(); ++i) {
      readers.emplace_back([&, i] {
        std::vector<vxcli_rx_record> r(4);
        size_t count = 0;
        results[i] = i == 0 ? vxcli_rx_broker_read_batch(&cursors[i], r.data(), 4, &count, -1)
                            : vxcli_rx_broker_read(&cursors[i], r.data(), -1);
      });
    }
    settle();
    if (shutdown)
      vxcli_rx_broker_shutdown();
    else
      ASSERT_EQ(0, vxcli_rx_broker_detach(14));
    for (auto& t : readers) t.join();
    // A reader that only arrives after shutdown finds no broker at all.
    for (int rc : results) EXPECT_TRUE(rc == -2 || (shutdown && rc == -1)) << rc;
  }
}

}  // namespace
