#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <numeric>
#include <thread>

#include "diag/isotp.h"
#include "script_link.h"

using diagtest::frame_bytes;
using diagtest::make_frame;
using diagtest::ScriptLink;

namespace {

constexpr uint32_t kTx = 0x7E0;
constexpr uint32_t kRx = 0x7E8;

vxcli_isotp_config classic(bool padding = false) {
  vxcli_isotp_config c;
  vxcli_isotp_config_init(&c);
  c.tx_id = kTx;
  c.rx_id = kRx;
  c.padding = padding ? 1 : 0;
  return c;
}

vxcli_isotp_config fd64(bool padding) {
  vxcli_isotp_config c = classic(padding);
  c.fd = 1;
  c.tx_dl = 64;
  return c;
}

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; i++) v[i] = static_cast<uint8_t>(i * 7 + 1);
  return v;
}

// Answers a first frame with "continue" using the given BS/STmin.
auto answer_first_frame(uint8_t bs, uint8_t st) {
  return [bs, st](ScriptLink& link, const vxcli_isotp_frame& f) {
    if ((f.data[0] >> 4) == 1) link.rx.push_back(make_frame(kRx, {0x30, bs, st}));
  };
}

// Reassembles what a sender put on the wire (SF/FF/CF) for round-trip checks.
std::vector<uint8_t> reassemble(const std::vector<vxcli_isotp_frame>& frames) {
  std::vector<uint8_t> out;
  size_t total = 0;
  for (const auto& f : frames) {
    uint8_t type = f.data[0] >> 4;
    if (type == 0) {
      size_t n = f.data[0] & 0x0F;
      size_t h = 1;
      if (n == 0) { n = f.data[1]; h = 2; }
      return std::vector<uint8_t>(f.data + h, f.data + h + n);
    }
    if (type == 1) {
      total = ((f.data[0] & 0x0F) << 8) | f.data[1];
      out.assign(f.data + 2, f.data + f.length);
    } else if (type == 2) {
      out.insert(out.end(), f.data + 1, f.data + f.length);
    }
  }
  if (out.size() > total) out.resize(total);
  return out;
}

}  // namespace

TEST(IsotpConfig, DefaultsAndChecks) {
  vxcli_isotp_config c;
  vxcli_isotp_config_init(&c);
  EXPECT_EQ(c.tx_dl, 8);
  EXPECT_EQ(c.pad_byte, 0xCC);
  EXPECT_EQ(c.wait_limit, 3);
  EXPECT_EQ(c.max_length, 4095);
  ScriptLink link;
  auto cb = link.callbacks();
  c.tx_id = 0x7FF;
  c.rx_id = 0x7E8;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 0);
  c.tx_id = 0x800;  // needs a 29-bit identifier
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 1);
  c.tx_extended = 1;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 0);
  c.tx_id = 0x20000000;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 1);
  c.tx_id = 0x18DA10F1;
  c.tx_dl = 12;  // FD length without FD
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 1);
  c.fd = 1;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 0);
  c.tx_dl = 10;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 1);
  c.tx_dl = 8;
  c.max_length = 0;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 1);
  c.max_length = 4095;
  cb.receive_frame = nullptr;
  EXPECT_EQ(vxcli_isotp_config_check(&c, &cb), 1);
}

TEST(IsotpStmin, Decoding) {
  EXPECT_EQ(vxcli_isotp_stmin_us(0x00), 0u);
  EXPECT_EQ(vxcli_isotp_stmin_us(0x7F), 127000u);
  EXPECT_EQ(vxcli_isotp_stmin_us(0x0A), 10000u);
  EXPECT_EQ(vxcli_isotp_stmin_us(0xF1), 100u);
  EXPECT_EQ(vxcli_isotp_stmin_us(0xF5), 500u);
  EXPECT_EQ(vxcli_isotp_stmin_us(0xF9), 900u);
  for (int b : {0x80, 0xC0, 0xF0, 0xFA, 0xFF}) EXPECT_EQ(vxcli_isotp_stmin_us(b), 127000u) << b;
}

