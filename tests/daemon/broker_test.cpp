#include "broker_util.h"

#include <string>
#include <vector>

namespace {

using brokertest::BrokerTest;
using brokertest::can_frame;
using brokertest::patterned;

TEST_F(BrokerTest, ArgumentsAndLifecycle) {
  EXPECT_EQ(0, vxcli_rx_broker_init());  // a second init is harmless
  vxcli_rx_cursor cursor{};
  vxcli_rx_record record{};
  EXPECT_EQ(-1, vxcli_rx_broker_attach(32, nullptr, 0, 4));
  EXPECT_EQ(-1, vxcli_rx_broker_attach(0, nullptr, 0, UINT64_MAX));  // cannot allocate
  EXPECT_EQ(-1, vxcli_rx_broker_cursor_open(0, 1, &cursor));          // not attached
  ASSERT_EQ(0, vxcli_rx_broker_attach(31, nullptr, 0, 0));
  EXPECT_EQ(8192u, stats(31).capacity_records);
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(31, 1, &cursor));
  EXPECT_EQ(-1, vxcli_rx_broker_read(&cursor, nullptr, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_end(31));  // not in exclusive mode
  vxcli_rx_broker_shutdown();
  EXPECT_EQ(-1, vxcli_rx_broker_read(&cursor, &record, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_attach(0, nullptr, 0, 4));
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(31));
}

TEST_F(BrokerTest, PublishFillsRecordsAndOverwritesTheOldest) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(5, nullptr, 0, 4));
  vxcli_rx_cursor cursor = open(5, 1);
  VXMessage first = patterned(1);
  first.ptp_ns = 0xEE00000000000001ull;  // the last bytes of the device record are kept too
  ASSERT_EQ(0, vxcli_rx_broker_publish(5, &first));
  vxcli_rx_record r{};
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_EQ(0, std::memcmp(&first, &r.message, sizeof first));
  EXPECT_EQ(1u, r.sequence);
  EXPECT_EQ(stats(5).epoch, r.epoch);
  EXPECT_EQ(5u, r.channel);
  EXPECT_EQ(1u, r.timestamp64);

  publish(5, 2, 6);  // capacity 4: records 1 and 2 are pushed out
  const auto s = stats(5);
  EXPECT_EQ(3u, s.oldest);
  EXPECT_EQ(7u, s.head);
  EXPECT_EQ(6u, s.published);
  EXPECT_EQ(2u, s.overwritten);
  EXPECT_EQ(4u * 128, s.buffered_bytes);
  EXPECT_EQ(3u, s.oldest_timestamp64);
  EXPECT_EQ(3u, s.timestamp_span);
}

TEST_F(BrokerTest, CursorStartOverrunAndBacklog) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(0, nullptr, 0, 8));
  publish(0, 1, 3);
  vxcli_rx_cursor fresh = open(0, 0, "fresh");
  vxcli_rx_cursor history = open(0, 1, "history");
  uint64_t seq = 0;
  EXPECT_EQ(0, poll(&fresh));  // buffered records are not new
  ASSERT_EQ(1, poll(&history, &seq));
  EXPECT_EQ(1u, seq);

  publish(0, 4, 15);  // oldest is now 8; history wants 2, fresh wants 4
  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_stats(&history, &cs));
  EXPECT_STREQ("history", cs.name);
  EXPECT_EQ(14u, cs.pending);
  EXPECT_EQ(8u, cs.available);
  EXPECT_EQ(6u, cs.behind);
  ASSERT_EQ(2, poll(&history));
  EXPECT_EQ(6u, history.lost);
  ASSERT_EQ(2, poll(&fresh));
  EXPECT_EQ(4u, fresh.lost);
  ASSERT_EQ(1, poll(&history, &seq));
  EXPECT_EQ(8u, seq);
  // The consumer entry mirrors the cursor after every read.
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(0, 1, &cs));
  EXPECT_STREQ("history", cs.name);
  EXPECT_EQ(1u, cs.overruns);
  EXPECT_EQ(6u, cs.lost);
  EXPECT_EQ(2u, cs.delivered);
  EXPECT_EQ(8u, cs.last_sequence);
  EXPECT_EQ(9u, cs.position);
  EXPECT_EQ(15u, cs.channel_newest);
}

