// Record layouts as other programs read them as raw bytes, the frame and
// LIN arithmetic, and topology files.
#include <gtest/gtest.h>

#include <cstring>

#include "../../vxsim/common/frame.h"
#include "../../vxsim/common/topology.h"
#include "vxapi.h"
#include "vxtest.h"

using namespace vxsim;

TEST(Records, CanRecordMatchesTheRawByteView) {
  VXMessage m;
  uint8_t data[12] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB, 0xCC};
  make_can_record(m, 0x18DAF110, VX_FRAME_IDE | VX_FRAME_FDF | VX_FRAME_BRS, data, 12);
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(&m);
  uint32_t word0, idword;
  std::memcpy(&word0, raw, 4);
  std::memcpy(&idword, raw + 8, 4);
  EXPECT_EQ(word0, VX_MSG_HEADER_WORD_CAN);
  EXPECT_EQ(word0, 0x0048FFE2u);
  // Base identifier = bits 18..28, extension = bits 0..17 of the 29-bit value.
  EXPECT_EQ(idword & 0x7FF, 0x18DAF110u >> 18);
  EXPECT_EQ((idword >> 11) & 0x3FFFF, 0x18DAF110u & 0x3FFFF);
  EXPECT_EQ(raw[12], 9 | VX_CTRL_IDE | VX_CTRL_EDL | VX_CTRL_BRS);
  EXPECT_EQ(raw[16], 0x11);
  EXPECT_EQ(raw[27], 0xCC);
  EXPECT_EQ(can_plain_id(m), 0x18DAF110u);
  EXPECT_EQ(can_payload_length(m), 12u);
  EXPECT_EQ(can_frame_flags(m), VX_FRAME_IDE | VX_FRAME_FDF | VX_FRAME_BRS);

  // Classic frames: no BRS/ESI, DLC above 8 still carries 8 bytes, RTR no data.
  make_can_record(m, 0x123, VX_FRAME_BRS | VX_FRAME_ESI, data, 8);
  EXPECT_EQ(m.control, 8);
  EXPECT_EQ(m.flags, 0);
  m.control = 12;
  EXPECT_EQ(can_payload_length(m), 8u);
  make_can_record(m, 0x123, VX_FRAME_RTR, data, 4);
  EXPECT_EQ(can_payload_length(m), 0u);
  EXPECT_EQ(m.data[0], 0);
}

TEST(Records, LinMessageIsEmbeddedInTheReceivedRecord) {
  VXMessage m{};
  VXLinMessage l{};
  l.id = 0x10;
  l.control = 4 | VX_LIN_CTRL_ENHANCED;
  l.status = VX_LIN_STATUS_NO_RESPONSE;
  l.checksum = 0x96;
  l.data[3] = 0xE5;
  std::memcpy(reinterpret_cast<uint8_t*>(&m) + 8, &l, sizeof l);
  EXPECT_EQ(m.id, 0x10u);
  EXPECT_EQ(m.control, l.control);
  EXPECT_EQ(m.lin_status, VX_LIN_STATUS_NO_RESPONSE);
  EXPECT_EQ(m.lin_checksum, 0x96);
  EXPECT_EQ(m.data[3], 0xE5);
}

TEST(Records, TaskAndRouteViewsShareTheirBytes) {
  VXLinResponseTask r{};
  r.enabled = 1;
  r.kind = VX_TXTASK_KIND_LIN_RESPONSE;
  r.flags = VX_LINTASK_ACTIVE | VX_LINTASK_ENHANCED;
  r.length = 2;
  r.user = 0x1234;
  r.repeat = 1;
  r.id = 0x22;
  r.checksum = 0x5A;
  r.data[1] = 0x77;
  VXTxTask t;
  std::memcpy(&t, &r, sizeof t);
  EXPECT_EQ(t.type, 1);
  EXPECT_EQ(t.kind, VX_TXTASK_KIND_LIN_RESPONSE);
  EXPECT_EQ(t.lin_id, 0x22);
  EXPECT_EQ(t.lin_checksum, 0x5A);
  EXPECT_EQ(t.user, 0x1234);
  EXPECT_EQ(t.data[1], 0x77);

  VXRoute route{VX_ROUTE_UNICAST, 1, 2, {0, 0, 0}, 0xFF, VX_FRAME_IDE, 0x1FFFFFFF, 0x123};
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(&route);
  uint32_t mask, value;
  std::memcpy(&mask, raw + 8, 4);
  std::memcpy(&value, raw + 12, 4);
  EXPECT_EQ(raw[0], 1);
  EXPECT_EQ(raw[6], 0xFF);
  EXPECT_EQ(raw[7], VX_FRAME_IDE);
  EXPECT_EQ(mask, 0x1FFFFFFFu);
  EXPECT_EQ(value, 0x123u);
}

