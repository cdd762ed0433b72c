#include "broker_util.h"

#include <cstring>
#include <string>
#include <vector>

namespace {

using brokertest::BrokerTest;
using brokertest::can_frame;
using brokertest::lin_frame;
using brokertest::Message;
using brokertest::patterned;

vxcli_rx_record record_of(const Message& m) {
  vxcli_rx_record r{};
  r.message = m;
  return r;
}

TEST(BrokerUninitialised, EverythingFailsQuietly) {
  vxcli_rx_cursor cursor{};
  vxcli_rx_record record{};
  vxcli_rx_channel_stats stats{};
  const Message m = can_frame(1, false, 0);
  EXPECT_EQ(-1, vxcli_rx_broker_attach(0, 0, 0, 4));
  EXPECT_EQ(-1, vxcli_rx_broker_detach(0));
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(0));
  EXPECT_EQ(-1, vxcli_rx_broker_publish(0, &m));
  EXPECT_EQ(-1, vxcli_rx_broker_cursor_open(0, 1, &cursor));
  EXPECT_EQ(-1, vxcli_rx_broker_read(&cursor, &record, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_stats(0, &stats));
  EXPECT_EQ(0u, vxcli_rx_broker_consumer_count(0));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(0, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_end(0));
  vxcli_rx_broker_cursor_close(&cursor);
  vxcli_rx_broker_shutdown();
}

TEST_F(BrokerTest, ArgumentChecks) {
  EXPECT_EQ(0, vxcli_rx_broker_init());  // a second init is harmless
  vxcli_rx_cursor cursor{};
  vxcli_rx_record record{};
  EXPECT_EQ(-1, vxcli_rx_broker_attach(32, 0, 0, 4));
  EXPECT_EQ(-1, vxcli_rx_broker_attach(-1, 0, 0, 4));
  EXPECT_EQ(-1, vxcli_rx_broker_attach(0, 0, 0, UINT64_MAX));  // cannot allocate
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(0));
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(32));
  EXPECT_EQ(-1, vxcli_rx_broker_cursor_open(0, 1, &cursor));  // not attached

  ASSERT_EQ(0, vxcli_rx_broker_attach(31, 0, 0, 0));
  EXPECT_EQ(1, vxcli_rx_broker_is_attached(31));
  EXPECT_EQ(8192u, stats(31).capacity_records);
  EXPECT_EQ(8192u * 128, stats(31).capacity_bytes);
  EXPECT_EQ(-1, vxcli_rx_broker_publish(31, nullptr));
  const Message frame = can_frame(1, false, 0);
  EXPECT_EQ(-1, vxcli_rx_broker_publish(30, &frame));
  EXPECT_EQ(-1, vxcli_rx_broker_cursor_open(31, 1, nullptr));
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(31, 1, &cursor));
  EXPECT_EQ(-1, vxcli_rx_broker_read(&cursor, nullptr, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_read(nullptr, &record, 0));
  vxcli_rx_cursor bad = cursor;
  bad.channel = 32;
  EXPECT_EQ(-1, vxcli_rx_broker_read(&bad, &record, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_stats(31, nullptr));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(31, -1));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_end(31));  // not in exclusive mode
}

TEST_F(BrokerTest, PublishFillsRecordAndOverwritesOldest) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(5, 0, 0, 4));
  const uint64_t epoch = stats(5).epoch;
  Message first = patterned(1);
  first.ptp_ns = 0xEE00000000000001ull;  // the whole device record is kept, up to its last byte
  publish(5, first);
  for (uint64_t n = 2; n <= 4; ++n) publish(5, patterned(n));

  auto s = stats(5);
  EXPECT_EQ(1u, s.oldest);
  EXPECT_EQ(5u, s.head);
  EXPECT_EQ(4u, s.buffered_records);
  EXPECT_EQ(4u * 128, s.buffered_bytes);
  EXPECT_EQ(0u, s.overwritten);

  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(5, 1, &cursor));
  vxcli_rx_record r{};
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_TRUE(brokertest::same_message(first, r.message));
  EXPECT_EQ(1u, r.sequence);
  EXPECT_EQ(epoch, r.epoch);
  EXPECT_EQ(5u, r.channel);
  EXPECT_EQ(0u, r.reserved);
  EXPECT_EQ(1u, r.timestamp64);

  // A full ring takes the next record by dropping the oldest.
  publish(5, patterned(5));
  publish(5, patterned(6));
  s = stats(5);
  EXPECT_EQ(3u, s.oldest);
  EXPECT_EQ(7u, s.head);
  EXPECT_EQ(6u, s.published);
  EXPECT_EQ(2u, s.overwritten);
  EXPECT_EQ(4u, s.buffered_records);
  EXPECT_EQ(3u, s.oldest_timestamp64);
  EXPECT_EQ(6u, s.newest_timestamp64);
  EXPECT_EQ(3u, s.timestamp_span);
}

