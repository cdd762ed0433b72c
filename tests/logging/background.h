// A vxcli process running beside the test (logging, looping replay), with
// its output in files, so the test can signal it and wait for it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "vxtest.h"

namespace logtest {

// A loopback port nobody listens on right now (the kernel's pick).
inline int free_port() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t n = sizeof a;
  int port = 0;
  if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &n) == 0)
    port = ntohs(a.sin_port);
  if (fd >= 0) close(fd);
  return port ? port : 20000 + getpid() % 20000;
}

// A sandbox whose commands run standalone: its daemon port is a free one, so
// no daemon of anyone else's takes the commands.
struct StandaloneBox : vxtest::Sandbox {
  StandaloneBox() { env()["VXCLI_DAEMON_PORT"] = std::to_string(free_port()); }
};

class Background {
 public:
  Background(vxtest::Sandbox& box, const std::vector<std::string>& args, const std::string& name)
      : out_(box.path(name + ".out")), err_(box.path(name + ".err")) {
    std::string exe = vxtest::bin_path("vxcli");
    std::vector<std::string> envs;
    for (const char* keep : {"PATH", "LANG", "TZ", "ASAN_OPTIONS", "UBSAN_OPTIONS"})
      if (const char* v = getenv(keep)) envs.push_back(std::string(keep) + "=" + v);
    for (auto& [k, v] : box.env()) envs.push_back(k + "=" + v);
    std::string root = box.root();
    pid_ = fork();
    if (pid_ == 0) {
      if (!freopen(out_.c_str(), "w", stdout) || !freopen(err_.c_str(), "w", stderr) ||
          chdir(root.c_str()) != 0)
        _exit(126);
      std::vector<char*> argv{const_cast<char*>(exe.c_str())};
      for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      std::vector<char*> envp;
      for (auto& e : envs) envp.push_back(const_cast<char*>(e.c_str()));
      envp.push_back(nullptr);
      execve(exe.c_str(), argv.data(), envp.data());
      _exit(127);
    }
  }
  ~Background() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  // Waits until stdout contains text; false after the timeout or an early exit.
  bool wait_for_output(const std::string& text, int timeout_ms = 20000) {
    for (int waited = 0; waited < timeout_ms && pid_ > 0; waited += 20) {
      if (out().find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return out().find(text) != std::string::npos;
  }
  void signal(int number) {
    if (pid_ > 0) kill(pid_, number);
  }
  // Exit status, 128 + signal when killed, -1 on timeout.
  int wait(int timeout_ms = 30000) {
    for (int waited = 0; pid_ > 0 && waited < timeout_ms; waited += 20) {
      int status;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return -1;
  }
  std::string out() const { return vxtest::read_file(out_); }
  std::string err() const { return vxtest::read_file(err_); }

 private:
  std::string out_, err_;
  pid_t pid_ = -1;
};

}  // namespace logtest
