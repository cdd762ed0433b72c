// The uds command handlers against an in-process ECU built from simulator rules.
#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "cli/hooks.h"
#include "cli/output.h"
#include "diag/commands.h"
#include "diag/ecu_sim.h"
#include "diag/uds_client.h"
#include "vxtest.h"

namespace {

struct FakeEcu {
  std::vector<vxcli_ecu_rule> rules;
  std::deque<std::vector<uint8_t>> pending;
  std::vector<std::vector<uint8_t>> requests;
  std::string cursor;
  bool silent = false;  // nobody answers unmatched requests
  uint32_t opened_request_id = 0;
};

FakeEcu* g_ecu = nullptr;

uint32_t fake_send(void*, const uint8_t* data, uint32_t length, int32_t) {
  g_ecu->requests.emplace_back(data, data + length);
  const auto* rule = vxcli_ecu_sim_match(g_ecu->rules, data, length);
  if (!rule) {
    if (g_ecu->silent) return 0;
    g_ecu->pending.push_back({0x7F, data[0], 0x11});
    return 0;
  }
  for (auto& r : vxcli_ecu_sim_responses(*rule, data, length)) g_ecu->pending.push_back(r);
  return 0;
}

uint32_t fake_receive(void*, uint8_t* buffer, uint32_t* length, int32_t) {
  if (g_ecu->pending.empty()) return 0x80000;
  auto r = g_ecu->pending.front();
  g_ecu->pending.pop_front();
  if (r.size() > *length) return 0x40;
  memcpy(buffer, r.data(), r.size());
  *length = static_cast<uint32_t>(r.size());
  return 0;
}

const char* fake_error(void*) { return "timeout"; }
int fake_retarget(void*, uint32_t request_id, uint32_t) {
  // Only 0x7E3 has an ECU behind it.
  g_ecu->rules.clear();
  g_ecu->silent = true;
  if (request_id == 0x7E3) {
    std::vector<vxcli_ecu_rule> r;
    vxcli_ecu_sim_parse_rules("3E00 7E00\n", &r, nullptr, nullptr, 0);
    g_ecu->rules = r;
  }
  return 0;
}

int fake_open(const vxcli_uds_session* session, const char* cursor, vxcli_uds_transport* out, char*,
              size_t) {
  g_ecu->cursor = cursor;
  g_ecu->opened_request_id = session->request_id;
  out->send = fake_send;
  out->receive = fake_receive;
  out->error = fake_error;
  out->retarget = fake_retarget;
  return 0;
}

struct Outcome {
  int rc;
  std::string out;
  std::string err;
};

class UdsCommands : public ::testing::Test {
 protected:
  FakeEcu ecu;
  void SetUp() override {
    g_ecu = &ecu;
    vxcli_uds_set_transport_opener(fake_open);
    g_config.format = VXCLI_FORMAT_TEXT;
  }
  void TearDown() override {
    vxcli_uds_set_transport_opener(nullptr);
    g_config.format = VXCLI_FORMAT_TEXT;
    g_ecu = nullptr;
  }
  void rules(const std::string& text) {
    char err[200];
    ASSERT_EQ(vxcli_ecu_sim_parse_rules(text, &ecu.rules, nullptr, err, sizeof err), 0) << err;
  }
  Outcome run(int (*handler)(int, char**), std::vector<std::string> args, bool endpoint = true) {
    if (endpoint)
      for (const char* a : {"--channel=10356/1", "--request-id=0x7E0", "--response-id=0x7E8"}) args.push_back(a);
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int rc = handler(static_cast<int>(argv.size()), argv.data());
    Outcome r{rc, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
    return r;
  }
};

}  // namespace

TEST_F(UdsCommands, RequestOutcomes) {
  rules("22F190 62F190.41.42\n3E80 -\n3E00 -\n1003 7F1078(29)/5003\n1002 7F1078(30)/5002\n");
  Outcome r = run(vxcli_uds_request_command, {"22", "F1", "90"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("TX (3 bytes): 22 F1 90 \nRX (5 bytes): 62 F1 90 41 42 \n"), std::string::npos) << r.out;
  EXPECT_EQ(ecu.cursor, "standalone-uds-request");

  r = run(vxcli_uds_request_command, {"--data=2EF190"});  // no rule: NRC 0x11
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("Negative response: service=0x2E, NRC=0x11"), std::string::npos) << r.err;

  r = run(vxcli_uds_request_command, {"3E", "80"});  // suppressed without the option
  EXPECT_EQ(r.rc, 0) << r.err;

  r = run(vxcli_uds_request_command, {"3E", "00", "--timeout=10"});  // not suppressed, silent ECU
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("UDS request sent 2 bytes, no response"), std::string::npos) << r.err;

  r = run(vxcli_uds_request_command, {"10", "03"});  // 29 pending then positive
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("RX (2 bytes): 50 03"), std::string::npos);

  g_config.format = VXCLI_FORMAT_JSON;
  r = run(vxcli_uds_request_command, {"10", "02"});  // 30 pending: the 30th is final
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("\"state\":\"negative_response\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"response\":\"7F1078\""), std::string::npos) << r.out;
  ecu.pending.clear();

  r = run(vxcli_uds_request_command, {"ReadVIN"});  // named service from the shipped file
  EXPECT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_NE(r.out.find("\"state\":\"positive_response\""), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\"request\":\"22F190\""), std::string::npos) << r.out;
}

