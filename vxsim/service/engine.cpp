#include "engine.h"

#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <climits>
#include <cstdio>
#include <cstring>

#include "../common/frame.h"

namespace vxsim {

namespace {

constexpr uint32_t kMaxChannels = 256;
constexpr int kMaxRouteHops = 4;
constexpr int64_t kMs = 1000000;

bool task_in_use(const VXTxTask& t) { return t.type >= VX_TXTASK_FIXED && t.type <= VX_TXTASK_RANDOMID; }

uint64_t next_random(uint64_t& state) {
  // xorshift64*: cheap, good enough for generated payloads.
  state ^= state >> 12;
  state ^= state << 25;
  state ^= state >> 27;
  return state * 2685821657736338717ull;
}

uint32_t default_lin_resistance(uint32_t mode) { return mode == VX_LIN_MODE_MASTER ? 1000u : VX_TERMINATION_OFF; }

void put_line(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void put_line(std::string& out, const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  int n = std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  if (n > 0) out.append(buf, std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
}

std::string capability_text(uint16_t caps) {
  static const std::pair<uint16_t, const char*> names[] = {
      {VX_CAP_CANFD, "CANFD"}, {VX_CAP_CAN, "CAN"}, {VX_CAP_LIN, "LIN"}, {VX_CAP_FR, "FR"},
      {VX_CAP_MB, "MB"},       {VX_CAP_ETH, "ETH"}, {VX_CAP_AIO, "AIO"}, {VX_CAP_DIO, "DIO"},
      {VX_CAP_VIRT, "VIRT"},   {VX_CAP_RMT, "RMT"}};
  std::string s;
  for (auto& [bit, name] : names)
    if (caps & bit) s += (s.empty() ? "" : ",") + std::string(name);
  return s;
}

const char* mode_name(const Port* p, uint32_t mode) {
  if (p->lin) {
    switch (mode) {
      case VX_LIN_MODE_OFF: return "off";
      case VX_LIN_MODE_SLAVE: return "slave";
      case VX_LIN_MODE_LOOPBACK: return "loopback";
      case VX_LIN_MODE_LISTEN_ONLY: return "listen-only";
      case VX_LIN_MODE_MASTER: return "master";
    }
  } else {
    switch (mode) {
      case VX_CAN_MODE_NORMAL: return "normal";
      case VX_CAN_MODE_CLASSIC: return "classic";
      case VX_CAN_MODE_LISTEN_ONLY: return "listen-only";
      case VX_CAN_MODE_LOOPBACK: return "loopback";
    }
  }
  return "?";
}

}  // namespace

bool Port::has_tasks() const {
  for (const auto& t : tasks)
    if (task_in_use(t)) return true;
  return false;
}

bool Port::has_routes() const {
  for (const auto& r : routes)
    if (r.type != VX_ROUTE_FREE) return true;
  return false;
}

bool Port::has_state() const {
  if (busoff || has_tasks() || has_routes()) return true;
  for (const auto& r : primed)
    if (r.set) return true;
  return false;
}

Engine::~Engine() { shutdown(); }

void Engine::init(Topology topology, GlobalShm* global, uint32_t clock_start, uint64_t seed) {
  global_ = global;
  clock_start_ = clock_start;
  int64_t now = monotonic_ns();
  unsigned index = 0;
  for (auto& spec : topology.devices) {
    auto dev = std::make_unique<Device>();
    dev->spec = spec;
    dev->index = index;
    global_->clocks[index].epoch_ns.store(now);
    global_->clocks[index].start_us.store(clock_start);
    for (unsigned k = 0; k < spec.ports.size(); ++k) {
      auto p = std::make_unique<Port>();
      p->dev = dev.get();
      p->index = k;
      p->capability = spec.ports[k].capability;
      p->bus = spec.ports[k].bus;
      p->lin = p->capability & VX_CAP_LIN;
      p->rng = (seed ? seed : static_cast<uint64_t>(now)) ^ (uint64_t(index) << 32) ^ (k * 0x9E3779B97F4A7C15ull);
      if (!p->rng) p->rng = 1;
      reset_port(p.get());
      Bus& b = buses_[p->bus];
      b.number = p->bus;
      b.lin = p->lin;
      b.ports.push_back(p.get());
      dev->ports.push_back(std::move(p));
    }
    devices_.push_back(std::move(dev));
    ++index;
  }
}

void Engine::shutdown() {
  for (Channel* ch : channels_) {
    ch->shm->state.fetch_or(kStateShutdown);
    uint64_t one = 1;
    ssize_t w = write(ch->event_fd, &one, sizeof one);
    (void)w;
  }
  while (!channels_.empty()) close_channel(channels_.back());
}

bool Engine::has_state() const {
  for (auto& d : devices_) {
    if (!d->present) return true;
    for (auto& p : d->ports)
      if (p->has_state()) return true;
  }
  return false;
}

Device* Engine::find_device(const std::string& serial) const {
  for (auto& d : devices_)
    if (d->spec.serial == serial) return d.get();
  return nullptr;
}

VXChannelInfo Engine::info_of(const Port* p) const {
  VXChannelInfo info{};
  const DeviceSpec& s = p->dev->spec;
  std::snprintf(info.name, sizeof info.name, "%s %s Port %u", s.name.c_str(), s.serial.c_str(), p->index);
  std::memcpy(info.serial, s.serial.data(), std::min(s.serial.size(), sizeof info.serial - 1));
  std::memcpy(info.unique_id, s.unique_id.data(), std::min(s.unique_id.size(), sizeof info.unique_id));
  std::memcpy(info.firmware, s.firmware, 4);
  info.usb_vid = s.usb_vid;
  info.usb_pid = s.usb_pid;
  info.port = static_cast<uint16_t>(p->index);
  info.capability = p->capability;
  info.generation = s.generation;
  info.generation_minor = s.generation_minor;
  info.bus = static_cast<uint8_t>(p->bus);
  return info;
}

std::vector<VXChannelInfo> Engine::enumerate() const {
  std::vector<VXChannelInfo> list;
  for (auto& d : devices_)
    if (d->present)
      for (auto& p : d->ports) list.push_back(info_of(p.get()));
  return list;
}

void Engine::reset_port(Port* p) {
  // Power-on state of a port.
  std::memset(p->tasks, 0, sizeof p->tasks);
  for (auto& r : p->runs) r = TaskRun{};
  std::memset(p->routes, 0, sizeof p->routes);
  for (auto& r : p->primed) r = LinResponse{};
  p->busoff = p->busoff_stuck = false;
  p->busoff_count = 0;
  p->bitrate = VXBitrate{};
  p->bitrate.nominal_kbps = p->lin ? 19200 : 500;
  p->bitrate.data_kbps = p->lin ? 0 : 2000;
  p->bitrate.nominal_sample = p->bitrate.data_sample = 75;
  p->resistance = p->lin ? VX_TERMINATION_OFF : 120;
  p->tx_frames = p->rx_frames = p->task_frames = p->routed = p->dropped = 0;
}

void Engine::update_port_state(Port* p) {
  uint32_t bits = (p->dev->present ? 0 : kStateDead) | (p->busoff ? kStateBusOff : 0);
  for (Channel* ch : p->channels) {
    uint32_t old = ch->shm->state.load();
    uint32_t now = (old & ~(kStateDead | kStateBusOff)) | bits;
    // A channel stays dead once its device went away, even after a replug.
    if (old & kStateDead) now |= kStateDead;
    ch->shm->state.store(now);
    if ((now & kStateDead) && !(old & kStateDead)) {
      uint64_t one = 1;  // wake readers so that they see the unplug
      ssize_t w = write(ch->event_fd, &one, sizeof one);
      (void)w;
    }
  }
}

VXStatus Engine::open_channel(Client* client, const OpenRequest& req, OpenReply& reply, Channel*& out) {
  Device* dev = find_device(req.serial);
  if (!dev || !dev->present || req.port >= dev->ports.size()) return VX_ERR_INVALID_HARDWARE;
  Port* p = dev->ports[req.port].get();
  if (channels_.size() >= kMaxChannels) return VX_ERR_OUT_OF_RESOURCE;
  if (req.flags & ~uint32_t(VX_OPEN_LIN | VX_OPEN_NO_TX_CONFIRM)) return VX_ERR_INVALID_PARAM_VALUE;
  uint32_t rxq = req.rx_queue ? req.rx_queue : kDefaultRxQueue;
  if (rxq > kMaxRxQueue) return VX_ERR_INVALID_PARAM_VALUE;
  VXBitrate b = req.bitrate;
  if (p->lin) {
    if (req.mode != VX_LIN_MODE_OFF && req.mode != VX_LIN_MODE_SLAVE && req.mode != VX_LIN_MODE_LOOPBACK &&
        req.mode != VX_LIN_MODE_LISTEN_ONLY && req.mode != VX_LIN_MODE_MASTER)
      return VX_ERR_INVALID_PARAM_VALUE;
    if (b.nominal_kbps == 0 ? req.mode != VX_LIN_MODE_SLAVE : (b.nominal_kbps < 1000 || b.nominal_kbps > 20000))
      return VX_ERR_INVALID_PARAM_VALUE;
    b.data_kbps = 0;
  } else {
    if (req.mode > VX_CAN_MODE_LOOPBACK) return VX_ERR_INVALID_PARAM_VALUE;
    if (b.nominal_kbps == 0) return VX_ERR_INVALID_PARAM_VALUE;
    if (b.data_kbps == 0) b.data_kbps = b.nominal_kbps;
  }
  if (b.nominal_sample == 0) b.nominal_sample = 75;
  if (b.data_sample == 0) b.data_sample = 75;
  if (b.nominal_sample > 100 || b.data_sample > 100) return VX_ERR_INVALID_PARAM_VALUE;

  auto ch = std::make_unique<Channel>();
  size_t size = channel_shm_size(rxq, kTxQueue);
  ch->shm_fd = memfd_create("vxsim-channel", MFD_CLOEXEC);
  if (ch->shm_fd < 0 || ftruncate(ch->shm_fd, static_cast<off_t>(size)) != 0) {
    if (ch->shm_fd >= 0) close(ch->shm_fd);
    return VX_ERR_OUT_OF_RESOURCE;
  }
  void* mem = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, ch->shm_fd, 0);
  ch->event_fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (mem == MAP_FAILED || ch->event_fd < 0) {
    if (mem != MAP_FAILED) munmap(mem, size);
    close(ch->shm_fd);
    if (ch->event_fd >= 0) close(ch->event_fd);
    return VX_ERR_OUT_OF_RESOURCE;
  }
  ch->shm = static_cast<ChannelShm*>(mem);
  ch->shm_size = size;
  ch->shm->magic = kChannelMagic;
  ch->shm->rx_capacity = rxq;
  ch->shm->tx_capacity = kTxQueue;
  ch->shm->device_index = dev->index;
  ch->shm->rx_armed.store(1);  // the queue starts empty: the first record signals
  ch->rx = channel_rx_ring(ch->shm);
  ch->tx = channel_tx_ring(ch->shm);
  ch->id = next_channel_id_++;
  if (next_channel_id_ == 0) next_channel_id_ = 1;
  ch->client = client;
  ch->port = p;
  ch->mode = req.mode;
  ch->flags = req.flags;
  ch->fd_enabled = !p->lin && (p->capability & VX_CAP_CANFD) && req.mode != VX_CAN_MODE_CLASSIC;
  ch->lin_power = (p->lin && req.mode == VX_LIN_MODE_MASTER) ? 1 : 0;
  ch->shm->mode.store(ch->mode);
  ch->shm->fd_enabled.store(ch->fd_enabled ? 1 : 0);

  // Opening initialises the port's controller: bitrate, resistor, and a
  // fresh error state (this is how a persistent bus-off is left).
  p->bitrate = b;
  p->resistance = req.resistance ? req.resistance : (p->lin ? default_lin_resistance(req.mode) : 120);
  p->busoff = p->busoff_stuck = false;
  Channel* raw = ch.release();
  p->channels.push_back(raw);
  channels_.push_back(raw);
  client->channels.push_back(raw);
  update_port_state(p);

  reply.info = info_of(p);
  reply.config = config_of(raw);
  reply.device_index = dev->index;
  reply.rx_capacity = rxq;
  reply.tx_capacity = kTxQueue;
  reply.shm_size = size;
  out = raw;
  return VX_OK;
}

void Engine::close_channel(Channel* ch) {
  size_t moved = 0;
  consume_channel(ch, SIZE_MAX, moved);
  auto drop = [ch](std::vector<Channel*>& v) { v.erase(std::remove(v.begin(), v.end(), ch), v.end()); };
  drop(ch->port->channels);
  drop(channels_);
  if (ch->client) drop(ch->client->channels);
  munmap(ch->shm, ch->shm_size);
  close(ch->shm_fd);
  close(ch->event_fd);
  delete ch;
}

void Engine::stamp(VXMessage& m, const Port* p, int64_t t_ns) const {
  m.timestamp = device_time_us(global_->clocks[p->dev->index], t_ns);
  m.ptp_ns = static_cast<uint64_t>(t_ns + global_->realtime_offset_ns);
  m.port = static_cast<uint16_t>(p->index);
}

int64_t Engine::bus_time(Bus& b, int64_t t_ns) {
  // Frames of one bus are strictly ordered in time, whoever queued them.
  if (t_ns <= b.last_ns) t_ns = b.last_ns + 1;
  b.last_ns = t_ns;
  return t_ns;
}

void Engine::push(Channel* ch, const VXMessage& m) {
  ChannelShm* s = ch->shm;
  uint64_t head = s->rx_head.load(std::memory_order_relaxed);
  uint64_t tail = s->rx_tail.load(std::memory_order_acquire);
  if (head - tail >= s->rx_capacity) {
    s->rx_dropped.fetch_add(1, std::memory_order_release);
    ch->port->dropped++;
  } else {
    ch->rx[head % s->rx_capacity] = m;
    s->rx_head.store(head + 1, std::memory_order_seq_cst);
    s->rx_frames.fetch_add(1, std::memory_order_relaxed);
  }
  // The reader arms the notification when it found the queue empty; only
  // then is a wake-up (a system call) needed.
  if (s->rx_armed.load(std::memory_order_seq_cst) && s->rx_armed.exchange(0)) {
    uint64_t one = 1;
    ssize_t w = write(ch->event_fd, &one, sizeof one);
    (void)w;
  }
}

void Engine::transmit_can(Port* src, Channel* sender, VXMessage frame, int64_t t_ns, int hops) {
  if (!src->dev->present || src->busoff) {
    src->dropped++;
    return;
  }
  bool fd = frame.control & VX_CTRL_EDL;
  if (fd && !(src->capability & VX_CAP_CANFD)) {
    src->dropped++;
    return;
  }
  Bus& bus = bus_of(src);
  t_ns = bus_time(bus, t_ns);
  frame.header = VX_MSG_HEADER_CAN;
  frame.length = VX_MSG_PAYLOAD_LEN;
  frame.lin_status = frame.lin_checksum = 0;
  unsigned len = can_payload_length(frame);
  if (len < 64) std::memset(frame.data + len, 0, 64 - len);
  bus.frames++;
  if (fd) bus.fd_frames++;
  bus.bytes += len;
  src->tx_frames++;
  struct Forward {
    Port* dst;
    VXMessage frame;
  };
  std::vector<Forward> forwards;
  for (Port* q : bus.ports) {
    if (!q->dev->present || q->busoff) continue;
    if (q != src && q->bitrate.nominal_kbps != src->bitrate.nominal_kbps) {
      bus.mismatched++;
      continue;
    }
    if (q != src && fd && !(q->capability & VX_CAP_CANFD)) continue;
    VXMessage rec = frame;
    stamp(rec, q, t_ns);
    if (q == src) {
      // The sending port: the writer gets its TX confirmation, other
      // applications on the port see the port's transmission.
      rec.header |= VX_MSG_TX;
      for (Channel* ch : q->channels) {
        if (ch == sender && (ch->flags & VX_OPEN_NO_TX_CONFIRM)) continue;
        if (ch != sender && ch->mode == VX_CAN_MODE_LOOPBACK) continue;
        push(ch, rec);
      }
      continue;
    }
    q->rx_frames++;
    for (Channel* ch : q->channels) {
      if (ch->mode == VX_CAN_MODE_LOOPBACK || (fd && !ch->fd_enabled)) continue;
      if (ch->filter_count && !rx_filters_pass(ch->filters, ch->filter_count, rec)) {
        ch->shm->filtered.fetch_add(1, std::memory_order_relaxed);
        continue;
      }
      push(ch, rec);
    }
    if (hops >= kMaxRouteHops) continue;
    for (const VXRoute& r : q->routes) {
      if (r.type == VX_ROUTE_FREE || !route_matches(r, rec)) continue;
      uint32_t mask = r.type == VX_ROUTE_UNICAST ? (1u << r.target) : r.target;
      for (auto& dp : q->dev->ports) {
        if (dp.get() == q || dp->lin || !(mask & (1u << dp->index))) continue;
        VXMessage copy = frame;
        copy.flags |= VX_MSGF_ROUTED;
        forwards.push_back({dp.get(), copy});
        q->routed++;
      }
    }
  }
  for (auto& f : forwards) transmit_can(f.dst, nullptr, f.frame, t_ns, hops + 1);
}

bool Engine::lin_response_of(const Port* p, uint8_t id, VXLinMessage& out) const {
  for (const VXTxTask& t : p->tasks) {
    if (!task_in_use(t) || t.kind != VX_TXTASK_KIND_LIN_RESPONSE || t.hold || !(t.flags & VX_LINTASK_ACTIVE) ||
        t.lin_id != id)
      continue;
    std::memset(&out, 0, sizeof out);
    out.id = id;
    unsigned len = std::min<unsigned>(t.length & 0x7F, 8);
    out.control = static_cast<uint8_t>(len | VX_LIN_CTRL_MASTER_DATA |
                                       ((t.flags & VX_LINTASK_ENHANCED) ? VX_LIN_CTRL_ENHANCED : 0));
    std::memcpy(out.data, t.data, len);
    if (t.flags & VX_LINTASK_OWN_CHECKSUM) {
      out.flags = VX_LIN_FLAG_OWN_CHECKSUM;
      out.checksum = t.lin_checksum;
    }
    return true;
  }
  if (p->primed[id & 0x3F].set) {
    out = p->primed[id & 0x3F].msg;
    return true;
  }
  return false;
}

void Engine::lin_header(Port* master, Channel* sender, const VXLinMessage& req, int64_t t_ns) {
  if (!master->dev->present) {
    master->dropped++;
    return;
  }
  Bus& bus = bus_of(master);
  t_ns = bus_time(bus, t_ns);
  bool loopback = sender && sender->mode == VX_LIN_MODE_LOOPBACK;
  uint8_t id = req.id & 0x3F;
  bool sync_break = req.status & VX_LIN_TX_SYNC_BREAK;
  bool master_write = !sync_break && (req.control & VX_LIN_CTRL_MASTER_DATA);
  auto hears = [&](const Port* q) {
    // A port whose bitrate differs from the master's cannot decode the header.
    return q->dev->present &&
           (q == master || q->bitrate.nominal_kbps == 0 || master->bitrate.nominal_kbps == 0 ||
            q->bitrate.nominal_kbps == master->bitrate.nominal_kbps);
  };
  std::vector<Port*> ports;
  if (loopback) ports.push_back(master);
  else
    for (Port* q : bus.ports)
      if (hears(q)) ports.push_back(q);

  // Who answers: the response tables of every port that hears the header.
  Port* responder = nullptr;
  VXLinMessage resp{};
  int responders = 0;
  for (Port* q : ports) {
    VXLinMessage r;
    if (lin_response_of(q, id, r)) {
      if (!responder) {
        responder = q;
        resp = r;
      }
      ++responders;
    }
  }

  VXLinMessage wire{};
  wire.id = id;
  uint8_t status = 0;
  unsigned len = 0;
  unsigned model;
  if (master_write) {
    len = std::min<unsigned>(req.control & VX_LIN_CTRL_LEN_MASK, 8);
    std::memcpy(wire.data, req.data, len);
    model = (req.control & VX_LIN_CTRL_ENHANCED) ? VX_LIN_CHECKSUM_ENHANCED : VX_LIN_CHECKSUM_CLASSIC;
    wire.checksum = (req.flags & VX_LIN_FLAG_OWN_CHECKSUM) ? req.checksum : lin_checksum(wire.data, len, id, model);
    if (responders) status |= VX_LIN_STATUS_BIT;  // a slave talks over the master
    responder = nullptr;
  } else if (responder) {
    len = std::min<unsigned>(resp.control & VX_LIN_CTRL_LEN_MASK, 8);
    std::memcpy(wire.data, resp.data, len);
    model = (resp.control & VX_LIN_CTRL_ENHANCED) ? VX_LIN_CHECKSUM_ENHANCED : VX_LIN_CHECKSUM_CLASSIC;
    wire.checksum = (resp.flags & VX_LIN_FLAG_OWN_CHECKSUM) ? resp.checksum : lin_checksum(wire.data, len, id, model);
    if (responders > 1) status |= VX_LIN_STATUS_BIT;
  } else {
    model = (req.control & VX_LIN_CTRL_ENHANCED) ? VX_LIN_CHECKSUM_ENHANCED : VX_LIN_CHECKSUM_CLASSIC;
    status |= sync_break ? VX_LIN_STATUS_HEADER_ONLY : VX_LIN_STATUS_NO_RESPONSE;
    wire.checksum = 0;
  }
  wire.control = static_cast<uint8_t>(len | (master_write ? VX_LIN_CTRL_MASTER_DATA : 0) |
                                      (model == VX_LIN_CHECKSUM_ENHANCED ? VX_LIN_CTRL_ENHANCED : 0));
  bus.lin_frames++;
  bus.bytes += len;
  if (status & VX_LIN_STATUS_ERROR_MASK) bus.lin_errors++;
  master->tx_frames++;
  if (responder && responder != master) responder->tx_frames++;

  for (Port* q : ports) {
    if (q != master) q->rx_frames++;
    for (Channel* ch : q->channels) {
      if (loopback ? ch != sender : (ch->mode == VX_LIN_MODE_OFF || ch->mode == VX_LIN_MODE_LOOPBACK)) continue;
      VXMessage rec{};
      rec.header = VX_MSG_HEADER_LIN;
      rec.length = VX_MSG_PAYLOAD_LEN;
      rec.id = id;
      rec.control = wire.control;
      rec.lin_checksum = wire.checksum;
      std::memcpy(rec.data, wire.data, len);
      uint8_t st = status;
      bool own = q == master || q == responder;
      if (own) rec.header |= VX_MSG_TX;
      // Every receiver checks the checksum with the model it expects: the
      // master with the one it asked for, others with their configuration.
      if (len > 0 && q != responder && !master_write) {
        unsigned expected = q == master ? ((req.control & VX_LIN_CTRL_ENHANCED) ? VX_LIN_CHECKSUM_ENHANCED
                                                                               : VX_LIN_CHECKSUM_CLASSIC)
                                        : lin_expected_model(id, ch->lin_checksum, ch->lin_version);
        if (lin_checksum(wire.data, len, id, expected) != wire.checksum) st |= VX_LIN_STATUS_CHECKSUM;
      } else if (len > 0 && master_write && q != master) {
        unsigned expected = lin_expected_model(id, ch->lin_checksum, ch->lin_version);
        if (lin_checksum(wire.data, len, id, expected) != wire.checksum) st |= VX_LIN_STATUS_CHECKSUM;
      }
      rec.lin_status = st;
      stamp(rec, q, t_ns);
      push(ch, rec);
    }
  }
}

bool Engine::consume_channel(Channel* ch, size_t budget, size_t& moved) {
  ChannelShm* s = ch->shm;
  uint64_t tail = s->tx_tail.load(std::memory_order_relaxed);
  uint64_t head = s->tx_head.load(std::memory_order_acquire);
  if (head == tail) return false;
  // Guard against a corrupted head from a misbehaving client.
  if (head - tail > s->tx_capacity) head = tail + s->tx_capacity;
  size_t n = 0;
  while (tail != head && n < budget) {
    VXMessage m = ch->tx[tail % s->tx_capacity];
    ++tail;
    ++n;
    int64_t t_ns = static_cast<int64_t>(m.ptp_ns);  // the writer's monotonic time
    if ((m.header & VX_MSG_TYPE_MASK) == VX_MSG_TYPE_LIN) {
      VXLinMessage lm;
      std::memcpy(&lm, reinterpret_cast<const uint8_t*>(&m) + 8, sizeof lm);
      if (ch->port->lin) lin_header(ch->port, ch, lm, t_ns);
    } else if (!ch->port->lin) {
      if (ch->mode == VX_CAN_MODE_LOOPBACK) {
        // Stays inside the channel.
        Bus& bus = bus_of(ch->port);
        VXMessage rec = m;
        rec.header = VX_MSG_HEADER_CAN | VX_MSG_TX;
        rec.length = VX_MSG_PAYLOAD_LEN;
        stamp(rec, ch->port, bus_time(bus, t_ns));
        push(ch, rec);
      } else {
        transmit_can(ch->port, ch, m, t_ns, 0);
      }
    }
  }
  s->tx_tail.store(tail, std::memory_order_release);
  s->tx_seq.fetch_add(1, std::memory_order_release);
  if (s->tx_waiters.load(std::memory_order_acquire)) futex_wake(&s->tx_seq, INT_MAX);
  moved += n;
  return true;
}

size_t Engine::process_tx(size_t budget) {
  size_t moved = 0;
  // Iterate over a snapshot: delivery never opens or closes channels.
  for (size_t i = 0; i < channels_.size(); ++i) consume_channel(channels_[i], budget, moved);
  return moved;
}

bool Engine::tx_pending() const {
  for (Channel* ch : channels_)
    if (ch->shm->tx_head.load(std::memory_order_seq_cst) != ch->shm->tx_tail.load(std::memory_order_relaxed))
      return true;
  return false;
}

void Engine::fire_task(Port* p, unsigned index, int64_t t_ns) {
  const VXTxTask& t = p->tasks[index];
  TaskRun& run = p->runs[index];
  if (t.kind == VX_TXTASK_KIND_LIN_HEADER) {
    VXLinMessage m{};
    m.id = t.lin_id & 0x3F;
    unsigned len = std::min<unsigned>(t.length & 0x7F, 8);
    if (t.flags & VX_LINTASK_SYNC_BREAK) m.status = VX_LIN_TX_SYNC_BREAK;
    if (t.flags & VX_LINTASK_MASTER_WRITE) {
      m.control = static_cast<uint8_t>(len | VX_LIN_CTRL_MASTER_DATA);
      std::memcpy(m.data, t.data, len);
    } else {
      m.control = static_cast<uint8_t>(len);
    }
    if (t.flags & VX_LINTASK_ENHANCED) m.control |= VX_LIN_CTRL_ENHANCED;
    p->task_frames++;
    lin_header(p, nullptr, m, t_ns);
    return;
  }
  bool ext = t.flags & VX_FRAME_IDE;
  bool fd = t.flags & VX_FRAME_FDF;
  uint8_t data[64];
  std::memcpy(data, t.data, sizeof data);
  uint32_t id = id_from_word(t.id, ext);
  unsigned len = std::min<unsigned>(t.length, fd ? 64 : 8);
  uint32_t id_max = ext ? 0x1FFFFFFFu : 0x7FFu;
  unsigned nbits = t.inc_nbits == 0 || t.inc_nbits > 32 ? 32 : t.inc_nbits;
  uint32_t field_max = nbits == 32 ? 0xFFFFFFFFu : ((1u << nbits) - 1);
  bool on_id = t.type == VX_TXTASK_INCID || t.type == VX_TXTASK_RANDOMID;
  uint32_t top = on_id ? id_max : field_max;
  uint32_t hi = t.inc_max ? std::min(t.inc_max, top) : top;
  uint32_t lo = std::min(t.inc_min, hi);
  uint32_t step = t.inc_step ? t.inc_step : 1;
  uint32_t v = 0;
  switch (t.type) {
    case VX_TXTASK_INCDATA:
    case VX_TXTASK_INCID: {
      if (!run.value_init) {
        v = on_id ? id : get_bits(data, t.inc_startbit, nbits);
        v = std::clamp(v, lo, hi);
        run.value_init = true;
      } else {
        uint64_t next = uint64_t(run.value) + step;
        v = next > hi ? lo : static_cast<uint32_t>(next);
      }
      run.value = v;
      break;
    }
    case VX_TXTASK_RANDOMDATA:
    case VX_TXTASK_RANDOMID: {
      uint64_t span = uint64_t(hi) - lo + 1;
      v = static_cast<uint32_t>(lo + next_random(p->rng) % span);
      break;
    }
    default:
      break;
  }
  if (t.type == VX_TXTASK_INCDATA || t.type == VX_TXTASK_RANDOMDATA) set_bits(data, t.inc_startbit, nbits, v);
  if (on_id) id = v & id_max;
  VXMessage m;
  make_can_record(m, id, t.flags, data, len);
  m.flags |= VX_MSGF_TASK;
  p->task_frames++;
  transmit_can(p, nullptr, m, t_ns, 0);
}

void Engine::run_tasks(int64_t now) {
  if (next_due_ns_ > now) return;
  for (auto& d : devices_) {
    if (!d->present) continue;
    for (auto& pp : d->ports) {
      Port* p = pp.get();
      for (unsigned i = 0; i < VX_TXTASK_CAPACITY; ++i) {
        TaskRun& run = p->runs[i];
        const VXTxTask& t = p->tasks[i];
        while (run.active && run.next_ns <= now) {
          if (!p->busoff) fire_task(p, i, run.next_ns);
          run.done++;
          if ((t.rounds && run.done >= t.rounds) || t.cycle == 0) {
            run.active = false;
            break;
          }
          run.next_ns += int64_t(t.cycle) * kMs;
          // After a stall (suspended process, loaded machine) skip missed
          // periods instead of sending a burst.
          if (now - run.next_ns > 1000 * kMs) run.next_ns = now + int64_t(t.cycle) * kMs;
        }
      }
    }
  }
  reschedule();
}

void Engine::reschedule() {
  next_due_ns_ = INT64_MAX;
  for (auto& d : devices_) {
    if (!d->present) continue;
    for (auto& p : d->ports)
      for (auto& run : p->runs)
        if (run.active) next_due_ns_ = std::min(next_due_ns_, run.next_ns);
  }
}

VXStatus Engine::set_filters(Channel* ch, const VXRxFilter* filters, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i)
    if (filters[i].mode > VX_RXFILTER_REJECT) return VX_ERR_INVALID_PARAM_VALUE;
  std::memset(ch->filters, 0, sizeof ch->filters);
  if (count) std::memcpy(ch->filters, filters, count * sizeof *filters);
  ch->filter_count = count;
  return VX_OK;
}

VXStatus Engine::set_tasks(Channel* ch, const VXTxTask* tasks, uint32_t count) {
  Port* p = ch->port;
  if (!p->dev->present) return VX_ERR_INVALID_HARDWARE;
  for (uint32_t i = 0; i < count; ++i) {
    const VXTxTask& t = tasks[i];
    if (!task_in_use(t)) continue;
    if (t.kind == VX_TXTASK_KIND_CAN) {
      if (p->lin) return VX_ERR_INVALID_PARAM_VALUE;
      bool ext = t.flags & VX_FRAME_IDE, fd = t.flags & VX_FRAME_FDF;
      if (fd && !(p->capability & VX_CAP_CANFD)) return VX_ERR_INVALID_PARAM_VALUE;
      if (fd && (t.flags & VX_FRAME_RTR)) return VX_ERR_INVALID_PARAM_VALUE;
      if (t.length > (fd ? 64 : 8)) return VX_ERR_INVALID_PARAM_VALUE;
      if (t.id & ~(ext ? 0x1FFFFFFFu : 0x7FFu)) return VX_ERR_INVALID_PARAM_VALUE;
      if (t.cycle == 0 && t.rounds != 1) return VX_ERR_INVALID_PARAM_VALUE;
      if (t.inc_nbits > 32 || (t.inc_nbits ? t.inc_nbits : 32) + unsigned(t.inc_startbit) > 512)
        return VX_ERR_INVALID_PARAM_VALUE;
    } else if (t.kind == VX_TXTASK_KIND_LIN_RESPONSE || t.kind == VX_TXTASK_KIND_LIN_HEADER) {
      if (!p->lin) return VX_ERR_INVALID_PARAM_VALUE;
      if (t.lin_id > 0x3F || (t.length & 0x7F) > 8) return VX_ERR_INVALID_PARAM_VALUE;
      if (t.kind == VX_TXTASK_KIND_LIN_HEADER && t.cycle == 0 && t.rounds != 1) return VX_ERR_INVALID_PARAM_VALUE;
    } else {
      return VX_ERR_INVALID_PARAM_VALUE;
    }
  }
  int64_t now = monotonic_ns();
  for (unsigned i = 0; i < VX_TXTASK_CAPACITY; ++i) {
    VXTxTask next{};
    if (i < count) next = tasks[i];
    bool same = std::memcmp(&next, &p->tasks[i], sizeof next) == 0;
    p->tasks[i] = next;
    if (same) continue;  // unchanged entries keep their phase and round count
    TaskRun run;
    run.active = task_in_use(next) && next.hold == 0 && next.kind != VX_TXTASK_KIND_LIN_RESPONSE;
    run.next_ns = now + int64_t(next.delay) * kMs;
    p->runs[i] = run;
  }
  if (p->lin)
    for (auto& r : p->primed) r = LinResponse{};
  reschedule();
  return VX_OK;
}

VXStatus Engine::set_routes(Channel* ch, const VXRoute* routes, uint32_t count) {
  Port* p = ch->port;
  if (!p->dev->present) return VX_ERR_INVALID_HARDWARE;
  if (p->lin) return VX_ERR_INVALID_OPERATION;
  uint32_t can_ports = 0;
  for (auto& q : p->dev->ports)
    if (!q->lin && q.get() != p) can_ports |= 1u << q->index;
  for (uint32_t i = 0; i < count; ++i) {
    const VXRoute& r = routes[i];
    if (r.type == VX_ROUTE_FREE) continue;
    if (r.type > VX_ROUTE_BROADCAST || r.src_port != p->index) return VX_ERR_INVALID_PARAM_VALUE;
    if (r.type == VX_ROUTE_UNICAST && (r.target >= kMaxPorts || !(can_ports & (1u << r.target))))
      return VX_ERR_INVALID_PARAM_VALUE;
    if (r.type == VX_ROUTE_BROADCAST && !(r.target & can_ports)) return VX_ERR_INVALID_PARAM_VALUE;
  }
  std::memset(p->routes, 0, sizeof p->routes);
  if (count) std::memcpy(p->routes, routes, count * sizeof *routes);
  return VX_OK;
}

VXStatus Engine::can_status(Channel* ch, VXCanStatus& out) {
  Port* p = ch->port;
  if (!p->dev->present || (ch->shm->state.load() & kStateDead)) return VX_ERR_INVALID_HARDWARE;
  if (p->lin) return VX_ERR_INVALID_OPERATION;
  out = VXCanStatus{};
  out.state = p->busoff ? VX_ERR_BUS_OFF : VX_OK;
  out.tx_errors = p->busoff ? 255 : 0;
  out.busoff_count = p->busoff_count;
  return out.state;
}

VXStatus Engine::recover(Channel* ch) {
  Port* p = ch->port;
  if (!p->dev->present || (ch->shm->state.load() & kStateDead)) return VX_ERR_INVALID_HARDWARE;
  if (p->lin) return VX_ERR_INVALID_OPERATION;
  if (p->busoff && p->busoff_stuck) return VX_ERR_BUS_OFF;
  p->busoff = false;
  update_port_state(p);
  return VX_OK;
}

VXStatus Engine::lin_slave_write(Channel* ch, const VXLinMessage& m) {
  Port* p = ch->port;
  if (!p->dev->present || (ch->shm->state.load() & kStateDead)) return VX_ERR_INVALID_HARDWARE;
  if (!p->lin || ch->mode != VX_LIN_MODE_SLAVE) return VX_ERR_INVALID_OPERATION;
  if (m.id > 0x3F || (m.control & VX_LIN_CTRL_LEN_MASK) > 8) return VX_ERR_INVALID_PARAM_VALUE;
  LinResponse& r = p->primed[m.id];
  if (!(m.control & VX_LIN_CTRL_MASTER_DATA) && (m.control & VX_LIN_CTRL_LEN_MASK) == 0) {
    r = LinResponse{};
  } else {
    r.set = true;
    r.msg = m;
    r.msg.status = 0;
  }
  return VX_OK;
}

VXStatus Engine::set_lin_voltage(Channel* ch, uint32_t power) {
  if (!ch->port->lin) return VX_ERR_INVALID_OPERATION;
  if (power > 1) return VX_ERR_INVALID_PARAM_VALUE;
  ch->lin_power = static_cast<uint8_t>(power);
  return VX_OK;
}

VXStatus Engine::set_lin_protocol(Channel* ch, const VXLinProtocol& p) {
  if (!ch->port->lin) return VX_ERR_INVALID_OPERATION;
  if (p.version != 0x13 && p.version != 0x20 && p.version != 0x21 && p.version != 0x22)
    return VX_ERR_INVALID_PARAM_VALUE;
  if (p.checksum_type != VX_LIN_CHECKSUM_CLASSIC && p.checksum_type != VX_LIN_CHECKSUM_ENHANCED)
    return VX_ERR_INVALID_PARAM_VALUE;
  ch->lin_version = p.version;
  ch->lin_checksum = p.checksum_type;
  return VX_OK;
}

VXStatus Engine::set_can_bitrate(Channel* ch, const VXBitrate& in) {
  if (ch->port->lin) return VX_ERR_INVALID_OPERATION;
  VXBitrate b = in;
  if (b.nominal_kbps == 0) return VX_ERR_INVALID_PARAM_VALUE;
  if (b.data_kbps == 0) b.data_kbps = b.nominal_kbps;
  if (b.nominal_sample == 0) b.nominal_sample = 75;
  if (b.data_sample == 0) b.data_sample = 75;
  if (b.nominal_sample > 100 || b.data_sample > 100) return VX_ERR_INVALID_PARAM_VALUE;
  ch->port->bitrate = b;
  return VX_OK;
}

VXStatus Engine::set_can_mode(Channel* ch, uint32_t mode) {
  if (ch->port->lin) return VX_ERR_INVALID_OPERATION;
  if (mode > VX_CAN_MODE_LOOPBACK) return VX_ERR_INVALID_PARAM_VALUE;
  ch->mode = mode;
  ch->fd_enabled = (ch->port->capability & VX_CAP_CANFD) && mode != VX_CAN_MODE_CLASSIC;
  ch->shm->mode.store(mode);
  ch->shm->fd_enabled.store(ch->fd_enabled ? 1 : 0);
  return VX_OK;
}

VXStatus Engine::set_can_termination(Channel* ch, uint32_t ohm) {
  if (ch->port->lin) return VX_ERR_INVALID_OPERATION;
  if (ohm > VX_TERMINATION_OFF) return VX_ERR_INVALID_PARAM_VALUE;
  ch->port->resistance = ohm ? ohm : 120;
  return VX_OK;
}

VXChannelConfig Engine::config_of(const Channel* ch) const {
  VXChannelConfig c{};
  c.bus = ch->port->lin ? VX_BUS_LIN : VX_BUS_CAN;
  c.mode = ch->mode;
  c.resistance = ch->port->resistance;
  c.bitrate = ch->port->bitrate;
  c.fd_enabled = ch->fd_enabled ? 1 : 0;
  c.lin_version = ch->port->lin ? ch->lin_version : 0;
  c.lin_checksum = ch->port->lin ? ch->lin_checksum : 0;
  c.lin_power = ch->lin_power;
  c.rx_queue_size = ch->shm->rx_capacity;
  return c;
}

VXStatus Engine::statistic(Channel* ch, uint32_t group, uint32_t item, uint32_t& value) {
  if (group >= 64 && item == 0) {
    item = group;
    group = VX_STAT_GROUP_DEVICE;
  }
  Port* p = ch->port;
  ChannelShm* s = ch->shm;
  auto clamp32 = [](uint64_t v) { return static_cast<uint32_t>(std::min<uint64_t>(v, UINT32_MAX)); };
  if (group == VX_STAT_GROUP_DEVICE) {
    switch (item) {
      case VX_STAT_PORT_COUNT: value = static_cast<uint32_t>(p->dev->ports.size()); return VX_OK;
      case VX_STAT_RXFILTER_COUNT: value = VX_RXFILTER_CAPACITY; return VX_OK;
      case VX_STAT_TXTASK_CAPACITY: value = VX_TXTASK_CAPACITY; return VX_OK;
      case VX_STAT_RX_QUEUE_SIZE: value = s->rx_capacity; return VX_OK;
      case VX_STAT_LIN_RESPONSES: value = p->lin ? 64 : 0; return VX_OK;
      case VX_STAT_MAX_DATA_LENGTH: value = ch->fd_enabled ? 64 : 8; return VX_OK;
      case VX_STAT_ROUTE_CAPACITY: value = p->lin ? 0 : VX_ROUTE_CAPACITY; return VX_OK;
      case VX_STAT_GENERATION:
        value = p->dev->spec.generation * 10u + p->dev->spec.generation_minor;
        return VX_OK;
    }
  } else if (group == VX_STAT_GROUP_CHANNEL) {
    switch (item) {
      case VX_STAT_RX_FRAMES: value = clamp32(s->rx_frames.load()); return VX_OK;
      case VX_STAT_TX_FRAMES: value = clamp32(s->tx_frames.load()); return VX_OK;
      case VX_STAT_RX_DROPPED: value = clamp32(s->rx_dropped.load()); return VX_OK;
      case VX_STAT_RX_PENDING: value = clamp32(s->rx_head.load() - s->rx_tail.load()); return VX_OK;
      case VX_STAT_TX_ERRORS: value = clamp32(s->tx_errors.load()); return VX_OK;
      case VX_STAT_FILTERED: value = clamp32(s->filtered.load()); return VX_OK;
    }
  } else if (group == VX_STAT_GROUP_PORT) {
    switch (item) {
      case VX_STAT_PORT_TX_FRAMES: value = clamp32(p->tx_frames); return VX_OK;
      case VX_STAT_PORT_RX_FRAMES: value = clamp32(p->rx_frames); return VX_OK;
      case VX_STAT_PORT_TASK_FRAMES: value = clamp32(p->task_frames); return VX_OK;
      case VX_STAT_PORT_ROUTED: value = clamp32(p->routed); return VX_OK;
      case VX_STAT_PORT_BUSOFF_COUNT: value = p->busoff_count; return VX_OK;
      case VX_STAT_PORT_OPEN_COUNT: value = static_cast<uint32_t>(p->channels.size()); return VX_OK;
    }
  }
  return VX_ERR_INVALID_PARAM_VALUE;
}

VXStatus Engine::sync_clocks(const std::vector<Channel*>& channels) {
  const DeviceClock& ref = global_->clocks[channels[0]->port->dev->index];
  int64_t epoch = ref.epoch_ns.load();
  uint32_t start = ref.start_us.load();
  for (Channel* ch : channels) {
    DeviceClock& c = global_->clocks[ch->port->dev->index];
    c.epoch_ns.store(epoch);
    c.start_us.store(start);
  }
  return VX_OK;
}

VXStatus Engine::inject_busoff(const std::string& serial, uint32_t port, bool stuck) {
  Device* d = find_device(serial);
  if (!d || port >= d->ports.size()) return VX_ERR_INVALID_HARDWARE;
  Port* p = d->ports[port].get();
  if (p->lin) return VX_ERR_INVALID_OPERATION;
  if (!d->present) return VX_ERR_INVALID_HARDWARE;
  if (!p->busoff) p->busoff_count++;
  p->busoff = true;
  p->busoff_stuck = stuck;
  update_port_state(p);
  return VX_OK;
}

VXStatus Engine::recover_port(const std::string& serial, uint32_t port) {
  Device* d = find_device(serial);
  if (!d || port >= d->ports.size()) return VX_ERR_INVALID_HARDWARE;
  Port* p = d->ports[port].get();
  p->busoff = p->busoff_stuck = false;
  update_port_state(p);
  return VX_OK;
}

VXStatus Engine::set_present(const std::string& serial, bool present) {
  Device* d = find_device(serial);
  if (!d) return VX_ERR_INVALID_HARDWARE;
  if (d->present == present) return VX_OK;
  d->present = present;
  // Unplugging loses power: tables and faults are gone after a replug, and
  // the device clock starts again.
  for (auto& p : d->ports) {
    reset_port(p.get());
    update_port_state(p.get());
  }
  if (present) {
    global_->clocks[d->index].epoch_ns.store(monotonic_ns());
    global_->clocks[d->index].start_us.store(clock_start_);
  }
  reschedule();
  return VX_OK;
}

std::string Engine::describe(const std::map<int, std::unique_ptr<Client>>& clients) const {
  std::string out;
  for (auto& d : devices_) {
    const DeviceSpec& s = d->spec;
    put_line(out, "Device %s (uid %s) %s, firmware %u.%u.%u.%u, generation %u%s%s\n", s.serial.c_str(),
             s.unique_id.c_str(), s.name.c_str(), s.firmware[0], s.firmware[1], s.firmware[2], s.firmware[3],
             s.generation, s.generation_minor ? ("." + std::to_string(s.generation_minor)).c_str() : "",
             d->present ? "" : ", UNPLUGGED");
    for (auto& p : d->ports) {
      int tasks = 0, routes = 0, responses = 0;
      for (auto& t : p->tasks) tasks += task_in_use(t);
      for (auto& r : p->routes) routes += r.type != VX_ROUTE_FREE;
      for (auto& r : p->primed) responses += r.set;
      char rate[48];
      if (p->lin) std::snprintf(rate, sizeof rate, "%u bit/s", p->bitrate.nominal_kbps);
      else std::snprintf(rate, sizeof rate, "%u/%u kbit/s", p->bitrate.nominal_kbps, p->bitrate.data_kbps);
      put_line(out, "  port %u  %-16s bus %-3d %-16s%s", p->index, capability_text(p->capability).c_str(), p->bus,
               rate, p->busoff ? (p->busoff_stuck ? "  BUS-OFF (stuck)" : "  BUS-OFF") : "");
      if (tasks) put_line(out, "  tasks %d", tasks);
      if (routes) put_line(out, "  routes %d", routes);
      if (responses) put_line(out, "  lin-responses %d", responses);
      out += "\n";
      for (Channel* ch : p->channels)
        put_line(out, "    channel %u  pid %d  mode %s%s\n", ch->id, ch->client ? static_cast<int>(ch->client->pid) : 0,
                 mode_name(p.get(), ch->mode), (ch->shm->state.load() & kStateDead) ? "  (device gone)" : "");
    }
  }
  put_line(out, "%zu open channel(s), %zu client connection(s)\n", channels_.size(), clients.size());
  return out;
}

std::string Engine::statistics_text() const {
  std::string out;
  for (auto& [n, b] : buses_) {
    if (b.lin)
      put_line(out, "bus %d (LIN): frames %" PRIu64 " errors %" PRIu64 " bytes %" PRIu64 "\n", n, b.lin_frames,
               b.lin_errors, b.bytes);
    else
      put_line(out, "bus %d (CAN): frames %" PRIu64 " fd %" PRIu64 " bytes %" PRIu64 " bitrate-mismatch %" PRIu64 "\n",
               n, b.frames, b.fd_frames, b.bytes, b.mismatched);
  }
  for (auto& d : devices_)
    for (auto& p : d->ports)
      if (p->tx_frames || p->rx_frames || p->dropped || p->busoff_count)
        put_line(out,
                 "port %s/%u: tx %" PRIu64 " rx %" PRIu64 " task %" PRIu64 " routed %" PRIu64 " dropped %" PRIu64
                 " busoff %u\n",
                 d->spec.serial.c_str(), p->index, p->tx_frames, p->rx_frames, p->task_frames, p->routed, p->dropped,
                 p->busoff_count);
  for (Channel* ch : channels_) {
    ChannelShm* s = ch->shm;
    put_line(out,
             "channel %u (%s/%u pid %d): queued %" PRIu64 " dropped %" PRIu64 " pending %" PRIu64 " written %" PRIu64
             "\n",
             ch->id, ch->port->dev->spec.serial.c_str(), ch->port->index, ch->client ? static_cast<int>(ch->client->pid) : 0,
             s->rx_frames.load(), s->rx_dropped.load(), s->rx_head.load() - s->rx_tail.load(), s->tx_frames.load());
  }
  return out;
}

}  // namespace vxsim
