// The worker on a real channel of the virtual analyzer: 10356/0 and 10357/0
// share bus 0, so what one sends the other's worker must deliver.
#include "broker_util.h"

#include <cstdlib>
#include <memory>
#include <vector>

#include "channel/channel.h"
#include "cli/hooks.h"
#include "vxtest.h"

namespace {

constexpr int kSlot = 3;

class BrokerOnAnalyzer : public brokertest::BrokerTest {
 protected:
  void SetUp() override {
    BrokerTest::SetUp();
    sandbox = std::make_unique<vxtest::Sandbox>();
    setenv("VXSIM_DIR", sandbox->env()["VXSIM_DIR"].c_str(), 1);
    char message[512] = "";
    ASSERT_EQ(0, vxcli_device_library_init(message, sizeof message)) << message;
    library_up = true;
    rx = vxcli_open_can_channel_ex("10357/0", nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
    tx = vxcli_open_can_channel_ex("10356/0", nullptr, VX_CAN_MODE_NORMAL, 0, nullptr);
    ASSERT_TRUE(rx != nullptr && tx != nullptr);
    VXNotifyHandle notify = 0;
    ASSERT_EQ(VX_OK, VX_GetNotification(rx, &notify));
    ASSERT_EQ(0, vxcli_rx_broker_attach(kSlot, rx, notify, 8192));
  }
  void TearDown() override {
    BrokerTest::TearDown();  // the worker stops before its channel closes
    if (rx) VX_Close(rx);
    if (tx) VX_Close(tx);
    if (library_up) vxcli_device_library_shutdown();
    sandbox.reset();
    unsetenv("VXSIM_DIR");
  }
  // Frame n carries n in its first data bytes.
  void send(uint32_t n, uint32_t id) {
    VXMessage m{};
    m.id = id;
    m.control = 8;
    std::memcpy(m.data, &n, sizeof n);
    ASSERT_EQ(VX_OK, VX_WriteCanMessage(tx, &m));
  }
  static uint32_t number_of(const VXMessage& m) {
    uint32_t n = 0;
    std::memcpy(&n, m.data, sizeof n);
    return n;
  }

  std::unique_ptr<vxtest::Sandbox> sandbox;
  bool library_up = false;
  VXHandle rx = nullptr;
  VXHandle tx = nullptr;
};

TEST_F(BrokerOnAnalyzer, WorkerDeliversBusTrafficInOrder) {
  const vxcli_rx_filter low = {0, 0, 1, 0x100, 0x17F, 0, 0};
  vxcli_rx_cursor all = open(kSlot, 0, "logging");
  vxcli_rx_cursor some = open(kSlot, 0, "isotp", &low);
  constexpr uint32_t kFrames = 2048;  // identifiers cycle 0x100..0x1FF eight times
  for (uint32_t n = 0; n < kFrames; ++n) send(n, 0x100 + (n % 0x100));

  std::vector<vxcli_rx_record> batch(128);
  uint32_t next = 0;
  uint64_t faults = 0;
  uint64_t last_time = 0;
  while (next < kFrames) {
    size_t count = 0;
    ASSERT_EQ(1, vxcli_rx_broker_read_batch(&all, batch.data(), batch.size(), &count, 10000))
        << "after frame " << next;
    for (size_t i = 0; i < count; ++i, ++next) {
      const VXMessage& m = batch[i].message;
      faults += number_of(m) != next || m.id != 0x100 + (next % 0x100) ||
                (m.header & VX_MSG_TYPE_MASK) != VX_MSG_TYPE_CAN || (m.header & VX_MSG_TX) ||
                batch[i].channel != kSlot || batch[i].timestamp64 < last_time;
      last_time = batch[i].timestamp64;
    }
  }
  EXPECT_EQ(0u, faults);
  EXPECT_EQ(0u, all.lost);
  size_t count = 0;  // everything is buffered by now: drain the filtered cursor
  while (vxcli_rx_broker_read_batch(&some, batch.data(), batch.size(), &count, 0) == 1) continue;
  EXPECT_EQ(kFrames / 2, some.delivered);
  EXPECT_EQ(kFrames / 2, some.filtered);
  EXPECT_EQ(0u, stats(kSlot).read_errors);
}

TEST_F(BrokerOnAnalyzer, ExclusiveSessionHandsTheDeviceToTheHolder) {
  vxcli_rx_cursor cursor = open(kSlot, 0);
  send(1, 0x10);
  vxcli_rx_record r{};
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 10000));

  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kSlot, 5000));
  for (uint32_t n = 2; n <= 6; ++n) send(n, 0x20);
  for (uint32_t n = 2; n <= 6; ++n) {  // the worker leaves every frame to the holder
    VXMessage m{};
    ASSERT_EQ(VX_OK, VX_Read(rx, &m, 5000, nullptr));
    EXPECT_EQ(n, number_of(m));
  }
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(kSlot));

  send(7, 0x30);
  EXPECT_EQ(3, vxcli_rx_broker_read(&cursor, &r, 10000));
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 10000));
  EXPECT_EQ(7u, number_of(r.message));
  EXPECT_EQ(1u, r.sequence);
  EXPECT_EQ(2u, stats(kSlot).published);
}

}  // namespace
