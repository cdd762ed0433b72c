// libvxapi64.so: a thin client of the device service. Control calls go over
// the service's socket; frames go through shared rings (see shm.h).
#include "vxapi.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "../common/frame.h"
#include "../common/protocol.h"
#include "../common/shm.h"

namespace {

using namespace vxsim;

constexpr uint32_t kWriteCanWaitMs = 1000;
constexpr uint32_t kMaxWaitHandles = 64;

struct GlobalMap {
  GlobalShm* global = nullptr;
  int doorbell = -1;
  ~GlobalMap() {
    if (global) munmap(global, sizeof(GlobalShm));
    if (doorbell >= 0) close(doorbell);
  }
};

struct Chan {
  uint32_t id = 0;          // the service's channel id
  uint64_t connection = 0;  // connection generation the channel belongs to
  ChannelShm* shm = nullptr;
  size_t shm_size = 0;
  VXMessage* rx = nullptr;
  VXMessage* tx = nullptr;
  int notify_fd = -1;
  uint32_t device_index = 0;
  uint32_t flags = 0;
  bool lin = false;
  VXChannelInfo info{};
  std::shared_ptr<GlobalMap> global;
  std::mutex tx_mu, rx_mu;
  std::atomic<uint64_t> reported_dropped{0};  // written under rx_mu, read by waiters

  ~Chan() {
    if (shm) munmap(shm, shm_size);
    if (notify_fd >= 0) close(notify_fd);
  }
};

struct Library {
  std::mutex mu;       // init count, channel table
  std::mutex call_mu;  // one request on the socket at a time
  int init_count = 0;
  int sock = -1;
  std::atomic<uint64_t> connection{0};
  std::shared_ptr<GlobalMap> global;
  std::vector<std::shared_ptr<Chan>> slots;  // handle = (generation << 16) | (slot + 1)
  std::vector<uint16_t> generations;
  std::unordered_map<int, std::weak_ptr<Chan>> by_notify;
};

Library& lib() {
  static Library* l = new Library;  // never destroyed: safe during process exit
  return *l;
}

bool initialized() {
  std::lock_guard<std::mutex> g(lib().mu);
  return lib().init_count > 0;
}

std::string service_executable() {
  if (const char* v = getenv("VXSIM_SERVICE"); v && *v) return v;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&VX_Init), &info) && info.dli_fname) {
    std::string path = info.dli_fname;
    size_t slash = path.rfind('/');
    if (slash != std::string::npos) return path.substr(0, slash) + "/vxsim";
  }
  return "vxsim";
}

int high_fd(int fd) {
  // Keep descriptors above 0-2 so that 0 never names a notification handle.
  if (fd >= 3) return fd;
  int moved = fcntl(fd, F_DUPFD_CLOEXEC, 3);
  close(fd);
  return moved;
}

void drop_connection_locked(Library& l) {
  if (l.sock >= 0) close(l.sock);
  l.sock = -1;
  l.global.reset();
}

// Connects (starting the service if needed) with call_mu held.
VXStatus connect_locked(Library& l) {
  if (l.sock >= 0) return VX_OK;
  std::string error;
  int s = connect_service(sim_dir(), true, service_executable(), error);
  if (s < 0) return VX_ERR_NO_DRIVER;
  MsgHeader h{};
  h.code = kOpHello;
  std::vector<uint8_t> reply;
  int fds[4];
  int n = 0;
  VXStatus st = call_service(s, h, nullptr, 0, reply, fds, 4, &n);
  if (st != VX_OK || n != 2) {
    for (int i = 0; i < n; ++i) close(fds[i]);
    close(s);
    return VX_ERR_NO_DRIVER;
  }
  auto g = std::make_shared<GlobalMap>();
  void* mem = mmap(nullptr, sizeof(GlobalShm), PROT_READ, MAP_SHARED, fds[0], 0);
  close(fds[0]);
  g->doorbell = fds[1];
  if (mem == MAP_FAILED || static_cast<GlobalShm*>(mem)->magic != kGlobalMagic) {
    if (mem != MAP_FAILED) munmap(mem, sizeof(GlobalShm));
    close(s);
    return VX_ERR_NO_DRIVER;
  }
  g->global = static_cast<GlobalShm*>(mem);
  l.global = g;
  l.sock = s;
  l.connection++;
  return VX_OK;
}