TEST_F(BrokerTest, TimestampWrapExtension) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(2, nullptr, 0, 8));
  vxcli_rx_cursor cursor = open(2, 1);
  const uint32_t stamps[] = {100, 90, 0xFFFFFFF0u, 0x10, 0x05, 0x90000000u, 0x01};
  const uint64_t expect[] = {100, 90, 0xFFFFFFF0ull, 0x100000010ull, 0x100000005ull,
                             0x190000000ull, 0x200000001ull};
  for (uint32_t t : stamps) {
    const VXMessage m = can_frame(1, false, t);
    ASSERT_EQ(0, vxcli_rx_broker_publish(2, &m));
  }
  vxcli_rx_record r{};
  for (uint64_t e : expect) {
    ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
    EXPECT_EQ(e, r.timestamp64) << "sequence " << r.sequence;
  }
  EXPECT_EQ(0x200000001ull - 100, stats(2).timestamp_span);
}

TEST_F(BrokerTest, ResetAfterExclusiveSessionAndReattach) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(1, nullptr, 0, 4));
  vxcli_rx_cursor cursor = open(1, 1);
  publish(1, 1, 3);
  ASSERT_EQ(1, poll(&cursor));

  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(1, 0));  // no worker: granted at once
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(1, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(1, 20));  // waits for the holder, gives up
  const uint64_t before = stats(1).epoch;
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(1));
  auto s = stats(1);
  EXPECT_NE(before, s.epoch);
  EXPECT_EQ(1u, s.exclusive_sessions);
  EXPECT_EQ(0u, s.buffered_records);
  EXPECT_EQ(0u, s.exclusive_active);
  EXPECT_EQ(3, poll(&cursor));
  EXPECT_EQ(0, poll(&cursor));
  publish(1, 1, 1);
  uint64_t seq = 0;
  ASSERT_EQ(1, poll(&cursor, &seq));
  EXPECT_EQ(1u, seq);

  // Re-attach: new epoch and ring, entries forgotten; the old cursor reads on.
  ASSERT_EQ(0, vxcli_rx_broker_attach(1, nullptr, 0, 4));
  EXPECT_GT(stats(1).epoch, s.epoch);
  EXPECT_EQ(0u, vxcli_rx_broker_consumer_count(1));
  publish(1, 1, 6);
  EXPECT_EQ(3, poll(&cursor));
  ASSERT_EQ(1, poll(&cursor, &seq));
  EXPECT_EQ(3u, seq);  // the new ring's oldest
  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_stats(&cursor, &cs));
  EXPECT_EQ(0u, cs.active);
  EXPECT_EQ(3u, cs.last_sequence);
}

TEST_F(BrokerTest, ConsumerEntriesAndTokens) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(4, nullptr, 0, 8));
  std::vector<vxcli_rx_cursor> cursors;
  const std::string long_name(60, 'n');
  const char* names[] = {nullptr, "", long_name.c_str()};
  for (int i = 0; i < 32; ++i) cursors.push_back(open(4, 0, i < 3 ? names[i] : "logging"));
  vxcli_rx_cursor extra{};
  EXPECT_EQ(-1, vxcli_rx_broker_cursor_open(4, 0, &extra));
  EXPECT_EQ(32u, stats(4).active_consumers);
  vxcli_rx_consumer_stats cs{};
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, i, &cs));
    EXPECT_EQ(i < 2 ? std::string("anonymous") : long_name.substr(0, 47), cs.name);
  }

  // A closed cursor's stale copy cannot close the entry's next owner, and a
  // closed cursor still reads but reports nowhere.
  const vxcli_rx_cursor stale = cursors[5];
  vxcli_rx_broker_cursor_close(&cursors[5]);
  vxcli_rx_broker_cursor_close(&cursors[5]);
  EXPECT_EQ(-1, cursors[5].consumer_index);
  extra = open(4, 0, "isotp");
  EXPECT_EQ(5, extra.consumer_index);
  vxcli_rx_cursor stale_copy = stale;
  vxcli_rx_broker_cursor_close(&stale_copy);
  EXPECT_EQ(32u, vxcli_rx_broker_consumer_count(4));
  publish(4, 1, 1);
  EXPECT_EQ(1, poll(&cursors[5]));
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, 5, &cs));
  EXPECT_STREQ("isotp", cs.name);
  EXPECT_EQ(0u, cs.delivered);

  vxcli_rx_broker_cursor_close(&cursors[0]);
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, 4, &cs));  // counts active entries only
  EXPECT_STREQ("isotp", cs.name);
  EXPECT_EQ(-1, vxcli_rx_broker_consumer_at(4, 31, &cs));
}

