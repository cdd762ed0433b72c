// Turning LDF schedules into daemon command lines, and the exchange with the daemon.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "database/ldf_model.h"
#include "vxtest.h"

namespace {

using Lines = std::vector<std::string>;

LdfModel load(const std::string& name) {
  LdfModel model;
  std::string error;
  EXPECT_EQ(parse_ldf(vxtest::testdata("ldf/" + name).c_str(), model, error), 0) << error;
  return model;
}

LdfModel from_text(const std::string& text) {
  LdfModel model;
  std::string error;
  EXPECT_EQ(parse_ldf_text(text, "t.ldf", model, error), 0) << error;
  return model;
}

const char* const kCluster = R"(LIN_description_file;
LIN_protocol_version = "2.1";
LIN_language_version = "2.1";
LIN_speed = 19.2 kbps;
Nodes { Master: M, 5 ms, 0.1 ms; Slaves: S1; }
Signals { A: 8, 0, M, S1; B: 16, {0x12, 0x34}, M, S1; C: 4, 3, S1, M; }
Frames {
  F1: 0x10, M, 4 { A, 0; B, 8; }
  F2: 0x11, S1, 1 { C, 0; }
}
Sporadic_frames { SP: F1; }
Schedule_tables {
  T { F1 delay 10.2 ms; F2 delay 20 ms; }
  Mixed { F1 delay 10 ms; SP delay 10 ms; }
}
)";

// A daemon stand-in: records every line and answers from a script (default "OK").
struct FakeDaemon {
  Lines sent;
  std::vector<std::pair<int, std::string>> answers;  // by request index
  LdfDaemonSend sender() {
    return [this](const std::string& request, std::string& reply) {
      size_t index = sent.size();
      sent.push_back(request);
      if (index < answers.size() && !answers[index].second.empty()) {
        reply = answers[index].second;
        return answers[index].first;
      }
      reply = "OK: done\n";
      return 0;
    };
  }
  void answer(size_t index, int rc, const std::string& reply) {
    if (answers.size() <= index) answers.resize(index + 1);
    answers[index] = {rc, reply};
  }
};

TEST(LdfScheduleCommands, MasterWriteCarriesDataAndSlaveFramesAreRead) {
  LdfModel m = from_text(kCluster);
  Lines lines;
  std::string error;
  ASSERT_EQ(ldf_schedule_commands(m, "T", "10356/4", lines, error), 0) << error;
  EXPECT_EQ(lines, (Lines{
      "lin schedule clear --channel=10356/4",
      "lin schedule add --channel=10356/4 --id=0x10 --type=master-write --delay=11 "
      "--checksum=enhanced --data=00123400",
      "lin schedule add --channel=10356/4 --id=0x11 --type=master-read --delay=20 "
      "--checksum=enhanced --dlc=1",
      "lin schedule activate --channel=10356/4",
  }));
}

TEST(LdfScheduleCommands, RealScheduleKeepsOrderAndDelays) {
  LdfModel m = load("J3068-2.ldf");
  Lines lines;
  std::string error;
  ASSERT_EQ(ldf_schedule_commands(m, "Op", "10356/4", lines, error), 0) << error;
  EXPECT_EQ(lines, (Lines{
      "lin schedule clear --channel=10356/4",
      "lin schedule add --channel=10356/4 --id=0x02 --type=master-write --delay=10 "
      "--checksum=enhanced --data=FF00FFFFFFFF0000",
      "lin schedule add --channel=10356/4 --id=0x03 --type=master-read --delay=11 "
      "--checksum=enhanced --dlc=8",
      "lin schedule add --channel=10356/4 --id=0x04 --type=master-read --delay=10 "
      "--checksum=enhanced --dlc=8",
      "lin schedule add --channel=10356/4 --id=0x0B --type=master-write --delay=11 "
      "--checksum=enhanced --data=FF00FFFFFFFFFFFF",
      "lin schedule add --channel=10356/4 --id=0x0C --type=master-read --delay=10 "
      "--checksum=enhanced --dlc=8",
      "lin schedule activate --channel=10356/4",
  }));
  // LIN 1.3 frames go out with the classic checksum and their own sizes.
  LdfModel lin13 = load("lin13.ldf");
  ASSERT_EQ(ldf_schedule_commands(lin13, "VL1_ST1", "1/0", lines, error), 0) << error;
  ASSERT_EQ(lines.size(), 6u);
  EXPECT_EQ(lines[1], "lin schedule add --channel=1/0 --id=0x20 --type=master-write --delay=15 "
                      "--checksum=classic --data=000000");
  EXPECT_EQ(lines[3], "lin schedule add --channel=1/0 --id=0x32 --type=master-read --delay=20 "
                      "--checksum=classic --dlc=8");
}

TEST(LdfScheduleCommands, DiagnosticFramesWithoutDeclaration) {
  LdfModel m = load("lin22.ldf");
  Lines lines;
  std::string error;
  ASSERT_EQ(ldf_schedule_commands(m, "MRF_schedule", "c", lines, error), 0) << error;
  EXPECT_EQ(lines[1], "lin schedule add --channel=c --id=0x3C --type=master-write --delay=10 "
                      "--checksum=classic --data=0000000000000000");
  ASSERT_EQ(ldf_schedule_commands(m, "SRF_schedule", "c", lines, error), 0) << error;
  EXPECT_EQ(lines[1], "lin schedule add --channel=c --id=0x3D --type=master-read --delay=10 "
                      "--checksum=classic --dlc=8");
}