VXStatus call(MsgHeader& h, const void* payload, size_t size, std::vector<uint8_t>* reply = nullptr,
              int* fds = nullptr, int max_fds = 0, int* nfds = nullptr, uint64_t* connection = nullptr,
              std::shared_ptr<GlobalMap>* global = nullptr) {
  Library& l = lib();
  std::lock_guard<std::mutex> g(l.call_mu);
  std::vector<uint8_t> scratch;
  MsgHeader request = h;
  VXStatus st = VX_ERR_NO_DRIVER;
  for (int attempt = 0; attempt < 2; ++attempt) {
    st = connect_locked(l);
    if (st != VX_OK) return st;
    h = request;
    st = call_service(l.sock, h, payload, size, reply ? *reply : scratch, fds, max_fds, nfds);
    // A broken connection leaves the request header in place; the service
    // itself never answers with an operation code.
    bool broken = st == VX_ERR_NO_DRIVER && h.code == request.code;
    if (!broken) break;
    drop_connection_locked(l);
    // Requests about a channel cannot be retried: the channel died with the
    // old service. Others (enumerate, open) go to a fresh one.
    if (request.channel != 0) break;
  }
  if (connection) *connection = l.connection;
  if (global) *global = l.global;
  return st;
}

VXHandle make_handle(uint32_t slot, uint16_t generation) {
  return reinterpret_cast<VXHandle>(static_cast<uintptr_t>((uint32_t(generation) << 16) | (slot + 1)));
}

std::shared_ptr<Chan> lookup(VXHandle handle, VXStatus& st) {
  Library& l = lib();
  std::lock_guard<std::mutex> g(l.mu);
  if (l.init_count == 0) {
    st = VX_ERR_NOT_INITIALIZED;
    return nullptr;
  }
  uintptr_t v = reinterpret_cast<uintptr_t>(handle);
  uint32_t slot = static_cast<uint32_t>(v & 0xFFFF);
  uint16_t gen = static_cast<uint16_t>((v >> 16) & 0xFFFF);
  if (v == 0 || (v >> 32) != 0 || slot == 0 || slot > l.slots.size() || !l.slots[slot - 1] ||
      l.generations[slot - 1] != gen) {
    st = VX_ERR_INVALID_CLIENT;
    return nullptr;
  }
  st = VX_OK;
  return l.slots[slot - 1];
}

// Channel problems every data call checks first.
VXStatus channel_state(const Chan& ch) {
  if (ch.connection != lib().connection) return VX_ERR_NO_DRIVER;
  uint32_t s = ch.shm->state.load(std::memory_order_acquire);
  if (s & kStateShutdown) return VX_ERR_NO_DRIVER;
  if (s & kStateDead) return VX_ERR_INVALID_HARDWARE;
  return VX_OK;
}

VXStatus channel_call(VXHandle handle, MsgHeader& h, const void* payload = nullptr, size_t size = 0,
                      std::vector<uint8_t>* reply = nullptr) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (ch->connection != lib().connection) return VX_ERR_NO_DRIVER;
  h.channel = ch->id;
  return call(h, payload, size, reply);
}

void drain_eventfd(int fd) {
  uint64_t v;
  while (read(fd, &v, sizeof v) > 0) {
  }
}

// Callers publish with a seq_cst store first: either the service sees the
// new record before it sleeps, or this load sees it sleeping.
void ring_doorbell(const Chan& ch) {
  if (ch.global->global->sleeping.load(std::memory_order_seq_cst)) {
    uint64_t one = 1;
    ssize_t w = write(ch.global->doorbell, &one, sizeof one);
    (void)w;
  }
}

