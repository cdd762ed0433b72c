#include "log_test.h"
#include "logging/asc.h"
#include "vxtest.h"

namespace {

// Parses a line into a record pre-filled with garbage, which must not leak through.
bool parse(const char* line, vxcli_log_frame* f) {
  memset(f, 0x5A, sizeof *f);
  return vxcli_parse_asc_line(line, f) != 0;
}

std::string format(const vxcli_log_frame& f, double t) {
  char buf[512];
  int n = vxcli_asc_format_frame(buf, sizeof buf, t, &f);
  return n < 0 ? "<overflow>" : std::string(buf, (size_t)n);
}

}  // namespace

TEST(AscParse, WhatIsAFrameAndWhatIsNot) {
  vxcli_log_frame f;
  for (const char* line : {"", "\n", "date Tue Nov 14 10:13:20 pm 2023", "base hex  timestamps absolute",
                           "no internal events logged", "// version 8.1.0", "Begin Triggerblock",
                           "End TriggerBlock", " 0.000000 Start of measurement", " 0.111537 1  ErrorFrame",
                           "1.0 1 123 Qx d 1 00", "1.0 1 123 Rx q 1 00", "1.0 1 123 Rx d",
                           "1.5 L1 3C Rx 8 00 11 22 33 44 55 66 77", "1.5 L1 40 Rx 1 00 checksum = 00",
                           "1.5 L1 3C Go 1 00 checksum = 00", "1.5 L1 3C Rx 9 00 checksum = 00",
                           "1.5 L0 3C Rx 1 00 checksum = 00", "1.5 L1 3C Rx 1 00 checksum = 100"})
    EXPECT_FALSE(parse(line, &f)) << line;
  EXPECT_EQ(vxcli_parse_asc_event(" 0.111537 2  ErrorFrame\n", &f), 2);
  EXPECT_TRUE(f.error && f.channel == 2);
}

TEST(AscParse, Frames) {
  vxcli_log_frame f;
  ASSERT_TRUE(parse("0.010000 1 123 Rx d 8 01 02 03 04 05 06 07 08", &f));
  EXPECT_EQ(f.time_ns, 10000000u);
  EXPECT_EQ(f.channel, 1);
  EXPECT_EQ(f.id, 0x123u);
  EXPECT_EQ(f.dlc, 8);
  EXPECT_EQ(f.length, 8);
  EXPECT_EQ(f.data[7], 8);
  EXPECT_EQ(f.extended | f.tx | f.is_lin | f.fd | f.remote | f.error | f.data[8], 0);
  ASSERT_TRUE(parse("   2.5 2  18FEF100x       Tx   d 2 C0 CD  Length = 0 BitCount = 5", &f));
  EXPECT_TRUE(f.extended && f.tx);
  EXPECT_EQ(f.id, 0x18FEF100u);
  EXPECT_EQ(f.length, 2);  // trailing fields are no data
  ASSERT_TRUE(parse("1.0 1 7FF Rx d F 00 11 22 33 44 55 66 77 88", &f));
  EXPECT_EQ(f.dlc, 15);
  EXPECT_EQ(f.length, 9);
  ASSERT_TRUE(parse(" 0.005821 1  0x              Rx   r 1 ", &f));  // identifier 0, extended
  EXPECT_TRUE(f.extended && f.remote && f.id == 0 && f.dlc == 1 && f.length == 0);
  ASSERT_TRUE(parse("1.0 1 100 Rx d 4 r", &f));
  EXPECT_TRUE(f.remote && f.length == 0);
  ASSERT_TRUE(parse("3.25 3 Ext 1ABCDE Rx D 3 AA BB CC", &f));
  EXPECT_TRUE(f.extended && f.id == 0x1ABCDE && f.length == 3);
  ASSERT_TRUE(parse("3.25 3 Std 12 T R 0", &f));
  EXPECT_TRUE(!f.extended && f.remote && f.tx);

  ASSERT_TRUE(parse("1.5 CANFD 1 Tx 18FEF100x EngineData 0 1 2 2 AB CD 0 0 5000 0 0 0 0 0", &f));
  EXPECT_TRUE(f.fd && f.esi && f.tx && f.extended && !f.brs);
  EXPECT_EQ(f.length, 2);
  // Classic and remote frames logged in FD lines, told apart by the flags column.
  ASSERT_TRUE(parse("0.02 CANFD   1 Rx        3FF    0 0 4  4 2D D6 C6 3C   130000  130        0 0 0 0 0 0", &f));
  EXPECT_TRUE(!f.fd && f.length == 4 && f.data[3] == 0x3C);
  ASSERT_TRUE(parse("0.03 CANFD   1 Rx        555    0 0 5  0   130000  130       10 0 0 0 0 0", &f));
  EXPECT_TRUE(f.remote && !f.fd && f.dlc == 5 && f.length == 0);
  ASSERT_TRUE(parse("2.0 CANFD 1 Rx 100 0 0 8 8 r", &f));
  EXPECT_TRUE(f.remote && f.fd);

  ASSERT_TRUE(parse("1.5 L1 3C Rx 8 00 11 22 33 44 55 66 77 checksum = 5A CSM = enhanced", &f));
  EXPECT_TRUE(f.is_lin && f.channel == 1 && f.id == 0x3C && f.length == 8 && f.lin_enhanced);
  EXPECT_EQ(f.lin_checksum, 0x5A);
  ASSERT_TRUE(parse("2.0 LIN 10 Tx 2 AA BB checksum = 0F CSM = classic", &f));
  EXPECT_TRUE(f.channel == 1 && f.tx && !f.lin_enhanced);
  ASSERT_TRUE(parse("2.0 L12 10 TxRq 0 checksum = 00", &f));
  EXPECT_EQ(f.channel, 12);

  uint8_t out[64];
  EXPECT_EQ(parse_hex_data("0102 3", out, 64), 3);
  EXPECT_EQ(out[2], 3);
  EXPECT_EQ(parse_hex_data("01 02 Length = 5", out, 64), 2);
  EXPECT_EQ(parse_hex_data("01 02\r\n03", out, 64), 2);
  EXPECT_EQ(parse_hex_data("01 02 03", out, 2), 2);
}

