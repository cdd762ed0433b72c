#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "blf_build.h"
#include "logging/asc.h"
#include "vxtest.h"

namespace {

vxcli_log_frame parse(const char* line, int* rc = nullptr) {
  vxcli_log_frame f;
  memset(&f, 0x5A, sizeof f);  // the parser must clear what it does not set
  int r = vxcli_parse_asc_line(line, &f);
  if (rc) *rc = r;
  return f;
}

bool accepted(const char* line) {
  vxcli_log_frame f;
  return vxcli_parse_asc_line(line, &f) != 0;
}

std::string format(const vxcli_log_frame& f, double t) {
  char buf[512];
  int n = vxcli_asc_format_frame(buf, sizeof buf, t, &f);
  return n < 0 ? std::string("<overflow>") : std::string(buf, (size_t)n);
}

}  // namespace

TEST(AscParse, HeadersCommentsAndEventsAreNoFrames) {
  for (const char* line :
       {"", "\n", "date Tue Nov 14 10:13:20 pm 2023", "base hex  timestamps absolute",
        "no internal events logged", "// version 8.1.0", "Begin Triggerblock",
        "End TriggerBlock", "Endless", " 0.000000 Start of measurement",
        " 0.111537 1  ErrorFrame", "internal events logged", "garbage", "1.0 2"})
    EXPECT_FALSE(accepted(line)) << line;
  vxcli_log_frame f;
  EXPECT_EQ(vxcli_parse_asc_event(" 0.111537 2  ErrorFrame\n", &f), 2);
  EXPECT_EQ(f.error, 1);
  EXPECT_EQ(f.channel, 2);
  EXPECT_EQ(vxcli_parse_asc_line(nullptr, &f), 0);
}

