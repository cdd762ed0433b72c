// Helpers shared by the broker tests: device messages and a broker fixture.
#pragma once

#include "daemon/rx_broker.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace brokertest {

using Message = std::array<uint8_t, VXCLI_RX_MESSAGE_SIZE>;

inline void put16(Message& m, size_t at, uint16_t v) { std::memcpy(m.data() + at, &v, 2); }
inline void put32(Message& m, size_t at, uint32_t v) { std::memcpy(m.data() + at, &v, 4); }

// A CAN frame in the library's layout: 29-bit identifiers keep their top 11
// bits in bits 0..10 and the low 18 bits in bits 11..28.
inline Message can_frame(uint32_t id, bool extended, uint32_t timestamp, bool tx = false) {
  Message m{};
  put16(m, 0, static_cast<uint16_t>(VXCLI_RX_TYPE_CAN | (tx ? 0x8 : 0)));
  put16(m, 2, 16);
  put32(m, 4, timestamp);
  const uint32_t word =
      extended ? ((id >> 18) & 0x7FFu) | ((id & 0x3FFFFu) << 11) : (id & 0x7FFu);
  put32(m, 8, word);
  m[12] = extended ? 0x10 : 0x00;
  return m;
}

inline Message lin_frame(uint8_t id, uint32_t timestamp) {
  Message m{};
  put16(m, 0, VXCLI_RX_TYPE_LIN);
  put16(m, 2, 4);
  put32(m, 4, timestamp);
  m[8] = id;
  return m;
}

// A frame whose bytes 8..95 all derive from n, so that a record mixed from
// two publishes is detectable.
inline Message patterned(uint64_t n) {
  Message m = can_frame(static_cast<uint32_t>(n & 0x7FF), false, static_cast<uint32_t>(n));
  for (size_t i = 13; i < m.size(); ++i) m[i] = static_cast<uint8_t>(n * 31 + i);
  return m;
}

inline bool is_patterned(const vxcli_rx_record& r) {
  const Message expect = patterned(r.sequence);
  return std::memcmp(expect.data(), r.message, expect.size()) == 0;
}

class BrokerTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(0, vxcli_rx_broker_init()); }
  void TearDown() override {
    vxcli_rx_broker_shutdown();
    vxcli_rx_broker_set_device_ops(nullptr);
  }

  static void publish(int channel, const Message& m) {
    ASSERT_EQ(0, vxcli_rx_broker_publish(channel, m.data()));
  }
  static vxcli_rx_channel_stats stats(int channel) {
    vxcli_rx_channel_stats s{};
    EXPECT_EQ(0, vxcli_rx_broker_stats(channel, &s));
    return s;
  }
};

}  // namespace brokertest
