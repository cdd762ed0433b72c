// Helpers shared by the broker tests: device messages and a broker fixture.
#pragma once

#include "daemon/rx_broker.h"

#include <gtest/gtest.h>

#include <cstring>

namespace brokertest {

// A CAN frame as the library delivers it (29-bit identifiers split as the
// library stores them).
inline VXMessage can_frame(uint32_t id, bool extended = false, uint32_t timestamp = 0,
                           bool tx = false) {
  VXMessage m{};
  m.header = static_cast<uint16_t>(VX_MSG_HEADER_CAN | (tx ? VX_MSG_TX : 0));
  m.length = VX_MSG_PAYLOAD_LEN;
  m.timestamp = timestamp;
  m.id = extended ? ((id >> 18) & VX_ID_STD_MASK) | ((id & VX_ID_EXT_MASK) << VX_ID_EXT_SHIFT)
                  : (id & VX_ID_STD_MASK);
  m.control = static_cast<uint8_t>(8 | (extended ? VX_CTRL_IDE : 0));
  return m;
}

// Frame n: every byte from offset 13 on derives from n, so a record mixed
// from two publishes is detectable.
inline VXMessage patterned(uint64_t n) {
  VXMessage m = can_frame(static_cast<uint32_t>(n & 0x7FF), false, static_cast<uint32_t>(n));
  auto* bytes = reinterpret_cast<uint8_t*>(&m);
  for (size_t i = 13; i < sizeof m; ++i) bytes[i] = static_cast<uint8_t>(n * 31 + i);
  return m;
}

inline bool is_patterned(const vxcli_rx_record& r) {
  const VXMessage expect = patterned(r.sequence);
  return std::memcmp(&expect, &r.message, sizeof expect) == 0;
}

class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, vxcli_rx_broker_init()); }
  void TearDown() override {
    vxcli_rx_broker_shutdown();
    vxcli_rx_broker_set_device_ops(nullptr);
  }
  static void publish(int channel, uint64_t first, uint64_t last) {
    for (uint64_t n = first; n <= last; ++n) {
      const VXMessage m = patterned(n);
      ASSERT_EQ(0, vxcli_rx_broker_publish(channel, &m));
    }
  }
  static vxcli_rx_channel_stats stats(int channel) {
    vxcli_rx_channel_stats s{};
    EXPECT_EQ(0, vxcli_rx_broker_stats(channel, &s));
    return s;
  }
  static vxcli_rx_cursor open(int channel, int from_oldest, const char* name = nullptr,
                              const vxcli_rx_filter* filter = nullptr) {
    vxcli_rx_cursor c{};
    EXPECT_EQ(0, vxcli_rx_broker_cursor_open_named(channel, from_oldest, name, filter, &c));
    return c;
  }
  // Reads once without waiting; the record's sequence or 0 in *sequence.
  static int poll(vxcli_rx_cursor* c, uint64_t* sequence = nullptr) {
    vxcli_rx_record r{};
    const int rc = vxcli_rx_broker_read(c, &r, 0);
    if (sequence != nullptr) *sequence = rc == 1 ? r.sequence : 0;
    return rc;
  }
};

}  // namespace brokertest
