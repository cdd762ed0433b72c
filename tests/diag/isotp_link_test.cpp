// The ISO-TP link over a receive-broker cursor, fed by publishing into a
// broker channel that has no device behind it.
#include <gtest/gtest.h>

#include <cstring>

#include "daemon/rx_broker.h"
#include "diag/commands.h"
#include "diag/isotp_link.h"

namespace {

VXMessage can(uint32_t id, std::initializer_list<uint8_t> bytes, bool transmitted = false) {
  VXMessage m;
  memset(&m, 0, sizeof m);
  m.header = static_cast<uint16_t>(VX_MSG_HEADER_CAN | (transmitted ? VX_MSG_TX : 0));
  m.length = VX_MSG_PAYLOAD_LEN;
  m.id = id;
  m.control = static_cast<uint8_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), m.data);
  return m;
}

class IsotpBrokerLink : public ::testing::Test {
 protected:
  static constexpr int kSlot = 5;
  void publish(uint32_t id, std::initializer_list<uint8_t> bytes, bool transmitted = false) {
    VXMessage m = can(id, bytes, transmitted);
    vxcli_rx_broker_publish(kSlot, &m);
  }
  vxcli_isotp_link link;
  void SetUp() override {
    ASSERT_EQ(vxcli_rx_broker_init(), 0);
    vxcli_isotp_use_rx_broker();
    ASSERT_EQ(vxcli_rx_broker_attach(kSlot, nullptr, 0, 64), 0);
    vxcli_isotp_endpoint e;
    e.reqid = 0x7E0;
    e.respid = 0x7E8;
    ASSERT_EQ(vxcli_isotp_endpoint_link_open(e, VXCLI_ISOTP_ROLE_TESTER, &link, nullptr, kSlot, "test"), 0);
  }
  void TearDown() override {
    vxcli_isotp_link_close(&link);
    vxcli_rx_broker_shutdown();
  }
  uint32_t receive(std::vector<uint8_t>* out, int32_t timeout_ms = 200) {
    uint8_t buffer[64];
    uint32_t length = sizeof buffer;
    uint32_t status = vxcli_isotp_link_receive(&link, buffer, &length, timeout_ms);
    out->assign(buffer, buffer + (status == 0 ? length : 0));
    return status;
  }
};

TEST_F(IsotpBrokerLink, OnlyReceivedFramesOfTheResponseIdCount) {
  publish(0x7E8, {0x02, 0x50, 0x01}, true);  // own transmission
  publish(0x7E9, {0x02, 0x50, 0x01});        // someone else's
  publish(0x7E8, {0x03, 0x62, 0xF1, 0x90});
  std::vector<uint8_t> got;
  ASSERT_EQ(receive(&got), 0u) << vxcli_isotp_link_error(&link);
  EXPECT_EQ(got, (std::vector<uint8_t>{0x62, 0xF1, 0x90}));
  EXPECT_EQ(link.stats.frames_received, 1u);

  EXPECT_EQ(receive(&got, 30), 0x80000u);
  EXPECT_STREQ(vxcli_isotp_link_error(&link), "timeout");
}

TEST_F(IsotpBrokerLink, GapAndDetachAreReported) {
  // More records than the ring holds: the reader lost some and is told so.
  for (int i = 0; i < 100; i++) publish(0x7E8, {0x01, 0x7E});
  std::vector<uint8_t> got;
  EXPECT_EQ(receive(&got), 0x40u);
  EXPECT_STREQ(vxcli_isotp_link_error(&link), "receive broker gap");
  EXPECT_EQ(receive(&got), 0u);  // the next call starts afresh at the oldest record

  // What was read before the detach is still delivered; then the link reports it.
  vxcli_rx_broker_detach(kSlot);
  uint32_t status = 0;
  for (int i = 0; i < 100 && status == 0; i++) status = receive(&got);
  EXPECT_EQ(status, 0x1C00u);
  EXPECT_STREQ(vxcli_isotp_link_error(&link), "channel closed");
}

TEST(IsotpLinkOpen, BrokerSlotMustBeAttached) {
  ASSERT_EQ(vxcli_rx_broker_init(), 0);
  vxcli_isotp_use_rx_broker();
  vxcli_isotp_endpoint e;
  e.reqid = 0x7E0;
  e.respid = 0x7E8;
  vxcli_isotp_link link;
  EXPECT_EQ(vxcli_isotp_endpoint_link_open(e, VXCLI_ISOTP_ROLE_TESTER, &link, nullptr, 7, "x"), -1);
  uint8_t b[8];
  uint32_t n = sizeof b;
  EXPECT_EQ(vxcli_isotp_link_receive(&link, b, &n, 0), 0x1C00u);
  vxcli_rx_broker_shutdown();
}

}  // namespace
