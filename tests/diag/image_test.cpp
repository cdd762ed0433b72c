#include <gtest/gtest.h>

#include "diag/image.h"
#include "vxtest.h"

TEST(ImageIhex, SegmentsAndAddressRecords) {
  // Two adjacent data records, a gap, then data above 64 KiB via type 04.
  const char* text =
      ":0400000001020304F2\r\n"
      ":02000400AABB95\n"
      "\n"
      ":0200100011229\x42\n";
  std::vector<vxcli_image_segment> seg;
  char err[160];
  // The last record above has a bad checksum on purpose.
  EXPECT_EQ(vxcli_image_parse_ihex(text, &seg, err, sizeof err), -1);
  EXPECT_NE(std::string(err).find("line 4"), std::string::npos) << err;

  const char* good =
      ":0400000001020304F2\n"
      ":0400040005060708DE\n"
      ":02001000AABB89\n"
      ":020000040001F9\n"
      ":0100000099 66\n";
  EXPECT_EQ(vxcli_image_parse_ihex(good, &seg, err, sizeof err), -1);  // blank inside a record
  const char* good2 =
      ":0400000001020304F2\n"
      ":0400040005060708DE\n"
      ":02001000AABB89\n"
      ":020000040001F9\n"
      ":010000009966\n"
      ":00000001FF\n";
  ASSERT_EQ(vxcli_image_parse_ihex(good2, &seg, err, sizeof err), 0) << err;
  ASSERT_EQ(seg.size(), 3u);
  EXPECT_EQ(seg[0].address, 0u);
  EXPECT_EQ(seg[0].data, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(seg[1].address, 0x10u);
  EXPECT_EQ(seg[2].address, 0x10000u);
  EXPECT_EQ(seg[2].data, (std::vector<uint8_t>{0x99}));
}

TEST(ImageIhex, Rejections) {
  std::vector<vxcli_image_segment> seg;
  char err[160];
  EXPECT_EQ(vxcli_image_parse_ihex("garbage\n", &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_parse_ihex(":0400000001020304\n", &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_parse_ihex(":0400000001020304F2\n:0200020001FFFC\n", &seg, err, sizeof err), -1)
      << "overlap";
  EXPECT_NE(std::string(err).find("overlap"), std::string::npos);
  EXPECT_EQ(vxcli_image_parse_ihex(":00000001FF\n:0100000099 66\n", &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_parse_ihex(":0100000699 60\n", &seg, err, sizeof err), -1);
  ASSERT_EQ(vxcli_image_parse_ihex(":00000001FF\n", &seg, err, sizeof err), 0);
  EXPECT_TRUE(seg.empty());
}

TEST(ImageSrec, AllAddressWidths) {
  // S1 (16-bit), S2 (24-bit), S3 (32-bit), header and terminations.
  const char* text =
      "S00600004844521B\n"
      "S107000001020304EE\n"
      "S107000405060708DA\n"
      "S2060100001122C5\n"
      "S30808000000DEADBEA6\n"
      "S5030003F9\n"
      "S9030000FC\n";
  std::vector<vxcli_image_segment> seg;
  char err[160];
  ASSERT_EQ(vxcli_image_parse_srec(text, &seg, err, sizeof err), 0) << err;
  ASSERT_EQ(seg.size(), 3u);
  EXPECT_EQ(seg[0].data, (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(seg[1].address, 0x10000u);
  EXPECT_EQ(seg[1].data, (std::vector<uint8_t>{0x11, 0x22}));
  EXPECT_EQ(seg[2].address, 0x08000000u);
  EXPECT_EQ(seg[2].data, (std::vector<uint8_t>{0xDE, 0xAD, 0xBE}));
  EXPECT_EQ(vxcli_image_parse_srec("S107000001020304EF\n", &seg, err, sizeof err), -1);
  EXPECT_NE(std::string(err).find("checksum"), std::string::npos);
  EXPECT_EQ(vxcli_image_parse_srec("S107000001\n", &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_parse_srec(":0400000001020304F2\n", &seg, err, sizeof err), -1);
}

TEST(ImageLoad, DetectionAndRawBinary) {
  vxtest::Sandbox box;
  std::string hex = box.write_file("fw.bin", ":0400000001020304F2\n:00000001FF\n");
  std::string s19 = box.write_file("fw.dat", "S107000001020304EE\n");
  std::string raw = box.write_file("fw.raw", std::string("\x01\x02\x03\x04\x05", 5));
  std::vector<vxcli_image_segment> seg;
  char err[256];
  ASSERT_EQ(vxcli_image_load(hex.c_str(), VXCLI_IMAGE_AUTO, 0, 0, &seg, err, sizeof err), 0) << err;
  ASSERT_EQ(seg.size(), 1u);  // content wins over the .bin extension
  EXPECT_EQ(seg[0].data.size(), 4u);
  ASSERT_EQ(vxcli_image_load(s19.c_str(), VXCLI_IMAGE_AUTO, 0, 0, &seg, err, sizeof err), 0) << err;
  EXPECT_EQ(seg[0].data.size(), 4u);
  ASSERT_EQ(vxcli_image_load(raw.c_str(), VXCLI_IMAGE_AUTO, 0x1000, 3, &seg, err, sizeof err), 0);
  ASSERT_EQ(seg.size(), 1u);
  EXPECT_EQ(seg[0].address, 0x1000u);
  EXPECT_EQ(seg[0].data, (std::vector<uint8_t>{1, 2, 3}));
  EXPECT_EQ(vxcli_image_load(raw.c_str(), VXCLI_IMAGE_BINARY, 0, 6, &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_load(raw.c_str(), VXCLI_IMAGE_BINARY, 0xFFFFFFFE, 0, &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_load(box.path("missing").c_str(), VXCLI_IMAGE_AUTO, 0, 0, &seg, err, sizeof err), -1);
  EXPECT_EQ(vxcli_image_parse_format("s19"), VXCLI_IMAGE_SREC);
  EXPECT_EQ(vxcli_image_parse_format("IHEX"), VXCLI_IMAGE_IHEX);
  EXPECT_EQ(vxcli_image_parse_format("elf"), -1);
}