TEST(IsotpSend, SingleFramesClassic) {
  auto data = pattern(7);
  for (bool padding : {false, true}) {
    ScriptLink link;
    auto cb = link.callbacks();
    auto c = classic(padding);
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 7, 100, nullptr), 0);
    ASSERT_EQ(link.sent.size(), 1u);
    EXPECT_EQ(link.sent[0].length, 8);
    EXPECT_EQ(link.sent[0].data[0], 0x07);
    EXPECT_EQ(link.sent[0].id, kTx);
  }
  // Short payloads are padded to the full frame only when asked.
  ScriptLink bare, padded;
  auto cb1 = bare.callbacks();
  auto cb2 = padded.callbacks();
  auto c1 = classic(false), c2 = classic(true);
  c2.pad_byte = 0xAA;
  ASSERT_EQ(vxcli_isotp_engine_send(&c1, &cb1, data.data(), 2, 100, nullptr), 0);
  ASSERT_EQ(vxcli_isotp_engine_send(&c2, &cb2, data.data(), 2, 100, nullptr), 0);
  EXPECT_EQ(frame_bytes(bare.sent[0]), (std::vector<uint8_t>{0x02, data[0], data[1]}));
  EXPECT_EQ(frame_bytes(padded.sent[0]),
            (std::vector<uint8_t>{0x02, data[0], data[1], 0xAA, 0xAA, 0xAA, 0xAA, 0xAA}));
}

TEST(IsotpSend, EscapedSingleFramesOnFd) {
  auto data = pattern(63);
  {  // short payload with FD padding: escaped and padded to tx_dl
    ScriptLink link;
    auto cb = link.callbacks();
    auto c = fd64(true);
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 7, 100, nullptr), 0);
    ASSERT_EQ(link.sent.size(), 1u);
    const auto& f = link.sent[0];
    EXPECT_EQ(f.length, 64);
    EXPECT_EQ(f.data[0], 0x00);
    EXPECT_EQ(f.data[1], 0x07);
    EXPECT_EQ(f.data[8], data[6]);
    EXPECT_EQ(f.data[9], 0xCC);
    EXPECT_EQ(f.data[63], 0xCC);
    EXPECT_TRUE(f.fd);
  }
  {  // without padding the short form is kept
    ScriptLink link;
    auto cb = link.callbacks();
    auto c = fd64(false);
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 7, 100, nullptr), 0);
    EXPECT_EQ(link.sent[0].data[0], 0x07);
    EXPECT_EQ(link.sent[0].length, 8);
  }
  {  // 62 bytes: the largest escaped single frame; unpadded 64 bytes on the wire
    ScriptLink link;
    auto cb = link.callbacks();
    auto c = fd64(false);
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 62, 100, nullptr), 0);
    ASSERT_EQ(link.sent.size(), 1u);
    EXPECT_EQ(link.sent[0].data[0], 0x00);
    EXPECT_EQ(link.sent[0].data[1], 62);
    EXPECT_EQ(link.sent[0].length, 64);
  }
  {  // 9 bytes unpadded: rounded up to the next FD length, gap filled
    ScriptLink link;
    auto cb = link.callbacks();
    auto c = fd64(false);
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 9, 100, nullptr), 0);
    EXPECT_EQ(link.sent[0].length, 12);
    EXPECT_EQ(link.sent[0].data[11], 0xCC);
  }
  {  // 63 bytes: a first frame of 62 and one consecutive frame
    ScriptLink link;
    link.on_send = answer_first_frame(0, 0);
    auto cb = link.callbacks();
    auto c = fd64(false);
    vxcli_isotp_stats stats;
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 63, 100, &stats), 0);
    ASSERT_EQ(link.sent.size(), 2u);
    EXPECT_EQ(link.sent[0].data[0], 0x10);
    EXPECT_EQ(link.sent[0].data[1], 63);
    EXPECT_EQ(link.sent[0].length, 64);
    EXPECT_EQ(frame_bytes(link.sent[1]), (std::vector<uint8_t>{0x21, data[62]}));
    EXPECT_EQ(stats.bytes, 63u);
    EXPECT_EQ(stats.frames_sent, 2u);
    EXPECT_EQ(stats.flow_control_frames, 1u);
  }
}

