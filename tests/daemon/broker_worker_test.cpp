// The worker thread against a scripted device: draining, read errors,
// pausing for exclusive sessions, stopping.
#include "broker_util.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using brokertest::BrokerTest;
using brokertest::Message;
using brokertest::patterned;

constexpr int kChannel = 20;
VXHandle const kDevice = reinterpret_cast<VXHandle>(0x1000);
constexpr VXNotifyHandle kNotify = 17;

// A device queue the test fills; the worker drains it through the ops below.
// An entry with a non-zero status makes one read fail with that status.
struct Scripted {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::pair<uint32_t, Message>> queue;
  std::atomic<int> reads{0};
  std::atomic<int> reads_during_exclusive{0};
  std::atomic<int> foreign_handles{0};
  std::atomic<bool> endless{false};  // every read returns a frame, like a saturated bus
  std::atomic<bool> broken{false};   // every call fails at once, like an unplugged device

  void push(const Message& m, uint32_t status = 0) {
    std::lock_guard<std::mutex> lock(mutex);
    queue.emplace_back(status, m);
    cv.notify_all();
  }
  size_t pending() {
    std::lock_guard<std::mutex> lock(mutex);
    return queue.size();
  }
};

Scripted* g_device = nullptr;

VXStatus scripted_wait(VXNotifyHandle notification, uint32_t timeout_ms) {
  if (notification != kNotify) g_device->foreign_handles++;
  if (g_device->broken) return VX_ERR_INVALID_PARAM_VALUE;
  std::unique_lock<std::mutex> lock(g_device->mutex);
  g_device->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                        [] { return !g_device->queue.empty(); });
  return 0;
}

VXStatus scripted_read(VXHandle device, VXMessage* message) {
  if (device != kDevice) g_device->foreign_handles++;
  vxcli_rx_channel_stats s{};
  if (vxcli_rx_broker_stats(kChannel, &s) == 0 && s.exclusive_active)
    g_device->reads_during_exclusive++;
  const int n = ++g_device->reads;
  if (g_device->broken) return VX_ERR_INVALID_HARDWARE;
  if (g_device->endless) {
    *message = patterned(static_cast<uint64_t>(n));
    return VX_OK;
  }
  std::lock_guard<std::mutex> lock(g_device->mutex);
  if (g_device->queue.empty()) return VX_ERR_QUEUE_EMPTY;
  auto [status, m] = g_device->queue.front();
  g_device->queue.pop_front();
  if (status != VX_OK) return status;
  *message = m;
  return VX_OK;
}

const vxcli_rx_device_ops kScriptedOps = {scripted_wait, scripted_read};

// Waits for a condition the worker brings about; the bound only stops a hang.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 20000; ++i) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return condition();
}

class BrokerWorker : public BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    g_device = &device;
    vxcli_rx_broker_set_device_ops(&kScriptedOps);
    ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, kDevice, kNotify, 4096));
  }
  void TearDown() override {
    BrokerTest::TearDown();  // joins the worker before the device goes away
    EXPECT_EQ(0, device.reads_during_exclusive.load());
    EXPECT_EQ(0, device.foreign_handles.load());
    g_device = nullptr;
  }
  uint64_t published() { return stats(kChannel).published; }

  Scripted device;
};

TEST_F(BrokerWorker, DrainsEveryMessageInOrder) {
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kChannel, 1, &cursor));
  constexpr uint64_t kTotal = 3000;
  std::thread feeder([&] {
    for (uint64_t n = 1; n <= kTotal; ++n) {
      device.push(patterned(n));
      if (n % 100 == 0) std::this_thread::yield();
    }
  });
  std::vector<vxcli_rx_record> batch(64);
  uint64_t next = 1;
  bool ordered = true;
  while (next <= kTotal) {
    size_t count = 0;
    const int rc = vxcli_rx_broker_read_batch(&cursor, batch.data(), batch.size(), &count, 20000);
    ASSERT_EQ(1, rc);
    for (size_t i = 0; i < count; ++i, ++next)
      ordered = ordered && batch[i].sequence == next && brokertest::is_patterned(batch[i]);
  }
  feeder.join();
  EXPECT_TRUE(ordered);
  const auto s = stats(kChannel);
  EXPECT_EQ(kTotal, s.published);
  EXPECT_EQ(0u, s.read_errors);  // "queue empty" ends every drain and is no error
}

