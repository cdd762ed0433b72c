#include <gtest/gtest.h>

#include <string>

#include "json/json.h"
#include "vxtest.h"

namespace {

int count_lines(const std::string& s) {
  int n = 0;
  for (char c : s) n += c == '\n';
  return n;
}

TEST(ChannelE2E, EnumerateInEveryFormat) {
  vxtest::Sandbox box;
  auto text = box.vxcli({"channel", "enumerate"});
  ASSERT_EQ(text.rc, 0) << text.err;
  EXPECT_EQ(text.out.rfind("Found 16 device channel(s):\n", 0), 0u);
  EXPECT_NE(text.out.find("  Capability:  0x4006 (CANFD,CAN,VIRT)\n"), std::string::npos);
  EXPECT_NE(text.out.find("  Capability:  0x4001 (LIN,VIRT)\n"), std::string::npos);

  auto json = box.vxcli({"channel", "enumerate", "--format=json"});
  ASSERT_EQ(json.rc, 0);
  vxcli_json_token t[512];
  ASSERT_GT(vxcli_json_parse(json.out.c_str(), t, 512), 0) << json.out;
  int count = vxcli_json_object_get(json.out.c_str(), t, 0, "count");
  int64_t n = 0;
  ASSERT_EQ(vxcli_json_integer(json.out.c_str(), &t[count], &n), 0);
  EXPECT_EQ(n, 16);
  EXPECT_NE(json.out.find("\"sn\":\"10357\""), std::string::npos);

  auto csv = box.vxcli({"channel", "enumerate", "--format=csv"});
  ASSERT_EQ(csv.rc, 0);
  EXPECT_EQ(csv.out.rfind("port,name,vid,pid,sn,uid,version,capability\n", 0), 0u);
  EXPECT_EQ(count_lines(csv.out), 17);

  // jsonl deliberately mixes the heading line with one object per channel.
  auto jsonl = box.vxcli({"channel", "enumerate", "--format=jsonl"});
  ASSERT_EQ(jsonl.rc, 0);
  EXPECT_EQ(jsonl.out.rfind("Found 16 device channel(s):\n{\"status\":\"ok\",\"port\":0,", 0), 0u) << jsonl.out;
  EXPECT_EQ(count_lines(jsonl.out), 17);
}

TEST(ChannelE2E, InfoBySerialUniqueIdAndIndex) {
  vxtest::Sandbox box;
  auto by_serial = box.vxcli({"channel", "info", "--channel=10357/4"});
  ASSERT_EQ(by_serial.rc, 0) << by_serial.err;
  EXPECT_EQ(by_serial.out.rfind("Port 4: ", 0), 0u);
  EXPECT_NE(by_serial.out.find("  SN:          10357\n"), std::string::npos);
  // The unique id printed by enumeration selects the same channel, in any case.
  std::string uid_line = "  UID:         ";
  size_t at = by_serial.out.find(uid_line);
  ASSERT_NE(at, std::string::npos);
  std::string uid = by_serial.out.substr(at + uid_line.size(), 12);
  for (char& c : uid) c = static_cast<char>(tolower(c));
  auto by_uid = box.vxcli({"channel", "info", "--channel", uid + "/4"});
  EXPECT_EQ(by_uid.rc, 0) << by_uid.err;
  EXPECT_EQ(by_uid.out, by_serial.out);
  auto by_index = box.vxcli({"channel", "info", "--channel=12"});  // 8 ports per device
  EXPECT_EQ(by_index.out, by_serial.out);
  auto json = box.vxcli({"channel", "info", "--channel=10356/0", "--format=json"});
  EXPECT_EQ(json.out.rfind("{\"status\":\"ok\",\"port\":0,\"name\":", 0), 0u);
}

TEST(ChannelE2E, InfoFailures) {
  vxtest::Sandbox box;
  auto missing = box.vxcli({"channel", "info", "--channel=99999/0"});
  EXPECT_EQ(missing.rc, 1);
  EXPECT_EQ(missing.err, "ERROR: Channel '99999/0' not found\n");
  auto invalid = box.vxcli({"channel", "info", "--channel=10356/9"});
  EXPECT_EQ(invalid.rc, 1);
  EXPECT_EQ(invalid.err, "ERROR: Invalid channel specification: 10356/9\n");
  auto all_json = box.vxcli({"channel", "info", "--format=json"});
  auto enum_json = box.vxcli({"channel", "enumerate", "--format=json"});
  EXPECT_EQ(all_json.out, enum_json.out);
}

TEST(ChannelE2E, NoDevicesConnected) {
  vxtest::Sandbox box;
  ASSERT_EQ(box.run_program("vxsim", {"unplug", "10356"}).rc, 0);
  ASSERT_EQ(box.run_program("vxsim", {"unplug", "10357"}).rc, 0);
  EXPECT_EQ(box.vxcli({"channel", "enumerate"}).out, "Found 0 device channel(s):\n");
  EXPECT_EQ(box.vxcli({"channel", "enumerate", "--format=json"}).out, "{\"status\":\"ok\",\"count\":0,\"devices\":[]}\n");
  EXPECT_EQ(box.vxcli({"channel", "enumerate", "--format=csv"}).out, "port,name,vid,pid,sn,uid,version,capability\n");
}

TEST(ChannelE2E, UnknownFormatValueIsRefused) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"channel", "enumerate", "--format=JSON"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("unknown option '--format' for channel.enumerate"), std::string::npos) << r.err;
}

}  // namespace
