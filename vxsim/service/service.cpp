#include "service.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>

#include "../common/frame.h"
#include "../common/protocol.h"
#include "engine.h"
#include "model.h"

namespace vxsim {

namespace {

void log_line(const char* fmt, ...) {
  char when[32];
  time_t now = time(nullptr);
  tm tmv;
  localtime_r(&now, &tmv);
  strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tmv);
  std::fprintf(stderr, "%s vxsim[%d]: ", when, static_cast<int>(getpid()));
  va_list ap;
  va_start(ap, fmt);
  std::vfprintf(stderr, fmt, ap);
  va_end(ap);
  std::fputc('\n', stderr);
  std::fflush(stderr);
}

int64_t env_int(const char* name, int64_t fallback, int64_t lo, int64_t hi) {
  const char* v = getenv(name);
  if (!v || !*v) return fallback;
  char* end = nullptr;
  errno = 0;
  long long x = std::strtoll(v, &end, 0);
  if (errno || *end || x < lo || x > hi) {
    log_line("ignoring %s=%s (expected %lld..%lld)", name, v, static_cast<long long>(lo),
             static_cast<long long>(hi));
    return fallback;
  }
  return x;
}

// The event loop and control requests around the Engine, which holds the model.
class Service {
 public:
  explicit Service(int ready_fd) : ready_fd_(ready_fd) {}
  int run();

 private:
  int setup();
  void loop();
  void accept_client();
  void handle_client(Client* c);
  void drop_client(Client* c);
  bool idle_without_state() const;
  bool directory_gone();
  void signal_ready(char code);

  VXStatus dispatch(Client* c, MsgHeader& h, const std::vector<uint8_t>& in, std::string& out,
                    int* fds, int& nfds);
  Channel* own_channel(Client* c, uint32_t id);

  int ready_fd_;
  std::string dir_;
  int lock_fd_ = -1, listen_fd_ = -1, epoll_fd_ = -1, doorbell_fd_ = -1, signal_fd_ = -1;
  int global_fd_ = -1;
  ino_t socket_inode_ = 0;
  bool running_ = true;
  std::map<int, std::unique_ptr<Client>> clients_;
  Engine engine_;
  int64_t idle_since_ns_ = 0;
  int64_t idle_limit_ns_ = 0;
  int64_t last_dir_check_ns_ = 0;
};

void Service::signal_ready(char code) {
  if (ready_fd_ < 0) return;
  ssize_t w = write(ready_fd_, &code, 1);
  (void)w;
  close(ready_fd_);
  ready_fd_ = -1;
}

int Service::setup() {
  dir_ = sim_dir();
  std::string lock_path = dir_ + "/service.lock";
  lock_fd_ = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock_fd_ < 0) {
    log_line("cannot open %s: %s", lock_path.c_str(), std::strerror(errno));
    return 1;
  }
  if (flock(lock_fd_, LOCK_EX | LOCK_NB) != 0) {
    signal_ready('2');  // another service owns this directory
    return -1;
  }

  Topology topo;
  if (const char* path = getenv("VXSIM_TOPOLOGY"); path && *path) {
    std::string error;
    if (topology_load(path, topo, error) != 0) {
      log_line("%s", error.c_str());
      return 1;
    }
  } else {
    topo = topology_default();
  }

  // Shared page with the device clocks; clients map it read-only.
  global_fd_ = memfd_create("vxsim-global", MFD_CLOEXEC);
  if (global_fd_ < 0 || ftruncate(global_fd_, sizeof(GlobalShm)) != 0) {
    log_line("memfd: %s", std::strerror(errno));
    return 1;
  }
  void* g = mmap(nullptr, sizeof(GlobalShm), PROT_READ | PROT_WRITE, MAP_SHARED, global_fd_, 0);
  if (g == MAP_FAILED) {
    log_line("mmap: %s", std::strerror(errno));
    return 1;
  }
  auto* global = static_cast<GlobalShm*>(g);
  global->magic = kGlobalMagic;
  global->size = sizeof(GlobalShm);
  timespec rt, mono;
  clock_gettime(CLOCK_REALTIME, &rt);
  clock_gettime(CLOCK_MONOTONIC, &mono);
  global->realtime_offset_ns = (int64_t(rt.tv_sec) - mono.tv_sec) * 1000000000 + (rt.tv_nsec - mono.tv_nsec);

