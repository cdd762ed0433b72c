// LIN master transfers against slave responses on the virtual analyzer (port 4 of both
// devices share one LIN bus).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "cli/hooks.h"
#include "json/json.h"
#include "message/lin.h"
#include "e2e_util.h"
#include "vxtest.h"

namespace {

using msgtest::member;

// A sandbox whose device service this test process also talks to.
class LinE2E : public testing::Test {
 protected:
  void SetUp() override {
    setenv("VXSIM_DIR", box_.path("sim").c_str(), 1);
    char message[256];
    ASSERT_EQ(vxcli_device_library_init(message, sizeof message), 0) << message;
  }
  void TearDown() override {
    if (slave_) VX_Close(slave_);
    vxcli_device_library_shutdown();
  }

  // Opens 10357/4 as slave and answers frame id with data.
  void respond(uint8_t id, const uint8_t* data, uint32_t length) {
    if (!slave_) {
      slave_ = vxcli_open_lin_channel_ex("10357/4", nullptr, VXCLI_LIN_MODE_SLAVE, 65535, 0, 0x22,
                                         VXCLI_LIN_CHECKSUM_ENHANCED, nullptr);
      ASSERT_NE(slave_, nullptr);
    }
    VXLinResponseTask task;
    vxcli_init_lin_response_task(&task, id, data, length, VXCLI_LIN_CHECKSUM_ENHANCED, 7);
    ASSERT_EQ(vxcli_prime_lin_response_tasks(slave_, &task, 1), 0u);
  }

  vxtest::Sandbox box_;
  VXHandle slave_ = nullptr;
};

const uint8_t kAnswer[8] = {0x4A, 0x55, 0x93, 0xE5, 0x01, 0x02, 0x03, 0x04};

TEST_F(LinE2E, MasterReadAnsweredBySlave) {
  respond(0x20, kAnswer, 8);
  auto r = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x20", "--type=master-read",
                       "--count=2", "--format=json"});
  ASSERT_EQ(r.rc, 0) << r.out << r.err;
  EXPECT_EQ(member(r.out, "status"), "ok");
  EXPECT_EQ(member(r.out, "operation"), "master-read");
  EXPECT_EQ(member(r.out, "channel"), "10356/4");
  EXPECT_EQ(member(r.out, "sent"), "2");
  EXPECT_EQ(member(r.out, "received"), "2");
  EXPECT_EQ(member(r.out, "errors"), "0");
  uint8_t expected = vxcli_lin_checksum(kAnswer, 8, 0x20, VXCLI_LIN_CHECKSUM_ENHANCED);
  char tail[160];
  snprintf(tail, sizeof tail,
           "{\"outcome\":\"ok\",\"id\":\"0x20\",\"dlc\":8,\"data\":\"4A5593E501020304\","
           "\"checksum_type\":\"enhanced\",\"checksum\":\"0x%02X\",\"errors\":0,\"sync_break\":false,",
           expected);
  EXPECT_NE(r.out.find(tail), std::string::npos) << r.out;

  auto text = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x20", "--type=master-read"});
  ASSERT_EQ(text.rc, 0) << text.err;
  EXPECT_EQ(text.out.substr(0, text.out.find('\n')),
            "LIN master-read completed on 10356/4: id=0x20 sent=1 completed=1 responses=1 "
            "checksum=enhanced");
  EXPECT_NE(text.out.find("  0.000000 CH4 TX LIN 0x20 [8] 4A 55 93 E5 01 02 03 04 enhanced "),
            std::string::npos)
      << text.out;
}

TEST_F(LinE2E, MasterReadOutcomesWithoutAndWithShortResponse) {
  auto none = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x21",
                          "--type=master-read", "--format=jsonl"});
  EXPECT_EQ(none.rc, 1);
  EXPECT_NE(none.out.find("{\"status\":\"error\",\"event\":\"summary\",\"bus\":\"lin\","
                          "\"operation\":\"master-read\",\"sent\":1,\"completed\":1,"
                          "\"received\":0,\"errors\":1}"),
            std::string::npos)
      << none.out;
  auto none_json = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x21",
                               "--type=master-read", "--format=json"});
  EXPECT_NE(none_json.out.find("\"results\":[{\"outcome\":\"no-response\""), std::string::npos);

  respond(0x22, kAnswer, 4);
  auto short_answer = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x22",
                                  "--type=master-read", "--dlc=8", "--format=json"});
  EXPECT_EQ(short_answer.rc, 1);
  EXPECT_NE(short_answer.out.find("{\"outcome\":\"protocol-error\""), std::string::npos)
      << short_answer.out;
  auto text = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x22",
                          "--type=master-read", "--dlc=8"});
  EXPECT_EQ(text.err,
            "LIN master-read failed on 10356/4: sent=1 completed=1 received=1 "
            "unexpected_responses=0 errors=1\n");
}

