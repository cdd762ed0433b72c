// message send / recv across processes on the virtual analyzer (ports k of devices
// 10356 and 10357 share bus k).
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>

#include "json/json.h"
#include "e2e_util.h"
#include "vxtest.h"

namespace {

using Clock = std::chrono::steady_clock;

using msgtest::lines;
using msgtest::member;
using msgtest::start_recv;

TEST(MessageE2E, ThreeFramesAcrossTwoProcesses) {
  vxtest::Sandbox box;
  auto recv = start_recv(box, {"--channel=10357/0", "--count=3", "--format=jsonl"});
  auto send = box.vxcli({"message", "send", "--channel=10356/0", "--id=0x123",
                         "--data=11223344", "--count=3", "--cycle=100", "--verbose"});
  EXPECT_EQ(send.rc, 0) << send.err;
  EXPECT_EQ(send.out, "Sent 3 message(s) on channel 0, ID=0x123\n");
  // Each frame is echoed from its transmit confirmation.
  auto echoes = lines(send.err);
  ASSERT_EQ(echoes.size(), 3u) << send.err;
  for (const auto& e : echoes) EXPECT_EQ(e.rfind("TX CH0 ID=0x123 DLC=4 [11 22 33 44 ] ts=", 0), 0u) << e;
  auto got = recv->finish();
  ASSERT_EQ(got.rc, 0) << got.err;
  auto frames = lines(got.out);
  ASSERT_EQ(frames.size(), 3u) << got.out;
  double previous = -1;
  for (const auto& f : frames) {
    EXPECT_EQ(member(f, "status"), "ok");
    EXPECT_EQ(member(f, "channel"), "0");
    EXPECT_EQ(member(f, "direction"), "RX");
    EXPECT_EQ(member(f, "id"), "0x123");
    EXPECT_EQ(member(f, "dlc"), "4");
    EXPECT_EQ(member(f, "flags"), "");
    EXPECT_EQ(member(f, "data"), "11223344");
    double t = std::stod(member(f, "timestamp"));
    EXPECT_GT(t, previous);
    previous = t;
  }
  EXPECT_EQ(member(frames[0], "timestamp"), "0.000000");
  // Three frames 100 ms apart: the last one about 200 ms after the first.
  EXPECT_GT(previous, 0.15);
  EXPECT_LT(previous, 2.0);
}

TEST(MessageE2E, ExtendedFdAndRemoteFramesOnTwoChannels) {
  vxtest::Sandbox box;
  auto recv = start_recv(box, {"--channel=10357/0, 10357/1", "--count=3"});
  EXPECT_EQ(box.vxcli({"message", "send", "--channel=10356/0", "--id=0x18DAF110", "--flags=ide",
                       "--data=01:02"}).rc, 0);
  auto fd = box.vxcli({"message", "send", "--channel=10356/1", "--id=0x7FF", "--flags=fdf+brs",
                       "--data=000102030405060708090a0b0c0d0e0f10111213", "--format=json"});
  EXPECT_EQ(fd.out, "{\"status\":\"ok\",\"sent\":1,\"errors\":0,\"channel\":1,\"id\":\"0x7FF\"}\n");
  EXPECT_EQ(box.vxcli({"message", "send", "--channel=10356/0", "--id=0x100", "--type=remote",
                       "--dlc=8"}).rc, 0);
  auto got = recv->finish();
  ASSERT_EQ(got.rc, 0) << got.err;
  auto frames = lines(got.out);
  ASSERT_EQ(frames.size(), 3u) << got.out;
  EXPECT_EQ(frames[0], "ch0   0.000000 CH0 RX EXT 0x18DAF110 [2] 01 02 ");
  // 20 bytes travel with length code 11 and come back as 20 bytes, FD with BRS.
  EXPECT_EQ(frames[1].substr(0, 4), "ch1 ");
  EXPECT_NE(frames[1].find(" CH1 RX 0x000007FF [20] 00 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E "
                           "0F 10 11 12 13 FD BRS "),
            std::string::npos)
      << frames[1];
  EXPECT_NE(frames[2].find(" CH0 RX 0x00000100 [8] (RTR)"), std::string::npos) << frames[2];
}

TEST(MessageE2E, SoftwareFilterMatchesLowBitsAndCsvHeaderOnce) {
  vxtest::Sandbox box;
  auto recv = start_recv(box, {"--channel=10357/2", "--count=2", "--id=0x100", "--format=csv"});
  for (const char* id : {"0x101", "0x1ABCD100", "0x100"})
    EXPECT_EQ(box.vxcli({"message", "send", "--channel=10356/2", "--id", id, "--data=AA"}).rc, 0);
  auto got = recv->finish();
  ASSERT_EQ(got.rc, 0) << got.err;
  auto rows = lines(got.out);
  ASSERT_EQ(rows.size(), 3u) << got.out;
  EXPECT_EQ(rows[0], "timestamp,channel,direction,id,dlc,data,flags");
  EXPECT_EQ(rows[1], "0.000000,2,RX,0x1ABCD100,1,AA,ide+");
  EXPECT_NE(rows[2].find(",2,RX,0x100,1,AA,"), std::string::npos);
}

TEST(MessageE2E, NothingReceived) {
  vxtest::Sandbox box;
  auto json = box.vxcli({"message", "recv", "--channel=10357/3", "--duration=0.3", "--format=json"});
  EXPECT_EQ(json.rc, 1);
  EXPECT_EQ(json.out,
            "{\"messages\":[],\"received\":0,\"errors\":0,\"channels\":1,\"status\":\"error\","
            "\"message\":\"No messages received\",\"error\":{\"code\":\"no_messages_received\","
            "\"message\":\"No messages received\",\"details\":{},\"retryable\":true}}\n");
  auto text = box.vxcli({"message", "recv", "--channel=10357/3", "--duration=0.2", "--count=5"});
  EXPECT_EQ(text.rc, 1);
  EXPECT_EQ(text.out, "No messages received (count=5 not reached in 0.2s)\n");
}

TEST(MessageE2E, InterruptEndsAQuietCaptureWithinASecond) {
  vxtest::Sandbox box;
  auto recv = start_recv(box, {"--channel=10357/3", "--count=5"});
  auto start = Clock::now();
  kill(recv->pid(), SIGINT);
  auto got = recv->finish();
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2500));
  EXPECT_EQ(got.rc, 1);
  EXPECT_EQ(got.out, "No messages received (count=5 not reached in infinites)\n");
  // The channel was closed on the way out.
  EXPECT_EQ(box.run_program("vxsim", {"list"}).out.find(" pid "), std::string::npos);
}