// Appends one record to the channel's TX ring, waiting up to timeout_ms for room.
VXStatus enqueue(Chan& ch, VXMessage m, uint32_t timeout_ms, uint32_t* timestamp) {
  std::lock_guard<std::mutex> g(ch.tx_mu);
  ChannelShm* s = ch.shm;
  int64_t deadline = monotonic_ns() + int64_t(timeout_ms) * 1000000;
  for (;;) {
    uint64_t head = s->tx_head.load(std::memory_order_relaxed);
    uint64_t tail = s->tx_tail.load(std::memory_order_acquire);
    if (head - tail < s->tx_capacity) {
      int64_t now = monotonic_ns();
      m.ptp_ns = static_cast<uint64_t>(now);  // the service turns this into bus time
      ch.tx[head % s->tx_capacity] = m;
      s->tx_head.store(head + 1, std::memory_order_seq_cst);
      s->tx_frames.fetch_add(1, std::memory_order_relaxed);
      ring_doorbell(ch);
      if (timestamp) *timestamp = device_time_us(ch.global->global->clocks[ch.device_index], now);
      return VX_OK;
    }
    int64_t left = deadline - monotonic_ns();
    if (timeout_ms == 0 || left <= 0) {
      s->tx_errors.fetch_add(1, std::memory_order_relaxed);
      return VX_ERR_TX_QUEUE_FULL;
    }
    uint32_t seq = s->tx_seq.load(std::memory_order_acquire);
    s->tx_waiters.store(1, std::memory_order_seq_cst);
    if (s->tx_tail.load(std::memory_order_acquire) == tail) {
      ring_doorbell(ch);
      futex_wait(&s->tx_seq, seq, std::min<int64_t>(left, 50000000));
    }
    s->tx_waiters.store(0, std::memory_order_relaxed);
    VXStatus st = channel_state(ch);
    if (st != VX_OK) return st;
  }
}

VXStatus write_can(Chan& ch, const VXMessage& in, uint32_t timeout_ms, uint32_t* timestamp) {
  if (ch.lin) return VX_ERR_INVALID_OPERATION;
  VXStatus st = channel_state(ch);
  if (st != VX_OK) return st;
  uint32_t mode = ch.shm->mode.load(std::memory_order_relaxed);
  if (mode == VX_CAN_MODE_LISTEN_ONLY) return VX_ERR_INVALID_OPERATION;
  if (ch.shm->state.load(std::memory_order_relaxed) & kStateBusOff) {
    ch.shm->tx_errors.fetch_add(1, std::memory_order_relaxed);
    return VX_ERR_BUS_OFF;
  }
  bool ext = in.control & VX_CTRL_IDE, fd = in.control & VX_CTRL_EDL;
  if (in.id & ~(ext ? 0x1FFFFFFFu : 0x7FFu)) return VX_ERR_INVALID_PARAM_VALUE;
  if (fd && (in.control & VX_CTRL_RTR)) return VX_ERR_INVALID_PARAM_VALUE;
  if (fd && !ch.shm->fd_enabled.load(std::memory_order_relaxed)) return VX_ERR_INVALID_OPERATION;
  VXMessage m{};
  m.header = VX_MSG_HEADER_CAN;
  m.length = VX_MSG_PAYLOAD_LEN;
  m.id = in.id;
  m.control = in.control;
  m.flags = fd ? (in.flags & VX_MSGF_ESI) : 0;
  if (!fd) m.control &= static_cast<uint8_t>(~VX_CTRL_BRS);
  std::memcpy(m.data, in.data, can_payload_length(m));
  return enqueue(ch, m, timeout_ms, timestamp);
}

VXStatus write_lin(Chan& ch, const VXLinMessage& in, uint32_t timeout_ms, uint32_t* timestamp) {
  if (!ch.lin) return VX_ERR_INVALID_OPERATION;
  VXStatus st = channel_state(ch);
  if (st != VX_OK) return st;
  if (in.id > 0x3F || (in.control & VX_LIN_CTRL_LEN_MASK) > 8) return VX_ERR_INVALID_PARAM_VALUE;
  uint32_t mode = ch.shm->mode.load(std::memory_order_relaxed);
  if (mode == VX_LIN_MODE_SLAVE) {
    MsgHeader h{};
    h.code = kOpLinWrite;
    h.channel = ch.id;
    st = call(h, &in, sizeof in);
    if (st == VX_OK && timestamp)
      *timestamp = device_time_us(ch.global->global->clocks[ch.device_index], monotonic_ns());
    return st;
  }
  if (mode != VX_LIN_MODE_MASTER && mode != VX_LIN_MODE_LOOPBACK) return VX_ERR_INVALID_OPERATION;
  VXMessage m{};
  m.header = VX_MSG_HEADER_LIN;
  m.length = VX_MSG_PAYLOAD_LEN;
  std::memcpy(reinterpret_cast<uint8_t*>(&m) + 8, &in, sizeof in);
  return enqueue(ch, m, timeout_ms, timestamp);
}

}  // namespace