TEST(AscWrite, LinesAsFormattedAndReadBack) {
  vxcli_log_frame f = {};
  f.channel = 1, f.id = 0x123, f.dlc = f.length = 3, f.data[0] = 0x0A, f.data[1] = 0xFF;
  EXPECT_EQ(format(f, 1.5), "1.500000  1  123        Rx d 3 0A FF 00\n");
  f.extended = 1, f.id = 0x18FEF100, f.tx = 1;
  EXPECT_EQ(format(f, 0.0), "0.000000  1  18FEF100x   Tx d 3 0A FF 00\n");
  f.id = 0x5;  // the x stays on the identifier
  EXPECT_EQ(format(f, 0.0), "0.000000  1  5x         Tx d 3 0A FF 00\n");
  f = {};
  f.channel = 12, f.id = 0x7FF, f.remote = 1, f.dlc = 8;
  EXPECT_EQ(format(f, 2.0), "2.000000 12  7FF        Rx r 8\n");
  f = {};
  f.channel = 2, f.fd = f.brs = 1, f.id = 0x100, f.dlc = 9, f.length = 12;
  for (int i = 0; i < 12; i++) f.data[i] = (uint8_t)i;
  EXPECT_EQ(format(f, 0.25),
            "0.250000 CANFD   2 Rx         100                                  1 0 9 12 00 01 02 03 "
            "04 05 06 07 08 09 0A 0B        0    0 00003000        0        0        0        0        0\n");
  char tiny[16];
  EXPECT_EQ(vxcli_asc_format_frame(tiny, sizeof tiny, 1.0, &f), -1);

  std::vector<vxcli_log_frame> back;
  for (const auto& w : logtest::sample_frames()) {
    std::string line = format(w, w.time);
    ASSERT_NE(vxcli_parse_asc_event(line.c_str(), &back.emplace_back()), 0) << line;
    EXPECT_EQ(back.back().time_ns, w.time_ns);
  }
  logtest::expect_same_frames(back, logtest::sample_frames());
}

TEST(AscWrite, HeaderAndFile) {
  struct tm t = {};
  t.tm_year = 123, t.tm_mon = 10, t.tm_mday = 14, t.tm_wday = 2, t.tm_min = 5, t.tm_sec = 9;
  vxcli_asc_channel_label labels[2] = {{1, "10356", 0}, {2, "10357", 3}};
  char buf[1024];
  ASSERT_GT(vxcli_asc_format_header(buf, sizeof buf, &t, labels, 2), 0);
  EXPECT_STREQ(buf,
               "date Tue Nov 14 12:05:09 am 2023\nbase hex  timestamps absolute\n"
               "no internal events logged\n// version 8.1.0\n"
               "// channel mapping (logical = SN/port physical):\n"
               "//   ch1 = SN10356/port0\n//   ch2 = SN10357/port3\nBegin Triggerblock\n");
  for (auto [hour, text] : {std::pair{13, "1:05:09 pm"}, std::pair{12, "12:05:09 pm"}}) {
    t.tm_hour = hour;
    vxcli_asc_format_header(buf, sizeof buf, &t, labels, 0);
    EXPECT_EQ(std::string(buf).substr(16, strlen(text)), text);
  }
  logtest::TempDir dir;
  char message[256] = "";
  EXPECT_EQ(vxcli_asc_open("/nonexistent-dir/x.asc", 0, nullptr, 0, message, sizeof message), nullptr);
  EXPECT_STREQ(message, "Failed to create file: /nonexistent-dir/x.asc");
  std::string path = dir.file("out.asc");
  vxcli_asc_writer* w = vxcli_asc_open(path.c_str(), 1700000000, labels, 1, message, sizeof message);
  vxcli_log_frame f = {};
  f.channel = 1, f.id = 0x42;
  EXPECT_EQ(vxcli_asc_write(w, 0.5, &f), 1);
  EXPECT_EQ(vxcli_asc_close(w), 0);
  std::string text = vxtest::read_file(path);
  EXPECT_NE(text.find("port0\nBegin Triggerblock\n0.500000  1  42         Rx d 0\nEnd TriggerBlock\n"),
            std::string::npos) << text;
}
