// The daemon's channel services end to end: TX task and route copies, channel
// and bus configuration, LIN responses and the system schedule, and LDF schedules
// materialised through it.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <string>
#include <vector>

#include "../message/e2e_util.h"
#include "vxtest.h"

namespace {

using msgtest::lines;
using msgtest::member;

// A loopback port nobody listens on right now, as the kernel hands it out; other
// test processes on this machine run daemons of their own.
int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    port = ntohs(address.sin_port);
  if (fd >= 0) close(fd);
  return port > 0 ? port : 20000 + getpid() % 20000;
}

// A sandbox with its own daemon; stopped on the way out, also after a failure.
struct DaemonBox {
  vxtest::Sandbox box;
  int quiet_port = free_port();  // where captures look for a daemon and find none
  DaemonBox() { box.env()["VXCLI_DAEMON_PORT"] = std::to_string(free_port()); }
  ~DaemonBox() { box.vxcli({"daemon", "stop"}, 20); }
  vxtest::RunResult run(const std::vector<std::string>& args) const { return box.vxcli(args, 60); }
  void start(const std::vector<std::vector<std::string>>& opens) {
    auto started = run({"daemon", "start"});
    ASSERT_EQ(started.rc, 0) << started.out << started.err;
    for (const auto& o : opens) {
      std::vector<std::string> args = {"channel", "open"};
      args.insert(args.end(), o.begin(), o.end());
      auto r = run(args);
      ASSERT_EQ(r.rc, 0) << r.out << r.err;
    }
  }
  // A capture run beside the daemon, by a process that does not talk to it.
  vxtest::RunResult capture(const std::vector<std::string>& args) {
    std::string port = box.env()["VXCLI_DAEMON_PORT"];
    box.env()["VXCLI_DAEMON_PORT"] = std::to_string(quiet_port);
    std::vector<std::string> all = {"message", "recv"};
    all.insert(all.end(), args.begin(), args.end());
    auto r = box.vxcli(all, 60);
    box.env()["VXCLI_DAEMON_PORT"] = port;
    return r;
  }
};

// "id data" of each LIN frame of a JSONL capture.
std::vector<std::string> lin_frames(const std::string& jsonl) {
  std::vector<std::string> out;
  for (const auto& line : lines(jsonl))
    if (!line.empty()) out.push_back(member(line, "id") + " " + member(line, "data"));
  return out;
}

TEST(DaemonServicesE2E, TaskAndRouteCopiesSurviveRestart) {
  DaemonBox d;
  d.start({{"--channel=10356/0"}, {"--channel=10356/1"}});
  auto add = d.run({"txtask", "add", "--channel=10356/0", "--message=0x321", "--cycle=25", "--data=AABB"});
  ASSERT_EQ(add.rc, 0) << add.out << add.err;
  EXPECT_EQ(add.out, "OK: TX task 0 added on slot 0: type=fixed cycle=25ms id=0x321\n");
  auto route = d.run({"route", "add", "--src=10356/0", "--dst=10356/1", "--message=0x555"});
  ASSERT_EQ(route.rc, 0) << route.out;
  EXPECT_EQ(route.out, "OK: Route 0 added: port0 -> port1, message ID 0x555\n");
  auto cross = d.run({"route", "add", "--src=10356/0", "--dst=10357/1"});
  EXPECT_EQ(cross.rc, 1);
  EXPECT_EQ(cross.out,
            "ERROR: Hardware route cannot cross devices: src 10356/0 -> dst 10357/1. Routes are confined to one "
            "device's own ports.\n");

  auto restart = d.run({"daemon", "restart"});
  ASSERT_EQ(restart.rc, 0) << restart.out;
  auto tasks = d.run({"txtask", "list", "--channel=10356/0", "--format=json"});
  EXPECT_EQ(tasks.out,
            "{\"status\":\"ok\",\"channel\":0,\"tasks\":[{\"taskid\":0,\"type\":\"fixed\",\"cycle\":25,\"delay\":0,"
            "\"nrounds\":0,\"id\":\"0x321\",\"flags\":0,\"length\":2}],\"count\":1}\n");
  auto routes = d.run({"route", "list", "--channel=10356/0"});
  EXPECT_EQ(routes.out,
            "OK: 1 route(s) on slot 0\nRoute 0: unicast CH0 -> CH1, ID mask=0x1FFFFFFF value=0x555, flags mask=0x00 "
            "value=0x00\n");
  // The task still runs after the restart: about 40 frames a second.
  auto got = d.capture({"--channel=10357/0", "--duration=0.5", "--format=jsonl"});
  int seen = 0;
  for (const auto& line : lines(got.out)) seen += member(line, "id") == "0x321" ? 1 : 0;
  EXPECT_GE(seen, 10) << got.out << got.err;
  EXPECT_LE(seen, 35);

  // The route table takes 64 entries; the daemon refuses the next one.
  for (int i = 1; i < 64; i++)
    ASSERT_EQ(d.run({"route", "add", "--src=10356/0", "--dst=10356/2", "--id=" + std::to_string(0x600 + i)}).rc, 0)
        << i;
  auto full = d.run({"route", "add", "--src=10356/0", "--dst=10356/2"});
  EXPECT_EQ(full.rc, 1);
  EXPECT_EQ(full.out, "ERROR: max routes (64) reached\n");
  auto removed = d.run({"route", "remove", "--src=10356/0", "--dst=2"});
  EXPECT_EQ(removed.out, "OK: Removed 63 route(s) from channel 10356/0\n");

  auto reset = d.run({"channel", "reset-defaults", "--channel=10356/0"});
  ASSERT_EQ(reset.rc, 0) << reset.out;
  EXPECT_EQ(reset.out, "OK: slot 0 reset to defaults (64 TX task, 32 filter and 64 route entries cleared)\n");
  EXPECT_EQ(d.run({"txtask", "list", "--channel=10356/0"}).out, "OK: 0 TX task(s) on slot 0\n");
  EXPECT_EQ(d.run({"route", "list", "--channel=10356/0"}).out, "OK: 0 route(s) on slot 0\n");
}

