// Client side of the daemon: the IPC transport, start, stop, restart, status.
#include "daemon/client.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "channel/channel.h"
#include "cli/output.h"
#include "daemon/daemon.h"
#include "json/json.h"
#include "project/dirs.h"

namespace {

char g_last_error[256] = "no IPC error";
unsigned long g_request_counter = 0;

void set_error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void set_error(const char* format, ...) {
  va_list args;
  va_start(args, format);
  vsnprintf(g_last_error, sizeof g_last_error, format, args);
  va_end(args);
}

uint64_t monotonic_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

void sleep_ms(int ms) {
  timespec ts{ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

// A process that exited but was not reaped yet (its parent is gone and the
// reaper may take its time) counts as gone.
bool pid_zombie(unsigned pid) {
  char path[64], line[512];
  snprintf(path, sizeof path, "/proc/%u/stat", pid);
  FILE* f = fopen(path, "r");
  if (!f) return false;
  size_t n = fread(line, 1, sizeof line - 1, f);
  fclose(f);
  line[n] = 0;
  const char* end = strrchr(line, ')');
  return end && end[1] == ' ' && end[2] == 'Z';
}

bool pid_alive(unsigned pid) {
  return pid != 0 && kill(static_cast<pid_t>(pid), 0) == 0 && !pid_zombie(pid);
}

// 1 with the pid when the pid file exists and reads; 0 when it is missing.
int read_pid_file(unsigned* pid) {
  *pid = 0;
  char path[1024];
  if (vxcli_daemon_pid_path(path, sizeof path) != 0) return 0;
  FILE* f = fopen(path, "r");
  if (!f) return 0;
  unsigned value = 0;
  int n = fscanf(f, "%u", &value);
  fclose(f);
  if (n != 1) return 0;
  *pid = value;
  return 1;
}

void remove_pid_file() {
  char path[1024];
  if (vxcli_daemon_pid_path(path, sizeof path) == 0) unlink(path);
}

int wait_pid_exit(unsigned pid, int timeout_ms) {
  for (int waited = 0;; waited += 50) {
    // Reap our own child if it is one, so it does not linger as a zombie.
    waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG);
    if (!pid_alive(pid)) return 0;
    if (waited >= timeout_ms) return -1;
    sleep_ms(50);
  }
}

void kill_pid(unsigned pid, const char* reason) {
  fprintf(stderr, "daemon: force-killing pid %u (%s)\n", pid, reason);
  kill(static_cast<pid_t>(pid), SIGKILL);
  wait_pid_exit(pid, 2000);
}

bool json_mode() { return g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL; }

// Seconds of a positive "--duration=N" in the request, else 0.
long request_duration(const char* request, size_t length) {
  const char* key = "--duration=";
  size_t key_length = strlen(key);
  for (size_t i = 0; i + key_length <= length; i++) {
    if (memcmp(request + i, key, key_length) != 0) continue;
    const char* p = request + i + key_length;
    long value = 0;
    bool digits = false;
    while (p < request + length && *p >= '0' && *p <= '9' && value < 100000000) {
      value = value * 10 + (*p - '0');
      digits = true;
      p++;
    }
    if (digits && value > 0) return value;
  }
  return 0;
}


}  // namespace

int vxcli_daemon_port() {
  const char* text = getenv("VXCLI_DAEMON_PORT");
  if (text && *text) {
    char* end = nullptr;
    long port = strtol(text, &end, 10);
    if (end && *end == 0 && port > 0 && port < 65536) return static_cast<int>(port);
  }
  return 4502;
}

int vxcli_daemon_pid_path(char* out, size_t size) {
  char dir[1024];
  if (vxcli_get_runtime_dir(dir, sizeof dir) != 0) return -1;
  int n = snprintf(out, size, "%s/daemon_%d.pid", dir, vxcli_daemon_port());
  return (n < 0 || static_cast<size_t>(n) >= size) ? -1 : 0;
}

int vxcli_daemon_log_path(char* out, size_t size) {
  char dir[1024];
  if (vxcli_get_state_dir(dir, sizeof dir) != 0) return -1;
  int n = snprintf(out, size, "%s/daemon_%d.log", dir, vxcli_daemon_port());
  return (n < 0 || static_cast<size_t>(n) >= size) ? -1 : 0;
}

void vxcli_daemon_semaphore_name(char* out, size_t size) {
  snprintf(out, size, "/vxcli_daemon_ready_%d", vxcli_daemon_port());
}

const char* vxcli_daemon_last_ipc_error() { return g_last_error; }

int vxcli_daemon_send_command(const char* request, size_t length, char* response, size_t size) {
  if (response && size) response[0] = 0;
  unsigned pid = 0;
  if (!read_pid_file(&pid)) {
    set_error("daemon PID file not found");
    return -1;
  }
  if (!pid_alive(pid)) {
    set_error("daemon PID %u is not running", pid);
    return -1;
  }
  if (!response || size <= 1) {
    set_error("daemon response exceeds caller buffer");
    return -2;
  }
  long duration = request_duration(request, length);
  long timeout_s = duration > 0 ? duration + 10 : 30;
  bool no_retry = length >= 11 && strncmp(request, "daemon stop", 11) == 0;
  int fd = -1;
  const int attempts = 3;
  for (int attempt = 1; attempt <= attempts; attempt++) {
    fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      set_error("socket() failed: errno %d", errno);
      return -2;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(vxcli_daemon_port()));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) break;
    set_error("connect attempt %d/%d failed: errno %d", attempt, attempts, errno);
    close(fd);
    fd = -1;
    if (no_retry || attempt == attempts) return -2;
    sleep_ms(150);
  }
  timeval tv{timeout_s, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  // The request and its newline go out as two writes; without this the newline
  // waits for the daemon's delayed acknowledgement (tens of milliseconds).
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  size_t sent = 0;
  while (sent < length) {
    ssize_t n = send(fd, request + sent, length - sent, MSG_NOSIGNAL);
    if (n <= 0) {
      set_error("send command failed: sent %d/%d bytes, errno %d", static_cast<int>(sent),
                static_cast<int>(length), errno);
      close(fd);
      return -2;
    }
    sent += static_cast<size_t>(n);
  }
  if (send(fd, "\n", 1, MSG_NOSIGNAL) != 1) {
    set_error("send terminator failed: errno %d", errno);
    close(fd);
    return -2;
  }
  size_t got = 0;
  for (;;) {
    if (got >= size - 1) {
      set_error("daemon response exceeds caller buffer");
      close(fd);
      return -2;
    }
    ssize_t n = recv(fd, response + got, size - 1 - got, 0);
    if (n == 0) break;
    if (n < 0) {
      if (errno == EINTR) continue;
      set_error("recv failed: errno %d", errno);
      close(fd);
      response[got] = 0;
      return -2;
    }
    got += static_cast<size_t>(n);
  }
  close(fd);
  response[got] = 0;
  if (got == 0) {
    set_error("daemon closed connection before sending a response");
    return -2;
  }
  if (got >= size - 1) {
    set_error("daemon response exceeds caller buffer");
    return -2;
  }
  set_error("no IPC error");
  return 0;
}

