// The broker's worker on a real channel of the virtual analyzer: 10356/0 and
// 10357/0 share bus 0, so what one sends the other's worker must deliver.
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
    ASSERT_NE(nullptr, rx);
    ASSERT_NE(nullptr, tx);
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

  // Frame n carries n in its first four data bytes.
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
  vxcli_rx_cursor all{};
  vxcli_rx_cursor some{};
  vxcli_rx_filter low{};
  low.range_enabled = 1;
  low.range_low = 0x100;
  low.range_high = 0x17F;
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open_named(kSlot, 0, "logging", nullptr, &all));
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open_named(kSlot, 0, "isotp", &low, &some));

  constexpr uint32_t kFrames = 2048;  // identifiers cycle 0x100..0x1FF eight times
  for (uint32_t n = 0; n < kFrames; ++n) send(n, 0x100 + (n % 0x100));

  std::vector<vxcli_rx_record> batch(128);
  uint32_t next = 0;
  uint64_t last_time = 0;
  bool ordered = true;
  while (next < kFrames) {
    size_t count = 0;
    ASSERT_EQ(1, vxcli_rx_broker_read_batch(&all, batch.data(), batch.size(), &count, 10000))
        << "after frame " << next;
    for (size_t i = 0; i < count; ++i, ++next) {
      const VXMessage& m = batch[i].message;
      ordered = ordered && number_of(m) == next && m.id == 0x100 + (next % 0x100) &&
                (m.header & VX_MSG_TYPE_MASK) == VX_MSG_TYPE_CAN && !(m.header & VX_MSG_TX) &&
                batch[i].channel == kSlot && batch[i].timestamp64 >= last_time;
      last_time = batch[i].timestamp64;
    }
  }
  EXPECT_TRUE(ordered);
  EXPECT_EQ(0u, all.lost);

  // The filtered reader saw exactly the identifiers 0x100..0x17F.
  uint32_t admitted = 0;
  for (;;) {
    size_t count = 0;
    if (vxcli_rx_broker_read_batch(&some, batch.data(), batch.size(), &count, 0) != 1) break;
    for (size_t i = 0; i < count; ++i) {
      EXPECT_LE(batch[i].message.id, 0x17Fu);
      ++admitted;
    }
  }
  EXPECT_EQ(kFrames / 2, admitted);
  EXPECT_EQ(kFrames / 2, some.filtered);

  vxcli_rx_channel_stats s{};
  ASSERT_EQ(0, vxcli_rx_broker_stats(kSlot, &s));
  EXPECT_EQ(kFrames, s.published);
  EXPECT_EQ(0u, s.read_errors);
}

TEST_F(BrokerOnAnalyzer, ExclusiveSessionHandsTheDeviceToTheHolder) {
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(kSlot, 0, &cursor));
  send(1, 0x10);
  vxcli_rx_record r{};
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 10000));

  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(kSlot, 5000));
  for (uint32_t n = 2; n <= 6; ++n) send(n, 0x20);
  // The holder reads the device itself; the worker must not take anything.
  for (uint32_t n = 2; n <= 6; ++n) {
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
  vxcli_rx_channel_stats s{};
  ASSERT_EQ(0, vxcli_rx_broker_stats(kSlot, &s));
  EXPECT_EQ(2u, s.published);
}

}  // namespace
