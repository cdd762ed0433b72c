#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "daemon_e2e_util.h"

namespace {

using daemon_e2e::DaemonBox;
using daemon_e2e::json_int;

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
  EXPECT_EQ(json_int(json.out, "port"), d.port);
  int pid = json_int(json.out, "pid");
  ASSERT_GT(pid, 0);

  auto again = d.run({"daemon", "start", "--format=json"});
  ASSERT_EQ(again.rc, 0) << again.err;
  EXPECT_NE(again.out.find("\"state\":\"already_running\""), std::string::npos) << again.out;
  EXPECT_EQ(json_int(again.out, "pid"), pid);

  // The pid file is published atomically and removed by an orderly stop.
  std::string pid_file = d.pid_file();
  EXPECT_EQ(vxtest::read_file(pid_file), std::to_string(pid) + "\n");
  auto stop = d.run({"daemon", "stop"});
  ASSERT_EQ(stop.rc, 0) << stop.err;
  EXPECT_NE(stop.out.find("exited"), std::string::npos) << stop.out;
  EXPECT_NE(access(pid_file.c_str(), F_OK), 0);
  EXPECT_TRUE(daemon_e2e::eventually([&] { return kill(pid, 0) != 0; }));  // reaped by init
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

TEST(DaemonE2E, StaleUnresponsiveAndKilledDaemons) {
  DaemonBox d;
  // No pid file: stop still succeeds and says nothing was running.
  auto idle = d.run({"daemon", "stop", "--format=json"});
  EXPECT_EQ(idle.rc, 0);
  EXPECT_EQ(idle.out, "{\"status\":\"ok\",\"state\":\"stopped\",\"pid\":0,\"forced\":false,\"was_running\":false}\n");

  // A pid file naming a dead process is removed with a warning.
  pid_t dead = fork();
  if (dead == 0) _exit(0);
  waitpid(dead, nullptr, 0);
  d.box.write_file("runtime/vxcli/daemon_" + std::to_string(d.port) + ".pid", std::to_string(dead) + "\n");
  auto over_stale = d.run({"daemon", "start"});
  ASSERT_EQ(over_stale.rc, 0) << over_stale.err;
  EXPECT_NE(over_stale.err.find("stale pidfile (pid " + std::to_string(dead) + " not alive); removing"),
            std::string::npos)
      << over_stale.err;
  int first = json_int(d.run({"daemon", "status", "--format=json"}).out, "pid");
  ASSERT_GT(first, 0);

  // A daemon killed outright leaves its pid file behind; clients see it is gone and
  // the next start replaces it.
  ASSERT_EQ(kill(first, SIGKILL), 0);
  ASSERT_TRUE(daemon_e2e::eventually([&] { return kill(first, 0) != 0; }));
  auto gone = d.run({"daemon", "status"});
  EXPECT_EQ(gone.rc, 1);
  EXPECT_NE(gone.err.find("daemon not running"), std::string::npos) << gone.err;
  auto again = d.run({"daemon", "start", "--format=json"});
  ASSERT_EQ(again.rc, 0) << again.err;
  EXPECT_NE(again.out.find("\"state\":\"started\""), std::string::npos) << again.out;
  EXPECT_NE(json_int(again.out, "pid"), first);
  ASSERT_EQ(d.run({"daemon", "stop"}).rc, 0);

  // A live process that does not answer is taken for a hung daemon and killed.
  pid_t hung = fork();
  if (hung == 0) {
    pause();
    _exit(0);
  }
  d.box.write_file("runtime/vxcli/daemon_" + std::to_string(d.port) + ".pid", std::to_string(hung) + "\n");
  auto replaced = d.run({"daemon", "start"});
  int status = 0;
  EXPECT_EQ(waitpid(hung, &status, 0), hung);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
  ASSERT_EQ(replaced.rc, 0) << replaced.err;
  EXPECT_NE(replaced.err.find("alive but not responding on port " + std::to_string(d.port)), std::string::npos)
      << replaced.err;
  EXPECT_EQ(d.run({"daemon", "status"}).rc, 0);
}

TEST(DaemonE2E, StartOptionsAndLinChannels) {
  DaemonBox d;
  auto mixed = d.run({"daemon", "start", "--channel=10356/0", "--termination=120", "--pullup=1k"});
  EXPECT_EQ(mixed.rc, 1);
  EXPECT_NE(mixed.err.find("bus is inferred; use --termination for CAN or --pullup/--power for LIN"),
            std::string::npos)
      << mixed.err;
  auto rate = d.run({"daemon", "start", "--bitrate=fast"});
  EXPECT_EQ(rate.rc, 1);
  EXPECT_NE(rate.err.find("invalid bitrate; use forms such as 500, 500K, 500000, or 1M"), std::string::npos);
  auto lin_rate = d.run({"daemon", "start", "--pullup=off", "--bitrate=50000"});
  EXPECT_EQ(lin_rate.rc, 1);
  EXPECT_NE(lin_rate.err.find("invalid LIN bitrate; expected auto or 1000..20000 bps"), std::string::npos);
  EXPECT_NE(access(d.pid_file().c_str(), F_OK), 0) << "refused starts must not leave a daemon";

  // Start-up channels: the CAN ones open with the shared bitrate; a spec that
  // resolves to nothing is skipped and the daemon serves anyway.
  auto start = d.run({"daemon", "start", "--channel=10356/0,10356/1,10399/0", "--bitrate=250/1000"});
  ASSERT_EQ(start.rc, 0) << start.err;
  auto status = d.run({"channel", "status", "--format=json"});
  EXPECT_EQ(daemon_e2e::count_of(status.out, "\"bitrate\":250,\"data_bitrate\":1000"), 2) << status.out;
  EXPECT_NE(d.log().find("Daemon: startup channel 2 cannot be resolved"), std::string::npos);

  auto lin = d.run({"channel", "open", "--channel=10356/4", "--mode=master", "--bitrate=9600", "--pullup=off",
                    "--lin-version=2.0", "--checksum=classic"});
  ASSERT_EQ(lin.rc, 0) << lin.out;
  EXPECT_EQ(lin.out, "OK: channel 10356/4 opened (slot 2, SN10356/port4, LIN, mode=master, bitrate=9600 bps)\n");
  // LIN frames go out through the slot's own configuration (classic checksum).
  EXPECT_EQ(d.run({"message", "send", "--channel=2", "--id=0x10", "--data=0102"}).out,
            "OK: LIN master-write completed on slot 2: id=0x10 sent=1 checksum=classic\n");
  auto unanswered = d.run({"message", "send", "--channel=2", "--id=0x11", "--type=master-read"});
  EXPECT_EQ(unanswered.rc, 1);
  EXPECT_EQ(unanswered.out.rfind("ERROR: LIN master-read failed on slot 2:", 0), 0u) << unanswered.out;
  EXPECT_EQ(d.run({"message", "send", "--channel=2", "--id=0x40"}).out, "ERROR: LIN ID must be in range 0x00..0x3F\n");
  auto lin_term = d.run({"channel", "open", "--channel=10356/5", "--termination=120"});
  EXPECT_EQ(lin_term.out, "ERROR: --termination requires a CAN channel\n");
  auto can_pull = d.run({"channel", "open", "--channel=10356/3", "--power=on"});
  EXPECT_EQ(can_pull.out, "ERROR: --pullup and --power require a LIN channel\n");

  // Opening several at once names the failures beside the opened ones.
  auto many = d.run({"channel", "open", "--channel=10357/0,10399/1", "--format=json"});
  ASSERT_EQ(many.rc, 0) << many.out;
  EXPECT_NE(many.out.find("\"channels\":[{\"state\":\"opened\",\"slot\":3,"), std::string::npos) << many.out;
  EXPECT_NE(many.out.find("\"failed\":[{\"channel\":\"10399/1\""), std::string::npos) << many.out;

  // Restart reopens every slot from its stored configuration, LIN included.
  auto restart = d.run({"daemon", "restart", "--format=json"});
  EXPECT_EQ(restart.out, "{\"status\":\"ok\",\"state\":\"restarted\"}\n");
  auto after = d.run({"channel", "status", "--channel=2"});
  EXPECT_NE(after.out.find("LIN mode=master bitrate=9600 bps"), std::string::npos) << after.out;
}

TEST(DaemonE2E, StructuredRequestsAndErrorEnvelope) {
  DaemonBox d;
  ASSERT_EQ(d.run({"daemon", "start"}).rc, 0);
  const std::string head = "{\"protocol\":\"vxcli-ipc\",\"version\":1,\"request_id\":\"1-1\",\"format\":";
  EXPECT_EQ(d.raw(head + "\"text\",\"project\":\"\",\"argv\":[\"daemon\",\"status\"]}").rfind("OK: daemon running", 0),
            0u);
  std::string many = head + "\"text\",\"argv\":[\"daemon\",\"status\"";
  for (int i = 2; i < 128; i++) many += ",\"x\"";
  const std::string invalid = "ERROR: invalid or unsupported structured IPC request\n";
  EXPECT_EQ(d.raw(many + "]}"), invalid);
  EXPECT_EQ(d.raw("{\"protocol\":\"vxcli-ipc\",\"version\":2,\"format\":\"text\",\"argv\":[\"daemon\",\"status\"]}"),
            invalid);
  EXPECT_EQ(d.raw("{\"protocol\":\"other\",\"version\":1,\"format\":\"text\",\"argv\":[\"daemon\",\"status\"]}"),
            invalid);
  EXPECT_EQ(d.raw(head + "\"xml\",\"argv\":[\"daemon\",\"status\"]}"), invalid);
  EXPECT_EQ(d.raw(head + "\"text\",\"argv\":[\"daemon\",7]}"), invalid);
  // 127 strings are still fine.
  std::string most = head + "\"text\",\"argv\":[\"daemon\",\"status\"";
  for (int i = 2; i < 127; i++) most += ",\"x\"";
  EXPECT_EQ(d.raw(most + "]}").rfind("OK: daemon running", 0), 0u);

  // A JSON request's error becomes the envelope, except an unknown command,
  // which dispatch must see as plain text to fall back to local handling.
  EXPECT_EQ(d.raw(head + "\"json\",\"argv\":[\"channel\",\"close\",\"--channel=7\"]}"),
            "{\"status\":\"error\",\"message\":\"channel slot 7 not open\",\"error\":{\"code\":\"daemon_command_failed\","
            "\"message\":\"channel slot 7 not open\",\"details\":{},\"retryable\":false}}\n");
  EXPECT_EQ(d.raw(head + "\"json\",\"argv\":[\"frobnicate\",\"now\"]}"), "ERROR: unknown command 'frobnicate now'\n");
  EXPECT_EQ(d.raw("channel close --channel=9 --format=json").rfind("{\"status\":\"error\",", 0), 0u);
  // An empty line or a silent client gets no answer, and the daemon carries on.
  EXPECT_EQ(d.raw(""), "");
  auto forwarded = d.run({"channel", "close", "--channel=3", "--format=json"});
  EXPECT_EQ(forwarded.rc, 1);
  EXPECT_EQ(forwarded.out.rfind("{\"status\":\"error\",\"message\":\"channel slot 3 not open\"", 0), 0u)
      << forwarded.out;
  EXPECT_NE(d.log().find("==== daemon start pid="), std::string::npos);
}

}  // namespace