TEST(IsotpSend, RejectsBadArguments) {
  ScriptLink link;
  auto cb = link.callbacks();
  auto c = classic();
  std::vector<uint8_t> big(4096, 0x11);
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, big.data(), 4096, 100, nullptr), 1);
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, big.data(), 0, 100, nullptr), 1);
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, nullptr, 3, 100, nullptr), 1);
  c.max_length = 100;
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, big.data(), 101, 100, nullptr), 1);
  c = classic();
  c.tx_dl = 2;  // too short to segment
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, big.data(), 20, 100, nullptr), 1);
  EXPECT_TRUE(link.sent.empty());
}

TEST(IsotpSend, SegmentedRoundTripSequenceWraps) {
  for (uint32_t n : {8u, 100u, 4095u}) {
    ScriptLink link;
    link.on_send = answer_first_frame(0, 0);
    auto cb = link.callbacks();
    auto c = classic(true);
    auto data = pattern(n);
    ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), n, 100, nullptr), 0);
    EXPECT_EQ(reassemble(link.sent), data) << n;
    for (size_t i = 1; i < link.sent.size(); i++) {
      EXPECT_EQ(link.sent[i].data[0], 0x20 | (i & 0x0F)) << i;
      EXPECT_EQ(link.sent[i].length, 8);  // padding on
    }
  }
}

TEST(IsotpSend, BlockSizeWaitsForEachFlowControl) {
  ScriptLink link;
  int fc = 0;
  link.on_send = [&](ScriptLink& l, const vxcli_isotp_frame& f) {
    uint8_t type = f.data[0] >> 4;
    size_t cfs = l.sent.size() - 1;
    if (type == 1 || (type == 2 && cfs % 2 == 0)) {
      l.rx.push_back(make_frame(kRx, {0x30, 2, 0}));
      fc++;
    }
  };
  auto cb = link.callbacks();
  auto c = classic();
  auto data = pattern(40);  // 6 + 5 CFs of 7 bytes
  vxcli_isotp_stats stats;
  ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 40, 100, &stats), 0);
  EXPECT_EQ(reassemble(link.sent), data);
  EXPECT_EQ(stats.flow_control_frames, 3u);  // after FF, after CF 2, after CF 4
  EXPECT_EQ(stats.last_block_size, 2);
}

TEST(IsotpSend, StminSpacesConsecutiveFrames) {
  ScriptLink link;
  link.on_send = answer_first_frame(0, 0x05);
  auto cb = link.callbacks();
  auto c = classic();
  auto data = pattern(30);  // FF + 4 CFs
  ASSERT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 30, 100, nullptr), 0);
  ASSERT_EQ(link.send_times.size(), 5u);
  // No gap before the first CF; 5 ms between the later ones.
  for (size_t i = 2; i < link.send_times.size(); i++)
    EXPECT_GE(link.send_times[i] - link.send_times[i - 1], 5000u);
  EXPECT_EQ(link.slept_us, 3u * 5000u);
}

TEST(IsotpSend, FlowControlWaitOverflowAndGarbage) {
  auto data = pattern(20);
  auto run = [&](std::vector<vxcli_isotp_frame> answers) {
    ScriptLink link;
    link.on_send = [&](ScriptLink& l, const vxcli_isotp_frame& f) {
      if ((f.data[0] >> 4) == 1)
        for (auto& a : answers) l.rx.push_back(a);
    };
    auto cb = link.callbacks();
    auto c = classic();
    vxcli_isotp_stats stats;
    int rc = vxcli_isotp_engine_send(&c, &cb, data.data(), 20, 100, &stats);
    return std::make_pair(rc, stats.wait_frames);
  };
  auto wait = make_frame(kRx, {0x31, 0, 0});
  auto go = make_frame(kRx, {0x30, 0, 0});
  EXPECT_EQ(run({wait, wait, wait, go}), std::make_pair(0, 3u));
  EXPECT_EQ(run({wait, wait, wait, wait, go}).first, 8);
  EXPECT_EQ(run({make_frame(kRx, {0x32, 0, 0})}).first, 6);
  EXPECT_EQ(run({make_frame(kRx, {0x33, 0, 0})}).first, 4);
  EXPECT_EQ(run({make_frame(kRx, {0x30, 0})}).first, 4);        // too short
  EXPECT_EQ(run({make_frame(kRx, {0x21, 1, 2, 3})}).first, 4);  // not a flow control
  EXPECT_EQ(run({}).first, 2);
  // Frames from other identifiers never count.
  EXPECT_EQ(run({make_frame(0x123, {0x32, 0, 0}), go}).first, 0);
}

