// Helpers shared by the broker tests: device messages and a broker fixture.
#pragma once

#include "daemon/rx_broker.h"

#include <gtest/gtest.h>

#include <cstring>

namespace brokertest {

using Message = VXMessage;

// A CAN frame as the library delivers it: 29-bit identifiers keep their top
// 11 bits in bits 0..10 and the low 18 bits in bits 11..28.
inline Message can_frame(uint32_t id, bool extended, uint32_t timestamp, bool tx = false) {
  Message m{};
  m.header = static_cast<uint16_t>(VX_MSG_HEADER_CAN | (tx ? VX_MSG_TX : 0));
  m.length = VX_MSG_PAYLOAD_LEN;
  m.timestamp = timestamp;
  m.id = extended ? ((id >> 18) & VX_ID_STD_MASK) | ((id & VX_ID_EXT_MASK) << VX_ID_EXT_SHIFT)
                  : (id & VX_ID_STD_MASK);
  m.control = static_cast<uint8_t>(8 | (extended ? VX_CTRL_IDE : 0));
  return m;
}

inline Message lin_frame(uint8_t id, uint32_t timestamp) {
  Message m{};
  m.header = VX_MSG_HEADER_LIN;
  m.length = VX_MSG_PAYLOAD_LEN;
  m.timestamp = timestamp;
  m.id = id;
  return m;
}

// A frame whose bytes from offset 13 on all derive from n, so that a record
// mixed from two publishes is detectable.
inline Message patterned(uint64_t n) {
  Message m = can_frame(static_cast<uint32_t>(n & 0x7FF), false, static_cast<uint32_t>(n));
  auto* bytes = reinterpret_cast<uint8_t*>(&m);
  for (size_t i = 13; i < sizeof m; ++i) bytes[i] = static_cast<uint8_t>(n * 31 + i);
  return m;
}

inline bool same_message(const Message& a, const Message& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

inline bool is_patterned(const vxcli_rx_record& r) {
  return same_message(patterned(r.sequence), r.message);
}

class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, vxcli_rx_broker_init()); }
  void TearDown() override {
    vxcli_rx_broker_shutdown();
    vxcli_rx_broker_set_device_ops(nullptr);
  }

  static void publish(int channel, const Message& m) {
    ASSERT_EQ(0, vxcli_rx_broker_publish(channel, &m));
  }
  static vxcli_rx_channel_stats stats(int channel) {
    vxcli_rx_channel_stats s{};
    EXPECT_EQ(0, vxcli_rx_broker_stats(channel, &s));
    return s;
  }
};

}  // namespace brokertest