  uint32_t clock_start = static_cast<uint32_t>(env_int("VXSIM_CLOCK_START", 0, 0, 0xFFFFFFFFll));
  engine_.init(std::move(topo), global, clock_start, static_cast<uint64_t>(env_int("VXSIM_SEED", 0, 0, LLONG_MAX)));
  idle_limit_ns_ = env_int("VXSIM_IDLE_MS", 2000, 0, 86400000) * 1000000;

  doorbell_fd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
  if (doorbell_fd_ < 0 || epoll_fd_ < 0) {
    log_line("eventfd/epoll: %s", std::strerror(errno));
    return 1;
  }

  sigset_t mask;
  sigemptyset(&mask);
  sigaddset(&mask, SIGTERM);
  sigaddset(&mask, SIGINT);
  sigaddset(&mask, SIGHUP);
  sigprocmask(SIG_BLOCK, &mask, nullptr);
  signal_fd_ = signalfd(-1, &mask, SFD_NONBLOCK | SFD_CLOEXEC);
  signal(SIGPIPE, SIG_IGN);

  listen_fd_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::string path = socket_path(dir_);
  socklen_t len;
  if (path.size() < sizeof addr.sun_path) {
    unlink(path.c_str());
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  } else {
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char ch : dir_) hash = (hash ^ ch) * 1099511628211ull;
    char name[64];
    int n = std::snprintf(name, sizeof name, "vxsim-%u-%016llx", static_cast<unsigned>(getuid()),
                          static_cast<unsigned long long>(hash));
    std::memcpy(addr.sun_path + 1, name, static_cast<size_t>(n));
    len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
  }
  if (listen_fd_ < 0 || bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
      listen(listen_fd_, 64) != 0) {
    log_line("cannot listen on %s: %s", path.c_str(), std::strerror(errno));
    return 1;
  }
  struct stat st;
  if (stat(path.c_str(), &st) == 0) socket_inode_ = st.st_ino;

  std::string pid_path = dir_ + "/service.pid";
  if (FILE* f = std::fopen(pid_path.c_str(), "w")) {
    std::fprintf(f, "%d\n", static_cast<int>(getpid()));
    std::fclose(f);
  }

  epoll_event ev{};
  ev.events = EPOLLIN;
  ev.data.fd = listen_fd_;
  epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &ev);
  ev.data.fd = doorbell_fd_;
  epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, doorbell_fd_, &ev);
  if (signal_fd_ >= 0) {
    ev.data.fd = signal_fd_;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, signal_fd_, &ev);
  }
  log_line("serving %s (%zu devices)", dir_.c_str(), engine_.device_count());
  return 0;
}

bool Service::idle_without_state() const { return clients_.empty() && !engine_.has_state(); }

bool Service::directory_gone() {
  struct stat st;
  std::string path = socket_path(dir_);
  if (stat(dir_.c_str(), &st) != 0) return true;
  if (socket_inode_ != 0 && (stat(path.c_str(), &st) != 0 || st.st_ino != socket_inode_)) return true;
  return false;
}

void Service::accept_client() {
  for (;;) {
    int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;
    timeval tv{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    auto c = std::make_unique<Client>();
    c->fd = fd;
    ucred cred{};
    socklen_t cl = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &cl) == 0) c->pid = cred.pid;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLRDHUP;
    ev.data.fd = fd;
    epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev);
    clients_[fd] = std::move(c);
  }
}

