#include <gtest/gtest.h>

#include <cstring>
#include <deque>

#include "diag/uds.h"

namespace {

struct Responses {
  std::deque<std::vector<uint8_t>> queue;
  uint64_t clock_ms = 0;
  uint64_t step_ms = 0;  // time each reception takes
  static uint32_t receive(void* c, uint8_t* buffer, uint32_t* length, int32_t) {
    auto* self = static_cast<Responses*>(c);
    self->clock_ms += self->step_ms;
    if (self->queue.empty()) return 0x80000;
    auto r = self->queue.front();
    self->queue.pop_front();
    if (r.size() > *length) return 0x40;
    memcpy(buffer, r.data(), r.size());
    *length = static_cast<uint32_t>(r.size());
    return 0;
  }
  static uint64_t now(void* c) { return static_cast<Responses*>(c)->clock_ms; }
  vxcli_uds_receiver receiver() { return {receive, now, this}; }
};

}  // namespace

TEST(UdsSuppression, Rules) {
  char err[128];
  int suppressed = -1;
  uint8_t tp[] = {0x3E, 0x80};
  ASSERT_EQ(vxcli_uds_prepare_suppression(tp, 2, 0, &suppressed, err, sizeof err), 0);
  EXPECT_EQ(suppressed, 1);  // already set by the caller

  uint8_t rdbi[] = {0x22, 0xF1, 0x90};
  ASSERT_EQ(vxcli_uds_prepare_suppression(rdbi, 3, 1, &suppressed, err, sizeof err), -1);
  EXPECT_STREQ(err, "service 0x22 has no suppressible subfunction byte");
  ASSERT_EQ(vxcli_uds_prepare_suppression(rdbi, 3, 0, &suppressed, err, sizeof err), 0);
  EXPECT_EQ(suppressed, 0);
  EXPECT_EQ(rdbi[1], 0xF1);  // untouched

  uint8_t session[] = {0x10, 0x03};
  ASSERT_EQ(vxcli_uds_prepare_suppression(session, 2, 1, &suppressed, err, sizeof err), 0);
  EXPECT_EQ(session[1], 0x83);
  EXPECT_EQ(suppressed, 1);

  uint8_t lone[] = {0x3E};
  EXPECT_EQ(vxcli_uds_prepare_suppression(lone, 1, 1, &suppressed, err, sizeof err), -1);
  EXPECT_STREQ(err, "service 0x3E has no suppressible subfunction byte");
  EXPECT_EQ(vxcli_uds_prepare_suppression(lone, 0, 0, &suppressed, err, sizeof err), -1);
  EXPECT_STREQ(err, "UDS request is empty");
}

TEST(UdsHexWords, Forms) {
  uint8_t out[8];
  char err[128];
  char a[] = "22", b[] = "F190", c[] = "0x3e", d[] = "10:03", e[] = "2G", f[] = "7";
  char* words[] = {a, b, c, d};
  ASSERT_EQ(vxcli_uds_parse_hex_words(4, words, out, sizeof out, err, sizeof err), 6);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 6), (std::vector<uint8_t>{0x22, 0xF1, 0x90, 0x3E, 0x10, 0x03}));
  char* bad[] = {e};
  EXPECT_EQ(vxcli_uds_parse_hex_words(1, bad, out, sizeof out, err, sizeof err), -1);
  char* single[] = {f};
  EXPECT_EQ(vxcli_uds_parse_hex_words(1, single, out, sizeof out, err, sizeof err), 1);
  EXPECT_EQ(out[0], 7);
  char* many[] = {b, b, b, b, b};
  EXPECT_EQ(vxcli_uds_parse_hex_words(5, many, out, sizeof out, err, sizeof err), -1);
  EXPECT_EQ(vxcli_uds_hex(out, 0), "");
  uint8_t bytes[] = {0x7F, 0x0A};
  EXPECT_EQ(vxcli_uds_hex(bytes, 2), "7F 0A");
}