TEST(IsotpSend, CancelStopsBeforeNextConsecutiveFrame) {
  ScriptLink link;
  link.on_send = answer_first_frame(0, 0);
  link.cancel_after_sends = 3;  // FF + 2 CFs
  auto cb = link.callbacks();
  auto c = classic();
  auto data = pattern(100);
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, data.data(), 100, 100, nullptr), 12);
  EXPECT_EQ(link.sent.size(), 3u);
}

TEST(IsotpSend, LinkFailurePassesThrough) {
  ScriptLink link;
  link.send_status = 3;
  auto cb = link.callbacks();
  auto c = classic();
  uint8_t b = 1;
  EXPECT_EQ(vxcli_isotp_engine_send(&c, &cb, &b, 1, 100, nullptr), 3);
}

TEST(IsotpReceive, SingleFramesPlainAndEscaped) {
  ScriptLink link;
  auto cb = link.callbacks();
  auto c = classic();
  link.rx.push_back(make_frame(0x111, {0x02, 0xEE, 0xEE}));  // someone else
  link.rx.push_back(make_frame(kRx, {0x03, 0x62, 0xF1, 0x90, 0xCC, 0xCC, 0xCC, 0xCC}));
  uint8_t buf[4096];
  uint32_t len = sizeof buf;
  vxcli_isotp_stats stats;
  ASSERT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, &stats), 0);
  EXPECT_EQ(len, 3u);
  EXPECT_EQ(buf[0], 0x62);
  EXPECT_EQ(stats.frames_received, 1u);

  auto fd = make_frame(kRx, {0x00, 62}, true);
  for (int i = 0; i < 62; i++) fd.data[fd.length++] = static_cast<uint8_t>(i);
  link.rx.push_back(fd);
  len = sizeof buf;
  ASSERT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 0);
  EXPECT_EQ(len, 62u);
  EXPECT_EQ(buf[61], 61);

  // Malformed single frames.
  for (auto f : {make_frame(kRx, {0x00}), make_frame(kRx, {0x00, 0x00, 1}),
                 make_frame(kRx, {0x05, 1, 2}), make_frame(kRx, {0x00, 5, 1, 2}),
                 make_frame(kRx, {0x21, 1}), make_frame(kRx, {0x30, 0, 0})}) {
    link.rx.push_back(f);
    len = sizeof buf;
    EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 4)
        << std::hex << int(f.data[0]);
  }
  // Too small a buffer: the needed length is reported.
  link.rx.push_back(make_frame(kRx, {0x05, 1, 2, 3, 4, 5}));
  len = 4;
  EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 7);
  EXPECT_EQ(len, 5u);
  // Nothing at all.
  len = sizeof buf;
  EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 50, nullptr), 2);
  EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 0, nullptr), 2);
  len = 0;
  EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 50, nullptr), 1);
}

TEST(IsotpReceive, MultiFrameWithBlockSizeRefresh) {
  ScriptLink link;
  auto data = pattern(50);
  // FF carries 6 bytes, then 7 consecutive frames of 7 (the last one 2).
  link.rx.push_back(make_frame(kRx, {0x10, 50, data[0], data[1], data[2], data[3], data[4],
                                     data[5]}));
  size_t off = 6;
  for (int seq = 1; off < data.size(); seq++) {
    auto f = make_frame(kRx, {0x20 | (seq & 0x0F)});
    for (int i = 0; i < 7; i++) f.data[f.length++] = off < data.size() ? data[off++] : 0xCC;
    link.rx.push_back(f);
  }
  auto cb = link.callbacks();
  auto c = classic(true);
  c.block_size = 3;
  c.st_min = 0x0A;
  uint8_t buf[4096];
  uint32_t len = sizeof buf;
  vxcli_isotp_stats stats;
  ASSERT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, &stats), 0);
  ASSERT_EQ(len, 50u);
  EXPECT_EQ(std::vector<uint8_t>(buf, buf + len), data);
  // One flow control after the FF and one after every 3 CFs that leave data to come (3, 6).
  ASSERT_EQ(link.sent.size(), 3u);
  for (const auto& fc : link.sent) {
    EXPECT_EQ(frame_bytes(fc), (std::vector<uint8_t>{0x30, 3, 0x0A, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC}));
    EXPECT_EQ(fc.id, kTx);
  }
  EXPECT_EQ(stats.frames_received, 8u);
  EXPECT_EQ(stats.flow_control_frames, 3u);
}

