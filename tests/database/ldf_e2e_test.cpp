// The ldf commands through the real binary: registry selection and dispatch.
#include <gtest/gtest.h>

#include <string>

#include "vxtest.h"

namespace {

TEST(LdfEndToEnd, RegisteredResourcesAreSelectedByName) {
  vxtest::Sandbox sandbox;
  std::string lin13 = vxtest::testdata("ldf/lin13.ldf");
  auto r = sandbox.vxcli({"ldf", "load", "--file=" + lin13});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(r.out, "Loaded database lin13: " + lin13 + " (7 items, 49 members)\n");

  // The sole LDF is used without a selector.
  r = sandbox.vxcli({"ldf", "info"});
  EXPECT_EQ(r.out, "LDF lin13: LIN 1.3, 19200 bps, master=CEM, nodes=3, signals=49, frames=7, "
                   "schedules=2\n");
  r = sandbox.vxcli({"ldf", "load", "--file=" + vxtest::testdata("ldf/J3068-2.ldf"), "--name=evse"});
  ASSERT_EQ(r.rc, 0) << r.err;
  r = sandbox.vxcli({"ldf", "schedule", "list"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: multiple database resources match; use --database=<name>\n");
  r = sandbox.vxcli({"ldf", "schedule", "list", "--database=evse", "--format=csv"});
  EXPECT_EQ(r.out, "name,entry_count\nVer,4\nInit,9\nOp,5\nOp3,7\nOp252,21\n");
  r = sandbox.vxcli({"ldf", "frame", "show", "SeModeCtrl", "--database", "evse"});
  EXPECT_EQ(r.out, "SeModeCtrl type=unconditional id=0x16 publisher=EVSE_Master dlc=8 signals=6\n");
  r = sandbox.vxcli({"ldf", "info", "--format=json", "--database=evse"});
  EXPECT_NE(r.out.find("\"database\":\"evse\""), std::string::npos) << r.out;

  r = sandbox.vxcli({"database", "validate", "--file=" + vxtest::testdata("ldf/lin22.ldf")});
  EXPECT_EQ(r.out, "Valid ldf database: " + vxtest::testdata("ldf/lin22.ldf") +
                       " (6 items, 6 members)\n");
  std::string broken = sandbox.write_file("broken.ldf", "LIN_description_file;\nNodes { }\n");
  r = sandbox.vxcli({"ldf", "load", "--file=" + broken});
  EXPECT_EQ(r.err, "ERROR: invalid ldf database: missing LIN protocol version or speed\n");
}

// Routing of the schedule commands; what they send is covered without a daemon.
TEST(LdfEndToEnd, ScheduleCommandsNeedTheDaemon) {
  vxtest::Sandbox sandbox;
  std::string lin22 = "--ldf=" + vxtest::testdata("ldf/lin22.ldf");
  auto r = sandbox.vxcli({"ldf", "schedule", "activate", "MRF_schedule", "--channel=10356/4", lin22});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: cannot clear runtime LIN schedule: daemon is not running\n");
  r = sandbox.vxcli({"ldf", "schedule", "deactivate", "--channel=10356/4"});
  EXPECT_EQ(r.err, "ERROR: cannot deactivate runtime LIN schedule: daemon is not running\n");
}

}  // namespace
