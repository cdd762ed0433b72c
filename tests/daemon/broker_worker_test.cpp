// The worker against a scripted device: read errors, exclusive sessions in
// the middle of a drain, a failing device, stopping a paused worker.
#include "broker_util.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace {

using brokertest::BrokerTest;
using brokertest::patterned;

constexpr int kChannel = 20;
VXHandle const kDevice = reinterpret_cast<VXHandle>(0x1000);
constexpr VXNotifyHandle kNotify = 17;

// The test queues (status, message) pairs; a non-zero status fails one read.
struct Scripted {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::pair<VXStatus, VXMessage>> queue;
  std::atomic<int> reads{0};
  std::atomic<int> faults{0};         // wrong handles, reads during an exclusive session
  std::atomic<bool> endless{false};   // every read succeeds, like a saturated bus
  std::atomic<bool> broken{false};    // every call fails at once, like an unplugged device

  void push(const VXMessage& m, VXStatus status = VX_OK) {
    std::lock_guard<std::mutex> lock(mutex);
    queue.emplace_back(status, m);
    cv.notify_all();
  }
};
Scripted* g_device = nullptr;

VXStatus scripted_wait(VXNotifyHandle notification, uint32_t timeout_ms) {
  g_device->faults += notification != kNotify;
  if (g_device->broken) return VX_ERR_INVALID_PARAM_VALUE;
  std::unique_lock<std::mutex> lock(g_device->mutex);
  g_device->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                        [] { return !g_device->queue.empty(); });
  return VX_OK;
}

VXStatus scripted_read(VXHandle device, VXMessage* message) {
  vxcli_rx_channel_stats s{};
  vxcli_rx_broker_stats(kChannel, &s);
  g_device->faults += device != kDevice || s.exclusive_active;
  const int n = ++g_device->reads;
  if (g_device->broken) return VX_ERR_INVALID_HARDWARE;
  if (g_device->endless) {
    *message = patterned(static_cast<uint64_t>(n));
    return VX_OK;
  }
  std::lock_guard<std::mutex> lock(g_device->mutex);
  if (g_device->queue.empty()) return VX_ERR_QUEUE_EMPTY;
  const auto [status, m] = g_device->queue.front();
  g_device->queue.pop_front();
  *message = m;
  return status;
}

const vxcli_rx_device_ops kScriptedOps = {scripted_wait, scripted_read};

// Waits for what the worker brings about; the bound only stops a hang.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 20000 && !condition(); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
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
    EXPECT_EQ(0, device.faults.load());
    g_device = nullptr;
  }
  uint64_t published() { return stats(kChannel).published; }

  Scripted device;
};

TEST_F(BrokerWorker, CountsDrainsEndedByDeviceErrors) {
  device.push(patterned(1));
  device.push(patterned(2));
  device.push(VXMessage{}, VX_ERR_QUEUE_OVERRUN);  // anything but "queue empty" is an error
  device.push(patterned(3));
  device.push(VXMessage{}, VX_ERR_QUEUE_EMPTY | VX_ERR_NOT_INITIALIZED);
  ASSERT_TRUE(eventually([&] { return published() == 3 && stats(kChannel).read_errors == 2; }));
  vxcli_rx_cursor cursor = open(kChannel, 1);
  for (uint64_t n = 1; n <= 3; ++n) {
    vxcli_rx_record r{};
    ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
    EXPECT_TRUE(brokertest::is_patterned(r));
  }
}

TEST_F(BrokerWorker, ExclusiveSessionPausesTheWorkerAndFlushesTheRing) {
  device.endless = true;  // the drain never runs dry on its own
  ASSERT_TRUE(eventually([&] { return published() > 5000; }));
  vxcli_rx_cursor cursor = open(kChannel, 0);
  int first = 99;
  uint64_t after = 0;
  std::thread reader([&] {
    vxcli_rx_record r{};
    do first = vxcli_rx_broker_read(&cursor, &r, -1);
    while (first == 1 || first == 2);
    if (vxcli_rx_broker_read(&cursor, &r, 20000) == 1) after = r.sequence;
  });

  // The worker needs a moment to acknowledge; a zero timeout is too short.
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(kChannel, 0));
  const bool granted = vxcli_rx_broker_exclusive_begin(kChannel, 5000) == 0;
  EXPECT_TRUE(granted);  // a worker that never leaves its drain never grants it
  if (granted) {
    const uint64_t held = published();
    const int reads = device.reads.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(reads, device.reads.load());  // the device belongs to the holder now
    EXPECT_EQ(held, published());
    device.endless = false;
    device.push(patterned(7));  // what the worker finds when it resumes
    EXPECT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));
  } else {
    vxcli_rx_broker_detach(kChannel);  // releases the reader
  }
  reader.join();
  EXPECT_EQ(3, first);
  EXPECT_EQ(1u, after);  // the flushed ring starts again at 1
  EXPECT_EQ(1u, stats(kChannel).exclusive_sessions);
}

TEST_F(BrokerWorker, FailingDeviceDoesNotSpin) {
  device.broken = true;
  ASSERT_TRUE(eventually([&] { return stats(kChannel).read_errors >= 2; }));
  const int reads = device.reads.load();
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  EXPECT_LT(device.reads.load() - reads, 100);  // a spinning worker makes ~10^5
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 20000));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kChannel));
}

TEST_F(BrokerWorker, DetachStopsAPausedWorkerAndWakesReaders) {
  vxcli_rx_cursor cursor = open(kChannel, 0);
  int result = 99;
  std::thread reader([&] {
    vxcli_rx_record r{};
    result = vxcli_rx_broker_read(&cursor, &r, -1);
  });
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kChannel, 20000));
  ASSERT_EQ(0, vxcli_rx_broker_detach(kChannel));
  reader.join();
  EXPECT_EQ(-2, result);
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_end(kChannel));
  device.push(patterned(1));
  ASSERT_EQ(0, vxcli_rx_broker_attach(kChannel, kDevice, kNotify, 16));  // a fresh worker
  ASSERT_TRUE(eventually([&] { return published() == 1; }));
}

}  // namespace