TEST(AscParse, ClassicFrames) {
  int rc;
  vxcli_log_frame f = parse("0.010000 1 123 Rx d 8 01 02 03 04 05 06 07 08", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_DOUBLE_EQ(f.time, 0.01);
  EXPECT_EQ(f.time_ns, 10000000u);
  EXPECT_EQ(f.channel, 1);
  EXPECT_EQ(f.id, 0x123u);
  EXPECT_EQ(f.extended, 0);
  EXPECT_EQ(f.dlc, 8);
  EXPECT_EQ(f.length, 8);
  EXPECT_EQ(f.data[7], 8);
  EXPECT_EQ(f.tx, 0);
  EXPECT_EQ(f.is_lin | f.fd | f.brs | f.remote | f.error, 0);

  f = parse("   2.500000 2  18FEF100x       Tx   d 2 C0 CD  Length = 0 BitCount = 5", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.id, 0x18FEF100u);
  EXPECT_EQ(f.extended, 1);
  EXPECT_EQ(f.tx, 1);
  EXPECT_EQ(f.length, 2);  // trailing fields are not data

  // DLC F keeps every byte given; "0x" alone is extended identifier 0.
  f = parse("1.0 1 7FF Rx d F 00 11 22 33 44 55 66 77 88", &rc);
  EXPECT_EQ(f.dlc, 15);
  EXPECT_EQ(f.length, 9);
  f = parse(" 0.005821 1  0x              Rx   r 1 ", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.id, 0u);
  EXPECT_EQ(f.extended, 1);
  EXPECT_EQ(f.remote, 1);
  EXPECT_EQ(f.dlc, 1);
  EXPECT_EQ(f.length, 0);
  // Remote marked after the DLC, and the Std/Ext word form.
  f = parse("1.0 1 100 Rx d 4 r", &rc);
  EXPECT_EQ(f.remote, 1);
  EXPECT_EQ(f.length, 0);
  f = parse("3.25 3 Ext 1ABCDE Rx D 3 AA BB CC", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.extended, 1);
  EXPECT_EQ(f.id, 0x1ABCDEu);
  EXPECT_EQ(f.channel, 3);
  EXPECT_EQ(f.length, 3);
  f = parse("3.25 3 Std 12 T R 0", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.extended, 0);
  EXPECT_EQ(f.remote, 1);
  EXPECT_EQ(f.tx, 1);
  EXPECT_FALSE(accepted("1.0 1 123 Qx d 1 00"));
  EXPECT_FALSE(accepted("1.0 1 123 Rx q 1 00"));
  EXPECT_FALSE(accepted("1.0 1 123 Rx d"));
}

TEST(AscParse, CanFdFrames) {
  int rc;
  vxcli_log_frame f = parse(
      " 0.021009 CANFD   2 Rx        123                                   1 0 c 24 B4 2A 87 CD "
      "4E B4 0F 12 DA 2C 69 7B D7 2C 2E 1B 7B D5 38 06 A2 65 95 09        0    0     3000        "
      "0        0        0        0        0",
      &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.fd, 1);
  EXPECT_EQ(f.brs, 1);
  EXPECT_EQ(f.channel, 2);
  EXPECT_EQ(f.dlc, 12);
  EXPECT_EQ(f.length, 24);
  EXPECT_EQ(f.data[23], 0x09);
  // A symbolic name between identifier and flags; ESI set; extended.
  f = parse("1.5 CANFD 1 Tx 18FEF100x EngineData 0 1 2 2 AB CD 0 0 1000 0 0 0 0 0", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.extended, 1);
  EXPECT_EQ(f.esi, 1);
  EXPECT_EQ(f.tx, 1);
  EXPECT_EQ(f.length, 2);
  // Classic and remote frames written in FD lines are told apart by the flags column.
  f = parse("   0.029994 CANFD   1 Rx        3FF                                   0 0 4  4 2D D6 "
            "C6 3C   130000  130        0 0 0 0 0 0",
            &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.fd, 0);
  EXPECT_EQ(f.length, 4);
  f = parse("   0.009835 CANFD   1 Rx        555                                   0 0 5  0   "
            "130000  130       10 0 0 0 0 0",
            &rc);
  EXPECT_EQ(f.remote, 1);
  EXPECT_EQ(f.fd, 0);
  EXPECT_EQ(f.dlc, 5);
  EXPECT_EQ(f.length, 0);
  f = parse("2.0 CANFD 1 Rx 100 0 0 8 8 r", &rc);
  EXPECT_EQ(f.remote, 1);
  EXPECT_EQ(f.fd, 1);
}

TEST(AscParse, LinFrames) {
  int rc;
  vxcli_log_frame f =
      parse("1.5 L1 3C Rx 8 00 11 22 33 44 55 66 77 checksum = 5A CSM = enhanced", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.is_lin, 1);
  EXPECT_EQ(f.channel, 1);
  EXPECT_EQ(f.id, 0x3Cu);
  EXPECT_EQ(f.lin_checksum, 0x5A);
  EXPECT_EQ(f.lin_enhanced, 1);
  EXPECT_EQ(f.length, 8);
  EXPECT_EQ(f.data[7], 0x77);
  f = parse("2.0 LIN 10 Tx 2 AA BB checksum = 0F CSM = classic", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.channel, 1);
  EXPECT_EQ(f.tx, 1);
  EXPECT_EQ(f.lin_enhanced, 0);
  f = parse("2.0 L12 10 TxRq 0 checksum = 00", &rc);
  ASSERT_NE(rc, 0);
  EXPECT_EQ(f.channel, 12);
  // Without a checksum, with a bad identifier, direction or length: not a frame.
  EXPECT_FALSE(accepted("1.5 L1 3C Rx 8 00 11 22 33 44 55 66 77"));
  EXPECT_FALSE(accepted("1.5 L1 40 Rx 1 00 checksum = 00"));
  EXPECT_FALSE(accepted("1.5 L1 3C Go 1 00 checksum = 00"));
  EXPECT_FALSE(accepted("1.5 L1 3C Rx 9 00 checksum = 00"));
  EXPECT_FALSE(accepted("1.5 L0 3C Rx 1 00 checksum = 00"));
  EXPECT_FALSE(accepted("1.5 L1 3C Rx 1 00 checksum = 100"));
}

TEST(AscParse, HexData) {
  uint8_t out[64];
  EXPECT_EQ(parse_hex_data("0102", out, 64), 2);
  EXPECT_EQ(out[1], 2);
  EXPECT_EQ(parse_hex_data(" \t1 2F abc", out, 64), 4);
  EXPECT_EQ(out[2], 0xAB);
  EXPECT_EQ(out[3], 0x0C);
  EXPECT_EQ(parse_hex_data("01 02 Length = 5", out, 64), 2);
  EXPECT_EQ(parse_hex_data("01 02\r\n03", out, 64), 2);
  EXPECT_EQ(parse_hex_data("01 02 03", out, 2), 2);
  EXPECT_EQ(parse_hex_data("", out, 64), 0);
}

TEST(AscWrite, LinesReadBackAsWritten) {
  vxcli_log_frame f = {};
  f.channel = 1;
  f.id = 0x123;
  f.dlc = f.length = 3;
  f.data[0] = 0x0A;
  f.data[1] = 0xFF;
  EXPECT_EQ(format(f, 1.5), "1.500000  1  123        Rx d 3 0A FF 00\n");
  f.extended = 1;
  f.id = 0x18FEF100;
  f.tx = 1;
  EXPECT_EQ(format(f, 0.0), "0.000000  1  18FEF100x   Tx d 3 0A FF 00\n");
  f.id = 0x5;  // the x stays on the identifier
  EXPECT_EQ(format(f, 0.0), "0.000000  1  5x         Tx d 3 0A FF 00\n");
  f = {};
  f.channel = 12;
  f.id = 0x7FF;
  f.remote = 1;
  f.dlc = 8;
  EXPECT_EQ(format(f, 2.0), "2.000000 12  7FF        Rx r 8\n");
  f = {};
  f.channel = 2;
  f.fd = f.brs = 1;
  f.id = 0x100;
  f.dlc = 9;
  f.length = 12;
  for (int i = 0; i < 12; i++) f.data[i] = (uint8_t)i;
  EXPECT_EQ(format(f, 0.25),
            "0.250000 CANFD   2 Rx         100                                  1 0 9 12 00 01 02 "
            "03 04 05 06 07 08 09 0A 0B        0    0 00003000        0        0        0        "
            "0        0\n");

  // Every kind of frame survives writing and parsing.
  vxcli_log_frame frames[6] = {};
  frames[0] = f;
  frames[1].channel = 3, frames[1].id = 0x1FFFFFFF, frames[1].extended = 1, frames[1].dlc = 8,
  frames[1].length = 8, frames[1].tx = 1;
  frames[2].channel = 1, frames[2].fd = 1, frames[2].esi = 1, frames[2].id = 0x5, frames[2].extended = 1,
  frames[2].dlc = 15, frames[2].length = 64;
  frames[3].channel = 4, frames[3].is_lin = 1, frames[3].id = 0x3C, frames[3].dlc = 8,
  frames[3].length = 8, frames[3].lin_checksum = 0xA5, frames[3].lin_enhanced = 1;
  frames[4].channel = 1, frames[4].id = 0, frames[4].dlc = 0;
  frames[5].channel = 2, frames[5].fd = 1, frames[5].id = 0x20, frames[5].dlc = 0;
  for (int k = 0; k < 64; k++) frames[2].data[k] = frames[3].data[k % 8] = (uint8_t)(255 - k);
  for (const vxcli_log_frame& w : frames) {
    std::string line = format(w, 12.345678);
    vxcli_log_frame r;
    ASSERT_NE(vxcli_parse_asc_line(line.c_str(), &r), 0) << line;
    EXPECT_DOUBLE_EQ(r.time, 12.345678);
    EXPECT_EQ(r.channel, w.channel) << line;
    EXPECT_EQ(r.is_lin, w.is_lin) << line;
    EXPECT_EQ(r.id, w.id) << line;
    EXPECT_EQ(r.extended, w.extended) << line;
    EXPECT_EQ(r.fd, w.fd) << line;
    EXPECT_EQ(r.brs, w.brs) << line;
    EXPECT_EQ(r.esi, w.esi) << line;
    EXPECT_EQ(r.tx, w.tx) << line;
    EXPECT_EQ(r.dlc, w.dlc) << line;
    EXPECT_EQ(r.length, w.length) << line;
    EXPECT_EQ(memcmp(r.data, w.data, (size_t)w.length), 0) << line;
    EXPECT_EQ(r.lin_checksum, w.lin_checksum) << line;
    EXPECT_EQ(r.lin_enhanced, w.lin_enhanced) << line;
  }
  char tiny[16];
  EXPECT_EQ(vxcli_asc_format_frame(tiny, sizeof tiny, 1.0, &f), -1);
}

TEST(AscWrite, HeaderAndFile) {
  struct tm t = {};
  t.tm_year = 2023 - 1900;
  t.tm_mon = 10;
  t.tm_mday = 14;
  t.tm_wday = 2;
  t.tm_hour = 0;
  t.tm_min = 5;
  t.tm_sec = 9;
  vxcli_asc_channel_label labels[2] = {{1, "10356", 0}, {2, "10357", 3}};
  char buf[1024];
  ASSERT_GT(vxcli_asc_format_header(buf, sizeof buf, &t, labels, 2), 0);
  EXPECT_STREQ(buf,
               "date Tue Nov 14 12:05:09 am 2023\n"
               "base hex  timestamps absolute\n"
               "no internal events logged\n"
               "// version 8.1.0\n"
               "// channel mapping (logical = SN/port physical):\n"
               "//   ch1 = SN10356/port0\n"
               "//   ch2 = SN10357/port3\n"
               "Begin Triggerblock\n");
  t.tm_hour = 13;
  vxcli_asc_format_header(buf, sizeof buf, &t, labels, 0);
  EXPECT_EQ(std::string(buf).substr(0, 32), "date Tue Nov 14 1:05:09 pm 2023\n");
  t.tm_hour = 12;
  vxcli_asc_format_header(buf, sizeof buf, &t, labels, 0);
  EXPECT_EQ(std::string(buf).substr(0, 33), "date Tue Nov 14 12:05:09 pm 2023\n");

  blftest::TempDir dir;
  std::string path = dir.file("out.asc");
  char message[256] = "";
  EXPECT_EQ(vxcli_asc_open("/nonexistent-dir/x.asc", 0, nullptr, 0, message, sizeof message), nullptr);
  EXPECT_STREQ(message, "Failed to create file: /nonexistent-dir/x.asc");
  vxcli_asc_writer* w = vxcli_asc_open(path.c_str(), 1700000000, labels, 1, message, sizeof message);
  ASSERT_NE(w, nullptr);
  vxcli_log_frame f = {};
  f.channel = 1;
  f.id = 0x42;
  f.dlc = f.length = 1;
  EXPECT_EQ(vxcli_asc_write(w, 0.5, &f), 1);
  EXPECT_EQ(vxcli_asc_write(w, 0.5, nullptr), -1);
  EXPECT_EQ(vxcli_asc_close(w), 0);
  std::string text = vxtest::read_file(path);
  EXPECT_NE(text.find("//   ch1 = SN10356/port0\nBegin Triggerblock\n0.500000  1  42 "), std::string::npos);
  EXPECT_EQ(text.substr(text.size() - 17), "End TriggerBlock\n");
}