TEST_F(UdsCommands, RequestRefusals) {
  Outcome r = run(vxcli_uds_request_command, {"22", "--data=22F190"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("--data cannot be combined with positional request bytes"), std::string::npos);
  r = run(vxcli_uds_request_command, {"22", "F1", "90", "--suppress-positive-response"});
  EXPECT_NE(r.err.find("--suppress-positive-response is invalid: service 0x22 has no suppressible"),
            std::string::npos) << r.err;
  r = run(vxcli_uds_request_command, {"NoSuchThing"});
  EXPECT_NE(r.err.find("Unknown service or invalid data: NoSuchThing"), std::string::npos);
  r = run(vxcli_uds_request_command, {"22", "F1"}, false);
  EXPECT_NE(r.err.find("missing required parameter: --channel"), std::string::npos);
  r = run(vxcli_uds_request_command, {"22", "F1", "--channel=1", "--request-id=0x7E0"}, false);
  EXPECT_NE(r.err.find("missing required parameter: --response-id"), std::string::npos);
  EXPECT_TRUE(ecu.requests.empty());
  g_config.format = VXCLI_FORMAT_JSON;
  r = run(vxcli_uds_request_command, {"10", "03", "--suppress-positive-response", "--dry-run"}, false);
  EXPECT_EQ(r.out,
            "{\"status\":\"ok\",\"dry_run\":true,\"req_bytes\":2,\"suppress_positive_response\":true,"
            "\"request\":\"1083\"}\n");
}

TEST_F(UdsCommands, UnlockWithSampleLibrary) {
  std::string lib = vxtest::bin_path("libvxseedkey.so");
  // Seed 12 34 56 78 at level 0x11 gives key C8 A3 06 F1 with the sample algorithm.
  rules("2711 671112345678\n2710C8A306F1 6710\n2710* 7F2735\n");
  Outcome r = run(vxcli_uds_unlock_command, {"--level=0x11", "--algo=" + lib});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("Security level 0x11 unlocked via"), std::string::npos);
  ASSERT_EQ(ecu.requests.size(), 2u);
  EXPECT_EQ(ecu.requests[0], (std::vector<uint8_t>{0x27, 0x11}));
  EXPECT_EQ(ecu.requests[1], (std::vector<uint8_t>{0x27, 0x10, 0xC8, 0xA3, 0x06, 0xF1}));
  EXPECT_EQ(r.out.find("C8"), std::string::npos);  // keys are never printed

  ecu.rules.clear();
  rules("2711 6711AABBCCDD\n2710* 7F2735\n");
  r = run(vxcli_uds_unlock_command, {"--level=0x11", "--algo=" + lib});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("security unlock rejected (key not accepted by ECU)"), std::string::npos);

  for (const char* level : {"--level=0", "--level=127"}) {
    r = run(vxcli_uds_unlock_command, {level, "--algo=/nonexistent.so"});
    EXPECT_NE(r.err.find("out of range (expected e.g. 0x11)"), std::string::npos) << r.err;
  }
  r = run(vxcli_uds_unlock_command, {"--level=0x11"});
  EXPECT_NE(r.err.find("--algo is required"), std::string::npos);
}

TEST_F(UdsCommands, DownloadChecksEveryStep) {
  vxtest::Sandbox box;
  // 10 bytes at 0x1000 and 3 bytes at 0x2000; the ECU allows 6-byte blocks (4 data bytes).
  std::string hex = box.write_file("fw.hex",
                                   ":0A10000000010203040506070809B9\n"
                                   ":03200000AABBCCAC\n"
                                   ":00000001FF\n");
  rules("340044000010000000000A 74200006\n"
        "3400440000200000000003 74200006\n"
        "360100010203 7601\n360204050607 7602\n36030809 7603\n3601AABBCC 7601\n37 77\n");
  Outcome r = run(vxcli_uds_download_command, {"--file=" + hex});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("Download complete: 2 segment(s), 4 blocks, 13 bytes"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("  Progress: seg 1/2  4/13 bytes (30%)"), std::string::npos) << r.out;
  EXPECT_EQ(ecu.requests.size(), 8u);

  // An ECU that expects another address refuses; the download stops at once.
  ecu.requests.clear();
  ecu.rules.clear();
  rules("34004400001000000000 74200006\n");
  r = run(vxcli_uds_download_command, {"--file=" + hex});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("ECU rejected RequestDownload"), std::string::npos) << r.err;
  EXPECT_EQ(ecu.requests.size(), 1u);

  // A wrong counter echo is a sequence mismatch.
  ecu.rules.clear();
  rules("340044000010000000000A 74200006\n3601* 7602\n");
  r = run(vxcli_uds_download_command, {"--file=" + hex});
  EXPECT_NE(r.err.find("TransferData seq=1 rejected: blockSequenceCounter mismatch"), std::string::npos) << r.err;

  r = run(vxcli_uds_download_command, {"--file=" + hex, "--alf=0x54"});
  EXPECT_NE(r.err.find("invalid --alf=0x54: addr/size nibbles must be 1..4"), std::string::npos);
  std::string raw = box.write_file("fw.bin", std::string(3, '\x01'));
  r = run(vxcli_uds_download_command, {"--file=" + raw});
  EXPECT_NE(r.err.find("--addr is required"), std::string::npos) << r.err;
  std::string empty = box.write_file("empty.hex", ":00000001FF\n");
  r = run(vxcli_uds_download_command, {"--file=" + empty});
  EXPECT_NE(r.err.find("image contains no data segments"), std::string::npos) << r.err;
}