extern "C" {

VXStatus VX_Init(void) {
  std::lock_guard<std::mutex> g(lib().mu);
  lib().init_count++;
  return VX_OK;
}

VXStatus VX_UnInit(void) {
  Library& l = lib();
  std::vector<std::shared_ptr<Chan>> closing;
  {
    std::lock_guard<std::mutex> g(l.mu);
    if (l.init_count == 0) return VX_ERR_NOT_INITIALIZED;
    if (--l.init_count > 0) return VX_OK;
    for (auto& s : l.slots)
      if (s) closing.push_back(std::move(s));
    l.slots.clear();
    l.by_notify.clear();
  }
  {
    std::lock_guard<std::mutex> g(l.call_mu);
    for (auto& ch : closing) {
      if (l.sock < 0 || ch->connection != l.connection) continue;
      MsgHeader h{};
      h.code = kOpClose;
      h.channel = ch->id;
      std::vector<uint8_t> reply;
      call_service(l.sock, h, nullptr, 0, reply);
    }
    drop_connection_locked(l);
  }
  return VX_OK;
}

VXStatus VX_Enumerate(VXChannelInfo* entries, uint32_t* count) {
  if (!initialized()) return VX_ERR_NOT_INITIALIZED;
  if (!count) return VX_ERR_INVALID_PARAM_VALUE;
  MsgHeader h{};
  h.code = kOpEnumerate;
  std::vector<uint8_t> reply;
  VXStatus st = call(h, nullptr, 0, &reply);
  if (st != VX_OK) return st;
  uint32_t total = static_cast<uint32_t>(reply.size() / sizeof(VXChannelInfo));
  if (!entries) {
    *count = total;
    return VX_OK;
  }
  uint32_t n = std::min(*count, total);
  if (n) std::memcpy(entries, reply.data(), n * sizeof(VXChannelInfo));
  *count = n;
  return VX_OK;
}

VXStatus VX_OpenEx(VXHandle* handle, const VXChannelInfo* info, uint32_t mode, uint32_t resistance,
                   const VXBitrate* bitrate, uint32_t rx_queue, uint32_t flags) {
  if (!initialized()) return VX_ERR_NOT_INITIALIZED;
  if (!handle || !info || !bitrate) return VX_ERR_INVALID_PARAM_VALUE;
  *handle = nullptr;
  OpenRequest req{};
  size_t serial_len = strnlen(reinterpret_cast<const char*>(info->serial), sizeof info->serial);
  if (serial_len == 0 || serial_len >= sizeof req.serial) return VX_ERR_INVALID_HARDWARE;
  std::memcpy(req.serial, info->serial, serial_len);
  req.port = info->port;
  req.mode = mode;
  req.resistance = resistance;
  req.rx_queue = rx_queue;
  req.flags = flags;
  req.bitrate = *bitrate;
  MsgHeader h{};
  h.code = kOpOpen;
  std::vector<uint8_t> reply;
  int fds[4];
  int nfds = 0;
  uint64_t connection = 0;
  std::shared_ptr<GlobalMap> global;
  VXStatus st = call(h, &req, sizeof req, &reply, fds, 4, &nfds, &connection, &global);
  if (st != VX_OK || nfds != 2 || reply.size() != sizeof(OpenReply)) {
    for (int i = 0; i < nfds; ++i) close(fds[i]);
    return st != VX_OK ? st : VX_ERR_NO_DRIVER;
  }
  OpenReply r;
  std::memcpy(&r, reply.data(), sizeof r);
  auto ch = std::make_shared<Chan>();
  ch->id = h.channel;
  ch->connection = connection;
  ch->global = global;
  ch->notify_fd = high_fd(fds[1]);
  void* mem = mmap(nullptr, r.shm_size, PROT_READ | PROT_WRITE, MAP_SHARED, fds[0], 0);
  close(fds[0]);
  auto undo = [&](VXStatus why) {
    MsgHeader c{};
    c.code = kOpClose;
    c.channel = ch->id;
    call(c, nullptr, 0);
    return why;
  };
  if (mem == MAP_FAILED || ch->notify_fd < 0) return undo(VX_ERR_OUT_OF_RESOURCE);
  ch->shm = static_cast<ChannelShm*>(mem);
  ch->shm_size = r.shm_size;
  if (ch->shm->magic != kChannelMagic) return undo(VX_ERR_NO_DRIVER);
  ch->rx = channel_rx_ring(ch->shm);
  ch->tx = channel_tx_ring(ch->shm);
  ch->device_index = r.device_index;
  ch->flags = flags;
  ch->lin = r.config.bus == VX_BUS_LIN;
  ch->info = r.info;
  Library& l = lib();
  std::lock_guard<std::mutex> g(l.mu);
  if (l.init_count == 0) return undo(VX_ERR_NOT_INITIALIZED);
  size_t slot = 0;
  while (slot < l.slots.size() && l.slots[slot]) ++slot;
  if (slot >= 0xFFFF) return undo(VX_ERR_OUT_OF_RESOURCE);
  if (slot == l.slots.size()) {
    l.slots.emplace_back();
    l.generations.push_back(0);
  }
  l.generations[slot]++;
  l.slots[slot] = ch;
  l.by_notify[ch->notify_fd] = ch;
  *handle = make_handle(static_cast<uint32_t>(slot), l.generations[slot]);
  return VX_OK;
}

VXStatus VX_Close(VXHandle handle) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  Library& l = lib();
  {
    std::lock_guard<std::mutex> g(l.mu);
    uint32_t slot = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(handle) & 0xFFFF) - 1;
    if (l.slots[slot] != ch) return VX_ERR_INVALID_CLIENT;  // closed by another thread meanwhile
    l.slots[slot].reset();
    l.by_notify.erase(ch->notify_fd);
  }
  if (ch->connection == l.connection) {
    MsgHeader h{};
    h.code = kOpClose;
    h.channel = ch->id;
    call(h, nullptr, 0);
  }
  return VX_OK;
}

