#include "daemon/rx_broker.h"

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>

namespace {

constexpr int kWorkerSliceMs = 50;
constexpr size_t kBatchChunk = 64;  // records copied per lock hold in a batch read
// Messages the worker reads before publishing them under one lock hold with
// one wake-up, so that many readers are not woken once per frame.
constexpr int kDrainBatch = 32;

struct ConsumerEntry {
  char name[VXCLI_RX_NAME_SIZE];
  uint32_t token;
  uint64_t epoch;
  uint64_t position;
  uint64_t delivered;
  uint64_t filtered;
  uint64_t overruns;
  uint64_t lost;
  uint64_t last_sequence;
  bool active;
};

// Every field is guarded by the channel's mutex in g_locks.
struct BrokerChannel {
  vxcli_rx_record* ring;
  uint64_t capacity;
  VXHandle device;
  VXNotifyHandle notification;
  uint64_t epoch;
  uint64_t oldest;  // sequence of the oldest record in the ring
  uint64_t head;    // sequence the next record gets
  uint64_t published;
  uint64_t overwritten;
  uint64_t read_errors;
  uint64_t exclusive_sessions;
  uint64_t timestamp_wraps;
  uint32_t last_timestamp;
  uint32_t next_token;
  ConsumerEntry consumers[VXCLI_RX_CONSUMERS];
  bool have_last_timestamp;
  bool attached;
  bool stop;
  bool exclusive_requested;
  bool reader_paused;
  bool exclusive_active;
  pthread_t worker;
  bool worker_running;
};

struct ChannelLocks {
  pthread_mutex_t mutex;
  pthread_cond_t cond;  // on the monotonic clock
  // Serialises attach and detach of one channel, so that exactly one caller
  // joins a worker and frees a ring. Taken before the mutex, never inside it.
  std::mutex lifecycle;
};

BrokerChannel g_rx_channels[VXCLI_RX_CHANNELS];
ChannelLocks g_locks[VXCLI_RX_CHANNELS];
// Epochs are unique across channels and never reused, so a cursor can tell
// any restart of its channel from a plain comparison.
std::atomic<uint64_t> g_next_epoch{1};
std::atomic<bool> g_initialised{false};
std::mutex g_init_mutex;
// The mutexes and conditions outlive shutdown: a receive thread may still be
// inside a read of a channel when the daemon shuts the broker down.
bool g_locks_created = false;

std::atomic<const vxcli_rx_device_ops*> g_device_ops{nullptr};

// --- Device access: the only place that calls the device library. ---

VXStatus library_wait(VXNotifyHandle notification, uint32_t timeout_ms) {
  return VX_WaitForNotifications(&notification, 1, timeout_ms);
}

VXStatus library_read(VXHandle device, VXMessage* message) {
  return VX_Read(device, message, 0, nullptr);
}

const vxcli_rx_device_ops kLibraryOps = {library_wait, library_read};

const vxcli_rx_device_ops& device_ops() {
  const vxcli_rx_device_ops* ops = g_device_ops.load(std::memory_order_acquire);
  return ops != nullptr ? *ops : kLibraryOps;
}

// --- Locking and time. ---

bool valid_channel(int channel) {
  return channel >= 0 && channel < static_cast<int>(VXCLI_RX_CHANNELS);
}

bool usable(int channel) {
  return g_initialised.load(std::memory_order_acquire) && valid_channel(channel);
}

class ChannelGuard {
 public:
  explicit ChannelGuard(int channel) : mutex_(&g_locks[channel].mutex) {
    pthread_mutex_lock(mutex_);
  }
  ~ChannelGuard() { pthread_mutex_unlock(mutex_); }
  ChannelGuard(const ChannelGuard&) = delete;
  ChannelGuard& operator=(const ChannelGuard&) = delete;

