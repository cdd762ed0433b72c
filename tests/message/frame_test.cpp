#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "cli/output.h"
#include "json/json.h"
#include "message/frame.h"

namespace {

long id_with_stderr(const char* text, std::string* err) {
  testing::internal::CaptureStderr();
  long id = vxcli_parse_message_id(text);
  *err = testing::internal::GetCapturedStderr();
  return id;
}

TEST(MessageId, HexDecimalAndTheDecimalNote) {
  std::string err;
  EXPECT_EQ(id_with_stderr("100", &err), 100);
  EXPECT_NE(err.find("NOTE: --message=100 parsed as decimal (100). Use 0x prefix for hex."),
            std::string::npos);
  EXPECT_EQ(id_with_stderr("2047", &err), 2047);
  EXPECT_FALSE(err.empty());
  // Larger decimals cannot be standard ids, so they are taken silently.
  EXPECT_EQ(id_with_stderr("5000", &err), 5000);
  EXPECT_TRUE(err.empty());
  EXPECT_EQ(id_with_stderr("1A0", &err), 0x1A0);
  EXPECT_TRUE(err.empty());
  EXPECT_EQ(id_with_stderr("0x123", &err), 0x123);
  EXPECT_EQ(id_with_stderr("0X1fffffff", &err), 0x1FFFFFFF);
  EXPECT_TRUE(err.empty());
}

TEST(MessageId, Rejects) {
  std::string err;
  for (const char* bad : {"0x1G", "0x", "", "-5", "12z", "1A0z", " 12", "+7",
                          "0x99999999999999999999"})
    EXPECT_EQ(id_with_stderr(bad, &err), -1) << bad;
  EXPECT_EQ(vxcli_parse_message_id(nullptr), -1);
  bool decimal = true;
  EXPECT_EQ(vxcli_parse_message_id_quiet("abc", &decimal), 0xABC);
  EXPECT_FALSE(decimal);
}

TEST(Flags, WordsAreLowerCaseAndUnknownIgnored) {
  EXPECT_EQ(vxcli_parse_flags("fdf+brs"), 0x0Cu);
  EXPECT_EQ(vxcli_parse_flags("ide+rtr+esi"), 0x13u);
  EXPECT_EQ(vxcli_parse_flags("FDF"), 0u);
  EXPECT_EQ(vxcli_parse_flags("brs++bogus+fdf"), 0x0Cu);
  EXPECT_EQ(vxcli_parse_flags(""), 0u);
  EXPECT_EQ(vxcli_parse_flags(nullptr), 0u);
  // Cut at 255 characters: a word past the cut is not seen.
  std::string long_text(260, '+');
  EXPECT_EQ(vxcli_parse_flags((long_text + "ide").c_str()), 0u);
  char words[32];
  vxcli_frame_flag_words(0x1F, words, sizeof words);
  EXPECT_STREQ(words, "ide+fdf+brs+esi+rtr+");
}

TEST(Data, SeparatorsDigitsAndStop) {
  uint8_t out[64];
  ASSERT_EQ(vxcli_parse_data("11 22-33:44", out, 64), 4);
  EXPECT_EQ(out[0], 0x11);
  EXPECT_EQ(out[3], 0x44);
  ASSERT_EQ(vxcli_parse_data("1122zz", out, 64), 2);
  EXPECT_EQ(out[1], 0x22);
  ASSERT_EQ(vxcli_parse_data("a,bc,\t1", out, 64), 3);
  EXPECT_EQ(out[0], 0x0A);
  EXPECT_EQ(out[1], 0xBC);
  EXPECT_EQ(out[2], 0x01);
  // Odd digit counts pair up from the left.
  ASSERT_EQ(vxcli_parse_data("12345", out, 64), 3);
  EXPECT_EQ(out[2], 0x05);
  EXPECT_EQ(vxcli_parse_data("", out, 64), 0);
  EXPECT_EQ(vxcli_parse_data("zz", out, 64), 0);
  // Never writes past max.
  uint8_t small[3] = {0, 0, 0xEE};
  EXPECT_EQ(vxcli_parse_data("0102030405", small, 2), 2);
  EXPECT_EQ(small[2], 0xEE);
}

TEST(Dlc, TablesBothWays) {
  const int lengths[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  for (int code = 0; code < 16; code++) {
    EXPECT_EQ(vxcli_dlc_to_bytes(code), lengths[code]);
    EXPECT_EQ(vxcli_bytes_to_dlc(lengths[code]), code);
  }
  EXPECT_EQ(vxcli_dlc_to_bytes(200), 64);
  EXPECT_EQ(vxcli_bytes_to_dlc(9), 9);
  EXPECT_EQ(vxcli_bytes_to_dlc(20), 11);
  EXPECT_EQ(vxcli_bytes_to_dlc(33), 14);
  EXPECT_EQ(vxcli_bytes_to_dlc(49), 15);
  // Every length fits in the code chosen for it.
  for (int n = 0; n <= 64; n++) EXPECT_GE(vxcli_dlc_to_bytes(vxcli_bytes_to_dlc(n)), n);
}

TEST(DeviceId, ExtendedLayoutRoundTrips) {
  EXPECT_EQ(vxcli_can_id_to_device(0x123, false), 0x123u);
  EXPECT_EQ(vxcli_can_id_to_device(0xFFFF, false), 0x7FFu);
  // Bits 18..28 go low, bits 0..17 go up by 11.
  EXPECT_EQ(vxcli_can_id_to_device(0x12345678 & 0x1FFFFFFF, true),
            ((0x12345678u >> 18) & 0x7FF) | ((0x12345678u & 0x3FFFF) << 11));
  EXPECT_EQ(vxcli_can_id_to_device(1u << 18, true), 1u);
  EXPECT_EQ(vxcli_can_id_to_device(1, true), 1u << 11);
  for (uint32_t id : {0u, 1u, 0x7FFu, 0x800u, 0x18DAF110u, 0x1FFFFFFFu})
    EXPECT_EQ(vxcli_can_id_from_device(vxcli_can_id_to_device(id, true), true), id);
}

std::string format_can(const vxcli_can_frame& f, uint32_t format, uint64_t us, int prefix = 0,
                       const char* decoded = nullptr) {
  vxcli_json_writer w;
  vxcli_json_writer_init(&w, 64, 1 << 16);
  vxcli_frame_print_options o = {format, prefix, 1, decoded};
  EXPECT_EQ(vxcli_format_can_frame(&w, &f, us, &o), 0);
  std::string s = vxcli_json_writer_data(&w);
  vxcli_json_writer_free(&w);
  return s;
}

vxcli_can_frame sample_can() {
  vxcli_can_frame f = {};
  f.id = 0x123;
  f.dlc = 4;
  f.channel = 0;
  f.data[0] = 0x11;
  f.data[1] = 0x22;
  f.data[2] = 0x33;
  f.data[3] = 0x44;
  return f;
}

TEST(CanPrinter, EveryFormat) {
  vxcli_can_frame f = sample_can();
  EXPECT_EQ(format_can(f, VXCLI_FORMAT_TEXT, 1500000),
            "  1.500000 CH0 RX 0x00000123 [4] 11 22 33 44 \n");
  EXPECT_EQ(format_can(f, VXCLI_FORMAT_CSV, 0), "0.000000,0,RX,0x123,4,11223344,\n");
  EXPECT_EQ(format_can(f, VXCLI_FORMAT_JSONL, 2),
            "{\"status\":\"ok\",\"channel\":0,\"direction\":\"RX\",\"id\":\"0x123\",\"dlc\":4,"
            "\"flags\":\"\",\"data\":\"11223344\",\"timestamp\":0.000002}\n");
  std::string json = format_can(f, VXCLI_FORMAT_JSON, 0, 0, "{\"message\":\"X\"}");
  EXPECT_EQ(json.back(), '}');
  EXPECT_NE(json.find(",\"timestamp\":0.000000,\"decoded\":{\"message\":\"X\"}}"),
            std::string::npos);
  vxcli_json_token tokens[64];
  EXPECT_GT(vxcli_json_parse(json.c_str(), tokens, 64), 0);
}

TEST(CanPrinter, FdExtendedRemoteAndPrefix) {
  vxcli_can_frame f = sample_can();
  f.id = 0x18DAF110;
  f.flags = VXCLI_FRAME_IDE | VXCLI_FRAME_FDF | VXCLI_FRAME_BRS;
  f.dlc = 9;
  f.tx = 1;
  f.channel = 3;
  std::string text = format_can(f, VXCLI_FORMAT_TEXT, 12345678901ull, 1);
  EXPECT_EQ(text.rfind("ch1 12345.678901 CH3 TX EXT 0x18DAF110 [12] 11 22 33 44 00 ", 0), 0u)
      << text;
  EXPECT_NE(text.find("00 FD BRS \n"), std::string::npos);
  EXPECT_EQ(format_can(f, VXCLI_FORMAT_CSV, 0),
            "0.000000,3,TX,0x18DAF110,12,112233440000000000000000,ide+fdf+brs+\n");
  f = sample_can();
  f.flags = VXCLI_FRAME_RTR;
  EXPECT_EQ(format_can(f, VXCLI_FORMAT_TEXT, 0), "  0.000000 CH0 RX 0x00000123 [4] (RTR)\n");
}

TEST(LinPrinter, EveryFormat) {
  vxcli_lin_frame f = {};
  f.id = 0x20;
  f.dlc = 2;
  f.data[0] = 0xAB;
  f.data[1] = 0x01;
  f.checksum = 0x5E;
  f.checksum_type = 2;
  f.channel = 4;
  vxcli_json_writer w;
  vxcli_json_writer_init(&w, 64, 1 << 16);
  vxcli_frame_print_options o = {VXCLI_FORMAT_TEXT, 0, 0, nullptr};
  vxcli_format_lin_frame(&w, &f, 250000, &o);
  EXPECT_STREQ(vxcli_json_writer_data(&w),
               "  0.250000 CH4 RX LIN 0x20 [2] AB 01 enhanced checksum=0x5E\n");
  w.length = 0;
  f.errors = 0x40;
  f.header_only = 1;
  f.dlc = 0;
  f.checksum_type = 1;
  f.tx = 1;
  vxcli_format_lin_frame(&w, &f, 0, &o);
  EXPECT_STREQ(vxcli_json_writer_data(&w),
               "  0.000000 CH4 TX LIN 0x20 [0] classic checksum=0x5E errors=0x40 header-only\n");
  w.length = 0;
  o.format = VXCLI_FORMAT_JSONL;
  vxcli_format_lin_frame(&w, &f, 0, &o);
  EXPECT_STREQ(vxcli_json_writer_data(&w),
               "{\"status\":\"ok\",\"bus\":\"lin\",\"channel\":4,\"direction\":\"tx\",\"id\":"
               "\"0x20\",\"dlc\":0,\"data\":\"\",\"checksum_type\":\"classic\",\"checksum\":"
               "\"0x5E\",\"errors\":64,\"header_only\":true,\"timestamp\":0.000000}\n");
  w.length = 0;
  o.format = VXCLI_FORMAT_CSV;
  vxcli_format_lin_frame(&w, &f, 0, &o);
  EXPECT_STREQ(vxcli_json_writer_data(&w), "0.000000,4,LIN,TX,0x20,0,,classic,0x5E,64,true\n");
  vxcli_json_writer_free(&w);
}

}  // namespace
