#include <gtest/gtest.h>

#include "message/lin.h"

namespace {

TEST(LinArithmetic, ProtectedIdentifier) {
  EXPECT_EQ(vxcli_lin_pid(0x3C), 0x3C);
  EXPECT_EQ(vxcli_lin_pid(0x01), 0xC1);
  EXPECT_EQ(vxcli_lin_pid(0x10), 0x50);
  EXPECT_EQ(vxcli_lin_pid(0x3F), 0xBF);
  EXPECT_EQ(vxcli_lin_pid(0x00), 0x80);
  // Only the six identifier bits count.
  EXPECT_EQ(vxcli_lin_pid(0xC1), vxcli_lin_pid(0x01));
}

TEST(LinArithmetic, Checksums) {
  const uint8_t data[] = {0x4A, 0x55, 0x93, 0xE5};
  EXPECT_EQ(vxcli_lin_checksum(data, 4, 0x10, VXCLI_LIN_CHECKSUM_CLASSIC), 0xE6);
  EXPECT_EQ(vxcli_lin_checksum(data, 4, 0x10, VXCLI_LIN_CHECKSUM_ENHANCED), 0x96);
  // No data: the inverted start value.
  EXPECT_EQ(vxcli_lin_checksum(nullptr, 0, 0x10, VXCLI_LIN_CHECKSUM_CLASSIC), 0xFF);
  EXPECT_EQ(vxcli_lin_checksum(nullptr, 0, 0x10, VXCLI_LIN_CHECKSUM_ENHANCED), 0xAF);
  // End-around carry on every overflow.
  const uint8_t ff[] = {0xFF, 0xFF, 0x01};
  EXPECT_EQ(vxcli_lin_checksum(ff, 3, 0, VXCLI_LIN_CHECKSUM_CLASSIC), 0xFE);
}

TEST(LinOptions, Bitrate) {
  uint16_t v = 1;
  for (const char* ok : {"19.2k", "19200", "19,200", "19.2 kbps", "19200bps", "19.2K"}) {
    ASSERT_EQ(vxcli_parse_lin_bitrate(ok, &v), 0) << ok;
    EXPECT_EQ(v, 19200) << ok;
  }
  ASSERT_EQ(vxcli_parse_lin_bitrate("1k", &v), 0);
  EXPECT_EQ(v, 1000);
  ASSERT_EQ(vxcli_parse_lin_bitrate("", &v), 0);
  EXPECT_EQ(v, 19200);
  ASSERT_EQ(vxcli_parse_lin_bitrate("AUTO", &v), 0);
  EXPECT_EQ(v, 0);
  v = 7;
  for (const char* bad : {"20001", "999", "19.2505k", "k", "fast", "-19200", "19200x", "nan"})
    EXPECT_EQ(vxcli_parse_lin_bitrate(bad, &v), -1) << bad;
  EXPECT_EQ(v, 7);
  EXPECT_EQ(vxcli_parse_lin_bitrate("19200", nullptr), -1);
}

TEST(LinOptions, ModesElectricalVersionChecksumOperation) {
  uint32_t m = 99;
  EXPECT_EQ(vxcli_parse_lin_mode("", VXCLI_LIN_MODE_LISTEN, &m), 0);
  EXPECT_EQ(m, 3u);
  EXPECT_EQ(vxcli_parse_lin_mode("Master", 0, &m), 0);
  EXPECT_EQ(m, 8u);
  EXPECT_EQ(vxcli_parse_lin_mode("loopback", 0, &m), 0);
  EXPECT_EQ(m, 2u);
  EXPECT_EQ(vxcli_parse_lin_mode("spy", 0, &m), -1);
  EXPECT_EQ(m, 2u);

  uint32_t value = 0;
  EXPECT_EQ(vxcli_parse_lin_voltage("auto", VXCLI_LIN_MODE_MASTER, &value), 0);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(vxcli_parse_lin_voltage(nullptr, VXCLI_LIN_MODE_SLAVE, &value), 0);
  EXPECT_EQ(value, 0u);
  EXPECT_EQ(vxcli_parse_lin_voltage("ON", VXCLI_LIN_MODE_SLAVE, &value), 0);
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(vxcli_parse_lin_voltage("12v", VXCLI_LIN_MODE_SLAVE, &value), -1);
  EXPECT_EQ(vxcli_parse_lin_tres("", VXCLI_LIN_MODE_MASTER, &value), 0);
  EXPECT_EQ(value, 1000u);
  EXPECT_EQ(vxcli_parse_lin_tres("auto", VXCLI_LIN_MODE_LISTEN, &value), 0);
  EXPECT_EQ(value, 65535u);
  EXPECT_EQ(vxcli_parse_lin_tres("1K", VXCLI_LIN_MODE_LISTEN, &value), 0);
  EXPECT_EQ(value, 1000u);
  EXPECT_EQ(vxcli_parse_lin_tres("2k", VXCLI_LIN_MODE_LISTEN, &value), -1);

  uint8_t b = 0;
  EXPECT_EQ(vxcli_parse_lin_version("", &b), 0);
  EXPECT_EQ(b, 0x22);
  EXPECT_EQ(vxcli_parse_lin_version("13", &b), 0);
  EXPECT_EQ(b, 0x13);
  EXPECT_EQ(vxcli_parse_lin_version("2.1", &b), 0);
  EXPECT_EQ(b, 0x21);
  EXPECT_EQ(vxcli_parse_lin_version("3.0", &b), -1);
  EXPECT_STREQ(vxcli_lin_version_name(b), "2.1");

  EXPECT_EQ(vxcli_parse_lin_checksum("auto", 0x3C, &b), 0);
  EXPECT_EQ(b, VXCLI_LIN_CHECKSUM_CLASSIC);
  EXPECT_EQ(vxcli_parse_lin_checksum("", 0x3D, &b), 0);
  EXPECT_EQ(b, VXCLI_LIN_CHECKSUM_CLASSIC);
  EXPECT_EQ(vxcli_parse_lin_checksum("", 0x3E, &b), 0);
  EXPECT_EQ(b, VXCLI_LIN_CHECKSUM_ENHANCED);
  EXPECT_EQ(vxcli_parse_lin_checksum("Normal", 0x10, &b), 0);
  EXPECT_EQ(b, VXCLI_LIN_CHECKSUM_CLASSIC);
  EXPECT_EQ(vxcli_parse_lin_checksum("crc", 0x10, &b), -1);

  EXPECT_EQ(vxcli_parse_lin_operation(nullptr, &m), 0);
  EXPECT_EQ(m, VXCLI_LIN_MASTER_WRITE);
  EXPECT_EQ(vxcli_parse_lin_operation("SYNC-BREAK", &m), 0);
  EXPECT_EQ(m, VXCLI_LIN_SYNC_BREAK);
  EXPECT_EQ(vxcli_parse_lin_operation("data", &m), -1);
}

TEST(LinOutcome, MasterRead) {
  EXPECT_EQ(vxcli_lin_classify(VXCLI_LIN_MASTER_READ, 8, 8, 0), VXCLI_LIN_OUTCOME_OK);
  EXPECT_EQ(vxcli_lin_classify(VXCLI_LIN_MASTER_READ, 8, 8, 1), VXCLI_LIN_OUTCOME_OK);
  // Short answer, or an answer with error flags: the slave spoke but badly.
  EXPECT_EQ(vxcli_lin_classify(VXCLI_LIN_MASTER_READ, 8, 4, 0),
            VXCLI_LIN_OUTCOME_PROTOCOL_ERROR);
  EXPECT_EQ(vxcli_lin_classify(VXCLI_LIN_MASTER_READ, 8, 8, 0x02),
            VXCLI_LIN_OUTCOME_PROTOCOL_ERROR);
  EXPECT_EQ(vxcli_lin_classify(VXCLI_LIN_MASTER_READ, 8, 8, 0x40),
            VXCLI_LIN_OUTCOME_NO_RESPONSE);
  EXPECT_EQ(vxcli_lin_classify(VXCLI_LIN_MASTER_READ, 8, 0, 0x80),
            VXCLI_LIN_OUTCOME_NO_RESPONSE);
}

TEST(LinOutcome, WriteAndSyncBreak) {
  for (uint32_t op : {VXCLI_LIN_MASTER_WRITE, VXCLI_LIN_SYNC_BREAK}) {
    EXPECT_EQ(vxcli_lin_classify(op, 0, 2, 0), VXCLI_LIN_OUTCOME_UNEXPECTED);
    EXPECT_EQ(vxcli_lin_classify(op, 0, 2, 0x80), VXCLI_LIN_OUTCOME_UNEXPECTED);
    EXPECT_EQ(vxcli_lin_classify(op, 0, 0, 0x80), VXCLI_LIN_OUTCOME_OK);
    EXPECT_EQ(vxcli_lin_classify(op, 0, 0, 0x00), VXCLI_LIN_OUTCOME_PROTOCOL_ERROR);
  }
}

}  // namespace