VXStatus VX_Activate(VXHandle handle) {
  MsgHeader h{};
  h.code = kOpActivate;
  return channel_call(handle, h);
}

VXStatus VX_Read(VXHandle handle, VXMessage* message, uint32_t timeout_ms, uint32_t* pending) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (!message) return VX_ERR_INVALID_PARAM_VALUE;
  std::lock_guard<std::mutex> g(ch->rx_mu);
  ChannelShm* s = ch->shm;
  int64_t deadline = timeout_ms == VX_TIMEOUT_INFINITE ? INT64_MAX : monotonic_ns() + int64_t(timeout_ms) * 1000000;
  for (;;) {
    uint64_t dropped = s->rx_dropped.load(std::memory_order_acquire);
    if (dropped != ch->reported_dropped) {
      ch->reported_dropped = dropped;
      return VX_ERR_QUEUE_OVERRUN;
    }
    uint64_t tail = s->rx_tail.load(std::memory_order_relaxed);
    uint64_t head = s->rx_head.load(std::memory_order_acquire);
    if (head != tail) {
      *message = ch->rx[tail % s->rx_capacity];
      s->rx_tail.store(tail + 1, std::memory_order_release);
      if (pending) *pending = static_cast<uint32_t>(std::min<uint64_t>(head - tail - 1, UINT32_MAX));
      return VX_OK;
    }
    // Empty: clear the descriptor, ask for a signal, then look once more so
    // that a record queued in between is not missed.
    drain_eventfd(ch->notify_fd);
    st = channel_state(*ch);
    if (st != VX_OK) return st;
    s->rx_armed.store(1, std::memory_order_seq_cst);
    if (s->rx_head.load(std::memory_order_seq_cst) != tail) continue;
    int64_t left = deadline - monotonic_ns();
    if (timeout_ms == 0 || left <= 0) {
      if (pending) *pending = 0;
      return VX_ERR_QUEUE_EMPTY;
    }
    pollfd p{ch->notify_fd, POLLIN, 0};
    int ms = timeout_ms == VX_TIMEOUT_INFINITE ? -1 : static_cast<int>(std::min<int64_t>((left + 999999) / 1000000, INT_MAX));
    poll(&p, 1, ms);
  }
}

