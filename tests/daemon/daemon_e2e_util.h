// End-to-end daemon tests: a sandbox whose daemon is stopped on the way out,
// background clients, raw IPC lines and JSON field access.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "json/json.h"
#include "vxtest.h"

extern char** environ;

namespace daemon_e2e {

struct Background {
  pid_t pid = -1;
  std::string out_path, err_path;
};

// A sandbox for one daemon. Under the test launcher every case has its own
// network namespace and uses the default port; otherwise a per-process port.
struct DaemonBox {
  vxtest::Sandbox box;
  int port = 4502;
  int spawned = 0;

  DaemonBox() {
    if (!getenv("VXTEST_NETNS")) {
      port = 20000 + getpid() % 20000;
      box.env()["VXCLI_DAEMON_PORT"] = std::to_string(port);
    }
  }
  ~DaemonBox() { box.vxcli({"daemon", "stop"}, 20); }

  vxtest::RunResult run(const std::vector<std::string>& args, int timeout = 60) const {
    return box.vxcli(args, timeout);
  }
  std::string log() const { return vxtest::read_file(box.path("state/vxcli/daemon_" + std::to_string(port) + ".log")); }
  std::string pid_file() const { return box.path("runtime/vxcli/daemon_" + std::to_string(port) + ".pid"); }

  // Starts vxcli without waiting; output goes to files in the sandbox.
  Background spawn(const std::vector<std::string>& args) {
    Background b;
    int n = spawned++;
    b.out_path = box.path("bg" + std::to_string(n) + ".out");
    b.err_path = box.path("bg" + std::to_string(n) + ".err");
    std::vector<std::string> envs;
    for (const char* keep : {"PATH", "LANG", "ASAN_OPTIONS", "UBSAN_OPTIONS"})
      if (const char* v = getenv(keep)) envs.push_back(std::string(keep) + "=" + v);
    for (auto& [k, v] : box.env()) envs.push_back(k + "=" + v);
    std::string exe = vxtest::bin_path("vxcli");
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : envs) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, b.out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, b.err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (posix_spawn(&b.pid, exe.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) b.pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return b;
  }

  static vxtest::RunResult wait(const Background& b) {
    vxtest::RunResult r;
    int status = 0;
    if (b.pid > 0 && waitpid(b.pid, &status, 0) == b.pid)
      r.rc = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = vxtest::read_file(b.out_path);
    r.err = vxtest::read_file(b.err_path);
    return r;
  }

  // Sends one request line and returns the whole answer ("" when none came).
  std::string raw(const std::string& line) const {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string answer;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
      std::string framed = line + "\n";
      if (send(fd, framed.data(), framed.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(framed.size())) {
        char buf[65536];
        ssize_t n;
        while ((n = recv(fd, buf, sizeof buf, 0)) > 0) answer.append(buf, static_cast<size_t>(n));
      }
    }
    close(fd);
    return answer;
  }
};

inline int json_int(const std::string& doc, const char* key) {
  static vxcli_json_token t[4096];
  if (vxcli_json_parse(doc.c_str(), t, 4096) < 1) return -1;
  int at = vxcli_json_object_get(doc.c_str(), t, 0, key);
  int64_t v = -1;
  if (at < 0 || vxcli_json_integer(doc.c_str(), &t[at], &v) != 0) return -1;
  return static_cast<int>(v);
}

inline int count_of(const std::string& text, const std::string& what) {
  int n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) n++;
  return n;
}

// Polls until pred holds or about timeout_ms passed.
template <typename F>
bool eventually(F pred, int timeout_ms = 10000) {
  for (int waited = 0; waited < timeout_ms; waited += 50) {
    if (pred()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return pred();
}

}  // namespace daemon_e2e