TEST_F(LinE2E, SyncBreakHeaderOnlyAndAgainstAResponder) {
  auto quiet = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x23",
                           "--type=sync-break", "--format=json"});
  EXPECT_EQ(quiet.rc, 0) << quiet.out;
  EXPECT_NE(quiet.out.find("{\"outcome\":\"ok\",\"id\":\"0x23\",\"dlc\":0,\"data\":\"\""),
            std::string::npos);
  EXPECT_NE(quiet.out.find("\"sync_break\":true"), std::string::npos);

  respond(0x23, kAnswer, 2);
  auto answered = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x23",
                              "--type=sync-break", "--format=json"});
  EXPECT_EQ(answered.rc, 1);
  EXPECT_EQ(member(answered.out, "unexpected_responses"), "1");
  EXPECT_NE(answered.out.find("{\"outcome\":\"unexpected-response\""), std::string::npos)
      << answered.out;
}

TEST_F(LinE2E, MasterWriteReachesTheListener) {
  auto recv = msgtest::start_recv(box_, {"--channel=10357/4", "--count=2", "--format=jsonl"});
  auto write = box_.vxcli({"message", "send", "--channel=10356/4", "--id=0x3C",
                           "--data=01 02 03", "--count=2", "--cycle=20"});
  ASSERT_EQ(write.rc, 0) << write.err;
  EXPECT_EQ(write.out,
            "LIN master-write completed on 10356/4: id=0x3C sent=2 checksum=classic\n");
  auto got = recv->finish();
  ASSERT_EQ(got.rc, 0) << got.err;
  auto frames = msgtest::lines(got.out);
  ASSERT_EQ(frames.size(), 2u) << got.out;
  const uint8_t data[] = {1, 2, 3};
  char expected[200];
  // 0x3C is a diagnostic frame: classic checksum even under LIN 2.x.
  snprintf(expected, sizeof expected,
           "{\"status\":\"ok\",\"bus\":\"lin\",\"channel\":4,\"direction\":\"rx\",\"id\":"
           "\"0x3C\",\"dlc\":3,\"data\":\"010203\",\"checksum_type\":\"classic\",\"checksum\":"
           "\"0x%02X\",\"errors\":0,\"header_only\":false,\"timestamp\":0.000000}",
           vxcli_lin_checksum(data, 3, 0x3C, VXCLI_LIN_CHECKSUM_CLASSIC));
  EXPECT_EQ(frames[0], expected);
  EXPECT_NE(frames[1].find("\"timestamp\":0.0"), std::string::npos);
}

// The receiver path the daemon uses: records are handed in by the caller.
struct Script {
  VXMessage records[4];
  int count;
  int next;
  int fail_with;
};

int scripted(void* context, VXMessage* record, uint32_t, uint32_t* status) {
  auto* s = static_cast<Script*>(context);
  if (s->fail_with) {
    *status = static_cast<uint32_t>(s->fail_with);
    return -1;
  }
  if (s->next >= s->count) return 0;
  *record = s->records[s->next++];
  return 1;
}

VXMessage lin_record(uint16_t header, uint8_t id, uint8_t length, uint8_t status, uint16_t port) {
  VXMessage m;
  memset(&m, 0, sizeof m);
  m.header = header;
  m.id = id;
  m.control = length;
  m.lin_status = status;
  m.port = port;
  return m;
}