 private:
  pthread_mutex_t* mutex_;
};

int64_t monotonic_ms() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Waits on the channel's condition (mutex held) until woken or until the
// monotonic deadline in ms; a negative deadline waits without limit.
// Returns 0 on a wake-up, ETIMEDOUT, or another pthread error.
int wait_until(int channel, int64_t deadline_ms) {
  ChannelLocks& locks = g_locks[channel];
  if (deadline_ms < 0) return pthread_cond_wait(&locks.cond, &locks.mutex);
  timespec ts{};
  ts.tv_sec = static_cast<time_t>(deadline_ms / 1000);
  ts.tv_nsec = static_cast<long>(deadline_ms % 1000) * 1000000;
  return pthread_cond_timedwait(&locks.cond, &locks.mutex, &ts);
}

void broadcast(int channel) { pthread_cond_broadcast(&g_locks[channel].cond); }

uint64_t take_epoch() { return g_next_epoch.fetch_add(1, std::memory_order_relaxed); }

bool create_locks() {
  for (uint32_t i = 0; i < VXCLI_RX_CHANNELS; ++i) {
    pthread_condattr_t attr;
    bool ok = pthread_condattr_init(&attr) == 0;
    ok = ok && pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0;
    if (ok && pthread_mutex_init(&g_locks[i].mutex, nullptr) != 0) {
      pthread_condattr_destroy(&attr);
      ok = false;
    } else if (ok && pthread_cond_init(&g_locks[i].cond, &attr) != 0) {
      pthread_mutex_destroy(&g_locks[i].mutex);
      pthread_condattr_destroy(&attr);
      ok = false;
    } else if (ok) {
      pthread_condattr_destroy(&attr);
    }
    if (!ok) {
      for (uint32_t j = 0; j < i; ++j) {
        pthread_cond_destroy(&g_locks[j].cond);
        pthread_mutex_destroy(&g_locks[j].mutex);
      }
      return false;
    }
  }
  return true;
}

// --- Records. ---

// Channel mutex held. The caller wakes the readers.
int publish_locked(int channel, BrokerChannel& ch, const VXMessage& message) {
  if (!ch.attached || ch.ring == nullptr) return -1;
  const uint64_t sequence = ch.head++;
  vxcli_rx_record& record = ch.ring[(sequence - 1) % ch.capacity];
  record.message = message;
  record.sequence = sequence;

  // The device's 32-bit timestamp wraps; a jump backwards by more than half
  // the range is a wrap, a small step backwards is only jitter.
  const uint32_t t = message.timestamp;
  if (ch.have_last_timestamp && t < ch.last_timestamp &&
      static_cast<uint32_t>(ch.last_timestamp - t) > 0x80000000u)
    ch.timestamp_wraps += 1;
  ch.last_timestamp = t;
  ch.have_last_timestamp = true;
  record.timestamp64 = (ch.timestamp_wraps << 32) | t;
  record.epoch = ch.epoch;
  record.channel = static_cast<uint32_t>(channel);
  record.reserved = 0;

  ch.published += 1;
  if (ch.head - ch.oldest > ch.capacity) {
    ch.overwritten += 1;
    ch.oldest += 1;
  }
  return 0;
}

// Channel mutex held. Copies the cursor's state into its consumer entry while
// that entry still belongs to it.
void mirror_cursor(BrokerChannel& ch, const vxcli_rx_cursor& cursor) {
  if (cursor.consumer_index < 0 || cursor.consumer_index >= static_cast<int>(VXCLI_RX_CONSUMERS))
    return;
  ConsumerEntry& entry = ch.consumers[cursor.consumer_index];
  if (!entry.active || entry.token != cursor.token) return;
  entry.epoch = cursor.epoch;
  entry.position = cursor.position;
  entry.delivered = cursor.delivered;
  entry.filtered = cursor.filtered;
  entry.overruns = cursor.overruns;
  entry.lost = cursor.lost;
  entry.last_sequence = cursor.last_sequence;
}

// One read with the channel mutex held. deadline_ms: 0 polls, negative waits
// without limit, otherwise the monotonic deadline.
int read_locked(int channel, vxcli_rx_cursor& cursor, vxcli_rx_record* out, int64_t deadline_ms) {
  BrokerChannel& ch = g_rx_channels[channel];
  if (!ch.attached) return VXCLI_RX_READ_DETACHED;
  for (;;) {
    if (cursor.epoch != ch.epoch) {
      cursor.epoch = ch.epoch;
      cursor.position = ch.oldest;
      return VXCLI_RX_READ_RESET;
    }
    if (cursor.position < ch.oldest) {
      cursor.overruns += 1;
      cursor.lost += ch.oldest - cursor.position;
      cursor.position = ch.oldest;
      return VXCLI_RX_READ_OVERRUN;
    }
    if (cursor.position >= ch.head) {
      if (deadline_ms == 0 || (deadline_ms > 0 && monotonic_ms() >= deadline_ms))
        return VXCLI_RX_READ_NONE;
      const int rc = wait_until(channel, deadline_ms);
      if (rc != 0 && rc != ETIMEDOUT) return VXCLI_RX_READ_ERROR;
      if (!ch.attached) return VXCLI_RX_READ_DETACHED;
      continue;  // a timed-out wait ends at the deadline check above
    }
    const vxcli_rx_record& record = ch.ring[(cursor.position - 1) % ch.capacity];
    if (record.sequence != cursor.position) {
      // Overwritten under the cursor; how many is unknown here.
      cursor.overruns += 1;
      cursor.position = ch.oldest;
      return VXCLI_RX_READ_OVERRUN;
    }
    cursor.position += 1;
    if (vxcli_rx_filter_matches(&cursor.filter, &record)) {
      *out = record;
      cursor.delivered += 1;
      cursor.last_sequence = record.sequence;
      return VXCLI_RX_READ_RECORD;
    }
    cursor.filtered += 1;
  }
}

int64_t deadline_for(int timeout_ms) {
  if (timeout_ms == 0) return 0;
  if (timeout_ms < 0) return -1;
  return monotonic_ms() + timeout_ms;
}

// --- Attach, detach and the worker. ---

void* worker_main(void* arg);

// Lifecycle lock held.
void detach_channel(int channel) {
  BrokerChannel& ch = g_rx_channels[channel];
  pthread_t worker{};
  bool join = false;
  {
    ChannelGuard guard(channel);
    ch.stop = true;
    broadcast(channel);
    join = ch.worker_running;
    worker = ch.worker;
  }
  if (join) pthread_join(worker, nullptr);
  vxcli_rx_record* ring = nullptr;
  {
    ChannelGuard guard(channel);
    ch.worker_running = false;
    ring = ch.ring;
    ch.ring = nullptr;
    ch.capacity = 0;
    ch.attached = false;
    ch.device = nullptr;
    ch.notification = 0;
    ch.exclusive_requested = false;
    ch.reader_paused = false;
    ch.exclusive_active = false;
    ch.epoch = take_epoch();
    broadcast(channel);
  }
  std::free(ring);
}

void* worker_main(void* arg) {
  const int channel = static_cast<int>(reinterpret_cast<intptr_t>(arg));
  BrokerChannel& ch = g_rx_channels[channel];
  const vxcli_rx_device_ops& ops = device_ops();
  VXMessage batch[kDrainBatch];
  for (;;) {
    VXHandle device = nullptr;
    VXNotifyHandle notification = 0;
    bool stopping = false;
    {
      ChannelGuard guard(channel);
      if (ch.exclusive_requested && !ch.stop) {
        ch.reader_paused = true;
        broadcast(channel);
        // Short slices, so that a stop is seen even if nobody broadcasts.
        while (ch.exclusive_requested && !ch.stop)
          wait_until(channel, monotonic_ms() + kWorkerSliceMs);
        ch.reader_paused = false;
        broadcast(channel);
      }
      stopping = ch.stop;
      device = ch.device;
      notification = ch.notification;
    }
    if (stopping || device == nullptr || notification == 0) break;

    const VXStatus waited = ops.wait(notification, kWorkerSliceMs);

    bool exclusive = false;
    {
      ChannelGuard guard(channel);
      stopping = ch.stop;
      exclusive = ch.exclusive_requested;
    }
    if (stopping) break;

    VXStatus status = VX_OK;
    uint64_t drained = 0;
    while (!exclusive && status == VX_OK) {
      int n = 0;
      while (n < kDrainBatch && (status = ops.read(device, &batch[n])) == VX_OK) ++n;
      if (n == 0) break;
      ChannelGuard guard(channel);
      for (int i = 0; i < n; ++i) publish_locked(channel, ch, batch[i]);
      broadcast(channel);
      drained += static_cast<uint64_t>(n);
      if (ch.stop) return nullptr;
      exclusive = ch.exclusive_requested;
    }
    // An empty queue is how every drain ends; anything else is a read error.
    // (A drain left for an exclusive request ended on a successful read.)
    const bool read_failed = (status & ~VX_ERR_QUEUE_EMPTY) != 0;
    const bool wait_failed = (waited & ~VX_ERR_QUEUE_EMPTY) != 0;
    ChannelGuard guard(channel);
    if (read_failed) ch.read_errors += 1;
    // A device that fails at once (unplugged, descriptor gone) would turn
    // this loop into a busy spin; rest for a slice unless asked to stop.
    if ((read_failed || wait_failed) && drained == 0 && !ch.stop && !ch.exclusive_requested)
      wait_until(channel, monotonic_ms() + kWorkerSliceMs);
  }
  return nullptr;
}

void fill_consumer_stats(const BrokerChannel& ch, int channel, vxcli_rx_consumer_stats* out,
                         uint64_t epoch, uint64_t position) {
  out->channel = static_cast<uint32_t>(channel);
  out->epoch = epoch;
  out->position = position;
  out->channel_oldest = ch.oldest;
  out->channel_newest = ch.head == 0 ? 0 : ch.head - 1;
  out->pending = position < ch.head ? ch.head - position : 0;
  const uint64_t from = position > ch.oldest ? position : ch.oldest;
  out->available = ch.head > from ? ch.head - from : 0;
  out->behind = position < ch.oldest ? ch.oldest - position : 0;
}

void copy_name(char* dst, const char* name) {
  if (name == nullptr || name[0] == '\0') name = "anonymous";
  std::strncpy(dst, name, VXCLI_RX_NAME_SIZE - 1);
  dst[VXCLI_RX_NAME_SIZE - 1] = '\0';
}

}  // namespace