TEST(DaemonServicesE2E, ChannelSwitchesAndBusConfiguration) {
  DaemonBox d;
  d.start({{"--channel=10356/0"}, {"--channel=10356/4", "--mode=master"}});
  auto get = d.run({"can", "config", "get", "--channel=10356/0"});
  EXPECT_EQ(get.out, "OK: slot 0 CAN mode=normal bitrate=500/2000 termination=120 fd=on\n");
  auto set = d.run({"can", "config", "set", "--channel=10356/0", "--bitrate=250/1000", "--termination=off"});
  EXPECT_EQ(set.out, "OK: slot 0 CAN configuration updated: mode=normal bitrate=250/1000 termination=off fd=on\n");
  // Remembered for reopening.
  ASSERT_EQ(d.run({"daemon", "restart"}).rc, 0);
  auto json = d.run({"can", "config", "get", "--channel=10356/0", "--format=json"});
  EXPECT_EQ(member(json.out, "bitrate"), "250");
  EXPECT_EQ(member(json.out, "termination"), "off");
  EXPECT_EQ(d.run({"can", "config", "set", "--channel=10356/0", "--mode=sideways"}).out,
            "ERROR: invalid CAN mode 'sideways'\n");
  EXPECT_EQ(d.run({"can", "config", "get", "--channel=10356/4"}).out,
            "ERROR: can config requires a CAN channel (slot 1 is LIN)\n");

  auto lin = d.run({"lin", "config", "set", "--channel=10356/4", "--lin-version=2.0", "--checksum=classic"});
  EXPECT_EQ(lin.out,
            "OK: slot 1 LIN configuration updated: mode=master bitrate=19200 bps pullup=1k power=on version=2.0 "
            "checksum=classic\n");
  // Role and bitrate need a reopen; the protocol settings stay.
  EXPECT_EQ(d.run({"lin", "config", "set", "--channel=10356/4", "--bitrate=10.4k", "--format=json"}).out,
            "{\"status\":\"ok\",\"slot\":1,\"channel\":\"SN10356/port4\",\"bus\":\"lin\",\"mode\":\"master\","
            "\"bitrate\":10400,\"pullup\":\"1k\",\"power\":\"on\",\"lin_version\":\"2.0\",\"checksum\":\"classic\"}\n");
  EXPECT_EQ(d.run({"lin", "config", "set", "--channel=10356/4", "--bitrate=auto"}).out,
            "ERROR: auto bitrate is only supported in LIN slave mode\n");
  auto power = d.run({"channel", "power", "off", "--channel=10356/4"});
  EXPECT_EQ(power.out, "OK: slot 1 power off\n");
  EXPECT_EQ(d.run({"channel", "power", "status", "--channel=10356/4", "--format=json"}).out,
            "{\"status\":\"ok\",\"slot\":1,\"channel\":\"SN10356/port4\",\"action\":\"status\",\"power\":\"off\"}\n");
  EXPECT_EQ(d.run({"channel", "power", "cycle", "--channel=10356/4", "--delay=10"}).out,
            "OK: slot 1 power cycled, now on\n");
  EXPECT_EQ(d.run({"channel", "power", "on", "--channel=10356/0"}).out,
            "ERROR: channel power requires a LIN channel (slot 0 is CAN)\n");

  EXPECT_EQ(d.run({"channel", "auto-recover", "off"}).out, "OK: auto-recover off\n");
  auto status = d.run({"channel", "auto-recover", "status", "--format=json"});
  EXPECT_EQ(status.out,
            "{\"status\":\"ok\",\"auto_recover\":false,\"channels\":[{\"slot\":0,\"channel\":\"SN10356/port0\","
            "\"state\":\"error-active\"},{\"slot\":1,\"channel\":\"SN10356/port4\",\"state\":\"lin\"}]}\n");
  // A bus-off that only reopening clears, recovered by hand while the automatic
  // recovery is off: the slot comes back with its task.
  ASSERT_EQ(d.run({"txtask", "add", "--channel=10356/0", "--message=0x42", "--cycle=1000"}).rc, 0);
  ASSERT_EQ(d.box.run_program("vxsim", {"busoff", "10356/0", "--stuck"}).rc, 0);
  auto recover = d.run({"channel", "recover", "--channel=10356/0"});
  EXPECT_EQ(recover.out, "OK: slot 0 reopened and restored (1 TX task(s), 0 route(s)), state=error-active\n");
  EXPECT_EQ(member(d.run({"txtask", "list", "--channel=10356/0", "--format=json"}).out, "count"), "1");
  // A replugged device is back in its power-on state; the copies refill it.
  ASSERT_EQ(d.box.run_program("vxsim", {"unplug", "10356"}).rc, 0);
  ASSERT_EQ(d.box.run_program("vxsim", {"replug", "10356"}).rc, 0);
  recover = d.run({"channel", "recover", "--channel=10356/0"});
  EXPECT_EQ(recover.out, "OK: slot 0 reopened and restored (1 TX task(s), 0 route(s)), state=error-active\n");
  EXPECT_NE(d.capture({"--channel=10357/0", "--bitrate=250/1000", "--duration=1.2", "--format=jsonl"}).out.find("\"id\":\"0x42\""),
            std::string::npos);
  EXPECT_EQ(d.run({"channel", "auto-recover", "on"}).out, "OK: auto-recover on\n");
}