TEST(FrameArithmetic, LengthCodesRoundTrip) {
  const unsigned sizes[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  for (unsigned code = 0; code < 16; ++code) {
    EXPECT_EQ(dlc_to_bytes(code), sizes[code]);
    EXPECT_EQ(bytes_to_dlc(sizes[code]), code);
  }
  EXPECT_EQ(bytes_to_dlc(9), 9u);   // padded to 12
  EXPECT_EQ(bytes_to_dlc(20), 11u);
  EXPECT_EQ(bytes_to_dlc(49), 15u);
}

TEST(FrameArithmetic, LinProtectedIdentifierAndChecksums) {
  EXPECT_EQ(lin_pid(0x3C), 0x3C);
  EXPECT_EQ(lin_pid(0x01), 0xC1);
  EXPECT_EQ(lin_pid(0x10), 0x50);
  EXPECT_EQ(lin_pid(0x3F), 0xBF);
  const uint8_t data[] = {0x4A, 0x55, 0x93, 0xE5};
  EXPECT_EQ(lin_checksum(data, 4, 0x10, VX_LIN_CHECKSUM_CLASSIC), 0xE6);
  EXPECT_EQ(lin_checksum(data, 4, 0x10, VX_LIN_CHECKSUM_ENHANCED), 0x96);
  // End-around carry: 0xFF + 0x01 wraps to 0x01, inverted 0xFE.
  const uint8_t carry[] = {0xFF, 0x01};
  EXPECT_EQ(lin_checksum(carry, 2, 0, VX_LIN_CHECKSUM_CLASSIC), 0xFE);
  EXPECT_EQ(lin_checksum(nullptr, 0, 0x10, VX_LIN_CHECKSUM_ENHANCED), static_cast<uint8_t>(~0x50));
  EXPECT_EQ(lin_expected_model(0x3C, VX_LIN_CHECKSUM_ENHANCED, 0x22), VX_LIN_CHECKSUM_CLASSIC);
  EXPECT_EQ(lin_expected_model(0x3D, VX_LIN_CHECKSUM_ENHANCED, 0x22), VX_LIN_CHECKSUM_CLASSIC);
  EXPECT_EQ(lin_expected_model(0x3E, VX_LIN_CHECKSUM_ENHANCED, 0x22), VX_LIN_CHECKSUM_ENHANCED);
  EXPECT_EQ(lin_expected_model(0x20, VX_LIN_CHECKSUM_ENHANCED, 0x13), VX_LIN_CHECKSUM_CLASSIC);
}

TEST(FrameArithmetic, BitFieldsAreLittleEndian) {
  uint8_t d[8] = {};
  set_bits(d, 4, 12, 0xABC);
  EXPECT_EQ(d[0], 0xC0);
  EXPECT_EQ(d[1], 0xAB);
  EXPECT_EQ(get_bits(d, 4, 12), 0xABCu);
  set_bits(d, 32, 32, 0xFFFFFFFF);
  EXPECT_EQ(get_bits(d, 32, 32), 0xFFFFFFFFu);
  EXPECT_EQ(d[0], 0xC0);  // neighbours untouched
}

TEST(FrameArithmetic, ReceiveFiltersAndRoutes) {
  uint8_t data[1] = {0};
  VXMessage std100, ext100, fd200;
  make_can_record(std100, 0x100, 0, data, 1);
  make_can_record(ext100, 0x100, VX_FRAME_IDE, data, 1);
  make_can_record(fd200, 0x200, VX_FRAME_FDF, data, 1);

  VXRxFilter accept_all{VX_RXFILTER_ACCEPT, 0, 0, 0, 0, 0, 0};
  EXPECT_TRUE(rx_filters_pass(&accept_all, 1, fd200));
  EXPECT_TRUE(rx_filters_pass(nullptr, 0, fd200));

  // Exact standard 0x100 only: the flag condition tells IDE apart.
  VXRxFilter exact{VX_RXFILTER_ACCEPT, 0x1FFFFFFF, 0x100, 0, 0, VX_FRAME_IDE, 0};
  EXPECT_TRUE(rx_filters_pass(&exact, 1, std100));
  EXPECT_FALSE(rx_filters_pass(&exact, 1, ext100));
  EXPECT_FALSE(rx_filters_pass(&exact, 1, fd200));

  // Range plus a reject entry: the reject wins.
  VXRxFilter table[2] = {{VX_RXFILTER_ACCEPT, 0, 0, 0x100, 0x2FF, 0, 0},
                         {VX_RXFILTER_REJECT, 0, 0, 0, 0, VX_FRAME_FDF, VX_FRAME_FDF}};
  EXPECT_TRUE(rx_filters_pass(table, 2, std100));
  EXPECT_FALSE(rx_filters_pass(table, 2, fd200));
  // Unused entries change nothing.
  VXRxFilter unused[2] = {};
  EXPECT_TRUE(rx_filters_pass(unused, 2, ext100));

  VXRoute any{VX_ROUTE_UNICAST, 0, 1, {0, 0, 0}, 0, 0, 0, 0};
  VXRoute only_ext{VX_ROUTE_UNICAST, 0, 1, {0, 0, 0}, 0xFF, VX_FRAME_IDE, 0x1FFFFFFF, 0x100};
  EXPECT_TRUE(route_matches(any, fd200));
  EXPECT_TRUE(route_matches(only_ext, ext100));
  EXPECT_FALSE(route_matches(only_ext, std100));
}

TEST(Topology, DefaultWiring) {
  Topology t = topology_default();
  ASSERT_EQ(t.devices.size(), 2u);
  EXPECT_EQ(t.devices[0].serial, "10356");
  EXPECT_EQ(t.devices[1].serial, "10357");
  for (auto& d : t.devices) {
    ASSERT_EQ(d.ports.size(), 8u);
    EXPECT_EQ(d.unique_id.size(), 12u);
    for (int k = 0; k < 8; ++k) {
      EXPECT_EQ(d.ports[k].bus, k);
      uint16_t want = (k == 4 || k == 5) ? (VX_CAP_LIN | VX_CAP_VIRT) : (VX_CAP_CANFD | VX_CAP_CAN | VX_CAP_VIRT);
      EXPECT_EQ(d.ports[k].capability, want) << k;
    }
  }
}

TEST(Topology, ParsesFilesAndRejectsBadOnes) {
  Topology t;
  std::string err;
  ASSERT_EQ(topology_parse(R"(devices:
  - serial: "4711"
    unique_id: ABCDEF123456
    name: Bench
    firmware: 1.2.3.4
    vid: 0x1234
    pid: 17
    generation: 2.5
    ports:
      - {capability: [CANFD, VIRT], bus: 9}
      - {capability: "LIN|VIRT", bus: 3}
  - serial: "4712"
    ports:
      - {capability: 0x4002, bus: 9}
)", t, err), 0) << err;
  ASSERT_EQ(t.devices.size(), 2u);
  const DeviceSpec& d = t.devices[0];
  EXPECT_EQ(d.unique_id, "ABCDEF123456");
  EXPECT_EQ(d.firmware[3], 4);
  EXPECT_EQ(d.usb_vid, 0x1234);
  EXPECT_EQ(d.usb_pid, 17);
  EXPECT_EQ(d.generation, 2);
  EXPECT_EQ(d.generation_minor, 5);
  EXPECT_EQ(d.ports[0].capability, VX_CAP_CANFD | VX_CAP_CAN | VX_CAP_VIRT);  // FD implies CAN
  EXPECT_EQ(d.ports[1].bus, 3);
  EXPECT_EQ(t.devices[1].unique_id, "VXS000004712");

  const char* bad[] = {
      "devices: []\n",
      "devices:\n  - serial: a\n    ports: [{capability: CAN, bus: 0}, {capability: LIN, bus: 0}]\n",
      "devices:\n  - serial: a\n    ports: [{capability: CAN|LIN, bus: 0}]\n",
      "devices:\n  - serial: a\n    ports: [{capability: WARP, bus: 0}]\n",
      "devices:\n  - serial: a\n    unique_id: short\n    ports: [{capability: CAN, bus: 0}]\n",
      "devices:\n  - {serial: a, ports: [{capability: CAN, bus: 0}]}\n  - {serial: a, ports: [{capability: CAN, bus: 1}]}\n",
      "devices:\n  - serial: a\n    ports: [{capability: CAN, bus: 300}]\n",
      "devices: [unterminated\n",
  };
  for (const char* text : bad) EXPECT_NE(topology_parse(text, t, err), 0) << text;
  EXPECT_NE(topology_load(vxtest::testdata("missing-topology.yaml"), t, err), 0);
}