int vxcli_rx_broker_init() {
  std::lock_guard<std::mutex> init_lock(g_init_mutex);
  if (g_initialised.load(std::memory_order_acquire)) return 0;
  if (!g_locks_created) {
    if (!create_locks()) return -1;
    g_locks_created = true;
  }
  for (uint32_t i = 0; i < VXCLI_RX_CHANNELS; ++i) {
    ChannelGuard guard(static_cast<int>(i));
    g_rx_channels[i] = BrokerChannel{};
  }
  g_initialised.store(true, std::memory_order_release);
  return 0;
}

void vxcli_rx_broker_shutdown() {
  std::lock_guard<std::mutex> init_lock(g_init_mutex);
  if (!g_initialised.exchange(false, std::memory_order_acq_rel)) return;
  for (uint32_t i = 0; i < VXCLI_RX_CHANNELS; ++i) {
    const int channel = static_cast<int>(i);
    std::lock_guard<std::mutex> lifecycle(g_locks[i].lifecycle);
    detach_channel(channel);
    ChannelGuard guard(channel);
    g_rx_channels[i] = BrokerChannel{};
    broadcast(channel);
  }
}

int vxcli_rx_broker_attach(int channel, VXHandle device, VXNotifyHandle notification,
                           uint64_t capacity) {
  if (!usable(channel)) return -1;
  if (capacity == 0) capacity = VXCLI_RX_DEFAULT_CAPACITY;
  if (capacity > SIZE_MAX / sizeof(vxcli_rx_record)) return -1;
  auto* ring = static_cast<vxcli_rx_record*>(std::calloc(capacity, sizeof(vxcli_rx_record)));
  if (ring == nullptr) return -1;

  std::lock_guard<std::mutex> lifecycle(g_locks[channel].lifecycle);
  if (!g_initialised.load(std::memory_order_acquire)) {  // shut down meanwhile
    std::free(ring);
    return -1;
  }
  detach_channel(channel);
  BrokerChannel& ch = g_rx_channels[channel];
  const bool with_worker = device != nullptr && notification != 0;
  {
    ChannelGuard guard(channel);
    ch.ring = ring;
    ch.capacity = capacity;
    ch.device = device;
    ch.notification = notification;
    ch.epoch = take_epoch();
    ch.oldest = 1;
    ch.head = 1;
    ch.published = 0;
    ch.overwritten = 0;
    ch.read_errors = 0;
    ch.exclusive_sessions = 0;
    ch.timestamp_wraps = 0;
    ch.last_timestamp = 0;
    ch.have_last_timestamp = false;
    for (ConsumerEntry& entry : ch.consumers) entry = ConsumerEntry{};
    if (ch.next_token == 0) ch.next_token = 1;
    ch.stop = false;
    ch.exclusive_requested = false;
    ch.reader_paused = false;
    ch.exclusive_active = false;
    // Set before the thread exists so that an exclusive request made right
    // away waits for the worker's acknowledgement.
    ch.worker_running = with_worker;
    ch.attached = true;
  }
  if (!with_worker) return 0;

  pthread_t worker{};
  if (pthread_create(&worker, nullptr, worker_main,
                     reinterpret_cast<void*>(static_cast<intptr_t>(channel))) != 0) {
    {
      ChannelGuard guard(channel);
      ch.worker_running = false;
    }
    detach_channel(channel);
    return -1;
  }
  ChannelGuard guard(channel);
  ch.worker = worker;
  return 0;
}