TEST(UdsPending, BudgetOfThirtyReceptions) {
  uint8_t buf[VXCLI_UDS_BUFFER];
  vxcli_uds_exchange ex;
  {  // 29 pending then positive: success
    Responses r;
    for (int i = 0; i < 29; i++) r.queue.push_back({0x7F, 0x31, 0x78});
    r.queue.push_back({0x71, 0x01, 0xFF, 0x00});
    auto rx = r.receiver();
    vxcli_uds_receive_final(&rx, 0x31, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.status, 0u);
    EXPECT_EQ(ex.receptions, 30u);
    EXPECT_EQ(ex.pending, 29u);
    EXPECT_EQ(buf[0], 0x71);
  }
  {  // 30 pending: the 30th is final even though it is a pending answer
    Responses r;
    for (int i = 0; i < 31; i++) r.queue.push_back({0x7F, 0x31, 0x78});
    auto rx = r.receiver();
    vxcli_uds_receive_final(&rx, 0x31, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.status, 0u);
    EXPECT_EQ(ex.receptions, 30u);
    EXPECT_TRUE(vxcli_uds_is_pending(buf, ex.length, 0x31));
    EXPECT_EQ(r.queue.size(), 1u);
  }
  {  // pending for another service is an ordinary (negative) final answer
    Responses r;
    r.queue.push_back({0x7F, 0x22, 0x78});
    auto rx = r.receiver();
    vxcli_uds_receive_final(&rx, 0x31, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.receptions, 1u);
    EXPECT_TRUE(vxcli_uds_is_negative(buf, ex.length));
  }
  {  // a keepalive's late 7E answer is skipped, except by TesterPresent itself
    Responses r;
    r.queue.push_back({0x7E, 0x00});
    r.queue.push_back({0x62, 0xF1, 0x90, 0x01});
    auto rx = r.receiver();
    vxcli_uds_receive_final(&rx, 0x22, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.receptions, 1u);
    EXPECT_EQ(buf[0], 0x62);
    r.queue.push_back({0x7E, 0x00});
    vxcli_uds_receive_final(&rx, 0x3E, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.status, 0u);
    EXPECT_EQ(buf[0], 0x7E);
  }
  {  // 30 s budget: a pending answer after it is final
    Responses r;
    r.step_ms = 11000;
    for (int i = 0; i < 5; i++) r.queue.push_back({0x7F, 0x34, 0x78});
    auto rx = r.receiver();
    vxcli_uds_receive_final(&rx, 0x34, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.receptions, 3u);
  }
  {  // timeout after a pending answer keeps the pending answer's length
    Responses r;
    r.queue.push_back({0x7F, 0x27, 0x78});
    auto rx = r.receiver();
    vxcli_uds_receive_final(&rx, 0x27, buf, sizeof buf, 5000, 0, &ex);
    EXPECT_EQ(ex.status, 0x80000u);
    EXPECT_EQ(ex.length, 3u);
    EXPECT_EQ(ex.pending, 1u);
  }
}

TEST(UdsDtc, StatusTextsAndNames) {
  EXPECT_EQ(vxcli_uds_dtc_status_desc(0), "none");
  EXPECT_EQ(vxcli_uds_dtc_status_desc(0x09), "testFailed|confirmed");
  EXPECT_EQ(vxcli_uds_dtc_status_desc(0xFF),
            "testFailed|testFailedThisCycle|pending|confirmed|notCompletedSinceClear|"
            "failedSinceClear|notCompletedThisCycle|warningIndicator");
  EXPECT_EQ(vxcli_uds_dtc_status_desc(0x80), "warningIndicator");
  EXPECT_EQ(vxcli_uds_dtc_name(0x012345), "P0123-45");
  EXPECT_EQ(vxcli_uds_dtc_name(0xC10000), "U0100-00");
  EXPECT_EQ(vxcli_uds_dtc_name(0x5A1B11), "C1A1B-11");

  std::vector<vxcli_uds_dtc_record> list;
  uint8_t mask = 0;
  const uint8_t ok[] = {0x59, 0x02, 0xFF, 0x01, 0x23, 0x45, 0x09, 0xC1, 0x00, 0x00, 0x2F};
  ASSERT_EQ(vxcli_uds_parse_dtc_list(ok, sizeof ok, &list, &mask), 0);
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1].dtc, 0xC10000u);
  EXPECT_EQ(list[1].status, 0x2F);
  EXPECT_EQ(mask, 0xFF);
  const uint8_t ragged[] = {0x59, 0x02, 0xFF, 0x01, 0x23};
  EXPECT_EQ(vxcli_uds_parse_dtc_list(ragged, sizeof ragged, &list, &mask), -1);
  const uint8_t negative[] = {0x7F, 0x19, 0x31};
  EXPECT_EQ(vxcli_uds_parse_dtc_list(negative, sizeof negative, &list, &mask), -1);
}

