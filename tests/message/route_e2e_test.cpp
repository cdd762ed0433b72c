// Standalone hardware routes on the virtual analyzer: bus 0 reaches bus 1 through
// a route between ports 0 and 1 of device 10356.
#include <gtest/gtest.h>

#include <string>

#include "e2e_util.h"
#include "vxtest.h"

namespace {

using msgtest::lines;
using msgtest::member;

std::vector<std::string> ids_of(const std::string& jsonl) {
  std::vector<std::string> out;
  for (const auto& line : lines(jsonl))
    if (!line.empty()) out.push_back(member(line, "id"));
  return out;
}

TEST(RouteE2E, ForwardsMatchingFramesOnOneDevice) {
  vxtest::Sandbox box;
  auto add = box.vxcli({"route", "add", "--src=10356/0", "--dst=10356/1", "--message=0x123"});
  ASSERT_EQ(add.rc, 0) << add.err;
  EXPECT_EQ(add.out, "Route 0 added: port0 -> port1, message ID 0x123\n");

  // 10357/0 sends on bus 0; 10356/0 hears it and port 1 puts it on bus 1.
  auto recv = msgtest::start_recv(box, {"--channel=10357/1", "--count=2", "--format=jsonl"});
  for (const char* id : {"--id=0x124", "--id=0x123", "--id=0x125", "--id=0x123"})
    ASSERT_EQ(box.vxcli({"message", "send", "--channel=10357/0", id, "--data=0102"}).rc, 0);
  auto got = recv->finish(20000);
  ASSERT_EQ(got.rc, 0) << got.err;
  EXPECT_EQ(ids_of(got.out), (std::vector<std::string>{"0x123", "0x123"})) << got.out;

  auto list = box.vxcli({"route", "list", "--channel=10356/0"});
  EXPECT_EQ(list.out,
            "Route 0: unicast CH0 -> CH1, ID mask=0x1FFFFFFF value=0x123, flags mask=0x00 value=0x00\n");
  auto broadcast = box.vxcli({"route", "add", "--src=10356/0", "--dst=0x0C", "--type=broadcast", "--flags=ide"});
  ASSERT_EQ(broadcast.rc, 0) << broadcast.err;
  EXPECT_EQ(broadcast.out, "Route 1 added: port0 -> mask 0x12, message ID (any)\n");
  auto json = box.vxcli({"route", "list", "--channel=10356/0", "--format=json"});
  EXPECT_EQ(json.out,
            "{\"status\":\"ok\",\"channel\":0,\"routes\":["
            "{\"routeid\":0,\"type\":\"unicast\",\"source\":0,\"dest\":1,\"idmask\":\"0x1FFFFFFF\",\"idvalue\":\"0x123\","
            "\"flagsmask\":0,\"flagsvalue\":0},"
            "{\"routeid\":1,\"type\":\"broadcast\",\"source\":0,\"dest\":12,\"idmask\":\"0x0\",\"idvalue\":\"0x0\","
            "\"flagsmask\":255,\"flagsvalue\":1}],\"count\":2}\n");
  auto csv = box.vxcli({"route", "list", "--channel=10356/0", "--format=csv"});
  EXPECT_EQ(lines(csv.out)[0], "routeid,type,source,dest,idmask,idvalue,flagsmask,flagsvalue");
  EXPECT_EQ(lines(csv.out)[1], "0,unicast,0,1,0x1FFFFFFF,0x123,0,0");

  // Filters that match nothing change nothing.
  auto none = box.vxcli({"route", "remove", "--src=10356/0", "--message=0x999"});
  EXPECT_EQ(none.rc, 1);
  EXPECT_EQ(none.err, "ERROR: No matching route found\n");
  auto by_target = box.vxcli({"route", "remove", "--src=10356/0", "--dst=1"});
  ASSERT_EQ(by_target.rc, 0) << by_target.err;
  EXPECT_EQ(by_target.out, "Removed 1 route(s) from channel 10356/0\n");
  auto quiet = msgtest::start_recv(box, {"--channel=10357/1", "--duration=0.5", "--format=jsonl"});
  ASSERT_EQ(box.vxcli({"message", "send", "--channel=10357/0", "--id=0x123"}).rc, 0);
  EXPECT_EQ(quiet->finish().out, "");

  ASSERT_EQ(box.vxcli({"route", "add", "--src=10356/0", "--dst=10356/2"}).rc, 0);
  auto all = box.vxcli({"route", "remove", "--src=10356/0", "--format=json"});
  ASSERT_EQ(all.rc, 0) << all.err;
  EXPECT_EQ(all.out, "{\"status\":\"ok\",\"message\":\"route removed\"}\n");
  EXPECT_EQ(box.vxcli({"route", "list", "--channel=10356/0"}).out, "No routes on channel 10356/0\n");
}

TEST(RouteE2E, RefusalsBeforeAnythingIsWritten) {
  vxtest::Sandbox box;
  struct Case {
    std::vector<std::string> args;
    const char* err;
  };
  for (const Case& c :
       {Case{{"route", "add", "--src=10356/0", "--dst=10357/1"},
             "ERROR: Hardware route cannot cross devices: src 10356/0 -> dst 10357/1. Routes are confined to one "
             "device's own ports.\n"},
        Case{{"route", "add", "--dst=10356/1"}, "ERROR: --src is required (source channel)\n"},
        Case{{"route", "add", "--src=10356/0"}, "ERROR: --dst is required (destination channel)\n"},
        Case{{"route", "add", "--src=10356/0", "--dst=10356/9"}, "ERROR: Invalid --dst channel spec: 10356/9\n"},
        Case{{"route", "add", "--src=10999/0", "--dst=10356/1"}, "ERROR: Source channel not found: 10999/0\n"},
        Case{{"route", "add", "--src=10356/0", "--dst=10356/1", "--type=multicast"},
             "ERROR: Invalid route type: multicast (unicast/broadcast)\n"},
        Case{{"route", "list"}, "ERROR: --channel is required\n"},
        Case{{"route", "remove", "--src=10356/0"}, "ERROR: No matching route found\n"}}) {
    auto r = box.vxcli(c.args);
    EXPECT_EQ(r.rc, 1) << c.err;
    EXPECT_EQ(r.err, c.err);
  }
  EXPECT_EQ(box.vxcli({"route", "list", "--channel=10356/0"}).out, "No routes on channel 10356/0\n");
}

}  // namespace