TEST_F(BrokerTest, CursorStartAndOverrun) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(0, 0, 0, 8));
  for (uint64_t n = 1; n <= 3; ++n) publish(0, patterned(n));

  vxcli_rx_cursor fresh{};
  vxcli_rx_cursor history{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(0, 0, &fresh));
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(0, 1, &history));
  vxcli_rx_record r{};
  EXPECT_EQ(0, vxcli_rx_broker_read(&fresh, &r, 0));  // buffered records are not new
  ASSERT_EQ(1, vxcli_rx_broker_read(&history, &r, 0));
  EXPECT_EQ(1u, r.sequence);

  // history now wants 2; push it 5 records behind the oldest.
  for (uint64_t n = 4; n <= 15; ++n) publish(0, patterned(n));  // oldest = 8
  ASSERT_EQ(8u, stats(0).oldest);
  ASSERT_EQ(2, vxcli_rx_broker_read(&history, &r, 0));
  EXPECT_EQ(1u, history.overruns);
  EXPECT_EQ(6u, history.lost);
  EXPECT_EQ(8u, history.position);
  ASSERT_EQ(1, vxcli_rx_broker_read(&history, &r, 0));
  EXPECT_EQ(8u, r.sequence);
  EXPECT_EQ(8u, history.last_sequence);
  EXPECT_EQ(2u, history.delivered);

  ASSERT_EQ(2, vxcli_rx_broker_read(&fresh, &r, 0));
  EXPECT_EQ(4u, fresh.lost);  // it wanted 4
  EXPECT_EQ(1, vxcli_rx_broker_read(&fresh, &r, 0));

  // The overrun counters are visible in the consumer entries.
  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(0, 1, &cs));
  EXPECT_EQ(6u, cs.lost);
  EXPECT_EQ(1u, cs.overruns);
  EXPECT_EQ(9u, cs.position);
}

TEST_F(BrokerTest, TimestampWrapExtension) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(2, 0, 0, 8));
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(2, 1, &cursor));
  const uint32_t stamps[] = {100, 90, 0xFFFFFFF0u, 0x00000010u, 0x00000005u, 0x90000000u,
                             0x00000001u};
  const uint64_t expect[] = {100, 90, 0xFFFFFFF0ull, 0x100000010ull, 0x100000005ull,
                             0x190000000ull, 0x200000001ull};
  for (uint32_t t : stamps) publish(2, can_frame(1, false, t));
  vxcli_rx_record r{};
  for (uint64_t e : expect) {
    ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
    EXPECT_EQ(e, r.timestamp64) << "sequence " << r.sequence;
  }
  const auto s = stats(2);
  EXPECT_EQ(0x200000001ull - 100, s.timestamp_span);  // all 7 records still buffered

  // Re-attaching starts the extension over.
  ASSERT_EQ(0, vxcli_rx_broker_attach(2, 0, 0, 8));
  publish(2, can_frame(1, false, 5));
  EXPECT_EQ(5u, stats(2).newest_timestamp64);
}

TEST_F(BrokerTest, ResetAfterReattachAndAfterExclusiveSession) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(1, 0, 0, 4));
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(1, 1, &cursor));
  for (uint64_t n = 1; n <= 3; ++n) publish(1, patterned(n));
  vxcli_rx_record r{};
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));

  const uint64_t before = stats(1).epoch;
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(1, 0));  // no worker: granted at once
  EXPECT_EQ(1u, stats(1).exclusive_active);
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(1));
  const auto s = stats(1);
  EXPECT_NE(before, s.epoch);
  EXPECT_EQ(1u, s.exclusive_sessions);
  EXPECT_EQ(0u, s.buffered_records);
  EXPECT_EQ(0u, s.exclusive_active);
  EXPECT_EQ(3u, s.published);  // counts since attach survive the flush

  EXPECT_EQ(3, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_EQ(s.epoch, cursor.epoch);
  EXPECT_EQ(0, vxcli_rx_broker_read(&cursor, &r, 0));
  publish(1, patterned(1));
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_EQ(1u, r.sequence);
  EXPECT_EQ(s.epoch, r.epoch);

  // Re-attach: a new epoch, consumer entries forgotten, the old cursor reads on.
  publish(1, patterned(2));
  ASSERT_EQ(0, vxcli_rx_broker_attach(1, 0, 0, 4));
  EXPECT_EQ(0u, vxcli_rx_broker_consumer_count(1));
  for (uint64_t n = 1; n <= 6; ++n) publish(1, patterned(n));
  EXPECT_EQ(3, vxcli_rx_broker_read(&cursor, &r, 0));
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_EQ(3u, r.sequence);  // the new ring's oldest
  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_stats(&cursor, &cs));
  EXPECT_EQ(0u, cs.active);
  EXPECT_STREQ("", cs.name);
  EXPECT_EQ(3u, cs.last_sequence);
}

