// Receive broker: fans each daemon channel's received messages out to any
// number of readers.
//
// The device library hands out every received message once, so inside the
// daemon only the broker reads a channel. Per channel slot (0..31) it keeps a
// bounded ring filled by one worker thread; each reader owns a cursor into the
// ring. A reader that falls behind loses the oldest records and is told how
// many; it never slows the worker or the other readers down.
//
// Every function is thread-safe. Each channel has its own lock; no call holds
// two of them, and none calls out of the broker while holding one, so callers
// may hold their own locks (the daemon's command lock) around any call.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vxapi.h"

inline constexpr uint32_t VXCLI_RX_CHANNELS = 32;
inline constexpr uint32_t VXCLI_RX_CONSUMERS = 32;          // open cursors per channel
inline constexpr uint64_t VXCLI_RX_DEFAULT_CAPACITY = 8192;  // records; attach with 0
inline constexpr size_t VXCLI_RX_NAME_SIZE = 48;

// One received message as stored in the ring and handed to readers.
struct vxcli_rx_record {
  VXMessage message;     // exactly as VX_Read returned it
  uint64_t sequence;     // 1, 2, ... within an epoch
  uint64_t timestamp64;  // (32-bit wrap count << 32) | timestamp
  uint64_t epoch;        // channel epoch at publish time
  uint32_t channel;      // broker channel 0..31
  uint32_t reserved;
};
static_assert(sizeof(vxcli_rx_record) == 128, "broker records are 128 bytes");

// All zero admits everything.
struct vxcli_rx_filter {
  uint32_t type_mask;      // bit n admits message type n (VX_MSG_TYPE_*); 0 = every type
  uint32_t direction;      // 0 any, 1 received only, 2 own transmissions (VX_MSG_TX) only
  uint32_t range_enabled;  // non-zero: identifier must lie in [range_low, range_high]
  uint32_t range_low;
  uint32_t range_high;
  uint32_t mask;  // non-zero: ((id ^ value) & mask) must be 0
  uint32_t value;
};

// A reader's position in one channel. Owned by the reader; the broker only
// touches it inside calls that receive it.
struct vxcli_rx_cursor {
  int32_t channel;
  int32_t consumer_index;  // -1 once closed
  uint32_t token;          // 0 once closed
  uint64_t position;       // sequence number of the next record to look at
  uint64_t epoch;
  uint64_t overruns;       // times found behind the ring
  uint64_t lost;           // records skipped by overruns
  uint64_t delivered;
  uint64_t filtered;
  uint64_t last_sequence;  // of the last delivered record
  vxcli_rx_filter filter;
};

struct vxcli_rx_channel_stats {
  uint64_t epoch;
  uint64_t oldest;
  uint64_t head;
  uint64_t published;
  uint64_t overwritten;
  uint64_t read_errors;
  uint64_t exclusive_sessions;
  uint64_t buffered_records;
  uint64_t buffered_bytes;
  uint64_t capacity_bytes;
  uint64_t oldest_timestamp64;
  uint64_t newest_timestamp64;
  uint64_t timestamp_span;
  uint64_t capacity_records;
  uint64_t active_consumers;
  uint32_t attached;
  uint32_t exclusive_active;
};

struct vxcli_rx_consumer_stats {
  char name[VXCLI_RX_NAME_SIZE];
  uint32_t channel;
  uint64_t epoch;
  uint64_t position;
  uint64_t channel_oldest;
  uint64_t channel_newest;
  uint64_t pending;    // records published at or after the position
  uint64_t available;  // of those, still in the ring
  uint64_t behind;     // records already lost to the next read
  uint64_t delivered;
  uint64_t filtered;
  uint64_t overruns;
  uint64_t lost;
  uint64_t last_sequence;
  uint32_t active;
};

// Read results.
enum : int {
  VXCLI_RX_READ_NONE = 0,
  VXCLI_RX_READ_RECORD = 1,
  VXCLI_RX_READ_OVERRUN = 2,  // cursor was behind; moved to the oldest record
  VXCLI_RX_READ_RESET = 3,    // channel restarted (re-attach, exclusive end)
  VXCLI_RX_READ_ERROR = -1,
  VXCLI_RX_READ_DETACHED = -2,
};

int vxcli_rx_broker_init();
void vxcli_rx_broker_shutdown();

// Starts a worker thread that drains the device when both handles are given;
// otherwise the caller publishes the channel's messages itself. Re-attaching
// an attached channel detaches it first. capacity 0 means the default.
int vxcli_rx_broker_attach(int channel, VXHandle device, VXNotifyHandle notification,
                           uint64_t capacity);
int vxcli_rx_broker_detach(int channel);
int vxcli_rx_broker_is_attached(int channel);

int vxcli_rx_broker_publish(int channel, const VXMessage* message);

// from_oldest non-zero: start at the retained history; otherwise at the next
// record published. Name null or empty means "anonymous"; filter null admits all.
int vxcli_rx_broker_cursor_open_named(int channel, int from_oldest, const char* name,
                                      const vxcli_rx_filter* filter, vxcli_rx_cursor* cursor);
int vxcli_rx_broker_cursor_open(int channel, int from_oldest, vxcli_rx_cursor* cursor);
void vxcli_rx_broker_cursor_close(vxcli_rx_cursor* cursor);

// timeout_ms 0 polls, > 0 waits at most that long, < 0 waits without limit.
// Returns one of VXCLI_RX_READ_*.
int vxcli_rx_broker_read(vxcli_rx_cursor* cursor, vxcli_rx_record* record, int timeout_ms);
// Up to max_records; only the first waits. 1 when any record was read,
// otherwise the result that stopped it.
int vxcli_rx_broker_read_batch(vxcli_rx_cursor* cursor, vxcli_rx_record* records,
                               size_t max_records, size_t* count, int timeout_ms);

int vxcli_rx_broker_stats(int channel, vxcli_rx_channel_stats* out);
// The cursor's own view; name and active come from its consumer entry while
// that entry still belongs to it (empty and 0 after close or re-attach).
int vxcli_rx_broker_consumer_stats(const vxcli_rx_cursor* cursor, vxcli_rx_consumer_stats* out);
uint32_t vxcli_rx_broker_consumer_count(int channel);
// The n-th open cursor of the channel, in consumer-entry order.
int vxcli_rx_broker_consumer_at(int channel, uint32_t n, vxcli_rx_consumer_stats* out);

// Sole use of the device channel: the worker stops reading until end. While
// another caller holds it, begin waits up to timeout_ms and fails. End flushes
// the ring; every cursor's next read reports a reset.
int vxcli_rx_broker_exclusive_begin(int channel, int timeout_ms);
int vxcli_rx_broker_exclusive_end(int channel);

void vxcli_rx_filter_init(vxcli_rx_filter* filter);
int vxcli_rx_filter_matches(const vxcli_rx_filter* filter, const vxcli_rx_record* record);

// The two device-library calls a worker makes. Tests install a scripted
// device here before attaching; null restores the device library.
struct vxcli_rx_device_ops {
  VXStatus (*wait)(VXNotifyHandle notification, uint32_t timeout_ms);
  VXStatus (*read)(VXHandle device, VXMessage* message);  // never waits
};
void vxcli_rx_broker_set_device_ops(const vxcli_rx_device_ops* ops);
