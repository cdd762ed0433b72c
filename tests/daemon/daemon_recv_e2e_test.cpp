// Receives served by the daemon, channel leases and the command guard, and
// bus-off / unplug recovery.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "daemon_e2e_util.h"

namespace {

using daemon_e2e::Background;
using daemon_e2e::count_of;
using daemon_e2e::DaemonBox;
using daemon_e2e::eventually;
using daemon_e2e::json_int;

// Slot 0 (10356/0) and slot 1 (10357/0) share a bus.
void open_pair(DaemonBox& d) {
  ASSERT_EQ(d.run({"daemon", "start"}).rc, 0);
  ASSERT_EQ(d.run({"channel", "open", "--channel=10356/0"}).rc, 0);
  ASSERT_EQ(d.run({"channel", "open", "--channel=10357/0"}).rc, 0);
}

// The recovery tick runs after the answer went out, so its log lines may trail it.
bool in_log(const DaemonBox& d, const std::string& line) {
  bool found = eventually([&] { return d.log().find(line) != std::string::npos; }, 5000);
  if (!found) ADD_FAILURE() << "not in the daemon log: " << line << "\n" << d.log();
  return found;
}

int consumers(const DaemonBox& d, int slot) {
  auto r = d.run({"channel", "status", "--channel=" + std::to_string(slot), "--format=json"});
  size_t at = r.out.find("\"consumers\":");
  return at == std::string::npos ? -1 : atoi(r.out.c_str() + at + 12);
}

TEST(DaemonRecvE2E, ConcurrentClientsEachGetEveryFrame) {
  DaemonBox d;
  open_pair(d);
  Background a = d.spawn({"message", "recv", "--channel=0", "--count=150", "--duration=20", "--format=jsonl"});
  Background b = d.spawn({"message", "recv", "--channel=10356/0", "--count=150", "--duration=20"});
  ASSERT_TRUE(eventually([&] { return consumers(d, 0) == 2; }));
  auto send = d.run({"message", "send", "--channel=1", "--id=0x321", "--data=DEADBEEF", "--count=150"});
  ASSERT_EQ(send.rc, 0) << send.out;
  auto ra = DaemonBox::wait(a);
  auto rb = DaemonBox::wait(b);
  ASSERT_EQ(ra.rc, 0) << ra.out << ra.err;
  ASSERT_EQ(rb.rc, 0) << rb.out << rb.err;
  EXPECT_EQ(count_of(ra.out, "\n"), 150);
  EXPECT_EQ(count_of(ra.out, "{\"status\":\"ok\",\"channel\":0,\"direction\":\"RX\",\"id\":\"0x321\",\"dlc\":4,"), 150)
      << ra.out.substr(0, 300);
  EXPECT_EQ(ra.out.find("\"timestamp\":0.000000"), ra.out.find("\"timestamp\""));
  // The text printer is the standalone one: time, CH<port>, direction, id, length, bytes.
  EXPECT_EQ(count_of(rb.out, " CH0 RX 0x00000321 [4] DE AD BE EF \n"), 150) << rb.out.substr(0, 300);
  EXPECT_EQ(rb.out.rfind("  0.000000 CH0 RX", 0), 0u) << rb.out.substr(0, 100);
  EXPECT_EQ(consumers(d, 0), 0);

  // Default is every open channel: both slots, each line tagged with its slot.
  Background all = d.spawn({"message", "recv", "--count=2", "--duration=20", "--format=csv"});
  ASSERT_TRUE(eventually([&] { return consumers(d, 1) == 1; }));
  ASSERT_EQ(d.run({"message", "send", "--channel=0", "--id=0x10", "--data=01"}).rc, 0);
  auto both = DaemonBox::wait(all);
  ASSERT_EQ(both.rc, 0) << both.out << both.err;
  EXPECT_EQ(both.out.rfind("timestamp,channel,direction,id,dlc,data,flags\n", 0), 0u) << both.out;
  EXPECT_EQ(count_of(both.out, ",0,TX,0x10,1,01,"), 1) << both.out;
  EXPECT_EQ(count_of(both.out, ",0,RX,0x10,1,01,"), 1) << both.out;

  // JSON collects the frames into one document; a filtered-out capture is an error.
  Background doc = d.spawn({"message", "recv", "--channel=0", "--id=0x7", "--count=1", "--format=json"});
  ASSERT_TRUE(eventually([&] { return consumers(d, 0) == 1; }));
  ASSERT_EQ(d.run({"message", "send", "--channel=1", "--id=0x5", "--data=01"}).rc, 0);
  ASSERT_EQ(d.run({"message", "send", "--channel=1", "--id=0x807", "--data=02"}).rc, 0);
  auto json = DaemonBox::wait(doc);
  ASSERT_EQ(json.rc, 0) << json.out;
  EXPECT_EQ(json_int(json.out, "received"), 1) << json.out;
  EXPECT_NE(json.out.find("\"id\":\"0x807\""), std::string::npos) << json.out;

  auto nothing = d.run({"message", "recv", "--channel=0", "--duration=0.3", "--count=3"});
  EXPECT_EQ(nothing.rc, 1);
  EXPECT_EQ(nothing.out, "ERROR: No messages received (count=3 not reached in 0.3s)\n");
  auto nothing_json = d.run({"message", "recv", "--channel=0", "--duration=0.3", "--format=json"});
  EXPECT_EQ(nothing_json.rc, 1);
  EXPECT_NE(nothing_json.out.find("\"code\":\"no_messages_received\""), std::string::npos) << nothing_json.out;
  auto closed = d.run({"message", "recv", "--channel=9", "--format=jsonl"});
  EXPECT_EQ(closed.rc, 1);
  EXPECT_NE(closed.out.find("\"message\":\"channel 9 is not open\""), std::string::npos) << closed.out;
  auto standalone_only = d.run({"message", "recv", "--bitrate=250"});
  EXPECT_EQ(standalone_only.rc, 1);
  EXPECT_NE(standalone_only.out.find("--bitrate applies only to standalone message recv"), std::string::npos);
}

TEST(DaemonRecvE2E, SeventeenthConcurrentReceiveIsRefused) {
  DaemonBox d;
  open_pair(d);
  std::vector<Background> clients;
  for (int i = 0; i < 16; i++)
    clients.push_back(d.spawn({"message", "recv", "--channel=0", "--count=1", "--duration=30"}));
  ASSERT_TRUE(eventually([&] { return consumers(d, 0) == 16; }, 30000));
  auto refused = d.run({"message", "recv", "--channel=0", "--count=1"});
  EXPECT_EQ(refused.rc, 1);
  EXPECT_EQ(refused.out, "ERROR: concurrent receive limit reached; retry later\n");
  // Synchronous commands are not held up by the receives.
  EXPECT_EQ(d.run({"daemon", "status"}).rc, 0);
  ASSERT_EQ(d.run({"message", "send", "--channel=1", "--id=0x42"}).rc, 0);
  for (auto& c : clients) {
    auto r = DaemonBox::wait(c);
    EXPECT_EQ(r.rc, 0) << r.out << r.err;
    EXPECT_NE(r.out.find(" RX 0x00000042 [0] "), std::string::npos) << r.out;
  }
  // Once they are done, receiving works again.
  EXPECT_TRUE(eventually([&] { return consumers(d, 0) == 0; }));
  EXPECT_EQ(d.run({"message", "recv", "--channel=0", "--duration=0.2"}).out, "ERROR: No messages received in 0.2s\n");

  // An interrupted client gives its receive thread back long before its duration.
  Background gone = d.spawn({"message", "recv", "--channel=0", "--duration=60"});
  ASSERT_TRUE(eventually([&] { return consumers(d, 0) == 1; }));
  kill(gone.pid, SIGKILL);
  DaemonBox::wait(gone);
  EXPECT_TRUE(eventually([&] { return consumers(d, 0) == 0; }, 5000));
}

TEST(DaemonRecvE2E, ClaimReleaseAndTheGuard) {
  DaemonBox d;
  open_pair(d);
  auto claim = d.run({"channel", "claim", "--channel=0,10357/0", "--timeout=60000"});
  ASSERT_EQ(claim.rc, 0) << claim.out;
  EXPECT_EQ(claim.out, "OK: claimed 2 channel(s) for local control\n");
  auto status = d.run({"daemon", "status"});
  EXPECT_NE(status.out.find("  ch0 = SN10356/port0 (slot 0, owner=local, phase=active, generation=1)"),
            std::string::npos)
      << status.out;
  auto renew = d.run({"channel", "claim", "--channel=1", "--format=json"});
  EXPECT_EQ(renew.out, "{\"status\":\"ok\",\"action\":\"channel_claim\",\"owner\":\"local\",\"timeout_ms\":300000,"
                       "\"channels\":[1]}\n");
  EXPECT_EQ(d.run({"channel", "release", "--channel=0", "--timeout=5000"}).rc, 1);
  EXPECT_EQ(d.raw("channel release --channel=0 --timeout=5000"), "ERROR: --timeout is valid only for channel claim\n");
  EXPECT_EQ(d.run({"channel", "claim", "--channel=0", "--timeout=999"}).out,
            "ERROR: --timeout must be 1000..86400000 ms\n");
  EXPECT_EQ(d.run({"channel", "claim", "--channel=0", "--timeout=86400001"}).out,
            "ERROR: --timeout must be 1000..86400000 ms\n");
  EXPECT_EQ(d.run({"channel", "claim", "--channel=5"}).out, "ERROR: channel 5 is not open\n");
  EXPECT_EQ(d.run({"channel", "release", "--channel=0,1"}).out, "OK: released 2 channel(s)\n");
  EXPECT_EQ(d.run({"channel", "release", "--channel=1"}).out, "ERROR: channel release failed: not_owner at slot 1\n");

  // A lease runs out by itself.
  ASSERT_EQ(d.run({"channel", "claim", "--channel=0", "--timeout=1000"}).rc, 0);
  EXPECT_NE(d.run({"daemon", "status"}).out.find("slot 0, owner=local"), std::string::npos);
  EXPECT_TRUE(eventually([&] { return d.run({"daemon", "status"}).out.find("slot 0, owner=none") != std::string::npos; },
                         5000));

  // A device that vanished cannot be controlled or claimed until it returns;
  // then its slot is reopened and given its TX tasks back (a replugged device
  // starts empty).
  auto task = d.run({"txtask", "add", "--channel=0", "--message=0x321", "--cycle=5", "--data=AA"});
  ASSERT_EQ(task.rc, 0) << task.out << task.err;
  ASSERT_EQ(d.box.run_program("vxsim", {"unplug", "10356"}).rc, 0);
  d.run({"daemon", "status"});  // the recovery tick after it notices
  EXPECT_EQ(d.run({"channel", "close", "--channel=0"}).out,
            "ERROR: channel 0 control is busy (owner=none, phase=disconnected)\n");
  EXPECT_EQ(d.run({"channel", "claim", "--channel=0"}).out, "ERROR: channel claim failed: faulted at slot 0\n");
  auto busy_json = d.run({"channel", "close", "--channel=0", "--format=json"});
  EXPECT_NE(busy_json.out.find("\"message\":\"channel 0 control is busy (owner=none, phase=disconnected)\""),
            std::string::npos)
      << busy_json.out;
  // Sending stays a shared access and just fails on the missing device.
  EXPECT_EQ(d.run({"message", "send", "--channel=0", "--id=1"}).rc, 1);
  ASSERT_EQ(d.box.run_program("vxsim", {"replug", "10356"}).rc, 0);
  d.run({"daemon", "status"});
  EXPECT_TRUE(in_log(d, "Daemon: slot 0 recovered (SN=10356 port=0)"));
  EXPECT_NE(d.run({"daemon", "status"}).out.find("slot 0, owner=none, phase=active"), std::string::npos);
  EXPECT_EQ(d.run({"message", "send", "--channel=0", "--id=1"}).rc, 0);
  auto again = d.run({"message", "recv", "--channel=1", "--id=0x321", "--count=2", "--duration=3"});
  EXPECT_EQ(again.rc, 0) << again.out;
  EXPECT_EQ(count_of(again.out, " RX 0x00000321 [1] AA "), 2) << again.out;
  EXPECT_EQ(d.run({"channel", "close", "--channel=0"}).rc, 0);
}

TEST(DaemonRecvE2E, BusOffIsRecoveredAfterRequests) {
  DaemonBox d;
  open_pair(d);
  ASSERT_EQ(d.box.run_program("vxsim", {"busoff", "10356/0"}).rc, 0);
  d.run({"daemon", "status"});
  EXPECT_TRUE(in_log(d, "Daemon: slot 0 BUSOFF, recovering via VX_RecoverBusOff"));
  EXPECT_TRUE(in_log(d, "Daemon: slot 0 BUSOFF recovery complete"));
  EXPECT_NE(d.run({"channel", "status", "--channel=0"}).out.find("state=error-active"), std::string::npos);

  // A fault that only a reopen clears: the slot is reopened in place.
  ASSERT_EQ(d.box.run_program("vxsim", {"busoff", "10356/0", "--stuck"}).rc, 0);
  d.run({"daemon", "status"});
  EXPECT_TRUE(in_log(d, "Daemon: slot 0 BUSOFF recovery failed (Bus off), re-opening"));
  EXPECT_TRUE(in_log(d, "Daemon: slot 0 recovered (SN=10356 port=0)"));
  auto healthy = d.run({"channel", "status", "--channel=0"});
  EXPECT_NE(healthy.out.find("state=error-active"), std::string::npos) << healthy.out;
  EXPECT_EQ(d.run({"message", "send", "--channel=0", "--id=0x55"}).rc, 0);
}

}  // namespace