TEST(IsotpReceive, FirstFrameErrors) {
  auto c = classic();
  uint8_t buf[4096];
  {  // announced length beyond the buffer: overflow answer, needed length back
    ScriptLink link;
    auto cb = link.callbacks();
    link.rx.push_back(make_frame(kRx, {0x11, 0x00, 1, 2, 3, 4, 5, 6}));
    uint32_t len = 100;
    EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 7);
    EXPECT_EQ(len, 256u);
    ASSERT_EQ(link.sent.size(), 1u);
    EXPECT_EQ(link.sent[0].data[0], 0x32);
  }
  {  // announced length beyond max_length
    ScriptLink link;
    auto cb = link.callbacks();
    auto small = classic();
    small.max_length = 100;
    link.rx.push_back(make_frame(kRx, {0x10, 200, 1, 2, 3, 4, 5, 6}));
    uint32_t len = sizeof buf;
    EXPECT_EQ(vxcli_isotp_engine_receive(&small, &cb, buf, &len, 100, nullptr), 6);
  }
  {  // the 32-bit escaped first frame is refused
    ScriptLink link;
    auto cb = link.callbacks();
    link.rx.push_back(make_frame(kRx, {0x10, 0x00, 0, 0, 0x10, 0}));
    uint32_t len = sizeof buf;
    EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 4);
  }
  {  // wrong sequence number
    ScriptLink link;
    auto cb = link.callbacks();
    link.rx.push_back(make_frame(kRx, {0x10, 20, 1, 2, 3, 4, 5, 6}));
    link.rx.push_back(make_frame(kRx, {0x21, 1, 2, 3, 4, 5, 6, 7}));
    link.rx.push_back(make_frame(kRx, {0x23, 1, 2, 3, 4, 5, 6, 7}));
    uint32_t len = sizeof buf;
    EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 5);
  }
  {  // a new single frame in the middle of reassembly
    ScriptLink link;
    auto cb = link.callbacks();
    link.rx.push_back(make_frame(kRx, {0x10, 20, 1, 2, 3, 4, 5, 6}));
    link.rx.push_back(make_frame(kRx, {0x02, 1, 2}));
    uint32_t len = sizeof buf;
    EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 4);
  }
  {  // sender stops after the flow control
    ScriptLink link;
    auto cb = link.callbacks();
    link.rx.push_back(make_frame(kRx, {0x10, 20, 1, 2, 3, 4, 5, 6}));
    uint32_t len = sizeof buf;
    EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 2);
  }
}

TEST(IsotpReceive, TimeoutCoversForeignTrafficAndCancel) {
  ScriptLink link;
  auto cb = link.callbacks();
  auto c = classic();
  // A chatty bus: foreign frames 40 ms apart must not extend the 100 ms budget.
  link.on_send = nullptr;
  struct Ctx { ScriptLink* link; int calls = 0; } ctx{&link};
  vxcli_isotp_callbacks chatty = cb;
  chatty.context = &ctx;
  chatty.receive_frame = [](void* p, vxcli_isotp_frame* f, int32_t) {
    auto* x = static_cast<Ctx*>(p);
    x->calls++;
    x->link->clock_us += 40000;
    *f = make_frame(0x123, {1, 2});
    return 0;
  };
  chatty.now_us = [](void* p) { return static_cast<Ctx*>(p)->link->clock_us; };
  chatty.cancelled = nullptr;
  uint8_t buf[16];
  uint32_t len = sizeof buf;
  EXPECT_EQ(vxcli_isotp_engine_receive(&c, &chatty, buf, &len, 100, nullptr), 2);
  EXPECT_LE(ctx.calls, 4);

  link.cancel = true;
  link.rx.push_back(make_frame(kRx, {0x01, 0x50}));
  len = sizeof buf;
  EXPECT_EQ(vxcli_isotp_engine_receive(&c, &cb, buf, &len, 100, nullptr), 12);
}