TEST_F(BrokerTest, DetachedChannelAndClosedCursor) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(3, 0, 0, 4));
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open_named(3, 1, "probe", nullptr, &cursor));
  publish(3, patterned(1));
  vxcli_rx_broker_cursor_close(&cursor);
  EXPECT_EQ(-1, cursor.consumer_index);
  EXPECT_EQ(0u, cursor.token);
  EXPECT_EQ(0u, vxcli_rx_broker_consumer_count(3));

  // A closed cursor still reads its channel but no longer reports anywhere.
  vxcli_rx_record r{};
  EXPECT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 0));
  vxcli_rx_cursor other{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(3, 1, &other));
  ASSERT_EQ(0, other.consumer_index);  // the same entry, under a new token
  EXPECT_EQ(0, vxcli_rx_broker_read(&cursor, &r, 0));
  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(3, 0, &cs));
  EXPECT_EQ(0u, cs.delivered);

  ASSERT_EQ(0, vxcli_rx_broker_detach(3));
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(3));
  EXPECT_EQ(-2, vxcli_rx_broker_read(&other, &r, 0));
  EXPECT_EQ(-2, vxcli_rx_broker_read(&other, &r, 50));
  const Message frame = patterned(1);
  EXPECT_EQ(-1, vxcli_rx_broker_publish(3, &frame));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(3, 0));
  EXPECT_EQ(0, vxcli_rx_broker_detach(3));  // detaching twice is harmless
  const auto s = stats(3);
  EXPECT_EQ(0u, s.attached);
  EXPECT_EQ(0u, s.capacity_records);
  EXPECT_EQ(1u, s.active_consumers);  // entries stay until the next attach
}

TEST_F(BrokerTest, ConsumerEntries) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(4, 0, 0, 8));
  std::vector<vxcli_rx_cursor> cursors(32);
  const std::string long_name(60, 'n');
  for (int i = 0; i < 32; ++i) {
    const char* name = i == 0 ? nullptr : i == 1 ? "" : i == 2 ? long_name.c_str() : "logging";
    ASSERT_EQ(0, vxcli_rx_broker_cursor_open_named(4, 0, name, nullptr, &cursors[i]));
    EXPECT_EQ(i, cursors[i].consumer_index);
    EXPECT_NE(0u, cursors[i].token);
  }
  vxcli_rx_cursor extra{};
  EXPECT_EQ(-1, vxcli_rx_broker_cursor_open(4, 0, &extra));
  EXPECT_EQ(32u, vxcli_rx_broker_consumer_count(4));
  EXPECT_EQ(32u, stats(4).active_consumers);

  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, 0, &cs));
  EXPECT_STREQ("anonymous", cs.name);
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, 1, &cs));
  EXPECT_STREQ("anonymous", cs.name);
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, 2, &cs));
  EXPECT_EQ(long_name.substr(0, 47), cs.name);

  // A stale copy of a closed cursor cannot close the entry's next owner.
  const vxcli_rx_cursor stale = cursors[5];
  vxcli_rx_broker_cursor_close(&cursors[5]);
  vxcli_rx_broker_cursor_close(&cursors[5]);
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open_named(4, 1, "isotp", nullptr, &extra));
  EXPECT_EQ(5, extra.consumer_index);
  vxcli_rx_cursor stale_copy = stale;
  vxcli_rx_broker_cursor_close(&stale_copy);
  EXPECT_EQ(32u, vxcli_rx_broker_consumer_count(4));

  // consumer_at counts active entries only.
  vxcli_rx_broker_cursor_close(&cursors[0]);
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(4, 4, &cs));
  EXPECT_STREQ("isotp", cs.name);
  EXPECT_EQ(-1, vxcli_rx_broker_consumer_at(4, 31, &cs));
  EXPECT_EQ(-1, vxcli_rx_broker_consumer_at(32, 0, &cs));

  // Backlog figures of the consumer statistics.
  for (uint64_t n = 1; n <= 11; ++n) publish(4, patterned(n));  // oldest 4, head 12
  vxcli_rx_record r{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_stats(&extra, &cs));  // opened at 1
  EXPECT_EQ(1u, cs.active);
  EXPECT_STREQ("isotp", cs.name);
  EXPECT_EQ(4u, cs.channel);
  EXPECT_EQ(4u, cs.channel_oldest);
  EXPECT_EQ(11u, cs.channel_newest);
  EXPECT_EQ(11u, cs.pending);
  EXPECT_EQ(8u, cs.available);
  EXPECT_EQ(3u, cs.behind);
  ASSERT_EQ(2, vxcli_rx_broker_read(&extra, &r, 0));
  ASSERT_EQ(1, vxcli_rx_broker_read(&extra, &r, 0));
  ASSERT_EQ(0, vxcli_rx_broker_consumer_stats(&extra, &cs));
  EXPECT_EQ(5u, cs.position);
  EXPECT_EQ(7u, cs.pending);
  EXPECT_EQ(7u, cs.available);
  EXPECT_EQ(0u, cs.behind);
  EXPECT_EQ(1u, cs.delivered);
  EXPECT_EQ(3u, cs.lost);
}

