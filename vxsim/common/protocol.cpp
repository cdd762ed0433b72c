#include "protocol.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace vxsim {

int send_message(int sock, const MsgHeader& h, const void* payload, const int* fds, int nfds) {
  if (h.size > kMaxPayload || nfds > 4) return -1;
  iovec iov[2];
  iov[0].iov_base = const_cast<MsgHeader*>(&h);
  iov[0].iov_len = sizeof h;
  iov[1].iov_base = const_cast<void*>(payload);
  iov[1].iov_len = h.size;
  msghdr msg{};
  msg.msg_iov = iov;
  msg.msg_iovlen = h.size ? 2 : 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
  if (nfds > 0) {
    msg.msg_control = control;
    msg.msg_controllen = CMSG_SPACE(sizeof(int) * nfds);
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int) * nfds);
    std::memcpy(CMSG_DATA(c), fds, sizeof(int) * nfds);
  }
  for (;;) {
    ssize_t n = sendmsg(sock, &msg, MSG_NOSIGNAL);
    if (n >= 0) return n == static_cast<ssize_t>(sizeof h + h.size) ? 0 : -1;
    if (errno != EINTR) return -1;
  }
}

int recv_message(int sock, MsgHeader& h, std::vector<uint8_t>& payload, int* fds, int max_fds, int& nfds) {
  nfds = 0;
  std::vector<uint8_t> buf(kMaxMessage);
  iovec iov{buf.data(), buf.size()};
  msghdr msg{};
  msg.msg_iov = &iov;
  msg.msg_iovlen = 1;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 8)];
  msg.msg_control = control;
  msg.msg_controllen = sizeof control;
  ssize_t n;
  do n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
  while (n < 0 && errno == EINTR);
  for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
    if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
    int count = static_cast<int>((c->cmsg_len - CMSG_LEN(0)) / sizeof(int));
    for (int i = 0; i < count; ++i) {
      int fd;
      std::memcpy(&fd, CMSG_DATA(c) + i * sizeof(int), sizeof fd);
      if (nfds < max_fds) fds[nfds++] = fd;
      else close(fd);
    }
  }
  if (n < static_cast<ssize_t>(sizeof h) || (msg.msg_flags & MSG_TRUNC)) {
    for (int i = 0; i < nfds; ++i) close(fds[i]);
    nfds = 0;
    return -1;
  }
  std::memcpy(&h, buf.data(), sizeof h);
  if (h.size != static_cast<size_t>(n) - sizeof h) {
    for (int i = 0; i < nfds; ++i) close(fds[i]);
    nfds = 0;
    return -1;
  }
  payload.assign(buf.begin() + sizeof h, buf.begin() + n);
  return 0;
}

namespace {

int mkdir_p(const std::string& path) {
  if (path.empty()) return -1;
  size_t pos = 1;
  for (;;) {
    pos = path.find('/', pos);
    std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return -1;
    if (pos == std::string::npos) return 0;
    ++pos;
  }
}

socklen_t make_address(const std::string& dir, sockaddr_un& addr) {
  std::memset(&addr, 0, sizeof addr);
  addr.sun_family = AF_UNIX;
  std::string path = socket_path(dir);
  if (path.size() < sizeof addr.sun_path) {
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  }
  // Too long for a path socket: an abstract name derived from the directory.
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : dir) h = (h ^ c) * 1099511628211ull;
  char name[64];
  int len = std::snprintf(name, sizeof name, "vxsim-%u-%016llx", static_cast<unsigned>(getuid()),
                          static_cast<unsigned long long>(h));
  std::memcpy(addr.sun_path + 1, name, static_cast<size_t>(len));
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + len);
}

int try_connect(const std::string& dir) {
  sockaddr_un addr;
  socklen_t len = make_address(dir, addr);
  int s = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
  if (s < 0) return -1;
  if (connect(s, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    close(s);
    return -1;
  }
  return s;
}

void sleep_ms(int ms) {
  timespec ts{ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

// Starts "<exe> serve --detach"; the detaching parent exits once the
// service listens, so waiting for it is short.
int spawn_service(const std::string& dir, const std::string& exe, std::string& error) {
  if (access(exe.c_str(), X_OK) != 0) {
    error = "device service executable not found: " + exe;
    return -1;
  }
  std::string log = dir + "/service.log";
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&fa, 1, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
  posix_spawn_file_actions_adddup2(&fa, 1, 2);
  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSID);
  std::string env_dir = "VXSIM_DIR=" + dir;
  std::vector<char*> envp;
  for (char** e = environ; e && *e; ++e)
    if (std::strncmp(*e, "VXSIM_DIR=", 10) != 0) envp.push_back(*e);
  envp.push_back(const_cast<char*>(env_dir.c_str()));
  envp.push_back(nullptr);
  char* argv[] = {const_cast<char*>(exe.c_str()), const_cast<char*>("serve"),
                  const_cast<char*>("--detach"), nullptr};
  pid_t pid = -1;
  int rc = posix_spawn(&pid, exe.c_str(), &fa, &attr, argv, envp.data());
  posix_spawn_file_actions_destroy(&fa);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    error = "cannot start device service: " + std::string(std::strerror(rc));
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return 0;
}

}  // namespace

std::string sim_dir() {
  std::string dir;
  if (const char* v = getenv("VXSIM_DIR"); v && *v) dir = v;
  else if (const char* r = getenv("XDG_RUNTIME_DIR"); r && *r) dir = std::string(r) + "/vxsim";
  else dir = "/tmp/vxsim-" + std::to_string(getuid());
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  mkdir_p(dir);
  return dir;
}

std::string socket_path(const std::string& dir) { return dir + "/service.sock"; }

int connect_service(const std::string& dir, bool start, const std::string& service_exe, std::string& error) {
  int s = try_connect(dir);
  if (s >= 0 || !start) {
    if (s < 0) error = "device service is not running";
    return s;
  }
  // One starter at a time; the others find the service once the lock is free.
  std::string lock_path = dir + "/start.lock";
  int lock = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lock < 0) {
    error = "cannot create " + lock_path + ": " + std::strerror(errno);
    return -1;
  }
  while (flock(lock, LOCK_EX) != 0 && errno == EINTR) {
  }
  s = try_connect(dir);
  if (s < 0 && spawn_service(dir, service_exe, error) == 0) {
    for (int i = 0; i < 100 && s < 0; ++i) {
      s = try_connect(dir);
      if (s < 0) sleep_ms(50);
    }
    if (s < 0) error = "device service did not start (see " + dir + "/service.log)";
  }
  flock(lock, LOCK_UN);
  close(lock);
  return s;
}

VXStatus call_service(int sock, MsgHeader& h, const void* payload, size_t size, std::vector<uint8_t>& reply,
                      int* fds, int max_fds, int* nfds) {
  h.size = static_cast<uint32_t>(size);
  if (size > kMaxPayload) return VX_ERR_INVALID_PARAM_VALUE;
  if (send_message(sock, h, payload, nullptr, 0) != 0) return VX_ERR_NO_DRIVER;
  int got = 0;
  int dummy[4] = {};
  MsgHeader answer;
  if (recv_message(sock, answer, reply, fds ? fds : dummy, fds ? max_fds : 0, got) != 0)
    return VX_ERR_NO_DRIVER;
  if (nfds) *nfds = got;
  h = answer;
  return answer.code;
}

}  // namespace vxsim