TEST(UdsDownload, AlfRequestAndBlockLength) {
  char err[160];
  std::vector<uint8_t> req;
  ASSERT_EQ(vxcli_uds_build_request_download(0x44, 0x08001000, 0x200, &req, err, sizeof err), 0);
  EXPECT_EQ(req, (std::vector<uint8_t>{0x34, 0x00, 0x44, 0x08, 0x00, 0x10, 0x00, 0x00, 0x00,
                                       0x02, 0x00}));
  ASSERT_EQ(vxcli_uds_build_request_download(0x21, 0x80, 0x1234, &req, err, sizeof err), 0);
  EXPECT_EQ(req, (std::vector<uint8_t>{0x34, 0x00, 0x21, 0x80, 0x12, 0x34}));
  EXPECT_EQ(vxcli_uds_build_request_download(0x22, 0x10000, 1, &req, err, sizeof err), -1);
  EXPECT_EQ(vxcli_uds_build_request_download(0x12, 0x100, 0x100, &req, err, sizeof err), -1);
  for (uint8_t bad : {0x00, 0x45, 0x54, 0x04, 0x40, 0xFF}) {
    EXPECT_EQ(vxcli_uds_check_alf(bad, err, sizeof err), -1) << int(bad);
  }
  EXPECT_EQ(vxcli_uds_check_alf(0x4F, err, sizeof err), -1);
  EXPECT_STREQ(err, "invalid --alf=0x4F: addr/size nibbles must be 1..4");

  uint32_t chunk = 0;
  const uint8_t two[] = {0x74, 0x20, 0x01, 0x02};  // maxBlock 0x102
  ASSERT_EQ(vxcli_uds_download_chunk(two, sizeof two, 0, &chunk, err, sizeof err), 0);
  EXPECT_EQ(chunk, 0x100u);
  ASSERT_EQ(vxcli_uds_download_chunk(two, sizeof two, 66, &chunk, err, sizeof err), 0);
  EXPECT_EQ(chunk, 64u);  // --maxblock wins
  const uint8_t tiny[] = {0x74, 0x10, 0x02};
  EXPECT_EQ(vxcli_uds_download_chunk(tiny, sizeof tiny, 0, &chunk, err, sizeof err), -1);
  const uint8_t huge[] = {0x74, 0x40, 0x00, 0x01, 0x00, 0x00};
  ASSERT_EQ(vxcli_uds_download_chunk(huge, sizeof huge, 0, &chunk, err, sizeof err), 0);
  EXPECT_EQ(chunk, 4093u);  // still one transport payload
  const uint8_t shortened[] = {0x74, 0x20, 0x01};  // claims 2 bytes, has 1
  ASSERT_EQ(vxcli_uds_download_chunk(shortened, sizeof shortened, 0, &chunk, err, sizeof err), 0);
  EXPECT_EQ(chunk, 4093u);
  ASSERT_EQ(vxcli_uds_download_chunk(shortened, sizeof shortened, 130, &chunk, err, sizeof err), 0);
  EXPECT_EQ(chunk, 128u);
}

TEST(UdsDownload, CounterWrapsToOne) {
  uint8_t c = 0;
  std::vector<uint8_t> seen;
  for (int i = 0; i < 260; i++) seen.push_back(c = vxcli_uds_next_block_counter(c));
  EXPECT_EQ(seen[0], 1);
  EXPECT_EQ(seen[254], 0xFF);
  EXPECT_EQ(seen[255], 0x01);
  for (uint8_t v : seen) EXPECT_NE(v, 0);
}