TEST_F(BrokerTest, FilterMatching) {
  vxcli_rx_filter f{};
  std::memset(&f, 0xFF, sizeof f);
  vxcli_rx_filter_init(&f);
  const auto std_rx = record_of(can_frame(0x123, false, 0));
  const auto std_tx = record_of(can_frame(0x123, false, 0, true));
  const auto ext = record_of(can_frame(0x18DAF110, true, 0));
  const auto lin = record_of(lin_frame(0x3C, 0));
  Message odd_type = can_frame(0x123, false, 0);
  odd_type.header = VX_MSG_MARKER | 5;
  const auto other = record_of(odd_type);
  Message short_can = can_frame(0x123, false, 0);
  short_can.length = 7;
  const auto truncated = record_of(short_can);
  Message empty_lin = lin_frame(0x3C, 0);
  empty_lin.length = 0;
  const auto empty = record_of(empty_lin);

  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, nullptr));
  EXPECT_EQ(1, vxcli_rx_filter_matches(nullptr, &other));
  for (const auto* r : {&std_rx, &std_tx, &ext, &lin, &other, &truncated, &empty})
    EXPECT_EQ(1, vxcli_rx_filter_matches(&f, r));

  f.type_mask = 1u << VX_MSG_TYPE_CAN;
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &std_rx));
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &ext));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &lin));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &other));

  f = {};
  f.direction = 1;
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &std_rx));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &std_tx));
  f.direction = 2;
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &std_rx));
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &std_tx));

  // Extended frames are compared by their full 29-bit identifier.
  f = {};
  f.range_enabled = 1;
  f.range_low = 0x100;
  f.range_high = 0x1FF;
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &std_rx));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &ext));
  f.range_low = 0x18DAF110;
  f.range_high = 0x18DAF110;
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &ext));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &std_rx));
  // Once identifiers matter, records without one never match.
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &other));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &truncated));

  f = {};
  f.mask = 0x1FFFFF00;
  f.value = 0x18DAF100;
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &ext));
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &std_rx));
  f.mask = 0xFF;
  f.value = 0x3C;
  EXPECT_EQ(1, vxcli_rx_filter_matches(&f, &lin));  // LIN: the frame identifier byte
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &empty));
  f.range_enabled = 1;  // both conditions must hold
  f.range_low = 0;
  f.range_high = 0x3B;
  EXPECT_EQ(0, vxcli_rx_filter_matches(&f, &lin));
}

TEST_F(BrokerTest, CursorFilterSkipsWithoutWaiting) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(6, 0, 0, 16));
  vxcli_rx_filter f{};
  f.range_enabled = 1;
  f.range_low = 0x200;
  f.range_high = 0x2FF;
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open_named(6, 1, "web", &f, &cursor));
  publish(6, can_frame(0x100, false, 1));
  publish(6, can_frame(0x250, false, 2));
  publish(6, can_frame(0x300, false, 3));

  vxcli_rx_record r{};
  ASSERT_EQ(1, vxcli_rx_broker_read(&cursor, &r, 1000));
  EXPECT_EQ(2u, r.sequence);
  std::memset(&r, 0xAB, sizeof r);
  EXPECT_EQ(0, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_EQ(0xABABu, r.message.header);  // a filtered record is not handed out
  EXPECT_EQ(1u, cursor.delivered);
  EXPECT_EQ(2u, cursor.filtered);
  EXPECT_EQ(4u, cursor.position);
}

