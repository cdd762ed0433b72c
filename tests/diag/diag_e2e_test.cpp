// isotp and uds commands against an ECU simulator on the virtual analyzer:
// the tester on 10356/1, `isotp ecu-sim` on 10357/1 (the same bus).
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "diag_e2e.h"

namespace {

using namespace diagtest;

TEST(DiagE2E, RequestsPendingSuppressionDtcAndDiscovery) {
  vxtest::Sandbox box;
  const std::string vin = hex_bytes(17, 0x41);  // "ABCDEFGHIJKLMNOPQ"
  Ecu ecu(box,
          "# VIN, keepalive, routines with response-pending answers, DTCs\n"
          "22F190 62F190" + vin + "\n"
          "3E00 7E00\n"
          "3E80 -\n"
          "3101FF00 7F3178(29)/710100\n"
          "3102FF00 7F3178(30)/710200\n"
          "1902FF 5902FF0123452FC0730008\n"
          "1901FF 5901FF010002\n");
  ASSERT_TRUE(ecu.ready()) << ecu.process.err();

  // Multi-frame answer on classic CAN.
  auto r = box.vxcli(with({"uds", "request", "22", "F1", "90"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "TX (3 bytes): 22 F1 90")) << r.out;
  EXPECT_TRUE(has(r.out, "RX (20 bytes): 62 F1 90 41 42 43")) << r.out;

  // No rule: the simulator's NRC 0x11 is a negative response.
  r = box.vxcli(with({"uds", "request", "--data=1001"}, kEndpoint));
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.err, "Negative response: service=0x10, NRC=0x11")) << r.err;

  // 29 pending answers are waited out; the 30th reception is final whatever it says.
  r = box.vxcli(with({"uds", "request", "3101FF00", "--format=json"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "\"state\":\"positive_response\"")) << r.out;
  EXPECT_TRUE(has(r.out, "\"pending_responses\":29")) << r.out;
  EXPECT_TRUE(has(r.out, "\"response\":\"710100\"")) << r.out;
  r = box.vxcli(with({"uds", "request", "3102FF00", "--format=json"}, kEndpoint));
  EXPECT_EQ(r.rc, 1) << r.out;
  EXPECT_TRUE(has(r.out, "\"state\":\"negative_response\"")) << r.out;
  EXPECT_TRUE(has(r.out, "\"response\":\"7F3178\"")) << r.out;

  // Suppressed: by the bit in the request or by the option; silence is success.
  r = box.vxcli(with({"uds", "request", "3E", "80", "--timeout=300", "--format=json"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "\"state\":\"response_suppressed\"")) << r.out;
  r = box.vxcli(with({"uds", "request", "3E00", "--suppress-positive-response", "--timeout=300"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "TX (2 bytes): 3E 80")) << r.out;

  r = box.vxcli(with({"uds", "dtc", "active"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "2 DTC(s)")) << r.out;
  EXPECT_TRUE(has(r.out, "0x012345 P0123-45 status=0x2F testFailed|testFailedThisCycle|pending|confirmed|failedSinceClear"))
      << r.out;
  EXPECT_TRUE(has(r.out, "0xC07300 U0073-00 status=0x08 confirmed")) << r.out;
  r = box.vxcli(with({"uds", "dtc", "count", "--format=json"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "\"count\":2")) << r.out;

  r = box.vxcli({"uds", "discover", "--channel=10356/1", "--start-id=0x7DE", "--end-id=0x7E2", "--timeout=200"});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "1 responder(s)")) << r.out;
  EXPECT_TRUE(has(r.out, "reqid=0x7E0 respid=0x7E8 response: 7E 00")) << r.out;

  std::string log = ecu.stop();
  EXPECT_TRUE(has(log, "ECU-SIM: no rule for 2-byte request (SID=0x10), sent NRC")) << log;
  EXPECT_TRUE(has(log, "ECU-SIM: stopped after 9 exchanges")) << log;
}

TEST(DiagE2E, CanFdTransfersAndIsotpCommands) {
  vxtest::Sandbox box;
  // 100-byte request, 120-byte answer: first and consecutive frames of 64 bytes.
  Ecu ecu(box, "2EF1A0* 6EF1A0\n22F1A0 62F1A0" + hex_bytes(117, 0) + "\n", {"--flags=fdf"});
  ASSERT_TRUE(ecu.ready()) << ecu.process.err();
  auto r = box.vxcli(with({"uds", "request", "--data=2EF1A0" + hex_bytes(97, 1), "--flags=fdf", "--format=json"},
                          kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "\"req_bytes\":100,\"resp_bytes\":3")) << r.out;
  r = box.vxcli(with({"uds", "request", "22F1A0", "--flags=fdf"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "RX (120 bytes): 62 F1 A0 00 01")) << r.out;
  // Single frame on CAN FD.
  r = box.vxcli(with({"uds", "request", "22F1A1", "--flags=fdf"}, kEndpoint));
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.err, "NRC=0x11")) << r.err;
  ecu.stop();

  // The largest payload from isotp send to isotp recv, classic CAN with padding.
  Background recv(box,
                  {"isotp", "recv", "--channel=10357/1", "--reqid=0x7E8", "--respid=0x7E0", "--timeout=20000",
                   "--format=json"},
                  "recv");
  usleep(300000);  // let the receiver open its channel
  const std::string payload = hex_bytes(4095, 7);
  r = box.vxcli({"isotp", "send", "--channel=10356/1", "--reqid=0x7E0", "--respid=0x7E8", "--padding=0xAA",
                 "--data=" + payload});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "ISOTP TX 4095 bytes on 10356/1 id=0x7E0 (586 frame(s) sent, ")) << r.out;
  ASSERT_EQ(recv.wait(), 0) << recv.err();
  EXPECT_TRUE(has(recv.out(), "\"bytes\":4095")) << recv.out();
  EXPECT_TRUE(has(recv.out(), "\"data\":\"" + payload + "\"")) << recv.out().substr(0, 300);

