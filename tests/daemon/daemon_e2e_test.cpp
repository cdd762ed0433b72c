#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "json/json.h"
#include "vxtest.h"

namespace {

// A sandbox with its own daemon port; whatever daemon a test started is
// stopped on the way out, also when an assertion failed.
struct DaemonBox {
  vxtest::Sandbox box;
  DaemonBox() { box.env()["VXCLI_DAEMON_PORT"] = std::to_string(20000 + getpid() % 20000); }
  ~DaemonBox() { box.vxcli({"daemon", "stop"}, 20); }
  vxtest::RunResult run(const std::vector<std::string>& args) const { return box.vxcli(args, 60); }
};

int json_int(const std::string& doc, const char* key) {
  vxcli_json_token t[256];
  if (vxcli_json_parse(doc.c_str(), t, 256) < 1) return -1;
  int at = vxcli_json_object_get(doc.c_str(), t, 0, key);
  int64_t v = -1;
  if (at < 0 || vxcli_json_integer(doc.c_str(), &t[at], &v) != 0) return -1;
  return static_cast<int>(v);
}

TEST(DaemonE2E, LifecycleStatusAndAlreadyRunning) {
  DaemonBox d;
  auto none = d.run({"daemon", "status"});
  EXPECT_NE(none.rc, 0);

  auto start = d.run({"daemon", "start"});
  ASSERT_EQ(start.rc, 0) << start.err;
  EXPECT_EQ(start.out.rfind("OK: daemon started (pid ", 0), 0u) << start.out;

  auto status = d.run({"daemon", "status"});
  ASSERT_EQ(status.rc, 0) << status.err;
  EXPECT_EQ(status.out.rfind("OK: daemon running, 0 channel(s) open, pid=", 0), 0u) << status.out;

  auto json = d.run({"daemon", "status", "--format=json"});
  ASSERT_EQ(json.rc, 0) << json.err;
  EXPECT_EQ(json.out.rfind("{\"status\":\"ok\",\"state\":\"running\",", 0), 0u) << json.out;
  EXPECT_EQ(json_int(json.out, "open_channels"), 0);
  EXPECT_EQ(json_int(json.out, "port"), 20000 + getpid() % 20000);
  int pid = json_int(json.out, "pid");
  ASSERT_GT(pid, 0);

  auto again = d.run({"daemon", "start", "--format=json"});
  ASSERT_EQ(again.rc, 0) << again.err;
  EXPECT_NE(again.out.find("\"state\":\"already_running\""), std::string::npos) << again.out;
  EXPECT_EQ(json_int(again.out, "pid"), pid);

  // The pid file is published atomically and removed by an orderly stop.
  std::string pid_file = d.box.path("runtime/vxcli/daemon_" + std::to_string(20000 + getpid() % 20000) + ".pid");
  EXPECT_EQ(vxtest::read_file(pid_file), std::to_string(pid) + "\n");
  auto stop = d.run({"daemon", "stop"});
  ASSERT_EQ(stop.rc, 0) << stop.err;
  EXPECT_NE(stop.out.find("exited"), std::string::npos) << stop.out;
  EXPECT_NE(access(pid_file.c_str(), F_OK), 0);
  EXPECT_NE(kill(pid, 0), 0);
  EXPECT_NE(d.run({"daemon", "status"}).rc, 0);
}

TEST(DaemonE2E, ChannelOpenNeedsDaemonAndSlotsAreReused) {
  DaemonBox d;
  auto refused = d.run({"channel", "open", "--channel=10357/0"});
  EXPECT_EQ(refused.rc, 1);
  EXPECT_NE(refused.err.find("requires daemon mode"), std::string::npos) << refused.err;

  ASSERT_EQ(d.run({"daemon", "start"}).rc, 0);
  auto open = d.run({"channel", "open", "--channel=10357/0", "--bitrate=250/1000"});
  ASSERT_EQ(open.rc, 0) << open.out << open.err;
  EXPECT_EQ(open.out.rfind("OK: channel 10357/0 opened (slot 0, SN10357/port0, CAN", 0), 0u) << open.out;
  EXPECT_NE(open.out.find("bitrate=250/1000"), std::string::npos);

  auto second = d.run({"channel", "open", "--channel=10357/1", "--format=json"});
  ASSERT_EQ(second.rc, 0) << second.out;
  EXPECT_EQ(json_int(second.out, "slot"), 1);
  auto same = d.run({"channel", "open", "--channel=10357/0", "--format=json"});
  ASSERT_EQ(same.rc, 0);
  EXPECT_NE(same.out.find("\"state\":\"already_open\""), std::string::npos) << same.out;
  EXPECT_EQ(json_int(same.out, "slot"), 0);

  auto status = d.run({"daemon", "status"});
  EXPECT_NE(status.out.find("2 channel(s) open"), std::string::npos) << status.out;
  EXPECT_NE(status.out.find("  ch1 = SN10357/port1 (slot 1, owner="), std::string::npos) << status.out;

  // A freed slot is the lowest free one and is taken again first.
  ASSERT_EQ(d.run({"channel", "close", "--channel=0"}).rc, 0);
  auto gone = d.run({"channel", "close", "--channel=0", "--format=json"});
  EXPECT_EQ(gone.rc, 1);
  EXPECT_EQ(gone.out.rfind("{\"status\":\"error\",\"message\":\"channel slot 0 not open\"", 0), 0u) << gone.out;
  auto reopen = d.run({"channel", "open", "--channel=10357/2"});
  EXPECT_NE(reopen.out.find("(slot 0,"), std::string::npos) << reopen.out;

  auto bad = d.run({"channel", "open", "--channel=10357/0", "--bitrate=fast"});
  EXPECT_EQ(bad.rc, 1);
  EXPECT_NE(bad.out.find("ERROR: invalid bitrate"), std::string::npos) << bad.out;

  auto restart = d.run({"daemon", "restart"});
  EXPECT_EQ(restart.rc, 0) << restart.out << restart.err;
  auto after = d.run({"channel", "status", "--format=json"});
  ASSERT_EQ(after.rc, 0) << after.out;
  EXPECT_NE(after.out.find("\"slot\":0"), std::string::npos);
  EXPECT_NE(after.out.find("\"slot\":1"), std::string::npos);
}

TEST(DaemonE2E, ForwardedSendReachesTheOtherChannel) {
  DaemonBox d;
  ASSERT_EQ(d.run({"daemon", "start"}).rc, 0);
  ASSERT_EQ(d.run({"channel", "open", "--channel=10357/0"}).rc, 0);
  ASSERT_EQ(d.run({"channel", "open", "--channel=10357/1"}).rc, 0);

  auto send = d.run({"message", "send", "--channel=0", "--id=0x123", "--data=11 22 33", "--count=3"});
  ASSERT_EQ(send.rc, 0) << send.out << send.err;
  EXPECT_EQ(send.out, "OK: sent 3 frame(s) id=0x123 dlc=3 on slot 0\n");
  auto json = d.run({"message", "send", "--channel=0", "--id=0x1ABCDE", "--data=01", "--format=json"});
  ASSERT_EQ(json.rc, 0) << json.out;
  EXPECT_NE(json.out.find("\"id\":\"0x1ABCDE\""), std::string::npos) << json.out;
  EXPECT_NE(json.out.find("\"flags\":\"ide"), std::string::npos) << json.out;

  // The sending slot's status reflects the writes' slot and stays healthy.
  auto status = d.run({"channel", "status", "--channel=0"});
  ASSERT_EQ(status.rc, 0) << status.out;
  EXPECT_NE(status.out.find("state=error-active"), std::string::npos) << status.out;

  auto bad_id = d.run({"message", "send", "--channel=0", "--id=zz"});
  EXPECT_EQ(bad_id.rc, 1);
  EXPECT_EQ(bad_id.out, "ERROR: invalid CAN identifier 'zz'\n");
  auto closed = d.run({"message", "send", "--channel=5", "--id=1", "--format=json"});
  EXPECT_EQ(closed.rc, 1);
  EXPECT_NE(closed.out.find("\"code\":\"daemon_command_failed\""), std::string::npos) << closed.out;
}

}  // namespace