VXStatus VX_Write(VXHandle handle, const VXMessage* message, uint32_t timeout_ms, uint32_t* timestamp) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (!message) return VX_ERR_INVALID_PARAM_VALUE;
  switch (message->header & VX_MSG_TYPE_MASK) {
    case VX_MSG_TYPE_CAN:
      return write_can(*ch, *message, timeout_ms, timestamp);
    case VX_MSG_TYPE_LIN: {
      VXLinMessage m;
      std::memcpy(&m, reinterpret_cast<const uint8_t*>(message) + 8, sizeof m);
      return write_lin(*ch, m, timeout_ms, timestamp);
    }
    default:
      return VX_ERR_INVALID_PARAM_VALUE;
  }
}

VXStatus VX_WriteCanMessage(VXHandle handle, const VXMessage* message) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (!message) return VX_ERR_INVALID_PARAM_VALUE;
  return write_can(*ch, *message, kWriteCanWaitMs, nullptr);
}

VXStatus VX_WriteLinMessage(VXHandle handle, const VXLinMessage* message, uint32_t flags, uint32_t timeout_ms,
                            uint32_t* timestamp) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (!message || flags != 0) return VX_ERR_INVALID_PARAM_VALUE;
  return write_lin(*ch, *message, timeout_ms, timestamp);
}

VXStatus VX_GetNotification(VXHandle handle, VXNotifyHandle* notify) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (!notify) return VX_ERR_INVALID_PARAM_VALUE;
  *notify = ch->notify_fd;
  return VX_OK;
}

VXStatus VX_WaitForNotificationsEx(const VXNotifyHandle* notify, uint32_t count, uint32_t timeout_ms,
                                   uint32_t* index) {
  if (!initialized()) return VX_ERR_NOT_INITIALIZED;
  if (!notify || count == 0 || count > kMaxWaitHandles) return VX_ERR_INVALID_PARAM_VALUE;
  // Records already queued (the reader stopped before the queue was empty)
  // count as a notification even though the descriptor was not signalled.
  {
    Library& l = lib();
    std::lock_guard<std::mutex> g(l.mu);
    for (uint32_t i = 0; i < count; ++i) {
      auto it = l.by_notify.find(notify[i]);
      if (it == l.by_notify.end()) continue;
      auto ch = it->second.lock();
      if (!ch) continue;
      ChannelShm* s = ch->shm;
      if (s->rx_head.load(std::memory_order_acquire) != s->rx_tail.load(std::memory_order_acquire) ||
          s->rx_dropped.load(std::memory_order_acquire) != ch->reported_dropped) {
        if (index) *index = i;
        return VX_OK;
      }
    }
  }
  pollfd fds[kMaxWaitHandles];
  for (uint32_t i = 0; i < count; ++i) fds[i] = pollfd{notify[i], POLLIN, 0};
  int ms = timeout_ms == VX_TIMEOUT_INFINITE ? -1 : static_cast<int>(std::min<uint32_t>(timeout_ms, INT_MAX));
  int n;
  do n = poll(fds, count, ms);
  while (n < 0 && errno == EINTR);
  if (n < 0) return VX_ERR_INVALID_PARAM_VALUE;
  if (n == 0) return VX_ERR_QUEUE_EMPTY;
  for (uint32_t i = 0; i < count; ++i) {
    if (fds[i].revents & POLLNVAL) return VX_ERR_INVALID_PARAM_VALUE;
    if (fds[i].revents & (POLLIN | POLLERR | POLLHUP)) {
      if (index) *index = i;
      return VX_OK;
    }
  }
  return VX_ERR_QUEUE_EMPTY;
}