char* vxcli_daemon_build_request(int argc, char** argv, unsigned format) {
  if (!argv || argc < 0 || argc >= 128) {
    set_error("invalid structured IPC argv");
    return nullptr;
  }
  vxcli_json_writer w;
  if (vxcli_json_writer_init(&w, 1024, 65535) != 0) {
    vxcli_json_writer_free(&w);
    set_error("out of memory for structured IPC request");
    return nullptr;
  }
  static const char* kFormats[] = {"text", "json", "jsonl", "csv"};
  vxcli_json_writer_raw(&w, "{\"protocol\":\"vxcli-ipc\",\"version\":1,\"request_id\":");
  vxcli_json_writer_printf(&w, "\"%lu-%lu\",\"format\":", static_cast<unsigned long>(monotonic_ms() & 0xFFFFFFFFu),
                           ++g_request_counter);
  vxcli_json_writer_string(&w, format < 4 ? kFormats[format] : "text");
  vxcli_json_writer_raw(&w, ",\"project\":");
  vxcli_json_writer_string(&w, g_config.project ? g_config.project : "");
  vxcli_json_writer_raw(&w, ",\"argv\":[");
  for (int i = 0; i < argc; i++) {
    if (i) vxcli_json_writer_char(&w, ',');
    vxcli_json_writer_string(&w, argv[i]);
  }
  vxcli_json_writer_raw(&w, "]}");
  if (!vxcli_json_writer_ok(&w)) {
    vxcli_json_writer_free(&w);
    set_error("structured IPC request exceeds 64 KiB");
    return nullptr;
  }
  char* text = strdup(vxcli_json_writer_data(&w));
  vxcli_json_writer_free(&w);
  if (!text) set_error("out of memory for structured IPC request");
  return text;
}