TEST_F(LinE2E, TransferLoopThroughAReceiver) {
  VXChannelInfo info;
  VXHandle master = vxcli_open_lin_channel_ex("10356/4", "19.2k", VXCLI_LIN_MODE_MASTER, 1000, 0,
                                              0x22, VXCLI_LIN_CHECKSUM_ENHANCED, &info);
  ASSERT_NE(master, nullptr);
  LinTransferRecord records[3];
  LinTransferResult result;
  memset(&result, 0x55, sizeof result);  // counters must be cleared by the run
  result.records = records;
  result.recordCapacity = 3;

  // Unrelated records are skipped: a CAN frame, a received (not own) frame, another id,
  // another port. Then the completion arrives.
  Script script = {};
  script.records[0] = lin_record(VX_MSG_HEADER_CAN | VX_MSG_TX, 0x10, 8, 0, info.port);
  script.records[1] = lin_record(VX_MSG_HEADER_LIN, 0x10, 8, 0, info.port);
  script.records[2] = lin_record(VX_MSG_HEADER_LIN | VX_MSG_TX, 0x11, 8, 0, info.port);
  script.records[3] = lin_record(VX_MSG_HEADER_LIN | VX_MSG_TX, 0x10, 8, 0, info.port);
  script.count = 4;
  EXPECT_EQ(vxcli_lin_transfer_with_receiver(master, info.port, VXCLI_LIN_MASTER_READ, 0x10,
                                             nullptr, 8, VXCLI_LIN_CHECKSUM_ENHANCED, 1, 0, 200,
                                             scripted, &script, &result),
            0);
  EXPECT_EQ(result.sent, 1u);
  EXPECT_EQ(result.ok, 1u);
  EXPECT_EQ(result.responses, 1u);
  EXPECT_EQ(result.failed, 0u);
  ASSERT_EQ(result.recordCount, 1);
  EXPECT_EQ(records[0].outcome, VXCLI_LIN_OUTCOME_OK);
  EXPECT_EQ(records[0].classified, 1u);

  // Nothing arrives: host timeout for each of two transfers, only one of them recorded.
  result.recordCapacity = 1;
  Script silent = {};
  EXPECT_EQ(vxcli_lin_transfer_with_receiver(master, info.port, VXCLI_LIN_MASTER_READ, 0x10,
                                             nullptr, 8, VXCLI_LIN_CHECKSUM_ENHANCED, 2, 0, 30,
                                             scripted, &silent, &result),
            1);
  EXPECT_EQ(result.sent, 2u);
  EXPECT_EQ(result.failed, 2u);
  EXPECT_EQ(result.recordCount, 1);
  EXPECT_EQ(records[0].outcome, VXCLI_LIN_OUTCOME_HOST_TIMEOUT);

  // A receiver error ends the wait with read-error and its status.
  Script broken = {};
  broken.fail_with = VX_ERR_INVALID_HARDWARE;
  result.recordCapacity = 3;
  EXPECT_EQ(vxcli_lin_transfer_with_receiver(master, info.port, VXCLI_LIN_SYNC_BREAK, 0x10,
                                             nullptr, 0, VXCLI_LIN_CHECKSUM_ENHANCED, 1, 0, 200,
                                             scripted, &broken, &result),
            1);
  EXPECT_EQ(records[0].outcome, VXCLI_LIN_OUTCOME_READ_ERROR);
  EXPECT_EQ(records[0].status, VX_ERR_INVALID_HARDWARE);

  // A write the device refuses (identifier out of range) is a write-error.
  EXPECT_EQ(vxcli_lin_transfer(master, info.port, VXCLI_LIN_MASTER_WRITE, 0x40, kAnswer, 2,
                               VXCLI_LIN_CHECKSUM_ENHANCED, 1, 0, 0, &result),
            1);
  EXPECT_EQ(records[0].outcome, VXCLI_LIN_OUTCOME_WRITE_ERROR);
  EXPECT_NE(records[0].status, 0u);
  EXPECT_EQ(result.sent, 0u);
  VX_Close(master);
}

TEST_F(LinE2E, OpeningRefusals) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(vxcli_open_lin_channel_ex("10356/4", "auto", VXCLI_LIN_MODE_MASTER, 1000, 1, 0x22, 2,
                                      nullptr),
            nullptr);
  EXPECT_EQ(vxcli_open_lin_channel_ex("10356/4", "auto", VXCLI_LIN_MODE_SLAVE, 1000, 1, 0x22, 2,
                                      nullptr),
            nullptr);
  EXPECT_EQ(vxcli_open_lin_channel_ex("10356/4", "999", VXCLI_LIN_MODE_MASTER, 1000, 1, 0x22, 2,
                                      nullptr),
            nullptr);
  EXPECT_EQ(vxcli_open_lin_channel_ex("10356/0", nullptr, VXCLI_LIN_MODE_MASTER, 1000, 1, 0x22, 2,
                                      nullptr),
            nullptr);
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_NE(err.find("auto bitrate is only supported in LIN slave mode\n"), std::string::npos);
  EXPECT_NE(err.find("connected ZQX LIN firmware does not yet support safe auto bitrate\n"),
            std::string::npos);
  EXPECT_NE(err.find("Invalid LIN bitrate '999' (expected 1000..20000 bps, e.g. 19200 or 19.2K)\n"),
            std::string::npos);
  EXPECT_NE(err.find("has no LIN capability"), std::string::npos) << err;
}

}  // namespace