int vxcli_rx_broker_detach(int channel) {
  if (!usable(channel)) return -1;
  std::lock_guard<std::mutex> lifecycle(g_locks[channel].lifecycle);
  detach_channel(channel);
  return 0;
}

int vxcli_rx_broker_is_attached(int channel) {
  if (!usable(channel)) return 0;
  ChannelGuard guard(channel);
  return g_rx_channels[channel].attached ? 1 : 0;
}

int vxcli_rx_broker_publish(int channel, const VXMessage* message) {
  if (!usable(channel) || message == nullptr) return -1;
  ChannelGuard guard(channel);
  const int rc = publish_locked(channel, g_rx_channels[channel], *message);
  if (rc == 0) broadcast(channel);
  return rc;
}

int vxcli_rx_broker_cursor_open_named(int channel, int from_oldest, const char* name,
                                      const vxcli_rx_filter* filter, vxcli_rx_cursor* cursor) {
  if (cursor == nullptr || !usable(channel)) return -1;
  BrokerChannel& ch = g_rx_channels[channel];
  ChannelGuard guard(channel);
  if (!ch.attached) return -1;
  int index = -1;
  for (uint32_t i = 0; i < VXCLI_RX_CONSUMERS; ++i) {
    if (!ch.consumers[i].active) {
      index = static_cast<int>(i);
      break;
    }
  }
  if (index < 0) return -1;

  *cursor = vxcli_rx_cursor{};
  cursor->channel = channel;
  cursor->consumer_index = index;
  // Tokens tell a reopened entry from the cursor that held it before; 0 marks
  // a closed cursor, so it is skipped.
  cursor->token = ch.next_token++;
  if (cursor->token == 0) {
    cursor->token = 1;
    ch.next_token = 2;
  }
  cursor->epoch = ch.epoch;
  cursor->position = from_oldest ? ch.oldest : ch.head;
  if (filter != nullptr) cursor->filter = *filter;

  ConsumerEntry& entry = ch.consumers[index];
  entry = ConsumerEntry{};
  copy_name(entry.name, name);
  entry.token = cursor->token;
  entry.epoch = cursor->epoch;
  entry.position = cursor->position;
  entry.active = true;
  return 0;
}