TEST(LdfScheduleCommands, NonExecutableSchedulesAreRefusedBeforeSending) {
  std::string big = kCluster;
  std::string entries;
  for (int i = 0; i < 65; i++) entries += "F1 delay 5 ms; ";
  big.insert(big.find("  T {"), "  Big { " + entries + "}\n  Long { F1 delay 40000 ms; F2 delay 25536 ms; }\n");
  LdfModel cluster = from_text(big);
  LdfModel lin22 = load("lin22.ldf");
  LdfModel iso = load("iso17987.ldf");
  LdfModel sporadic = load("ldf_with_sporadic_frames.ldf");
  const std::string tail =
      " is not directly executable; only unconditional and diagnostic frames can be materialized";
  struct Case { const LdfModel* model; const char* schedule; const char* channel; std::string message; };
  const Case cases[] = {
      {&cluster, "Big", "c", "LDF schedule must contain 1..64 entries"},
      {&cluster, "Mixed", "c", "schedule entry 1 (SP)" + tail},
      {&cluster, "Long", "c", "LDF schedule cycle of 65536 ms exceeds 65535 ms"},
      {&cluster, "Nope", "c", "LDF schedule not found: Nope"},
      {&cluster, "T", "", "schedule name and --channel are required"},
      {&cluster, "T", "1 2", "invalid channel specification '1 2'"},
      {&lin22, "Configuration_Schedule", "c", "schedule entry 0 (AssignNAD {LSM})" + tail},
      {&lin22, "Normal_Schedule", "c", "schedule entry 3 (Node_Status_Event)" + tail},
      {&iso, "Table4", "c", "schedule entry 0 (AssignNAD {VectorSlave_ISO})" + tail},
      {&iso, "ETF_Table", "c", "schedule entry 0 (ETF_MotorState_Cycl)" + tail},
      {&sporadic, "POST_RUN", "c", "schedule entry 0 (SF_REQ_POST_RUN)" + tail},
  };
  for (const Case& c : cases) {
    FakeDaemon daemon;
    std::string error;
    unsigned count = 99;
    EXPECT_EQ(ldf_schedule_activate(*c.model, c.schedule, c.channel, daemon.sender(), &count, error),
              -1);
    EXPECT_EQ(error, c.message) << c.schedule;
    EXPECT_TRUE(daemon.sent.empty()) << c.schedule;
    EXPECT_EQ(count, 99u);
  }
}

TEST(LdfScheduleActivate, SendsEveryLineAndCountsEntries) {
  LdfModel m = load("J3068-2.ldf");
  FakeDaemon daemon;
  unsigned count = 0;
  std::string error;
  ASSERT_EQ(ldf_schedule_activate(m, "Op252", "10356/4", daemon.sender(), &count, error), 0) << error;
  EXPECT_EQ(count, 21u);
  Lines expected;
  ASSERT_EQ(ldf_schedule_commands(m, "Op252", "10356/4", expected, error), 0);
  EXPECT_EQ(daemon.sent, expected);
}

TEST(LdfScheduleActivate, DaemonFailuresAreReportedWithTheirStep) {
  LdfModel m = from_text(kCluster);
  struct Case { size_t step; int rc; const char* reply; const char* message; size_t sent; };
  const Case cases[] = {
      {0, -1, "daemon is not running (daemon PID file not found)",
       "cannot clear runtime LIN schedule: daemon is not running (daemon PID file not found)", 1},
      {0, 0, "ERROR: lin schedule requires a channel configured as master\n",
       "cannot clear runtime LIN schedule: lin schedule requires a channel configured as master", 1},
      // A failed add clears the partial table again.
      {2, 0, "ERROR: system schedule is full\r\n",
       "failed to materialize schedule entry 1 (F2): system schedule is full", 4},
      {1, 0, "{\"status\":\"error\",\"message\":\"busy\"}",
       "failed to materialize schedule entry 0 (F1): busy", 3},
      {3, 0, "ERROR:", "cannot activate runtime LIN schedule: daemon command failed", 4},
  };
  for (const Case& c : cases) {
    FakeDaemon daemon;
    daemon.answer(c.step, c.rc, c.reply);
    std::string error;
    EXPECT_EQ(ldf_schedule_activate(m, "T", "10356/4", daemon.sender(), nullptr, error), -1);
    EXPECT_EQ(error, c.message);
    ASSERT_EQ(daemon.sent.size(), c.sent) << c.message;
    if (c.step == 1 || c.step == 2) {
      EXPECT_EQ(daemon.sent.back(), "lin schedule clear --channel=10356/4");
    }
  }
}

TEST(LdfScheduleDeactivate, SendsOneLine) {
  FakeDaemon daemon;
  std::string error;
  EXPECT_EQ(ldf_schedule_deactivate("10356/4", daemon.sender(), error), 0);
  EXPECT_EQ(daemon.sent, (Lines{"lin schedule deactivate --channel=10356/4"}));

  EXPECT_EQ(ldf_schedule_deactivate("", daemon.sender(), error), -1);
  EXPECT_EQ(error, "--channel is required");
  FakeDaemon failing;
  failing.answer(0, 0, "ERROR: channel is not open\n");
  EXPECT_EQ(ldf_schedule_deactivate("3/1", failing.sender(), error), -1);
  EXPECT_EQ(error, "cannot deactivate runtime LIN schedule: channel is not open");
}

}  // namespace