TEST(IsotpStatus, TextsAndVxapiMapping) {
  EXPECT_STREQ(vxcli_isotp_engine_status_string(5), "consecutive-frame sequence error");
  EXPECT_STREQ(vxcli_isotp_engine_status_string(12), "cancelled");
  EXPECT_STREQ(vxcli_isotp_engine_status_string(13), "unknown ISO-TP error");
  EXPECT_STREQ(vxcli_isotp_engine_status_string(-1), "unknown ISO-TP error");
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(0, 5), 0u);
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(1, 0), 0x8000u);
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(2, 0), 0x80000u);
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(3, 0), 0x10000u);
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(3, 0x22), 0x22u);
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(7, 0), 0x40u);
  EXPECT_EQ(vxcli_isotp_status_to_vxapi(9, 0), 0x40u);
  for (int s : {4, 5, 6, 8, 10, 11, 12, 99}) EXPECT_EQ(vxcli_isotp_status_to_vxapi(s, 7), 0x1C00u);
}

// Two engines talking through a pair of blocking queues with the real clock:
// catches disagreements between sender and receiver that scripted tests cannot.
namespace {

struct Pipe {
  std::mutex mu;
  std::condition_variable cv;
  std::deque<vxcli_isotp_frame> q;
};

struct PeerLink {
  Pipe* out;
  Pipe* in;
  static int send(void* c, const vxcli_isotp_frame* f, int32_t) {
    auto* self = static_cast<PeerLink*>(c);
    std::lock_guard<std::mutex> lock(self->out->mu);
    self->out->q.push_back(*f);
    self->out->cv.notify_all();
    return 0;
  }
  static int receive(void* c, vxcli_isotp_frame* f, int32_t timeout_ms) {
    auto* self = static_cast<PeerLink*>(c);
    std::unique_lock<std::mutex> lock(self->in->mu);
    if (!self->in->cv.wait_for(lock, std::chrono::milliseconds(timeout_ms < 0 ? 2000 : timeout_ms),
                               [&] { return !self->in->q.empty(); }))
      return 2;
    *f = self->in->q.front();
    self->in->q.pop_front();
    return 0;
  }
  vxcli_isotp_callbacks callbacks() {
    vxcli_isotp_callbacks cb{};
    cb.context = this;
    cb.send_frame = send;
    cb.receive_frame = receive;
    return cb;
  }
};

}  // namespace

TEST(IsotpPeers, SenderAndReceiverAgree) {
  struct Case { uint8_t dl; bool fd; bool padding; uint8_t bs; uint32_t length; };
  for (Case k : {Case{8, false, false, 0, 1}, Case{8, false, true, 4, 4095},
                 Case{64, true, true, 0, 7}, Case{64, true, false, 0, 62},
                 Case{64, true, true, 2, 63}, Case{64, true, false, 0, 4095},
                 Case{12, true, false, 1, 300}, Case{8, false, false, 0, 8}}) {
    Pipe a, b;
    PeerLink tester{&a, &b}, ecu{&b, &a};
    vxcli_isotp_config tc = classic(k.padding), ec = classic(k.padding);
    ec.tx_id = kRx;
    ec.rx_id = kTx;
    tc.tx_dl = ec.tx_dl = k.dl;
    tc.fd = ec.fd = k.fd;
    ec.block_size = k.bs;
    auto data = pattern(k.length);
    std::vector<uint8_t> got(4095);
    uint32_t len = 4095;
    int rrc = -1;
    std::thread receiver([&] {
      auto cb = ecu.callbacks();
      rrc = vxcli_isotp_engine_receive(&ec, &cb, got.data(), &len, 2000, nullptr);
    });
    auto cb = tester.callbacks();
    int src = vxcli_isotp_engine_send(&tc, &cb, data.data(), k.length, 2000, nullptr);
    receiver.join();
    ASSERT_EQ(src, 0) << k.length;
    ASSERT_EQ(rrc, 0) << k.length;
    got.resize(len);
    EXPECT_EQ(got, data) << "dl=" << int(k.dl) << " len=" << k.length;
  }
}