TEST(DaemonServicesE2E, LinScheduleDrivesASlaveTableOnTheOtherDevice) {
  DaemonBox d;
  d.start({{"--channel=10356/4", "--mode=master"}, {"--channel=10357/4", "--mode=slave"}});
  auto response = d.run({"lin", "response", "set", "--channel=10357/4", "--id=0x21", "--data=A1A2A3A4"});
  EXPECT_EQ(response.out, "OK: LIN response 0x21 set on slot 1 (4 bytes, enhanced checksum)\n");
  auto listed = d.run({"lin", "response", "list", "--channel=10357/4"});
  EXPECT_EQ(listed.out, "OK: 1 LIN response(s) on slot 1\n  0x21 [4] A1 A2 A3 A4 enhanced (0x" +
                            listed.out.substr(listed.out.size() - 4));

  struct Case {
    std::vector<std::string> args;
    const char* out;
  };
  const std::string ch = "--channel=10356/4";
  for (const Case& c : {
           Case{{"lin", "schedule", "activate", ch}, "ERROR: system schedule is empty\n"},
           Case{{"lin", "schedule", "clear", ch}, "OK: system schedule is empty\n"},
           Case{{"lin", "schedule", "add", ch, "--id=0x10", "--delay=0"}, "ERROR: schedule --delay must be 1..65535 ms\n"},
           Case{{"lin", "schedule", "add", ch, "--id=0x10", "--delay=5", "--type=write"},
                "ERROR: schedule --type must be master-write, master-read, or sync-break\n"},
           Case{{"lin", "schedule", "add", ch, "--id=0x10", "--delay=5", "--type=master-read", "--data=01"},
                "ERROR: master-read and sync-break schedule entries cannot include --data\n"},
           Case{{"lin", "schedule", "add", ch, "--id=0x10", "--delay=5", "--type=sync-break", "--dlc=2"},
                "ERROR: sync-break is header-only; omit --dlc or use --dlc=0\n"},
           Case{{"lin", "schedule", "remove", ch, "--entry=0"}, "ERROR: system schedule is empty\n"},
           Case{{"lin", "schedule", "show", ch, "--schedule=fast"},
                "ERROR: only the reserved system schedule is available until LDF loading is implemented\n"},
           Case{{"lin", "schedule", "add", "--channel=10357/4", "--id=0x10", "--delay=5"},
                "ERROR: lin schedule requires a channel configured as master\n"},
       }) {
    auto r = d.run(c.args);
    EXPECT_EQ(r.out, c.out) << c.args[2];
  }

  auto w = d.run({"lin", "schedule", "add", ch, "--id=0x10", "--delay=20", "--data=0102"});
  EXPECT_EQ(w.out, "OK: system schedule entry 0 added on slot 0: id=0x10 type=master-write delay=20 ms dlc=2 (1 entries)\n");
  ASSERT_EQ(d.run({"lin", "schedule", "add", ch, "--id=0x21", "--delay=20", "--type=master-read", "--dlc=4"}).rc, 0);
  ASSERT_EQ(d.run({"lin", "schedule", "add", ch, "--id=0x22", "--delay=20", "--type=sync-break"}).rc, 0);
  EXPECT_EQ(d.run({"lin", "schedule", "remove", ch, "--entry=3"}).out, "ERROR: invalid system schedule --entry\n");
  EXPECT_EQ(d.run({"lin", "schedule", "remove", ch, "--entry=2"}).out,
            "OK: system schedule entry 2 (id=0x22) removed from slot 0 (2 entries left)\n");
  EXPECT_EQ(d.run({"lin", "schedule", "show", ch}).out,
            "OK: system schedule on slot 0: 2 entries, cycle 40 ms, inactive\n"
            "  0: id=0x10 type=master-write delay=20 ms dlc=2 checksum=enhanced data=0102\n"
            "  1: id=0x21 type=master-read delay=20 ms dlc=4 checksum=enhanced\n");

  EXPECT_EQ(d.run({"lin", "schedule", "activate", ch}).out, "OK: system schedule activated on slot 0 (2 entries, cycle 40 ms)\n");
  EXPECT_EQ(d.run({"lin", "config", "set", ch, "--mode=slave"}).out,
            "ERROR: deactivate the system schedule before leaving master mode\n");
  auto got = d.capture({"--channel=10357/4", "--count=6", "--format=jsonl"});
  ASSERT_EQ(got.rc, 0) << got.err;
  auto frames = lin_frames(got.out);
  ASSERT_EQ(frames.size(), 6u) << got.out;
  size_t first = frames[0] == "0x10 0102" ? 0 : 1;
  for (size_t i = first; i < frames.size(); i++)
    EXPECT_EQ(frames[i], (i - first) % 2 == 0 ? "0x10 0102" : "0x21 A1A2A3A4") << got.out;
  // Consecutive headers one 20 ms slot apart.
  auto all = lines(got.out);
  double gap = std::stod(member(all[5], "timestamp")) - std::stod(member(all[1], "timestamp"));
  EXPECT_GT(gap, 0.06);
  EXPECT_LT(gap, 0.12);

  EXPECT_EQ(d.run({"lin", "schedule", "deactivate", ch}).out, "OK: system schedule deactivated on slot 0\n");
  EXPECT_EQ(lin_frames(d.capture({"--channel=10357/4", "--duration=0.3", "--format=jsonl"}).out).size(), 0u);
  EXPECT_EQ(d.run({"lin", "schedule", "clear", ch}).out, "OK: system schedule cleared on slot 0 (2 entries removed)\n");
}