  r = box.vxcli({"isotp", "recv", "--channel=10357/1", "--reqid=0x7E8", "--respid=0x7E0", "--timeout=200"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.err, "no ISO-TP message from 0x7E0 within 200 ms")) << r.err;
}

// Intel HEX record with its checksum.
std::string ihex(uint16_t address, uint8_t type, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> bytes{static_cast<uint8_t>(data.size()), static_cast<uint8_t>(address >> 8),
                             static_cast<uint8_t>(address), type};
  bytes.insert(bytes.end(), data.begin(), data.end());
  uint8_t sum = 0;
  for (uint8_t b : bytes) sum = static_cast<uint8_t>(sum + b);
  bytes.push_back(static_cast<uint8_t>(-sum));
  std::string line = ":";
  for (uint8_t b : bytes) line += hex_bytes(1, b);
  return line + "\n";
}

// S1 record (16-bit address) with its checksum.
std::string s1(uint16_t address, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> bytes{static_cast<uint8_t>(data.size() + 3), static_cast<uint8_t>(address >> 8),
                             static_cast<uint8_t>(address)};
  bytes.insert(bytes.end(), data.begin(), data.end());
  uint8_t sum = 0;
  for (uint8_t b : bytes) sum = static_cast<uint8_t>(sum + b);
  bytes.push_back(static_cast<uint8_t>(~sum));
  std::string line = "S1";
  for (uint8_t b : bytes) line += hex_bytes(1, b);
  return line + "\n";
}

std::vector<uint8_t> run_of(size_t n, uint8_t first) {
  std::vector<uint8_t> v;
  for (size_t i = 0; i < n; i++) v.push_back(static_cast<uint8_t>(first + i));
  return v;
}

TEST(DiagE2E, UnlockWithSampleLibraryAndDownloadImages) {
  vxtest::Sandbox box;
  // Seed 12 34 56 78 at level 0x11 gives the sample library's key C8 A3 06 F1;
  // the level 0x13 key differs and is refused. The download rules accept only
  // the exact blocks of the two segments (0x1000: 20 bytes, 0x2000: 8 bytes)
  // in 16-byte blocks (maxNumberOfBlockLength 18).
  Ecu ecu(box,
          "2711 671112345678\n"
          "2710C8A306F1 6710\n"
          "2713 671312345678\n"
          "2712* 7F2735\n"
          "3400440000100000000014 74200012\n"
          "3601" + hex_bytes(16, 0) + " 7601\n"
          "3602" + hex_bytes(4, 16) + " 7602\n"
          "3400440000200000000008 74200012\n"
          "3601" + hex_bytes(8, 0xA0) + " 7601\n"
          "37 77\n");
  ASSERT_TRUE(ecu.ready()) << ecu.process.err();
  const std::string library = vxtest::bin_path("libvxseedkey.so");

  auto r = box.vxcli(with({"uds", "unlock", "--level=0x11", "--algo=" + library}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_TRUE(has(r.out, "Security level 0x11 unlocked via " + library + " (seed=4 bytes, key=4 bytes)")) << r.out;
  EXPECT_FALSE(has(r.out, "C8A306F1")) << "keys are never printed";
  r = box.vxcli(with({"uds", "unlock", "--level=0x13", "--algo=" + library}, kEndpoint));
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.err, "security unlock rejected (key not accepted by ECU)")) << r.err;

  const std::string hex = box.write_file(
      "app.hex", ihex(0x1000, 0, run_of(16, 0)) + ihex(0x1010, 0, run_of(4, 16)) + ihex(0x2000, 0, run_of(8, 0xA0)) +
                     ihex(0, 1, {}));
  r = box.vxcli(with({"uds", "download", "--file=" + hex}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "  Progress: seg 1/2  16/28 bytes (57%)")) << r.out;
  EXPECT_TRUE(has(r.out, "Download complete: 2 segment(s), 3 blocks, 28 bytes")) << r.out;

  const std::string srec = box.write_file(
      "app.s19", "S0030000FC\n" + s1(0x2000, run_of(8, 0xA0)) + s1(0x1000, run_of(20, 0)) + "S9030000FC\n");
  r = box.vxcli(with({"uds", "download", "--file=" + srec, "--format=jsonl"}, kEndpoint));
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_TRUE(has(r.out, "\"event\":\"progress\",\"segment\":2,\"block\":3,\"total_bytes\":28,\"done_bytes\":28")) << r.out;

  // A different image does not match the simulator's blocks: the transfer is refused.
  const std::string other = box.write_file("other.hex", ihex(0x1000, 0, run_of(20, 1)) + ihex(0, 1, {}));
  r = box.vxcli(with({"uds", "download", "--file=" + other}, kEndpoint));
  EXPECT_EQ(r.rc, 1);
  EXPECT_TRUE(has(r.err, "TransferData seq=1 rejected: ECU NRC during TransferData")) << r.err;
  ecu.stop();
}

}  // namespace