void Service::drop_client(Client* c) {
  // A client that went away (closed, crashed, killed) loses its channels;
  // frames it had already queued still go out first.
  while (!c->channels.empty()) engine_.close_channel(c->channels.back());
  epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, c->fd, nullptr);
  close(c->fd);
  clients_.erase(c->fd);
}

Channel* Service::own_channel(Client* c, uint32_t id) {
  for (Channel* ch : c->channels)
    if (ch->id == id) return ch;
  return nullptr;
}

void Service::handle_client(Client* c) {
  MsgHeader h;
  std::vector<uint8_t> in;
  int fds[4];
  int nfds = 0;
  if (recv_message(c->fd, h, in, fds, 4, nfds) != 0) {
    drop_client(c);
    return;
  }
  for (int i = 0; i < nfds; ++i) close(fds[i]);
  // Frames written before this request reach the bus before it takes effect.
  engine_.process_tx(SIZE_MAX);
  std::string out;
  int out_fds[4];
  int out_nfds = 0;
  MsgHeader answer{};
  answer.code = dispatch(c, h, in, out, out_fds, out_nfds);
  answer.channel = h.channel;
  std::memcpy(answer.arg, h.arg, sizeof answer.arg);
  answer.size = static_cast<uint32_t>(std::min(out.size(), kMaxPayload));
  int rc = send_message(c->fd, answer, out.data(), out_fds, out_nfds);
  if (h.code == kOpOpen && answer.code == VX_OK) {
    // The client holds its own copies now; keep ours only inside the channel.
    for (int i = 0; i < out_nfds; ++i) close(out_fds[i]);
  }
  if (rc != 0) drop_client(c);
  if (h.code == kOpShutdown && answer.code == VX_OK) running_ = false;
}