int vxcli_rx_broker_cursor_open(int channel, int from_oldest, vxcli_rx_cursor* cursor) {
  return vxcli_rx_broker_cursor_open_named(channel, from_oldest, "anonymous", nullptr, cursor);
}

void vxcli_rx_broker_cursor_close(vxcli_rx_cursor* cursor) {
  if (cursor == nullptr) return;
  if (usable(cursor->channel) && cursor->consumer_index >= 0 &&
      cursor->consumer_index < static_cast<int>(VXCLI_RX_CONSUMERS)) {
    ChannelGuard guard(cursor->channel);
    ConsumerEntry& entry = g_rx_channels[cursor->channel].consumers[cursor->consumer_index];
    if (entry.active && entry.token == cursor->token) entry = ConsumerEntry{};
  }
  cursor->consumer_index = -1;
  cursor->token = 0;
}

int vxcli_rx_broker_read(vxcli_rx_cursor* cursor, vxcli_rx_record* record, int timeout_ms) {
  if (cursor == nullptr || record == nullptr || !usable(cursor->channel))
    return VXCLI_RX_READ_ERROR;
  const int channel = cursor->channel;
  const int64_t deadline = deadline_for(timeout_ms);
  ChannelGuard guard(channel);
  BrokerChannel& ch = g_rx_channels[channel];
  const int result = read_locked(channel, *cursor, record, deadline);
  mirror_cursor(ch, *cursor);
  return result;
}

