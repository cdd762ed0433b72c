// uds and isotp served by the daemon on its open slot 10356/1, through the
// receive broker, against the ECU simulator on 10357/1.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "diag_e2e.h"

namespace {

using namespace diagtest;

// A sandbox with its own daemon port; the daemon is stopped on the way out,
// also when an assertion failed.
struct DaemonBox {
  vxtest::Sandbox box;
  DaemonBox() { box.env()["VXCLI_DAEMON_PORT"] = std::to_string(20000 + getpid() % 20000); }
  ~DaemonBox() { box.vxcli({"daemon", "stop"}, 20); }
  vxtest::RunResult run(const std::vector<std::string>& args) const { return box.vxcli(args, 60); }
};

TEST(DiagDaemonE2E, SessionRequestsAndTesterPresent) {
  DaemonBox d;
  ASSERT_EQ(d.run({"daemon", "start"}).rc, 0);
  auto r = d.run({"channel", "open", "--channel=10356/1"});
  ASSERT_EQ(r.rc, 0) << r.out << r.err;
  Ecu ecu(d.box,
          "22F190 62F190" + hex_bytes(17, 0x41) + "\n"
          "3E00 7E00\n"
          "1902FF 5902FF0123452F\n"
          "2EF1A0* 6EF1A0\n"
          "2711 671112345678\n"
          "2710C8A306F1 6710\n");
  ASSERT_TRUE(ecu.ready()) << ecu.process.err();

  r = d.run({"uds", "config", "get"});
  EXPECT_EQ(r.rc, 0) << r.out;
  EXPECT_TRUE(has(r.out, "OK: uds session not configured")) << r.out;
  r = d.run({"uds", "config", "set", "--channel=10357/3", "--request-id=0x7E0", "--response-id=0x7E8"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.out, "not open in the daemon")) << r.out;
  r = d.run({"uds", "config", "set", "--channel=10356/1", "--request-id=0x7E0", "--response-id=0x7E8"});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  r = d.run({"uds", "config", "get", "--format=json"});
  EXPECT_TRUE(has(r.out, "\"configured\":true,\"slot\":0,\"channel_open\":true,\"channel\":\"10356/1\","
                         "\"request_id\":\"0x7E0\",\"response_id\":\"0x7E8\""))
      << r.out;

  // Answered by the daemon from the stored session.
  r = d.run({"uds", "request", "22", "F1", "90"});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_EQ(r.out.rfind("OK: positive_response on slot 0\n", 0), 0u) << r.out;
  EXPECT_TRUE(has(r.out, "RX (20 bytes): 62 F1 90 41")) << r.out;
  r = d.run({"uds", "request", "1001", "--format=json"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.out, "\"state\":\"negative_response\"")) << r.out;
  r = d.run({"uds", "request", "22F190", "--suppress-positive-response"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.out, "service 0x22 has no suppressible subfunction byte")) << r.out;

  // Security access in the daemon with the sample library.
  const std::string library = vxtest::bin_path("libvxseedkey.so");
  r = d.run({"uds", "unlock", "--level=0x11", "--algo=" + library});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "OK: Security level 0x11 unlocked via " + library + " (seed=4 bytes, key=4 bytes)")) << r.out;
  r = d.run({"uds", "unlock", "--level=0x11", "--algo=/nonexistent/seedkey.so"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.out, "ERROR: --algo '/nonexistent/seedkey.so' could not be loaded")) << r.out;

  // Multi-frame send through the broker link: the flow control comes back through a cursor.
  r = d.run({"isotp", "send", "--channel=10356/1", "--reqid=0x7E0", "--respid=0x7E8",
             "--data=2EF1A0" + hex_bytes(97, 1)});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "OK: ISOTP TX 100 bytes on 10356/1 id=0x7E0 (15 frame(s) sent, 2 received)")) << r.out;

  // A multi-frame payload received by the daemon: its flow control goes out on
  // the slot. The sender talks to no daemon (another port), so it is not
  // queued behind the receive that keeps the daemon busy.
  {
    Background recv(d.box,
                    {"isotp", "recv", "--channel=10356/1", "--reqid=0x7E1", "--respid=0x7E9", "--timeout=15000"},
                    "daemon-recv");
    std::string port = d.box.env()["VXCLI_DAEMON_PORT"];
    d.box.env()["VXCLI_DAEMON_PORT"] = std::to_string(std::stoi(port) + 1);
    bool sent = false;
    for (int i = 0; i < 30 && !sent; i++)
      sent = d.run({"isotp", "send", "--channel=10357/1", "--reqid=0x7E9", "--respid=0x7E1", "--timeout=300",
                    "--data=" + hex_bytes(20, 0x30)})
                 .rc == 0;
    d.box.env()["VXCLI_DAEMON_PORT"] = port;
    EXPECT_TRUE(sent);
    EXPECT_EQ(recv.wait(), 0) << recv.out() << recv.err();
    EXPECT_TRUE(has(recv.out(), "OK: ISOTP RX 20 bytes on 10356/1 id=0x7E9 (1 frame(s) sent, 3 received): 30 31 32"))
        << recv.out();
  }

  // Left to the client, which runs it with the daemon's session.
  r = d.run({"uds", "dtc", "active"});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "0x012345 P0123-45 status=0x2F")) << r.out;

  r = d.run({"uds", "present", "start", "--interval=100"});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "OK: tester present started on slot 0 (reqid=0x7E0, every 100 ms)")) << r.out;
  EXPECT_EQ(d.run({"uds", "present", "start"}).rc, 1);
  int confirmed = 0;
  for (int i = 0; i < 50 && confirmed < 3; i++) {
    usleep(100000);
    r = d.run({"uds", "present", "status", "--format=json"});
    size_t at = r.out.find("\"confirmed\":");
    confirmed = at == std::string::npos ? 0 : atoi(r.out.c_str() + at + 12);
  }
  EXPECT_GE(confirmed, 3) << r.out;
  EXPECT_TRUE(has(r.out, "\"running\":true")) << r.out;
  r = d.run({"uds", "present", "stop"});
  EXPECT_EQ(r.rc, 0) << r.out;
  EXPECT_TRUE(has(r.out, "OK: tester present stopped after")) << r.out;
  r = d.run({"uds", "present", "status"});
  EXPECT_TRUE(has(r.out, "OK: tester present stopped on slot 0")) << r.out;
  EXPECT_TRUE(has(r.out, "failed=0")) << r.out;

  // One-shot keepalive in the daemon.
  r = d.run({"uds", "present", "send", "--count=2", "--interval=50"});
  EXPECT_EQ(r.rc, 0) << r.out;
  EXPECT_TRUE(has(r.out, "OK: TesterPresent sent 2 time(s) on slot 0")) << r.out;

  // A running task ends with the daemon.
  EXPECT_EQ(d.run({"uds", "present", "start", "--interval=50", "--suppress-positive-response"}).rc, 0);
  r = d.run({"daemon", "stop"});
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  ecu.stop();
}

}  // namespace