TEST_F(BrokerTest, FilterMatching) {
  auto rec = [](const VXMessage& m) {
    vxcli_rx_record r{};
    r.message = m;
    return r;
  };
  const auto std_rx = rec(can_frame(0x123));
  const auto std_tx = rec(can_frame(0x123, false, 0, true));
  const auto ext = rec(can_frame(0x18DAF110, true));
  VXMessage m = {};
  m.header = VX_MSG_HEADER_LIN;
  m.length = VX_MSG_PAYLOAD_LEN;
  m.id = 0x3C;
  const auto lin = rec(m);
  m.length = 0;
  const auto empty_lin = rec(m);
  m = can_frame(0x123);
  m.header = VX_MSG_MARKER | 5;
  const auto odd = rec(m);
  m = can_frame(0x123);
  m.length = 7;
  const auto short_can = rec(m);

  vxcli_rx_filter f{};
  auto admitted = [&](std::initializer_list<const vxcli_rx_record*> records) {
    std::string bits;
    for (const auto* r : records) bits += vxcli_rx_filter_matches(&f, r) ? '1' : '0';
    return bits;
  };
  const auto all = {&std_rx, &std_tx, &ext, &lin, &empty_lin, &odd, &short_can};
  EXPECT_EQ("1111111", admitted(all));
  f.type_mask = 1u << VX_MSG_TYPE_CAN;
  EXPECT_EQ("1110001", admitted(all));
  f = {1u << VX_MSG_TYPE_CAN, 1, 0, 0, 0, 0, 0};
  EXPECT_EQ("1010001", admitted(all));
  f.direction = 2;
  EXPECT_EQ("0100000", admitted(all));
  // Once identifiers matter, records without one never match; extended
  // frames are compared by their 29-bit identifier, LIN by its frame id.
  f = {0, 0, 1, 0x100, 0x1FF, 0, 0};
  EXPECT_EQ("1100000", admitted(all));
  f = {0, 0, 1, 0x18DAF110, 0x18DAF110, 0, 0};
  EXPECT_EQ("0010000", admitted(all));
  f = {0, 0, 0, 0, 0, 0x1FFFFF00, 0x18DAF100};
  EXPECT_EQ("0010000", admitted(all));
  f = {0, 0, 0, 0, 0, 0xFF, 0x3C};
  EXPECT_EQ("0001000", admitted(all));
  f = {0, 0, 1, 0, 0x3B, 0xFF, 0x3C};  // range and mask must both hold
  EXPECT_EQ("0000000", admitted(all));
}

TEST_F(BrokerTest, ReadBatchAndDetachedChannel) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(7, nullptr, 0, 256));
  vxcli_rx_cursor cursor = open(7, 1);
  std::vector<vxcli_rx_record> out(200);
  size_t count = 99;
  EXPECT_EQ(-1, vxcli_rx_broker_read_batch(&cursor, out.data(), 0, &count, 0));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(0, vxcli_rx_broker_read_batch(&cursor, out.data(), 10, &count, 5));

  publish(7, 1, 150);
  ASSERT_EQ(1, vxcli_rx_broker_read_batch(&cursor, out.data(), 100, &count, 0));
  ASSERT_EQ(100u, count);
  ASSERT_EQ(1, vxcli_rx_broker_read_batch(&cursor, out.data() + 100, 100, &count, -1));
  ASSERT_EQ(50u, count);  // the rest, without waiting for more
  for (uint64_t n = 1; n <= 150; ++n)
    EXPECT_TRUE(out[n - 1].sequence == n && brokertest::is_patterned(out[n - 1])) << n;

  publish(7, 151, 500);  // oldest 245
  EXPECT_EQ(2, vxcli_rx_broker_read_batch(&cursor, out.data(), 200, &count, 0));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(94u, cursor.lost);
  ASSERT_EQ(1, vxcli_rx_broker_read_batch(&cursor, out.data(), 200, &count, 0));
  EXPECT_EQ(245u, out[0].sequence);

  ASSERT_EQ(0, vxcli_rx_broker_detach(7));
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(7));
  EXPECT_EQ(-2, vxcli_rx_broker_read_batch(&cursor, out.data(), 200, &count, 0));
  EXPECT_EQ(-2, vxcli_rx_broker_read(&cursor, out.data(), 50));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(7, 0));
  EXPECT_EQ(1u, stats(7).active_consumers);  // entries stay until the next attach
}

}  // namespace