int vxcli_rx_broker_read_batch(vxcli_rx_cursor* cursor, vxcli_rx_record* records,
                               size_t max_records, size_t* count, int timeout_ms) {
  if (count == nullptr) return VXCLI_RX_READ_ERROR;
  *count = 0;
  if (cursor == nullptr || records == nullptr || max_records == 0 || !usable(cursor->channel))
    return VXCLI_RX_READ_ERROR;
  const int channel = cursor->channel;
  BrokerChannel& ch = g_rx_channels[channel];
  int64_t deadline = deadline_for(timeout_ms);
  int result = VXCLI_RX_READ_RECORD;
  size_t n = 0;
  // Chunks bound how long a large batch keeps the worker from publishing.
  while (n < max_records && result == VXCLI_RX_READ_RECORD) {
    ChannelGuard guard(channel);
    const size_t chunk_end = max_records - n > kBatchChunk ? n + kBatchChunk : max_records;
    if (!ch.attached) {
      result = VXCLI_RX_READ_DETACHED;
      break;
    }
    while (n < chunk_end) {
      result = read_locked(channel, *cursor, &records[n], deadline);
      if (result != VXCLI_RX_READ_RECORD) break;
      ++n;
      deadline = 0;  // only the first record is waited for
    }
    mirror_cursor(ch, *cursor);
  }
  *count = n;
  return n > 0 ? VXCLI_RX_READ_RECORD : result;
}

int vxcli_rx_broker_stats(int channel, vxcli_rx_channel_stats* out) {
  if (out == nullptr || !usable(channel)) return -1;
  const BrokerChannel& ch = g_rx_channels[channel];
  ChannelGuard guard(channel);
  *out = vxcli_rx_channel_stats{};
  out->epoch = ch.epoch;
  out->oldest = ch.oldest;
  out->head = ch.head;
  out->published = ch.published;
  out->overwritten = ch.overwritten;
  out->read_errors = ch.read_errors;
  out->exclusive_sessions = ch.exclusive_sessions;
  out->buffered_records = ch.head - ch.oldest;
  out->buffered_bytes = out->buffered_records * sizeof(vxcli_rx_record);
  out->capacity_bytes = ch.capacity * sizeof(vxcli_rx_record);
  if (ch.ring != nullptr && ch.head > ch.oldest) {
    out->oldest_timestamp64 = ch.ring[(ch.oldest - 1) % ch.capacity].timestamp64;
    out->newest_timestamp64 = ch.ring[(ch.head - 2) % ch.capacity].timestamp64;
  }
  if (out->newest_timestamp64 >= out->oldest_timestamp64)
    out->timestamp_span = out->newest_timestamp64 - out->oldest_timestamp64;
  out->capacity_records = ch.capacity;
  for (const ConsumerEntry& entry : ch.consumers) out->active_consumers += entry.active ? 1 : 0;
  out->attached = ch.attached ? 1 : 0;
  out->exclusive_active = ch.exclusive_active ? 1 : 0;
  return 0;
}

int vxcli_rx_broker_consumer_stats(const vxcli_rx_cursor* cursor, vxcli_rx_consumer_stats* out) {
  if (cursor == nullptr || out == nullptr || !usable(cursor->channel)) return -1;
  const int channel = cursor->channel;
  const BrokerChannel& ch = g_rx_channels[channel];
  ChannelGuard guard(channel);
  *out = vxcli_rx_consumer_stats{};
  fill_consumer_stats(ch, channel, out, cursor->epoch, cursor->position);
  out->delivered = cursor->delivered;
  out->filtered = cursor->filtered;
  out->overruns = cursor->overruns;
  out->lost = cursor->lost;
  out->last_sequence = cursor->last_sequence;
  if (cursor->consumer_index >= 0 && cursor->consumer_index < static_cast<int>(VXCLI_RX_CONSUMERS)) {
    const ConsumerEntry& entry = ch.consumers[cursor->consumer_index];
    if (entry.active && entry.token == cursor->token) {
      std::memcpy(out->name, entry.name, sizeof out->name);
      out->active = 1;
    }
  }
  return 0;
}

uint32_t vxcli_rx_broker_consumer_count(int channel) {
  if (!usable(channel)) return 0;
  ChannelGuard guard(channel);
  uint32_t n = 0;
  for (const ConsumerEntry& entry : g_rx_channels[channel].consumers) n += entry.active ? 1 : 0;
  return n;
}

int vxcli_rx_broker_consumer_at(int channel, uint32_t n, vxcli_rx_consumer_stats* out) {
  if (out == nullptr || !usable(channel)) return -1;
  const BrokerChannel& ch = g_rx_channels[channel];
  ChannelGuard guard(channel);
  for (const ConsumerEntry& entry : ch.consumers) {
    if (!entry.active) continue;
    if (n-- > 0) continue;
    *out = vxcli_rx_consumer_stats{};
    std::memcpy(out->name, entry.name, sizeof out->name);
    fill_consumer_stats(ch, channel, out, entry.epoch, entry.position);
    out->delivered = entry.delivered;
    out->filtered = entry.filtered;
    out->overruns = entry.overruns;
    out->lost = entry.lost;
    out->last_sequence = entry.last_sequence;
    out->active = 1;
    return 0;
  }
  return -1;
}