// A small cluster whose one schedule has the given number of entries.
std::string ldf_with_entries(int entries) {
  std::string text =
      "LIN_description_file;\nLIN_protocol_version = \"2.1\";\nLIN_language_version = \"2.1\";\n"
      "LIN_speed = 19.2 kbps;\nNodes { Master: M, 5 ms, 0.1 ms; Slaves: S; }\n"
      "Signals { a: 8, 0, M, S; }\nFrames { F: 0x10, M, 1 { a, 0; } }\nSchedule_tables { Long {\n";
  for (int i = 0; i < entries; i++) text += "  F delay 10 ms;\n";
  return text + "} }\n";
}

TEST(DaemonServicesE2E, LdfScheduleRunsThroughTheSystemTable) {
  DaemonBox d;
  d.start({{"--channel=10356/4", "--mode=master"}, {"--channel=10357/4", "--mode=slave"}});
  // LSM answers its frame; the CPM frames go unanswered but their headers are on the bus.
  ASSERT_EQ(d.run({"lin", "response", "set", "--channel=10357/4", "--id=0x21", "--data=11223344", "--checksum=classic"})
                .rc,
            0);
  std::string ldf = vxtest::testdata("ldf/lin13.ldf");
  auto act = d.run({"ldf", "schedule", "activate", "VL1_ST1", "--ldf=" + ldf, "--channel=10356/4"});
  ASSERT_EQ(act.rc, 0) << act.out << act.err;
  EXPECT_EQ(act.out, "Activated LDF schedule VL1_ST1 as runtime system table on 10356/4 (4 entries)\n");
  auto show = d.run({"lin", "schedule", "show", "--channel=10356/4"});
  EXPECT_EQ(lines(show.out)[0], "OK: system schedule on slot 0: 4 entries, cycle 70 ms, active") << show.out;

  auto got = d.capture({"--channel=10357/4", "--count=8", "--format=jsonl"});
  ASSERT_EQ(got.rc, 0) << got.err;
  std::vector<std::string> ids;
  std::vector<double> times;
  for (const auto& line : lines(got.out)) {
    if (line.empty()) continue;
    ids.push_back(member(line, "id"));
    times.push_back(std::stod(member(line, "timestamp")));
  }
  ASSERT_EQ(ids.size(), 8u) << got.out;
  // The schedule's order CEM_Frm1 (0x20), LSM_Frm1 (0x21), CPM_Frm1 (0x32), CPM_Frm2 (0x22), round after round.
  const std::vector<std::string> order = {"0x20", "0x21", "0x32", "0x22"};
  size_t start = 0;
  while (start < order.size() && order[start] != ids[0]) start++;
  ASSERT_LT(start, order.size()) << got.out;
  for (size_t i = 0; i < ids.size(); i++) EXPECT_EQ(ids[i], order[(start + i) % 4]) << got.out;
  // Four frames later the next round is at the same place: 70 ms on.
  EXPECT_NEAR(times[4] - times[0], 0.070, 0.02);
  EXPECT_NE(got.out.find("\"id\":\"0x21\",\"dlc\":4,\"data\":\"11223344\""), std::string::npos) << got.out;

  // Refused before anything is sent: the running table stays as it was.
  auto assign = d.run({"ldf", "schedule", "activate", "Configuration_Schedule", "--ldf=" + vxtest::testdata("ldf/lin22.ldf"),
                       "--channel=10356/4"});
  EXPECT_EQ(assign.rc, 1);
  EXPECT_NE(assign.err.find("is not directly executable"), std::string::npos) << assign.err;
  std::string big = d.box.write_file("long.ldf", ldf_with_entries(65));
  auto many = d.run({"ldf", "schedule", "activate", "Long", "--ldf=" + big, "--channel=10356/4"});
  EXPECT_EQ(many.rc, 1);
  EXPECT_NE(many.err.find("LDF schedule must contain 1..64 entries"), std::string::npos) << many.err;
  EXPECT_EQ(lines(d.run({"lin", "schedule", "show", "--channel=10356/4"}).out)[0],
            "OK: system schedule on slot 0: 4 entries, cycle 70 ms, active");

  auto off = d.run({"ldf", "schedule", "deactivate", "--channel=10356/4"});
  ASSERT_EQ(off.rc, 0) << off.out << off.err;
  EXPECT_EQ(off.out, "Deactivated runtime system schedule on 10356/4\n");
  EXPECT_EQ(lin_frames(d.capture({"--channel=10357/4", "--duration=0.3", "--format=jsonl"}).out).size(), 0u);
}

}  // namespace