TEST_F(BrokerTest, ReadBatch) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(7, 0, 0, 256));
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(7, 1, &cursor));
  std::vector<vxcli_rx_record> out(200);
  size_t count = 99;
  EXPECT_EQ(-1, vxcli_rx_broker_read_batch(&cursor, out.data(), 10, nullptr, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_read_batch(&cursor, out.data(), 0, &count, 0));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(-1, vxcli_rx_broker_read_batch(&cursor, nullptr, 10, &count, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_read_batch(nullptr, out.data(), 10, &count, 0));
  EXPECT_EQ(0, vxcli_rx_broker_read_batch(&cursor, out.data(), 10, &count, 5));
  EXPECT_EQ(0u, count);

  for (uint64_t n = 1; n <= 150; ++n) publish(7, patterned(n));
  ASSERT_EQ(1, vxcli_rx_broker_read_batch(&cursor, out.data(), 100, &count, 0));
  ASSERT_EQ(100u, count);
  ASSERT_EQ(1, vxcli_rx_broker_read_batch(&cursor, out.data() + 100, 100, &count, -1));
  ASSERT_EQ(50u, count);
  for (uint64_t n = 1; n <= 150; ++n) {
    EXPECT_EQ(n, out[n - 1].sequence);
    EXPECT_TRUE(brokertest::is_patterned(out[n - 1]));
  }
  vxcli_rx_consumer_stats cs{};
  ASSERT_EQ(0, vxcli_rx_broker_consumer_at(7, 0, &cs));
  EXPECT_EQ(150u, cs.delivered);

  // An overrun ends a batch; with nothing read its code is the result.
  for (uint64_t n = 151; n <= 500; ++n) publish(7, patterned(n));
  EXPECT_EQ(2, vxcli_rx_broker_read_batch(&cursor, out.data(), 200, &count, 0));
  EXPECT_EQ(0u, count);
  EXPECT_EQ(94u, cursor.lost);  // wanted 151, oldest is 245
  ASSERT_EQ(1, vxcli_rx_broker_read_batch(&cursor, out.data(), 200, &count, 0));
  EXPECT_EQ(200u, count);
  EXPECT_EQ(245u, out[0].sequence);
  ASSERT_EQ(0, vxcli_rx_broker_detach(7));
  EXPECT_EQ(-2, vxcli_rx_broker_read_batch(&cursor, out.data(), 200, &count, 0));
}

TEST_F(BrokerTest, ExclusiveWithoutWorker) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(8, 0, 0, 4));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(8, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(8, 0));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_begin(8, 20));  // waits for the holder, gives up
  EXPECT_EQ(1u, stats(8).exclusive_active);               // the holder keeps it
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_end(8));
  EXPECT_EQ(-1, vxcli_rx_broker_exclusive_end(8));
  ASSERT_EQ(0, vxcli_rx_broker_exclusive_begin(8, 0));

  // Detach ends exclusive mode with everything else.
  ASSERT_EQ(0, vxcli_rx_broker_detach(8));
  ASSERT_EQ(0, vxcli_rx_broker_attach(8, 0, 0, 4));
  EXPECT_EQ(0u, stats(8).exclusive_active);
  EXPECT_EQ(0, vxcli_rx_broker_exclusive_begin(8, 0));
}

TEST_F(BrokerTest, ShutdownAndRestart) {
  ASSERT_EQ(0, vxcli_rx_broker_attach(9, 0, 0, 4));
  vxcli_rx_cursor cursor{};
  ASSERT_EQ(0, vxcli_rx_broker_cursor_open(9, 1, &cursor));
  const uint64_t epoch = stats(9).epoch;
  vxcli_rx_broker_shutdown();
  vxcli_rx_record r{};
  EXPECT_EQ(-1, vxcli_rx_broker_read(&cursor, &r, 0));
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(9));
  ASSERT_EQ(0, vxcli_rx_broker_init());
  EXPECT_EQ(0, vxcli_rx_broker_is_attached(9));
  EXPECT_EQ(0u, vxcli_rx_broker_consumer_count(9));
  ASSERT_EQ(0, vxcli_rx_broker_attach(9, 0, 0, 4));
  EXPECT_GT(stats(9).epoch, epoch);  // epochs are never reused in a process
}

}  // namespace
