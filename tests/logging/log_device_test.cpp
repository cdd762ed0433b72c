#include <gtest/gtest.h>

#include <cstring>

#include "blf_build.h"
#include "logging/blf_reader.h"
#include "logging/log_device.h"
#include "message/frame.h"

namespace {

VXMessage can_record(uint32_t id, uint32_t flags, uint8_t dlc, bool tx) {
  uint8_t data[64];
  for (int i = 0; i < 64; i++) data[i] = (uint8_t)(i + 1);
  VXMessage m;
  vxcli_can_message_init(&m, id, flags, dlc, data, vxcli_dlc_to_bytes(dlc));
  if (tx) m.header |= VX_MSG_TX;
  m.timestamp = 1234;
  return m;
}

}  // namespace

TEST(LogDevice, RecordsBecomeFramesAndBack) {
  VXMessage m = can_record(0x18FEF100, VXCLI_FRAME_IDE | VXCLI_FRAME_FDF | VXCLI_FRAME_BRS | VXCLI_FRAME_ESI, 13, true);
  vxcli_log_frame f;
  ASSERT_EQ(vxcli_log_frame_from_message(&m, 3, &f), 1);
  EXPECT_EQ(f.channel, 3);
  EXPECT_EQ(f.id, 0x18FEF100u);
  EXPECT_TRUE(f.extended && f.fd && f.brs && f.esi && f.tx);
  EXPECT_EQ(f.dlc, 13);
  EXPECT_EQ(f.length, 32);
  EXPECT_EQ(f.data[31], 32);
  VXMessage back;
  vxcli_log_frame_to_message(&f, &back);
  EXPECT_EQ(back.id, m.id);
  EXPECT_EQ(back.control, m.control);
  EXPECT_EQ(memcmp(back.data, m.data, 32), 0);

  // A classic frame with DLC 12 carries 8 bytes; a remote frame none.
  m = can_record(0x123, 0, 12, false);
  ASSERT_EQ(vxcli_log_frame_from_message(&m, 1, &f), 1);
  EXPECT_EQ(f.length, 8);
  EXPECT_FALSE(f.tx);
  m = can_record(0x123, VXCLI_FRAME_RTR, 4, false);
  ASSERT_EQ(vxcli_log_frame_from_message(&m, 1, &f), 1);
  EXPECT_TRUE(f.remote);
  EXPECT_EQ(f.length, 0);

  VXMessage lin = {};
  lin.header = VX_MSG_HEADER_LIN | VX_MSG_TX;
  lin.id = 0x3C;
  lin.control = 3 | VX_LIN_CTRL_ENHANCED;
  lin.lin_checksum = 0x5A;
  lin.data[2] = 0x77;
  ASSERT_EQ(vxcli_log_frame_from_message(&lin, 2, &f), 1);
  EXPECT_TRUE(f.is_lin && f.tx && f.lin_enhanced);
  EXPECT_EQ(f.length, 3);
  EXPECT_EQ(f.lin_checksum, 0x5A);
  VXLinMessage out;
  vxcli_log_frame_to_lin_message(&f, &out);
  EXPECT_EQ(out.id, 0x3C);
  EXPECT_EQ(out.control, 3 | VX_LIN_CTRL_MASTER_DATA | VX_LIN_CTRL_ENHANCED);
  EXPECT_EQ(out.data[2], 0x77);

  VXMessage other = {};
  other.header = VX_MSG_MARKER | 5;
  EXPECT_EQ(vxcli_log_frame_from_message(&other, 1, &f), 0);
}

TEST(LogDevice, BlfWriteTakesDeviceRecords) {
  blftest::TempDir dir;
  std::string path = dir.file("dev.blf");
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), 1000);
  VXMessage m = can_record(0x1ABCDEF, VXCLI_FRAME_IDE, 8, false);
  EXPECT_EQ(vxcli_blf_write(nullptr, nullptr, &m, 1, 2, 0), -1);
  EXPECT_EQ(vxcli_blf_write(h, nullptr, nullptr, 1, 2, 0), -1);
  EXPECT_EQ(vxcli_blf_write(h, nullptr, &m, 0, 2, 0), -1);
  VXMessage other = {};
  EXPECT_EQ(vxcli_blf_write(h, nullptr, &other, 1, 2, 0), 0);
  // Without a channel the record's microseconds give the time.
  EXPECT_EQ(vxcli_blf_write(h, nullptr, &m, 2, 2, 0), 1);
  VXMessage lin = {};
  lin.header = VX_MSG_HEADER_LIN;
  lin.id = 0x10;
  lin.control = 2;
  lin.timestamp = 2000;
  EXPECT_EQ(vxcli_blf_write(h, nullptr, &lin, 1, 1, 0), 1);
  EXPECT_EQ(vxcli_blf_close(h), 0);

  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  vxcli_log_frame f;
  uint32_t objects = 0;
  ASSERT_EQ(vxcli_blf_next_frame(r, &f, &objects), 1);
  EXPECT_EQ(f.channel, 2);
  EXPECT_EQ(f.id, 0x1ABCDEFu);
  EXPECT_TRUE(f.extended);
  EXPECT_EQ(f.time_ns, 1234u * 1000 - 1000);
  ASSERT_EQ(vxcli_blf_next_frame(r, &f, &objects), 1);
  EXPECT_TRUE(f.is_lin);
  EXPECT_EQ(f.lin_enhanced, 1);  // the model given by the caller, recorded before the frame
  EXPECT_EQ(objects, 3u);
  BLFReader_close(r);
}