TEST_F(UdsCommands, DtcReadsWithStatusTexts) {
  rules("1902FF 5902FF01234509C100002F\n19010F 59010F010002\n14FFFFFF 54\n1904012345FF 5904012345090102AABB\n");
  Outcome r = run(vxcli_uds_dtc_command, {"active"});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("0x012345 P0123-45 status=0x09 testFailed|confirmed"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("0xC10000 U0100-00 status=0x2F testFailed|testFailedThisCycle|pending|confirmed|failedSinceClear"),
            std::string::npos) << r.out;
  r = run(vxcli_uds_dtc_command, {"count", "--mask=0x0F"});
  EXPECT_NE(r.out.find("2 DTC(s) match status mask 0x0F"), std::string::npos) << r.out;
  r = run(vxcli_uds_dtc_command, {"clear"});
  EXPECT_EQ(r.rc, 0);
  r = run(vxcli_uds_dtc_command, {"snapshot", "--dtc=0x012345"});
  EXPECT_NE(r.out.find("records (4 bytes): 01 02 AA BB"), std::string::npos) << r.out;
  r = run(vxcli_uds_dtc_command, {"supported"});  // no rule: NRC
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("NRC=0x11 (serviceNotSupported)"), std::string::npos) << r.err;
  g_config.format = VXCLI_FORMAT_JSON;
  r = run(vxcli_uds_dtc_command, {"active"});
  EXPECT_NE(r.out.find("{\"dtc\":\"0x012345\",\"code\":\"P0123-45\",\"status\":\"0x09\","
                       "\"status_desc\":\"testFailed|confirmed\"}"),
            std::string::npos) << r.out;
}

TEST_F(UdsCommands, DtcOptionCheck) {
  char a1[] = "snapshot", a2[] = "active", bad[] = "--mask=0x100", none[] = "--mask=1";
  char* w1[] = {a1};
  char* w2[] = {a2, bad};
  char* w3[] = {none};
  testing::internal::CaptureStderr();
  EXPECT_EQ(vxcli_uds_dtc_check_options(1, w1), 1);
  EXPECT_EQ(vxcli_uds_dtc_check_options(2, w2), 1);
  EXPECT_EQ(vxcli_uds_dtc_check_options(1, w3), 1);
  EXPECT_EQ(vxcli_uds_dtc_check_options(1, w2), 0);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("requires --dtc"), std::string::npos) << err;
}

TEST_F(UdsCommands, DiscoverFindsResponder) {
  Outcome r = run(vxcli_uds_discover_command, {"--channel=10356/1", "--start-id=0x7E0", "--end-id=0x7E7"}, false);
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("1 responder(s)"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("reqid=0x7E3 respid=0x7EB response: 7E 00"), std::string::npos) << r.out;
  EXPECT_EQ(ecu.requests.size(), 8u);
}

TEST_F(UdsCommands, ServiceFilesThroughCommands) {
  vxtest::Sandbox box;
  setenv("XDG_CONFIG_HOME", box.path("config").c_str(), 1);
  std::string mine = box.write_file("mine.xml",
                                    "<services><service id='0x31' name='EraseFlash' data='01FF00'/></services>");
  Outcome r = run(vxcli_uds_load_command, {"--file=" + mine}, false);
  EXPECT_EQ(r.rc, 0) << r.err;
  r = run(vxcli_uds_list_command, {}, false);
  EXPECT_NE(r.out.find("1 UDS service(s)"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("EraseFlash"), std::string::npos);
  rules("3101FF00 710100\n");
  r = run(vxcli_uds_request_command, {"EraseFlash"});
  EXPECT_EQ(r.rc, 0) << r.err;
  std::string copy = box.path("copy.xml");
  r = run(vxcli_uds_save_command, {"--file=" + copy}, false);
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(vxtest::read_file(copy).find("name=\"EraseFlash\""), std::string::npos);
  std::string broken = box.write_file("broken.xml", "<services><service/></services>");
  r = run(vxcli_uds_load_command, {"--file=" + broken}, false);
  EXPECT_EQ(r.rc, 1);
  r = run(vxcli_uds_list_command, {}, false);  // a failed load leaves the active set alone
  EXPECT_NE(r.out.find("EraseFlash"), std::string::npos);
  unsetenv("XDG_CONFIG_HOME");
}