TEST(MessageE2E, JsonDocumentCollectsFrames) {
  vxtest::Sandbox box;
  auto recv = start_recv(box, {"--channel=10357/6", "--count=2", "--format=json"});
  EXPECT_EQ(box.vxcli({"message", "send", "--channel=10356/6", "--id=5000", "--data=1",
                       "--count=2"}).rc, 0);
  auto got = recv->finish();
  ASSERT_EQ(got.rc, 0) << got.err;
  EXPECT_EQ(member(got.out, "status"), "ok");
  EXPECT_EQ(member(got.out, "received"), "2");
  EXPECT_EQ(member(got.out, "channels"), "1");
  // 5000 is a decimal identifier beyond 11 bits: it went out extended.
  EXPECT_NE(got.out.find("{\"status\":\"ok\",\"channel\":6,\"direction\":\"RX\",\"id\":\"0x1388\","
                         "\"dlc\":1,\"flags\":\"ide+\",\"data\":\"01\",\"timestamp\":0.000000}"),
            std::string::npos)
      << got.out;
}

TEST(MessageE2E, DbcSignalsOutAndDecodedIn) {
  vxtest::Sandbox box;
  std::string dbc = vxtest::testdata("dbc/vehicle.dbc");
  auto recv = start_recv(box, {"--channel=10357/7", "--count=1", "--decode", "--dbc=" + dbc,
                               "--format=jsonl"});
  auto send = box.vxcli({"message", "send", "--channel=10356/7", "--message=RT_DL1MK3_Speed",
                         "--signal=Speed=-1.5", "--signal", "Validity_Speed=1", "--dbc=" + dbc});
  EXPECT_EQ(send.rc, 0) << send.err;
  // The message is extended in the file (bit 31 of its identifier).
  EXPECT_EQ(send.out, "Sent 1 message(s) on channel 7, ID=0x94A7C24\n");
  auto got = recv->finish();
  ASSERT_EQ(got.rc, 0) << got.err;
  EXPECT_NE(got.out.find("\"id\":\"0x94A7C24\",\"dlc\":8,\"flags\":\"ide+\",\"data\":"
                         "\"010010B6FDFF0000\""),
            std::string::npos)
      << got.out;
  EXPECT_NE(got.out.find("\"decoded\":{\"message\":\"RT_DL1MK3_Speed\""), std::string::npos);
  EXPECT_NE(got.out.find("\"Speed\":{\"raw\":4294817296,\"physical\":-1.5,\"unit\":\"m/s\"}"),
            std::string::npos);

  auto unknown = box.vxcli({"message", "send", "--channel=10356/7", "--message=Nope",
                            "--dbc=" + dbc});
  EXPECT_EQ(unknown.rc, 1);
  EXPECT_EQ(unknown.err.rfind("ERROR: Failed to encode signals for message: Nope (", 0), 0u);
  auto no_database = box.vxcli({"message", "recv", "--channel=10357/7", "--decode"});
  EXPECT_EQ(no_database.rc, 1);
  EXPECT_EQ(no_database.err.rfind("ERROR: --decode needs a DBC database: ", 0), 0u);
}