VXStatus Service::dispatch(Client* c, MsgHeader& h, const std::vector<uint8_t>& in, std::string& out,
                           int* fds, int& nfds) {
  auto payload_is = [&](size_t size) { return in.size() == size; };
  auto put = [&](const void* p, size_t n) { out.append(static_cast<const char*>(p), n); };
  std::string serial(h.text, strnlen(h.text, sizeof h.text));
  Channel* ch = nullptr;
  switch (h.code) {
    case kOpHello: {
      fds[0] = global_fd_;
      fds[1] = doorbell_fd_;
      nfds = 2;
      h.arg[0] = sizeof(GlobalShm);
      return VX_OK;
    }
    case kOpEnumerate: {
      std::vector<VXChannelInfo> list = engine_.enumerate();
      put(list.data(), list.size() * sizeof(VXChannelInfo));
      h.arg[0] = static_cast<uint32_t>(list.size());
      return VX_OK;
    }
    case kOpOpen: {
      if (!payload_is(sizeof(OpenRequest))) return VX_ERR_INVALID_PARAM_VALUE;
      OpenRequest req;
      std::memcpy(&req, in.data(), sizeof req);
      req.serial[sizeof req.serial - 1] = 0;
      OpenReply reply{};
      Channel* opened = nullptr;
      VXStatus st = engine_.open_channel(c, req, reply, opened);
      if (st != VX_OK) return st;
      put(&reply, sizeof reply);
      h.channel = opened->id;
      h.arg[0] = opened->id;
      fds[0] = dup(opened->shm_fd);
      fds[1] = dup(opened->event_fd);
      nfds = 2;
      return VX_OK;
    }
    case kOpList: {
      out = engine_.describe(clients_);
      return VX_OK;
    }
    case kOpStats: {
      out = engine_.statistics_text();
      return VX_OK;
    }
    case kOpBusOff:
      return engine_.inject_busoff(serial, h.arg[0], h.arg[1] != 0);
    case kOpPortRecover:
      return engine_.recover_port(serial, h.arg[0]);
    case kOpUnplug:
      return engine_.set_present(serial, false);
    case kOpReplug:
      return engine_.set_present(serial, true);
    case kOpShutdown:
      return VX_OK;
    case kOpSyncClocks: {
      if (in.size() % sizeof(uint32_t) || in.empty()) return VX_ERR_INVALID_PARAM_VALUE;
      std::vector<Channel*> list;
      for (size_t i = 0; i < in.size(); i += 4) {
        uint32_t id;
        std::memcpy(&id, in.data() + i, 4);
        Channel* x = own_channel(c, id);
        if (!x) return VX_ERR_INVALID_CLIENT;
        list.push_back(x);
      }
      return engine_.sync_clocks(list);
    }
    default:
      break;
  }
  ch = own_channel(c, h.channel);
  if (!ch) return VX_ERR_INVALID_CLIENT;
  switch (h.code) {
    case kOpClose:
      engine_.close_channel(ch);
      return VX_OK;
    case kOpSetFilters: {
      uint32_t count = h.arg[0];
      if (count > VX_RXFILTER_CAPACITY || in.size() != count * sizeof(VXRxFilter)) return VX_ERR_INVALID_PARAM_VALUE;
      return engine_.set_filters(ch, reinterpret_cast<const VXRxFilter*>(in.data()), count);
    }
    case kOpSetTasks: {
      uint32_t count = h.arg[0];
      if (count > VX_TXTASK_CAPACITY || in.size() != count * sizeof(VXTxTask)) return VX_ERR_INVALID_PARAM_VALUE;
      std::vector<VXTxTask> tasks(count);
      if (count) std::memcpy(tasks.data(), in.data(), in.size());
      return engine_.set_tasks(ch, tasks.data(), count);
    }
    case kOpGetTasks: {
      uint32_t count = h.arg[0];
      if (count < 1 || count > VX_TXTASK_CAPACITY) return VX_ERR_INVALID_PARAM_VALUE;
      if (!ch->port->dev->present) return VX_ERR_INVALID_HARDWARE;
      put(ch->port->tasks, count * sizeof(VXTxTask));
      return VX_OK;
    }
    case kOpSetRoutes: {
      uint32_t count = h.arg[0];
      if (count > VX_ROUTE_CAPACITY || in.size() != count * sizeof(VXRoute)) return VX_ERR_INVALID_PARAM_VALUE;
      std::vector<VXRoute> routes(count);
      if (count) std::memcpy(routes.data(), in.data(), in.size());
      return engine_.set_routes(ch, routes.data(), count);
    }
    case kOpGetRoutes: {
      uint32_t count = h.arg[0];
      if (count < 1 || count > VX_ROUTE_CAPACITY) return VX_ERR_INVALID_PARAM_VALUE;
      if (!ch->port->dev->present) return VX_ERR_INVALID_HARDWARE;
      if (ch->port->lin) return VX_ERR_INVALID_OPERATION;
      put(ch->port->routes, count * sizeof(VXRoute));
      return VX_OK;
    }
    case kOpCanStatus: {
      VXCanStatus st{};
      VXStatus rc = engine_.can_status(ch, st);
      put(&st, sizeof st);
      return rc;
    }
    case kOpRecover:
      return engine_.recover(ch);
    case kOpActivate:
      return ch->port->dev->present ? VX_OK : VX_ERR_INVALID_HARDWARE;
    case kOpLinWrite: {
      if (!payload_is(sizeof(VXLinMessage))) return VX_ERR_INVALID_PARAM_VALUE;
      VXLinMessage m;
      std::memcpy(&m, in.data(), sizeof m);
      return engine_.lin_slave_write(ch, m);
    }
    case kOpLinVoltage:
      return engine_.set_lin_voltage(ch, h.arg[0]);
    case kOpLinProtocol: {
      if (!payload_is(sizeof(VXLinProtocol))) return VX_ERR_INVALID_PARAM_VALUE;
      VXLinProtocol p;
      std::memcpy(&p, in.data(), sizeof p);
      return engine_.set_lin_protocol(ch, p);
    }
    case kOpSetBitrate: {
      if (!payload_is(sizeof(VXBitrate))) return VX_ERR_INVALID_PARAM_VALUE;
      VXBitrate b;
      std::memcpy(&b, in.data(), sizeof b);
      return engine_.set_can_bitrate(ch, b);
    }
    case kOpSetMode:
      return engine_.set_can_mode(ch, h.arg[0]);
    case kOpSetTermination:
      return engine_.set_can_termination(ch, h.arg[0]);
    case kOpGetConfig: {
      VXChannelConfig cfg = engine_.config_of(ch);
      put(&cfg, sizeof cfg);
      return VX_OK;
    }
    case kOpStatistic: {
      uint32_t value = 0;
      VXStatus rc = engine_.statistic(ch, h.arg[0], h.arg[1], value);
      h.arg[0] = value;
      return rc;
    }
    default:
      return VX_ERR_INVALID_PARAM_VALUE;
  }
}