VXStatus VX_WaitForNotifications(const VXNotifyHandle* notify, uint32_t count, uint32_t timeout_ms) {
  return VX_WaitForNotificationsEx(notify, count, timeout_ms, nullptr);
}

VXStatus VX_ClearBuffer(VXHandle handle) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  std::lock_guard<std::mutex> g(ch->rx_mu);
  ChannelShm* s = ch->shm;
  drain_eventfd(ch->notify_fd);
  s->rx_armed.store(1, std::memory_order_seq_cst);
  s->rx_tail.store(s->rx_head.load(std::memory_order_acquire), std::memory_order_release);
  ch->reported_dropped = s->rx_dropped.load(std::memory_order_acquire);
  return VX_OK;
}

VXStatus VX_SetRxFilters(VXHandle handle, const VXRxFilter* filters, uint32_t count) {
  if (count > VX_RXFILTER_CAPACITY || (count && !filters)) {
    VXStatus st;
    return lookup(handle, st) ? VX_ERR_INVALID_PARAM_VALUE : st;
  }
  MsgHeader h{};
  h.code = kOpSetFilters;
  h.arg[0] = count;
  return channel_call(handle, h, filters, count * sizeof(VXRxFilter));
}

VXStatus VX_Control(VXHandle handle, uint32_t code, uint16_t group, uint16_t item, void* buffer, uint32_t size) {
  VXStatus st;
  if (!lookup(handle, st)) return st;
  if (code != VX_CONTROL_STATISTIC || !buffer || size < 4) return VX_ERR_INVALID_PARAM_VALUE;
  MsgHeader h{};
  h.code = kOpStatistic;
  h.arg[0] = group;
  h.arg[1] = item;
  st = channel_call(handle, h);
  if (st == VX_OK) std::memcpy(buffer, &h.arg[0], 4);
  return st;
}

VXStatus VX_GetCanStatus(VXHandle handle, VXCanStatus* status) {
  MsgHeader h{};
  h.code = kOpCanStatus;
  std::vector<uint8_t> reply;
  VXStatus st = channel_call(handle, h, nullptr, 0, &reply);
  if (status && reply.size() == sizeof(VXCanStatus)) std::memcpy(status, reply.data(), sizeof *status);
  return st;
}

VXStatus VX_RecoverBusOff(VXHandle handle) {
  MsgHeader h{};
  h.code = kOpRecover;
  return channel_call(handle, h);
}

namespace {

// A whole device table (TX tasks or routes) written or read in one call.
VXStatus set_table(VXHandle handle, uint32_t code, const void* records, uint32_t count, uint32_t capacity,
                   size_t record_size) {
  if (count > capacity || (count && !records)) {
    VXStatus st;
    return lookup(handle, st) ? VX_ERR_INVALID_PARAM_VALUE : st;
  }
  MsgHeader h{};
  h.code = code;
  h.arg[0] = count;
  return channel_call(handle, h, records, count * record_size);
}

VXStatus get_table(VXHandle handle, uint32_t code, void* records, uint32_t count, uint32_t capacity,
                   size_t record_size) {
  if (!records || count == 0 || count > capacity) {
    VXStatus st;
    return lookup(handle, st) ? VX_ERR_INVALID_PARAM_VALUE : st;
  }
  MsgHeader h{};
  h.code = code;
  h.arg[0] = count;
  std::vector<uint8_t> reply;
  VXStatus st = channel_call(handle, h, nullptr, 0, &reply);
  if (st == VX_OK && reply.size() == count * record_size) std::memcpy(records, reply.data(), reply.size());
  return st;
}

}  // namespace

VXStatus VX_SetTxTasks(VXHandle handle, const VXTxTask* tasks, uint32_t count) {
  return set_table(handle, kOpSetTasks, tasks, count, VX_TXTASK_CAPACITY, sizeof(VXTxTask));
}

VXStatus VX_GetTxTasks(VXHandle handle, VXTxTask* tasks, uint32_t count) {
  return get_table(handle, kOpGetTasks, tasks, count, VX_TXTASK_CAPACITY, sizeof(VXTxTask));
}