TEST(MessageE2E, SendRefusals) {
  vxtest::Sandbox box;
  struct Case {
    std::vector<std::string> args;
    const char* error;
  };
  const Case cases[] = {
      {{"--id=0x1"}, "--channel is required"},
      {{"--channel=10356/0"}, "--message or --id is required"},
      {{"--channel=10356/9", "--id=0x1"}, "Invalid channel specification: 10356/9"},
      {{"--channel=99999/0", "--id=0x1"}, "No matching channel found for 99999/0"},
      {{"--channel=10356/0", "--id=0x1", "--type=remote", "--data=01"},
       "CAN remote frames cannot include --data"},
      {{"--channel=10356/0", "--id=0x1", "--type=bogus"}, "CAN --type must be data or remote"},
      {{"--channel=10356/0", "--id=0x1", "--type=master-read"},
       "LIN operations use --type=master-write|master-read|sync-break"},
      {{"--channel=10356/0", "--id=0x1", "--pullup=1k"}, "LIN-only options require a LIN channel"},
      {{"--channel=10356/0", "--id=0x1", "--data=zz"}, "Failed to parse data hex bytes: zz"},
      {{"--channel=10356/0", "--id=0x1G"}, "Invalid message ID: 0x1G"},
      {{"--channel=10356/0", "--id=0x1", "--dlc=16"}, "Invalid --dlc: 16 (expected 0..15)"},
      {{"--channel=10356/4", "--id=0x40"}, "LIN ID must be in range 0x00..0x3F"},
      {{"--channel=10356/4", "--id=0x20", "--data=010203040506070809"},
       "LIN payload/DLC must be in range 0..8 bytes"},
      {{"--channel=10356/4", "--id=0x20", "--type=master-read", "--data=01"},
       "master-read and sync-break cannot be combined with --data"},
      {{"--channel=10356/4", "--id=0x20", "--type=sync-break", "--dlc=2"},
       "sync-break is header-only; omit --dlc or use --dlc=0"},
      {{"--channel=10356/4", "--id=0x20", "--count=0"}, "--count must be in range 1..100000"},
      {{"--channel=10356/4", "--id=0x20", "--timeout=60001"},
       "LIN --cycle must be non-negative and --timeout must be 0..60000 ms"},
      {{"--channel=10356/4", "--id=0x20", "--type=remote"},
       "LIN --type must be master-write, master-read, or sync-break"},
      {{"--channel=10356/4", "--id=0x20", "--lin-version=3.0"},
       "invalid LIN electrical/protocol option"},
      {{"--channel=10356/4", "--message=EngineData"},
       "DBC signal encoding is currently available only on CAN channels"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = {"message", "send"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    auto r = box.vxcli(args);
    EXPECT_EQ(r.rc, 1) << c.error;
    EXPECT_NE(r.err.find(std::string("ERROR: ") + c.error + "\n"), std::string::npos)
        << "expected: " << c.error << "\ngot: " << r.err;
    EXPECT_EQ(r.out, "") << c.error;
  }
  // json errors are one object on stdout.
  auto json = box.vxcli({"message", "send", "--channel=10356/0", "--format=json"});
  EXPECT_EQ(member(json.out, "message"), "--message or --id is required");
}

TEST(MessageE2E, RecvRefusals) {
  vxtest::Sandbox box;
  auto mixed = box.vxcli({"message", "recv", "--channel=10357/0,10357/4", "--duration=1"});
  EXPECT_EQ(mixed.rc, 1);
  EXPECT_EQ(mixed.err,
            "ERROR: standalone message recv does not mix CAN and LIN channels; use the daemon or "
            "separate captures\n");
  auto bitrate = box.vxcli({"message", "recv", "--channel=10357/0", "--bitrate=fast"});
  EXPECT_EQ(bitrate.err,
            "ERROR: invalid CAN --bitrate; use forms such as 500/2000, 500K/2M, or 500000/2000000\n");
  auto list = box.vxcli({"message", "recv", "--channel=10357/0,10357/9"});
  EXPECT_EQ(list.err, "ERROR: Invalid channel specification: 10357/0,10357/9\n");
  auto unknown = box.vxcli({"message", "recv", "--channel=10357/0,99999/1"});
  EXPECT_EQ(unknown.err, "ERROR: No matching channel found for 99999/1\n");
  auto missing = box.vxcli({"message", "recv"});
  EXPECT_EQ(missing.err, "ERROR: --channel is required\n");
}

}  // namespace

TEST(MessageE2E, DeviceUnpluggedDuringACaptureKeepsWhatArrived) {
  vxtest::Sandbox box;
  auto recv = start_recv(box, {"--channel=10357/0", "--duration=3", "--format=jsonl"});
  ASSERT_EQ(box.vxcli({"message", "send", "--channel=10356/0", "--id=0x5", "--data=01"}).rc, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  ASSERT_EQ(box.run_program("vxsim", {"unplug", "10357"}).rc, 0);
  auto start = Clock::now();
  auto got = recv->finish();
  // The capture neither hangs nor crashes: it ends with its duration and the
  // frame that arrived before the device went away.
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(15));
  EXPECT_EQ(got.rc, 0) << got.err;
  EXPECT_EQ(got.out.find("{\"status\":\"ok\",\"channel\":0,\"direction\":\"RX\",\"id\":\"0x5\""), 0u) << got.out;
  EXPECT_EQ(lines(got.out).size(), 1u);
}