void Service::loop() {
  GlobalShm* global = engine_.global();
  epoll_event events[32];
  while (running_) {
    size_t moved = engine_.process_tx(4096);
    int64_t now = monotonic_ns();
    engine_.run_tasks(now);

    int timeout_ms = 0;
    if (moved == 0) {
      // Going to sleep: tell writers to ring the doorbell, then look once
      // more so that a frame queued in between is not left waiting.
      global->sleeping.store(1, std::memory_order_seq_cst);
      if (engine_.tx_pending()) {
        global->sleeping.store(0, std::memory_order_relaxed);
      } else {
        int64_t wait_ns = 1000000000;
        int64_t due = engine_.next_task_due();
        if (due != INT64_MAX) wait_ns = std::min(wait_ns, std::max<int64_t>(due - now, 0));
        if (idle_since_ns_) wait_ns = std::min(wait_ns, std::max<int64_t>(idle_since_ns_ + idle_limit_ns_ - now, 0));
        timeout_ms = static_cast<int>((wait_ns + 999999) / 1000000);
      }
    }
    int n = epoll_wait(epoll_fd_, events, 32, timeout_ms);
    global->sleeping.store(0, std::memory_order_relaxed);
    for (int i = 0; i < n; ++i) {
      int fd = events[i].data.fd;
      if (fd == listen_fd_) {
        accept_client();
      } else if (fd == doorbell_fd_) {
        uint64_t v;
        while (read(doorbell_fd_, &v, sizeof v) > 0) {
        }
      } else if (fd == signal_fd_) {
        signalfd_siginfo si;
        while (read(signal_fd_, &si, sizeof si) > 0) running_ = false;
      } else {
        auto it = clients_.find(fd);
        if (it == clients_.end()) continue;
        if (events[i].events & EPOLLIN) handle_client(it->second.get());
        else drop_client(it->second.get());
      }
    }

    now = monotonic_ns();
    if (idle_without_state()) {
      if (!idle_since_ns_) idle_since_ns_ = now;
      if (now - idle_since_ns_ >= idle_limit_ns_) {
        log_line("no clients and no device state; stopping");
        running_ = false;
      }
    } else {
      idle_since_ns_ = 0;
    }
    if (now - last_dir_check_ns_ > 1000000000) {
      last_dir_check_ns_ = now;
      if (directory_gone()) {
        log_line("%s was removed; stopping", dir_.c_str());
        running_ = false;
      }
    }
  }
}

int Service::run() {
  int rc = setup();
  if (rc != 0) {
    if (rc > 0) signal_ready('0');
    return rc < 0 ? 0 : rc;
  }
  signal_ready('1');
  loop();
  engine_.shutdown();
  for (auto& [fd, c] : clients_) close(fd);
  clients_.clear();
  if (!directory_gone()) {
    unlink(socket_path(dir_).c_str());
    unlink((dir_ + "/service.pid").c_str());
  }
  close(listen_fd_);
  log_line("stopped");
  return 0;
}

}  // namespace

int service_run(int ready_fd) {
  Service s(ready_fd);
  return s.run();
}

}  // namespace vxsim
