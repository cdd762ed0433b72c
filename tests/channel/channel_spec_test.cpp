#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "channel/channel.h"

namespace {

vxcli_channel_spec parse_ok(const char* text) {
  vxcli_channel_spec spec;
  EXPECT_EQ(vxcli_parse_channel_spec(text, &spec), 0) << text;
  return spec;
}

TEST(ChannelSpec, Grammar) {
  auto s = parse_ok("10356/0");
  EXPECT_EQ(s.kind, VXCLI_SPEC_SERIAL);
  EXPECT_STREQ(s.device, "10356");
  EXPECT_EQ(s.port, 0);
  EXPECT_EQ(s.index, -1);
  s = parse_ok("3");
  EXPECT_EQ(s.kind, VXCLI_SPEC_INDEX_OR_NAME);
  EXPECT_EQ(s.index, 3);
  EXPECT_EQ(s.port, -1);
  s = parse_ok("front-left");
  EXPECT_EQ(s.index, -1);
  EXPECT_STREQ(s.device, "front-left");
  s = parse_ok("ABCDEF123456/7");
  EXPECT_EQ(s.kind, VXCLI_SPEC_UNIQUE_ID);
  s = parse_ok("00112233445566778899aabb/1");
  EXPECT_EQ(s.kind, VXCLI_SPEC_UNIQUE_ID);
  EXPECT_EQ(parse_ok("1035/1").kind, VXCLI_SPEC_SERIAL);
  EXPECT_EQ(parse_ok("103567/1").kind, VXCLI_SPEC_SERIAL);
  vxcli_channel_spec bad;
  for (const char* text : {"", "10356/8", "10356/", "/0", "103/0", "1035678/0", "ABCDEF-23456/0",
                           "00112233445566778899aabg/0", "10356/x", "10356/-1"})
    EXPECT_EQ(vxcli_parse_channel_spec(text, &bad), -1) << text;
  EXPECT_EQ(vxcli_parse_channel_spec(nullptr, &bad), -1);
}

VXChannelInfo entry(const char* serial, const char* uid, uint16_t port, const char* name) {
  VXChannelInfo e;
  memset(&e, 0, sizeof e);
  memcpy(e.serial, serial, strlen(serial));
  if (uid) memcpy(e.unique_id, uid, 12);
  e.port = port;
  snprintf(e.name, sizeof e.name, "%s", name);
  return e;
}

TEST(ChannelSpec, ResolutionOrder) {
  VXChannelInfo infos[3] = {entry("10356", "AbCdEf123456", 0, "a"), entry("10356", "AbCdEf123456", 7, "b"),
                            entry("10357", nullptr, 1, "c")};
  infos[2].unique_id[0] = 0x01;  // not printable -> hex rendering
  infos[2].unique_id[11] = 0xAB;
  auto s = parse_ok("10356/7");
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), &infos[1]);
  s = parse_ok("abcdef123456/0");  // unique ids compare without case
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), &infos[0]);
  s = parse_ok("0100000000000000000000ab/1");
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), &infos[2]);
  s = parse_ok("2");
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), &infos[2]);
  s = parse_ok("7");  // beyond the list: falls back to a port number
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), &infos[1]);
  s = parse_ok("c");
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), &infos[2]);
  s = parse_ok("99999/0");
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), nullptr);
  s = parse_ok("5");
  EXPECT_EQ(vxcli_resolve_channel(infos, 3, &s), nullptr);
}

TEST(ChannelSpec, SerialComparisonIsCaseSensitiveAndRawSerialsRenderHex) {
  VXChannelInfo infos[2] = {entry("AB12", nullptr, 0, "x"), entry("", nullptr, 1, "y")};
  infos[1].serial[0] = 0x01;
  infos[1].serial[1] = 0x02;
  char out[40];
  vxcli_render_serial(infos[1].serial, out, sizeof out);
  EXPECT_STREQ(out, "0102");
  uint8_t zero[16] = {};
  vxcli_render_serial(zero, out, sizeof out);
  EXPECT_STREQ(out, "");
  uint8_t uid_zero[12] = {};
  vxcli_render_unique_id(uid_zero, out, sizeof out);
  EXPECT_STREQ(out, "");
  vxcli_render_capabilities(0x0007, out, sizeof out);
  EXPECT_STREQ(out, "CANFD,CAN,LIN");
  vxcli_render_capabilities(0xC000, out, sizeof out);
  EXPECT_STREQ(out, "VIRT,RMT");
  vxcli_render_capabilities(0, out, sizeof out);
  EXPECT_STREQ(out, "");
}

TEST(ChannelSpec, Lists) {
  vxcli_channel_spec specs[4];
  EXPECT_EQ(vxcli_parse_channel_list_ex("10356/0, 10357/0", specs, 4), 2);
  EXPECT_STREQ(specs[1].device, "10357");
  EXPECT_EQ(vxcli_parse_channel_list_ex("10356/0,bad/9", specs, 4), -1);
  EXPECT_EQ(vxcli_parse_channel_list_ex("1,2,3,4,5,6", specs, 4), 4);
}

struct Rate {
  int rc;
  int nominal;
  int data;
  std::string err;
};

Rate rate(const char* text) {
  vxcli_bitrate b;
  testing::internal::CaptureStderr();
  Rate r;
  r.rc = vxcli_parse_bitrate_pair(text, &b);
  r.err = testing::internal::GetCapturedStderr();
  r.nominal = b.nominal_kbps;
  r.data = b.data_kbps;
  if (r.rc == 0) {
    EXPECT_EQ(b.nominal_sample, 75);
    EXPECT_EQ(b.data_sample, 75);
  }
  return r;
}

TEST(Bitrate, Forms) {
  Rate r = rate(nullptr);
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.nominal, 500);
  EXPECT_EQ(r.data, 2000);
  r = rate("500000");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.nominal, 500);
  EXPECT_EQ(r.data, 2000);
  EXPECT_EQ(r.err, "NOTE: bitrate '500000' interpreted as 500 kbps (500000 bps).\n");
  r = rate("500k/2M");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.nominal, 500);
  EXPECT_EQ(r.data, 2000);
  EXPECT_EQ(r.err, "");
  r = rate("1,000");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.nominal, 1000);
  EXPECT_NE(r.err.find("interpreted as 1000 kbps"), std::string::npos);
  r = rate("250kbps/1mbps");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.data, 1000);
  r = rate("125000bps");
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.nominal, 125);
  EXPECT_EQ(r.err, "");
  for (const char* bad : {"500/", "/2000", "83.3k", "20000k", "0", "-5", "500x", "abc", "16384k"})
    EXPECT_EQ(rate(bad).rc, -1) << bad;
  EXPECT_EQ(rate("16383k").rc, 0);
}

TEST(DeviceSpec, Forms) {
  vxcli_channel_spec s;
  EXPECT_EQ(vxcli_parse_device_spec("10356", &s), 0);
  EXPECT_EQ(s.port, -1);
  EXPECT_EQ(vxcli_parse_device_spec("10356/3", &s), 0);
  EXPECT_EQ(s.port, 3);
  EXPECT_EQ(vxcli_parse_device_spec("10356/3/1", &s), -1);
  EXPECT_EQ(vxcli_parse_device_spec("3", &s), -1);
}

}  // namespace