int vxcli_rx_broker_exclusive_begin(int channel, int timeout_ms) {
  if (!usable(channel) || timeout_ms < 0) return -1;
  const int64_t deadline = monotonic_ms() + timeout_ms;
  BrokerChannel& ch = g_rx_channels[channel];
  ChannelGuard guard(channel);
  bool posted = false;
  uint64_t posted_epoch = 0;
  for (;;) {
    if (!ch.attached || ch.stop) return -1;
    if (posted && ch.epoch != posted_epoch) return -1;  // re-attached: our request is gone
    if (!posted && !ch.exclusive_requested && !ch.exclusive_active) {
      ch.exclusive_requested = true;
      if (!ch.worker_running) ch.reader_paused = true;
      broadcast(channel);
      posted = true;
      posted_epoch = ch.epoch;
    }
    if (posted && ch.reader_paused && !ch.exclusive_active) {
      ch.exclusive_active = true;
      return 0;
    }
    if (monotonic_ms() >= deadline) break;
    // Woken by the worker's acknowledgement or by the other holder's end.
    const int rc = wait_until(channel, deadline);
    if (rc != 0 && rc != ETIMEDOUT) break;
  }
  if (!posted || ch.exclusive_active || ch.epoch != posted_epoch) return -1;
  ch.exclusive_requested = false;
  if (!ch.worker_running) ch.reader_paused = false;
  broadcast(channel);
  return -1;
}

int vxcli_rx_broker_exclusive_end(int channel) {
  if (!usable(channel)) return -1;
  BrokerChannel& ch = g_rx_channels[channel];
  ChannelGuard guard(channel);
  if (!ch.attached || !ch.exclusive_active) return -1;
  ch.exclusive_sessions += 1;
  // The holder may have read from the device directly: start afresh.
  ch.oldest = 1;
  ch.head = 1;
  ch.epoch = take_epoch();
  ch.exclusive_active = false;
  ch.exclusive_requested = false;
  ch.timestamp_wraps = 0;
  ch.last_timestamp = 0;
  ch.have_last_timestamp = false;
  if (!ch.worker_running) ch.reader_paused = false;  // a worker clears it when it resumes
  broadcast(channel);
  return 0;
}

void vxcli_rx_filter_init(vxcli_rx_filter* filter) {
  if (filter != nullptr) *filter = vxcli_rx_filter{};
}

int vxcli_rx_filter_matches(const vxcli_rx_filter* filter, const vxcli_rx_record* record) {
  if (record == nullptr) return 0;
  if (filter == nullptr) return 1;
  const VXMessage& msg = record->message;
  const uint32_t type = msg.header & VX_MSG_TYPE_MASK;
  const bool transmitted = (msg.header & VX_MSG_TX) != 0;
  if (filter->type_mask != 0 && (filter->type_mask & (1u << type)) == 0) return 0;
  if (filter->direction == 1 && transmitted) return 0;
  if (filter->direction == 2 && !transmitted) return 0;
  if (!filter->range_enabled && filter->mask == 0) return 1;

  uint32_t id = 0;
  if (type == VX_MSG_TYPE_CAN) {
    if (msg.length < 8) return 0;
    const uint32_t standard = msg.id & VX_ID_STD_MASK;
    id = standard;
    if (msg.control & VX_CTRL_IDE)
      id = (standard << 18) | ((msg.id >> VX_ID_EXT_SHIFT) & VX_ID_EXT_MASK);
  } else if (type == VX_MSG_TYPE_LIN) {
    if (msg.length == 0) return 0;
    id = msg.id & 0xFFu;  // the first payload byte
  } else {
    return 0;
  }
  if (filter->range_enabled && (id < filter->range_low || id > filter->range_high)) return 0;
  if (filter->mask == 0) return 1;
  return ((id ^ filter->value) & filter->mask) == 0 ? 1 : 0;
}

void vxcli_rx_broker_set_device_ops(const vxcli_rx_device_ops* ops) {
  g_device_ops.store(ops, std::memory_order_release);
}