VXStatus VX_SetMsgRoutes(VXHandle handle, const VXRoute* routes, uint32_t count) {
  return set_table(handle, kOpSetRoutes, routes, count, VX_ROUTE_CAPACITY, sizeof(VXRoute));
}

VXStatus VX_GetMsgRoutes(VXHandle handle, VXRoute* routes, uint32_t count) {
  return get_table(handle, kOpGetRoutes, routes, count, VX_ROUTE_CAPACITY, sizeof(VXRoute));
}

VXStatus VX_SetLinVoltage(VXHandle handle, uint32_t power) {
  MsgHeader h{};
  h.code = kOpLinVoltage;
  h.arg[0] = power;
  return channel_call(handle, h);
}

VXStatus VX_SetLinProtocol(VXHandle handle, const VXLinProtocol* protocol) {
  if (!protocol) {
    VXStatus st;
    return lookup(handle, st) ? VX_ERR_INVALID_PARAM_VALUE : st;
  }
  MsgHeader h{};
  h.code = kOpLinProtocol;
  return channel_call(handle, h, protocol, sizeof *protocol);
}

VXStatus VX_GetDataPtpTimestamp(VXHandle handle, const VXMessage* message, uint64_t* ns) {
  VXStatus st;
  if (!lookup(handle, st)) return st;
  if (!message || !ns) return VX_ERR_INVALID_PARAM_VALUE;
  if ((message->header & VX_MSG_MARKER) != VX_MSG_MARKER || message->ptp_ns == 0) return VX_ERR_INVALID_DATA;
  *ns = message->ptp_ns;
  return VX_OK;
}

VXStatus VX_SyncPtpTimes(const VXHandle* handles, uint32_t count) {
  if (!initialized()) return VX_ERR_NOT_INITIALIZED;
  if (!handles || count == 0 || count > kMaxWaitHandles) return VX_ERR_INVALID_PARAM_VALUE;
  std::vector<uint32_t> ids;
  for (uint32_t i = 0; i < count; ++i) {
    VXStatus st;
    auto ch = lookup(handles[i], st);
    if (!ch) return st;
    if (ch->connection != lib().connection) return VX_ERR_NO_DRIVER;
    ids.push_back(ch->id);
  }
  MsgHeader h{};
  h.code = kOpSyncClocks;
  return call(h, ids.data(), ids.size() * sizeof(uint32_t));
}

VXStatus VX_SetCanBitrate(VXHandle handle, const VXBitrate* bitrate) {
  if (!bitrate) {
    VXStatus st;
    return lookup(handle, st) ? VX_ERR_INVALID_PARAM_VALUE : st;
  }
  MsgHeader h{};
  h.code = kOpSetBitrate;
  return channel_call(handle, h, bitrate, sizeof *bitrate);
}

VXStatus VX_SetCanMode(VXHandle handle, uint32_t mode) {
  MsgHeader h{};
  h.code = kOpSetMode;
  h.arg[0] = mode;
  return channel_call(handle, h);
}

VXStatus VX_SetCanTermination(VXHandle handle, uint32_t ohm) {
  MsgHeader h{};
  h.code = kOpSetTermination;
  h.arg[0] = ohm;
  return channel_call(handle, h);
}

VXStatus VX_GetChannelConfig(VXHandle handle, VXChannelConfig* config) {
  if (!config) {
    VXStatus st;
    return lookup(handle, st) ? VX_ERR_INVALID_PARAM_VALUE : st;
  }
  MsgHeader h{};
  h.code = kOpGetConfig;
  std::vector<uint8_t> reply;
  VXStatus st = channel_call(handle, h, nullptr, 0, &reply);
  if (st == VX_OK && reply.size() == sizeof *config) std::memcpy(config, reply.data(), sizeof *config);
  return st;
}

VXStatus VX_GetChannelInfo(VXHandle handle, VXChannelInfo* info) {
  VXStatus st;
  auto ch = lookup(handle, st);
  if (!ch) return st;
  if (!info) return VX_ERR_INVALID_PARAM_VALUE;
  *info = ch->info;
  return VX_OK;
}

}  // extern "C"
