// The daemon process: start-up, the TCP serving loop, request parsing and the
// JSON error envelope.
#include "daemon/daemon.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "cli/hooks.h"
#include "cli/output.h"
#include "daemon/client.h"
#include "daemon/daemon_recv.h"
#include "daemon/rx_broker.h"
#include "json/json.h"
#include "vxapi.h"

namespace {

std::mutex g_daemon_command_lock;

const char kOutOfMemoryEnvelope[] =
    "{\"status\":\"error\",\"message\":\"out of memory while formatting daemon error\",\"error\":"
    "{\"code\":\"out_of_memory\",\"message\":\"out of memory while formatting daemon error\","
    "\"details\":{},\"retryable\":false}}\n";
const char kTooLargeEnvelope[] =
    "{\"status\":\"error\",\"message\":\"daemon error response exceeded limit\",\"error\":"
    "{\"code\":\"response_too_large\",\"message\":\"daemon error response exceeded limit\","
    "\"details\":{},\"retryable\":false}}\n";

// Uid owning the loopback socket 127.0.0.1:peer_port connected to our_port, asked
// of the kernel directly (one exact socket lookup); -1 when that is unavailable.
long peer_uid_netlink(int peer_port, int our_port) {
  int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (fd < 0) return -1;
  struct {
    nlmsghdr header;
    inet_diag_req_v2 request;
  } message;
  memset(&message, 0, sizeof message);
  message.header.nlmsg_len = sizeof message;
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST;
  message.request.sdiag_family = AF_INET;
  message.request.sdiag_protocol = IPPROTO_TCP;
  message.request.idiag_states = ~0u;
  message.request.id.idiag_sport = htons(static_cast<uint16_t>(peer_port));
  message.request.id.idiag_dport = htons(static_cast<uint16_t>(our_port));
  message.request.id.idiag_src[0] = htonl(INADDR_LOOPBACK);
  message.request.id.idiag_dst[0] = htonl(INADDR_LOOPBACK);
  message.request.id.idiag_cookie[0] = INET_DIAG_NOCOOKIE;
  message.request.id.idiag_cookie[1] = INET_DIAG_NOCOOKIE;
  sockaddr_nl kernel;
  memset(&kernel, 0, sizeof kernel);
  kernel.nl_family = AF_NETLINK;
  long uid = -1;
  struct timeval timeout = {1, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  if (sendto(fd, &message, sizeof message, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel) ==
      static_cast<ssize_t>(sizeof message)) {
    alignas(nlmsghdr) char buffer[8192];
    ssize_t n = recv(fd, buffer, sizeof buffer, 0);
    for (nlmsghdr* h = reinterpret_cast<nlmsghdr*>(buffer); n > 0 && NLMSG_OK(h, static_cast<size_t>(n));
         h = NLMSG_NEXT(h, n)) {
      if (h->nlmsg_type != SOCK_DIAG_BY_FAMILY) break;
      const inet_diag_msg* d = static_cast<const inet_diag_msg*>(NLMSG_DATA(h));
      if (ntohs(d->id.idiag_sport) == peer_port && ntohs(d->id.idiag_dport) == our_port) {
        uid = static_cast<long>(d->idiag_uid);
        break;
      }
    }
  }
  close(fd);
  return uid;
}

// The same through /proc/net/tcp, for kernels without socket diagnostics.
long peer_uid(int peer_port, int our_port) {
  long fast = peer_uid_netlink(peer_port, our_port);
  if (fast >= 0) return fast;
  FILE* f = fopen("/proc/net/tcp", "r");
  if (!f) return -1;
  char line[512];
  long uid = -1;
  if (!fgets(line, sizeof line, f)) {
    fclose(f);
    return -1;
  }
  while (fgets(line, sizeof line, f)) {
    unsigned local_addr = 0, local_port = 0, remote_addr = 0, remote_port = 0, state = 0;
    long owner = -1;
    if (sscanf(line, " %*d: %8X:%4X %8X:%4X %2X %*s %*s %*s %ld", &local_addr, &local_port,
               &remote_addr, &remote_port, &state, &owner) != 6)
      continue;
    if (static_cast<int>(local_port) == peer_port && static_cast<int>(remote_port) == our_port) {
      uid = owner;
      break;
    }
  }
  fclose(f);
  return uid;
}

void write_all(int fd, const char* data, size_t length) {
  while (length > 0) {
    ssize_t n = send(fd, data, length, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    data += n;
    length -= static_cast<size_t>(n);
  }
}

// One line (without CR/LF) into buffer; its length, 0 when nothing usable came.
size_t read_line(int fd, char* buffer, size_t size) {
  size_t length = 0;
  while (length < size - 1) {
    ssize_t n = recv(fd, buffer + length, size - 1 - length, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    char* newline = static_cast<char*>(memchr(buffer + length, '\n', static_cast<size_t>(n)));
    if (newline) {
      length = static_cast<size_t>(newline - buffer);
      break;
    }
    length += static_cast<size_t>(n);
  }
  buffer[length] = 0;
  if (length > 0 && buffer[length - 1] == '\r') buffer[--length] = 0;
  return length;
}

void write_pid_file() {
  char path[1024];
  if (vxcli_daemon_pid_path(path, sizeof path) != 0) {
    fprintf(stderr, "daemon: WARN cannot resolve pidfile directory\n");
    return;
  }
  char temp[1100];
  snprintf(temp, sizeof temp, "%s.tmp", path);
  FILE* f = fopen(temp, "w");
  if (!f) {
    fprintf(stderr, "daemon: WARN cannot write pidfile %s\n", path);
    return;
  }
  fprintf(f, "%u\n", static_cast<unsigned>(getpid()));
  fclose(f);
  if (rename(temp, path) != 0) {
    fprintf(stderr, "daemon: WARN rename pidfile failed\n");
    unlink(temp);
  }
}

void reopen_output_on_log() {
  char path[1024];
  if (vxcli_daemon_log_path(path, sizeof path) != 0) return;
  if (!freopen(path, "a", stdout)) fprintf(stderr, "daemon: cannot reopen stdout on %s\n", path);
  if (!freopen(path, "a", stderr)) fprintf(stdout, "daemon: cannot reopen stderr on %s\n", path);
  setvbuf(stdout, nullptr, _IOLBF, 0);
  setvbuf(stderr, nullptr, _IONBF, 0);
}

void stop_receivers();

[[noreturn]] void shutdown_and_exit(int listener) {
  stop_receivers();
  {
    std::lock_guard<std::mutex> guard(g_daemon_command_lock);
    daemon_close_all_slots();
  }
  vxcli_rx_broker_shutdown();
  VX_UnInit();
  if (listener >= 0) close(listener);
  char path[1024];
  if (vxcli_daemon_pid_path(path, sizeof path) == 0) unlink(path);
  fprintf(stderr, "daemon: stopped, pidfile removed\n");
  fprintf(stdout, "Daemon: stopped\n");
  fflush(nullptr);
  _exit(0);
}

const char kRecvLimit[] = "ERROR: concurrent receive limit reached; retry later\n";

// Body of a receive thread: capture, answer, close. Never takes the command lock.
void receive_thread(int fd, daemon_recv_job* job, bool json) {
  vxcli_json_writer answer;
  if (vxcli_json_writer_init(&answer, 64 * 1024, VXCLI_DAEMON_BUFFER_SIZE - 1) != 0) {
    const char refusal[] = "ERROR: out of memory for concurrent receive response\n";
    write_all(fd, refusal, sizeof refusal - 1);
  } else {
    daemon_recv_run(job, &answer);
    const char* text = vxcli_json_writer_data(&answer);
    size_t length = vxcli_json_writer_length(&answer);
    if (json && length >= 6 && strncmp(text, "ERROR:", 6) == 0) {
      // Errors are one short line; the envelope needs it NUL-terminated.
      std::string line(text, length);
      std::string envelope(line.size() * 6 + 512, '\0');
      const char* wrapped = daemon_json_error_envelope(line.c_str(), envelope.data(), envelope.size());
      write_all(fd, wrapped, strlen(wrapped));
    } else {
      write_all(fd, text, length);
    }
  }
  vxcli_json_writer_free(&answer);
  close(fd);
  daemon_recv_free(job);
  g_daemon_async_readers.fetch_sub(1);
}

// Hands a "message recv" to a receive thread; true when the thread owns fd now.
bool start_receive(int fd, const char* request, char* response, char* envelope) {
  if (g_daemon_async_readers.load() >= VXCLI_DAEMON_MAX_RECEIVERS) {
    write_all(fd, kRecvLimit, sizeof kRecvLimit - 1);
    return false;
  }
  const bool json = daemon_request_wants_json(request);
  const char* answer = nullptr;
  daemon_recv_job* job;
  {
    std::lock_guard<std::mutex> guard(g_daemon_command_lock);
    job = daemon_recv_begin(request, response, VXCLI_DAEMON_BUFFER_SIZE, &answer);
    if (!job && json) answer = daemon_json_error_envelope(answer, envelope, VXCLI_DAEMON_BUFFER_SIZE);
  }
  if (!job) {
    write_all(fd, answer, strlen(answer));
    return false;
  }
  job->peer_fd = fd;
  g_daemon_async_readers.fetch_add(1);
  try {
    std::thread(receive_thread, fd, job, json).detach();
  } catch (...) {
    g_daemon_async_readers.fetch_sub(1);
    daemon_recv_free(job);
    write_all(fd, kRecvLimit, sizeof kRecvLimit - 1);
    return false;
  }
  return true;
}

// Serves one connection; true when a receive thread took it over.
bool serve_connection(int fd, int port, char* request, char* response, char* envelope) {
  struct timeval timeout = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_in peer;
  socklen_t peer_length = sizeof peer;
  if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peer_length) == 0) {
    long uid = peer_uid(ntohs(peer.sin_port), port);
    if (uid != static_cast<long>(getuid())) {
      fprintf(stdout, "Daemon: refused connection from port %d (uid %ld): not the daemon's user\n",
              ntohs(peer.sin_port), uid);
      const char refusal[] = "ERROR: permission denied: daemon belongs to another user\n";
      write_all(fd, refusal, sizeof refusal - 1);
      return false;
    }
  }
  if (read_line(fd, request, VXCLI_DAEMON_BUFFER_SIZE) == 0) return false;
  if (daemon_request_is_recv(request)) return start_receive(fd, request, response, envelope);
  const char* answer;
  {
    std::lock_guard<std::mutex> guard(g_daemon_command_lock);
    answer = daemon_process_command(request, response, VXCLI_DAEMON_BUFFER_SIZE);
    if (daemon_request_wants_json(request))
      answer = daemon_json_error_envelope(answer, envelope, VXCLI_DAEMON_BUFFER_SIZE);
  }
  write_all(fd, answer, strlen(answer));
  return false;
}

// Lets running receives finish their answers (they end once the broker is gone).
void stop_receivers() {
  g_daemon_recv_stop.store(true);
  for (int waited = 0; g_daemon_async_readers.load() > 0 && waited < 3000; waited += 10) usleep(10000);
}

}  // namespace

int vxcli_daemon_command_try_lock() { return g_daemon_command_lock.try_lock() ? 1 : 0; }
void vxcli_daemon_command_unlock() { g_daemon_command_lock.unlock(); }

bool daemon_request_wants_json(const char* request) {
  return strstr(request, "--format=json") || strstr(request, "\"format\":\"json\"") ||
         strstr(request, "\"format\":\"jsonl\"");
}

const char* daemon_json_error_envelope(const char* answer, char* out, size_t size) {
  // An empty answer is a failure too: the client must never get nothing back.
  if (answer && answer[0] && strncmp(answer, "ERROR:", 6) != 0) return answer;
  if (answer && strncmp(answer, "ERROR: unknown command", 22) == 0) return answer;
  const char* text = (answer && answer[0]) ? answer : "ERROR: daemon command failed";
  text += 6;
  while (*text == ' ' || *text == '\t') text++;
  size_t length = strlen(text);
  while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r')) length--;
  char* message = static_cast<char*>(malloc(length + 1));
  if (!message) return kOutOfMemoryEnvelope;
  memcpy(message, text, length);
  message[length] = 0;
  vxcli_json_writer w;
  if (vxcli_json_writer_init(&w, 256 + length * 2, VXCLI_DAEMON_BUFFER_SIZE) != 0) {
    free(message);
    return kOutOfMemoryEnvelope;
  }
  vxcli_json_writer_raw(&w, "{\"status\":\"error\",\"message\":");
  vxcli_json_writer_string(&w, message);
  vxcli_json_writer_raw(&w, ",\"error\":{\"code\":\"daemon_command_failed\",\"message\":");
  vxcli_json_writer_string(&w, message);
  vxcli_json_writer_raw(&w, ",\"details\":{},\"retryable\":false}}\n");
  free(message);
  const char* result = kTooLargeEnvelope;
  if (vxcli_json_writer_ok(&w) && vxcli_json_writer_length(&w) < size &&
      vxcli_json_writer_length(&w) <= VXCLI_DAEMON_BUFFER_SIZE - 1) {
    memcpy(out, vxcli_json_writer_data(&w), vxcli_json_writer_length(&w));
    out[vxcli_json_writer_length(&w)] = 0;
    result = out;
  }
  vxcli_json_writer_free(&w);
  return result;
}

int daemon_parse_ipc_request(const char* line, daemon_ipc_request* request) {
  static thread_local vxcli_json_token tokens[512];
  memset(request, 0, offsetof(daemon_ipc_request, strings));
  int count = vxcli_json_parse(line, tokens, 512);
  if (count < 1 || tokens[0].type != VXCLI_JSON_OBJECT) return -1;
  int protocol = vxcli_json_object_get(line, tokens, 0, "protocol");
  int version = vxcli_json_object_get(line, tokens, 0, "version");
  int format = vxcli_json_object_get(line, tokens, 0, "format");
  int argv = vxcli_json_object_get(line, tokens, 0, "argv");
  int project = vxcli_json_object_get(line, tokens, 0, "project");
  if (protocol < 0 || version < 0 || format < 0 || argv < 0) return -1;
  char text[32];
  if (vxcli_json_string(line, &tokens[protocol], text, sizeof text) < 0 || strcmp(text, "vxcli-ipc") != 0)
    return -1;
  int64_t number = 0;
  if (tokens[version].type != VXCLI_JSON_PRIMITIVE || vxcli_json_integer(line, &tokens[version], &number) != 0 ||
      number != 1)
    return -1;
  if (vxcli_json_string(line, &tokens[format], request->format, sizeof request->format) < 0) return -1;
  if (strcmp(request->format, "text") != 0 && strcmp(request->format, "json") != 0 &&
      strcmp(request->format, "jsonl") != 0 && strcmp(request->format, "csv") != 0)
    return -1;
  if (project >= 0 &&
      (tokens[project].type != VXCLI_JSON_STRING ||
       vxcli_json_string(line, &tokens[project], request->project, sizeof request->project) < 0))
    return -1;
  if (tokens[argv].type != VXCLI_JSON_ARRAY || tokens[argv].size > VXCLI_DAEMON_MAX_ARGV) return -1;
  size_t used = 0;
  const size_t budget = 65536;
  for (int i = 0, index = argv + 1; i < tokens[argv].size; i++, index = vxcli_json_next(tokens, index)) {
    if (index <= 0 || index >= count || tokens[index].type != VXCLI_JSON_STRING) return -1;
    if (vxcli_json_string(line, &tokens[index], request->strings + used, budget - used) < 0) return -1;
    size_t n = strlen(request->strings + used);
    if (used + n + 1 > budget) return -1;
    request->argv[request->argc++] = request->strings + used;
    used += n + 1;
  }
  if (strcmp(request->format, "text") != 0) {
    int n = snprintf(request->strings + used, sizeof request->strings - used, "--format=%s", request->format);
    request->argv[request->argc++] = request->strings + used;
    used += static_cast<size_t>(n) + 1;
  }
  request->argv[request->argc] = nullptr;
  return 0;
}

void vxcli_daemon_run() {
  char* request = static_cast<char*>(malloc(VXCLI_DAEMON_BUFFER_SIZE));
  char* response = static_cast<char*>(malloc(VXCLI_DAEMON_BUFFER_SIZE));
  char* envelope = static_cast<char*>(malloc(VXCLI_DAEMON_BUFFER_SIZE));
  if (!request || !response || !envelope) {
    fprintf(stdout, "Daemon: out of memory for buffers (%d bytes each)\n",
            static_cast<int>(VXCLI_DAEMON_BUFFER_SIZE));
    _exit(1);
  }
  // Start-up channels may already sit in the slot table.
  if (!daemon_is_running()) daemon_state_init();
  const int port = vxcli_daemon_port();
  char log_path[1024];
  if (vxcli_daemon_log_path(log_path, sizeof log_path) != 0) {
    fprintf(stderr, "daemon: failed to resolve private state directory\n");
    _exit(1);
  }
  reopen_output_on_log();
  fprintf(stderr, "\n==== daemon start pid=%u port=%d ====\n", static_cast<unsigned>(getpid()), port);
  fprintf(stdout, "Daemon: starting on %s:%d\n", "127.0.0.1", port);

  int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) {
    perror("socket");
    shutdown_and_exit(-1);
  }
  int one = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address;
  memset(&address, 0, sizeof address);
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    perror("bind");
    close(listener);
    // Leave any pid file alone: it may belong to the daemon that holds the port.
    daemon_close_all_slots();
    _exit(1);
  }
  if (listen(listener, 32) != 0) {
    perror("listen");
    close(listener);
    daemon_close_all_slots();
    _exit(1);
  }
  // Accept returns every 500 ms so a stop request is noticed promptly.
  struct timeval tick = {0, 500000};
  setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &tick, sizeof tick);
  write_pid_file();

  char sem_name[64];
  vxcli_daemon_semaphore_name(sem_name, sizeof sem_name);
  sem_t* ready = sem_open(sem_name, 0);
  if (ready != SEM_FAILED) {
    sem_post(ready);
    sem_close(ready);
  }
  fprintf(stderr, "daemon: bound %s:%d, pid=%u, ready signaled\n", "127.0.0.1", port,
          static_cast<unsigned>(getpid()));

  while (daemon_is_running()) {
    int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    bool handed_off = serve_connection(fd, port, request, response, envelope);
    if (!handed_off) close(fd);
    if (!daemon_is_running() || handed_off) continue;
    std::lock_guard<std::mutex> guard(g_daemon_command_lock);
    vxcli_daemon_recovery_tick();
  }
  shutdown_and_exit(listener);
}

int vxcli_daemon_process_main(int count, char** words) {
  char message[256];
  if (vxcli_device_library_load(message, sizeof message) != 0) {
    fprintf(stdout, "Daemon: VX_Init failed: %s\n", message);
    return 1;
  }
  VXStatus status = VX_Init();
  if (status != VX_OK && status != VX_ERR_NOT_INITIALIZED) {
    fprintf(stdout, "Daemon: VX_Init failed: %s\n", vxcli_status_to_string(status));
    return 1;
  }
  if (vxcli_rx_broker_init() != 0) {
    fprintf(stdout, "Daemon: failed to initialize RX broker\n");
    VX_UnInit();
    return 1;
  }
  daemon_state_init();
  vxcli_daemon_channel_options options;
  vxcli_daemon_read_channel_options(count, words, &options);
  if (options.channel && options.channel[0]) vxcli_daemon_open_channels_config(&options);
  vxcli_daemon_run();
}