int vxcli_daemon_send_argv(int argc, char** argv, unsigned format, char* response, size_t size) {
  char* request = vxcli_daemon_build_request(argc, argv, format);
  if (!request) return -2;
  int rc = vxcli_daemon_send_command(request, strlen(request), response, size);
  free(request);
  return rc;
}

bool vxcli_daemon_is_running() {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(vxcli_daemon_port()));
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
  close(fd);
  return ok;
}

namespace {

// Checks the start-up channel options the way the daemon will use them.
int validate_start_options(const char* const values[10]) {
  vxcli_daemon_channel_options o = {values[0], values[1], values[2], values[3], values[4],
                                    values[5], values[6], values[7], values[8], values[9]};
  char message[256];
  if (vxcli_daemon_validate_channel_options(&o, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return -1;
  }
  return 0;
}

int start_impl(const char* const values[10], bool quiet) {
  if (validate_start_options(values) != 0) return 1;
  unsigned pid = 0;
  int port = vxcli_daemon_port();
  if (read_pid_file(&pid)) {
    if (pid_alive(pid)) {
      char answer[65536];
      if (vxcli_daemon_send_command("daemon status", 13, answer, sizeof answer) == 0) {
        if (!quiet) {
          if (json_mode())
            printf("{\"status\":\"ok\",\"state\":\"already_running\",\"pid\":%u,\"port\":%d}\n", pid, port);
          else
            printf("OK: daemon already running (pid %u, port %d)\n", pid, port);
        }
        return 0;
      }
      if (!quiet)
        vxcli_print_warning("pid %u (from pidfile) alive but not responding on port %d; force-killing stale daemon",
                            pid, port);
      kill_pid(pid, "stale/unresponsive");
    } else if (!quiet) {
      vxcli_print_warning("stale pidfile (pid %u not alive); removing", pid);
    }
    remove_pid_file();
  }
  char sem_name[64];
  vxcli_daemon_semaphore_name(sem_name, sizeof sem_name);
  sem_unlink(sem_name);
  sem_t* ready = sem_open(sem_name, O_CREAT | O_EXCL, 0644, 0);
  if (ready == SEM_FAILED) {
    vxcli_print_error("failed to create ready event");
    return 1;
  }
  char log_path[1024];
  if (vxcli_daemon_log_path(log_path, sizeof log_path) != 0) {
    sem_close(ready);
    sem_unlink(sem_name);
    vxcli_print_error("failed to resolve daemon state directory");
    return 1;
  }
  fflush(nullptr);
  pid_t child = fork();
  if (child < 0) {
    sem_close(ready);
    sem_unlink(sem_name);
    vxcli_print_error("fork failed");
    return 1;
  }
  if (child == 0) {
    int log = open(log_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0) _exit(126);
    dup2(log, 1);
    dup2(log, 2);
    // The daemon must not hold the client's stdin (or a caller's pipes) open.
    int null_fd = open("/dev/null", O_RDONLY);
    if (null_fd >= 0) dup2(null_fd, 0);
    char exe[1024];
    ssize_t n = readlink("/proc/self/exe", exe, 1023);
    if (n <= 0) _exit(127);
    exe[n] = 0;
    static const char* kForms[] = {"--channel=%s", "--mode=%s",     "--bitrate=%s", "--nbitrate=%s",
                                   "--dbitrate=%s", "--termination=%s", "--pullup=%s", "--power=%s",
                                   "--lin-version=%s", "--checksum=%s"};
    char storage[10][512];
    char* args[13];
    int count = 0;
    args[count++] = exe;
    args[count++] = const_cast<char*>("__daemon__");
    for (int i = 0; i < 10; i++) {
      if (!values[i]) continue;
      snprintf(storage[i], sizeof storage[i], kForms[i], values[i]);
      args[count++] = storage[i];
    }
    args[count] = nullptr;
    execv(exe, args);
    _exit(127);
  }
  timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 10;
  int waited;
  do {
    waited = sem_timedwait(ready, &deadline);
  } while (waited != 0 && errno == EINTR);
  sem_close(ready);
  sem_unlink(sem_name);
  if (waited == 0) {
    if (!quiet) {
      if (json_mode())
        printf("{\"status\":\"ok\",\"state\":\"started\",\"pid\":%d,\"port\":%d}\n", child, port);
      else
        printf("OK: daemon started (pid %d, port %d)\n", child, port);
    }
    return 0;
  }
  int status = 0;
  if (waitpid(child, &status, WNOHANG) == child) {
    remove_pid_file();
    vxcli_print_error("daemon child exited during startup (status %d)",
                      WIFEXITED(status) ? WEXITSTATUS(status) : status);
    return 1;
  }
  vxcli_print_error("daemon did not become ready in 10s; killing pid %d", child);
  kill_pid(static_cast<unsigned>(child), "startup-timeout");
  remove_pid_file();
  return 1;
}

int stop_impl(bool quiet) {
  unsigned pid = 0;
  bool had_pid_file = read_pid_file(&pid) == 1;
  // Whether it ran when asked: a daemon that stops at once must still count as exited.
  const bool was_alive = had_pid_file && pid_alive(pid);
  char answer[512];
  int rc = vxcli_daemon_send_command("daemon stop", 11, answer, sizeof answer);
  if (!quiet && !json_mode()) {
    if (rc != 0) printf("daemon stop not delivered via TCP (rc=%d: %s)\n", rc, vxcli_daemon_last_ipc_error());
    else printf("OK: %s\n", "daemon stop sent");
  }
  if (!had_pid_file) {
    if (quiet) return 0;
    remove_pid_file();
    if (json_mode())
      printf("{\"status\":\"ok\",\"state\":\"stopped\",\"pid\":%u,\"forced\":%s,\"was_running\":%s}\n", pid, "false",
             "false");
    return 0;
  }
  bool forced = false;
  if (was_alive) {
    if (wait_pid_exit(pid, 5000) == 0) {
      if (!quiet && !json_mode()) printf("OK: daemon pid %u exited\n", pid);
    } else {
      if (!quiet) vxcli_print_warning("daemon pid %u did not exit in 5s grace; terminating", pid);
      kill_pid(pid, "stop-timeout");
      forced = true;
    }
  }
  // A pid that was already gone still reports was_running true, as it always has.
  if (!quiet && json_mode())
    printf("{\"status\":\"ok\",\"state\":\"stopped\",\"pid\":%u,\"forced\":%s,\"was_running\":%s}\n", pid,
           forced ? "true" : "false", "true");
  remove_pid_file();
  return 0;
}

}  // namespace

int vxcli_daemon_start(int count, char** words) {
  const char* values[10];
  for (int i = 0; i < 10; i++) values[i] = vxcli_get_option(count, words, vxcli_daemon_channel_option_names[i]);
  return start_impl(values, false);
}

int vxcli_daemon_start_quiet(const char*) {
  const char* values[10] = {};
  return start_impl(values, true);
}

int vxcli_daemon_stop() { return stop_impl(false); }
int vxcli_daemon_stop_quiet() { return stop_impl(true); }

int vxcli_daemon_restart() {
  char answer[512];
  char* words[] = {const_cast<char*>("daemon"), const_cast<char*>("restart")};
  int rc = vxcli_daemon_send_argv(2, words, g_config.format, answer, sizeof answer);
  if (rc != 0) {
    vxcli_print_error("daemon restart failed: %s", vxcli_daemon_last_ipc_error());
    return 1;
  }
  fputs(answer, stdout);
  return (strncmp(answer, "ERROR:", 6) == 0 || strstr(answer, "\"status\":\"error\"")) ? 1 : 0;
}

int vxcli_daemon_status() {
  char* answer = static_cast<char*>(malloc(65536));
  if (!answer) {
    vxcli_print_error("daemon status failed: out of memory");
    return 1;
  }
  char* words[] = {const_cast<char*>("daemon"), const_cast<char*>("status")};
  int rc = vxcli_daemon_send_argv(2, words, g_config.format, answer, 65536);
  if (rc == -1) {
    free(answer);
    vxcli_print_error("daemon not running");
    return 1;
  }
  if (rc != 0) {
    free(answer);
    vxcli_print_error("daemon status failed: %s", vxcli_daemon_last_ipc_error());
    return 1;
  }
  fputs(answer, stdout);
  int status = (strncmp(answer, "ERROR:", 6) == 0 || strstr(answer, "\"status\":\"error\"")) ? 1 : 0;
  free(answer);
  return status;
}