TEST_F(BrokerWorker, CountsDrainsEndedByDeviceErrors) {
  device.push(patterned(1));
  device.push(patterned(2));
  device.push(Message{}, VX_ERR_QUEUE_OVERRUN);  // any other status ends the drain
  device.push(patterned(3));
  device.push(Message{}, VX_ERR_QUEUE_EMPTY | VX_ERR_NOT_INITIALIZED);
  ASSERT_TRUE(eventually([&] { return published() == 3 && device.pending() == 0; }));
  ASSERT_TRUE(eventually([&] { return stats(kChannel).read_errors == 2; }));
}

TEST_F(BrokerWorker, PausesForExclusiveSessionAndResumes) {
  for (uint64_t n = 1; n <= 5; ++n) device.push(patterned(n));
  ASSERT_TRUE(eventually([&] { return published() == 5; }));

  constexpr int kReaders = 3;
  std::vector<vxcli_rx_cursor> cursors(kReaders);
  for (auto& c : cursors) ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kChannel, 0, &c));
  std::vector<int> first(kReaders, 99);
  std::vector<uint64_t> after(kReaders, 0);
  std::vector<std::thread> readers;
  for (int i = 0; i < kReaders; ++i) {
    readers.emplace_back([&, i] {
      vxcli_rx_record r{};
      first[i] = vxcli_rx_broker_read(&cursors[i], &r, -1);
      if (vxcli_rx_broker_read(&cursors[i], &r, 20000) == 1) after[i] = r.sequence;
    });
  }

  // The worker needs its next round to acknowledge; a zero timeout is too short.
  ASSERT_EQ(-1, vxcli_rx_broker_exclusive_begin(kChannel, 0));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 20000));
  // The holder owns the device now: what arrives stays for it to read.
  device.push(patterned(100));
  device.push(patterned(101));
  {
    std::lock_guard<std::mutex> lock(device.mutex);
    ASSERT_EQ(2u, device.queue.size());
    device.queue.pop_front();
  }
  EXPECT_EQ(5u, published());
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));

  for (auto& t : readers) t.join();
  for (int i = 0; i < kReaders; ++i) {
    EXPECT_EQ(3, first[i]);
    EXPECT_EQ(1u, after[i]);  // the flushed ring starts again at 1
  }
  const auto s = stats(kChannel);
  EXPECT_EQ(6u, s.published);
  EXPECT_EQ(1u, s.exclusive_sessions);
  EXPECT_EQ(1u, s.buffered_records);

  // And a second session works the same way.
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 20000));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));
}

TEST_F(BrokerWorker, ExclusiveSessionInterruptsADrainThatNeverEnds) {
  device.endless = true;
  device.push(Message{});  // wakes the worker
  ASSERT_TRUE(eventually([&] { return published() > 10000; }));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 5000));
  const int reads = device.reads.load();
  EXPECT_EQ(0u, stats(kChannel).read_errors);
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));
  ASSERT_TRUE(eventually([&] { return device.reads.load() > reads; }));
}

TEST_F(BrokerWorker, FailingDeviceDoesNotSpinAndStillStops) {
  device.broken = true;
  ASSERT_TRUE(eventually([&] { return stats(kChannel).read_errors >= 2; }));
  const int reads = device.reads.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_LT(device.reads.load() - reads, 100);  // a spinning worker makes ~10^5
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 20000));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));
  ASSERT_EQ(0, vxcli_rx_broker_detach(kChannel));
}

TEST_F(BrokerWorker, DetachStopsAPausedWorkerAndWakesReaders) {
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kChannel, 0, &cursor));
  int result = 99;
  std::thread reader([&] {
    vxcli_rx_record r{};
    result = vxcli_rx_broker_read(&cursor, &r, -1);
  });
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 20000));
  ASSERT_EQ(0, vxcli_rx_broker_detach(kChannel));
  reader.join();
  EXPECT_EQ(-2, result);
  const int reads = device.reads.load();
  device.push(patterned(1));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_end(kChannel));
  EXPECT_EQ(reads, device.reads.load());  // the worker is gone, not just idle

  // Re-attaching starts a fresh worker.
  ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, kDevice, kNotify, 16));
  ASSERT_TRUE(eventually([&] { return published() == 1; }));
}

}  // namespace
