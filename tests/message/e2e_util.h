// Helpers of the message end-to-end tests.
#pragma once

#include <chrono>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "json/json.h"
#include "vxtest.h"

namespace msgtest {

inline std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    out.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return out;
}

// Raw text of a top-level member (strings without their quotes).
inline std::string member(const std::string& json, const char* key) {
  vxcli_json_token t[512];
  if (vxcli_json_parse(json.c_str(), t, 512) <= 0) return "<invalid json>";
  int at = vxcli_json_object_get(json.c_str(), t, 0, key);
  if (at < 0) return "<missing>";
  return json.substr(static_cast<size_t>(t[at].start), static_cast<size_t>(t[at].end - t[at].start));
}

// A vxcli process running in the background with its output going to files.
class Background {
 public:
  Background(vxtest::Sandbox& box, const std::vector<std::string>& args) {
    static int serial = 0;
    std::string stem = box.path("bg" + std::to_string(serial++));
    out_path_ = stem + ".out";
    err_path_ = stem + ".err";
    std::vector<std::string> env;
    for (const char* keep : {"PATH", "LANG", "TZ", "ASAN_OPTIONS", "UBSAN_OPTIONS"})
      if (const char* v = getenv(keep)) env.push_back(std::string(keep) + "=" + v);
    for (auto& [k, v] : box.env()) env.push_back(k + "=" + v);
    std::string exe = vxtest::bin_path("vxcli");
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, out_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (posix_spawn(&pid_, exe.c_str(), &actions, nullptr, argv.data(), envp.data()) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Background() {
    if (pid_ > 0) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
    }
  }
  pid_t pid() const { return pid_; }
  // Waits until stderr shows text; false after timeout or when the process ended.
  bool wait_for_stderr(const std::string& text, int timeout_ms = 20000) const {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < deadline) {
      if (vxtest::read_file(err_path_).find(text) != std::string::npos) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }
  // Waits for the exit (killing the process after timeout_ms) and collects the output.
  vxtest::RunResult finish(int timeout_ms = 30000) {
    vxtest::RunResult r;
    if (pid_ <= 0) return r;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    int status = 0;
    while (waitpid(pid_, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    pid_ = -1;
    if (WIFEXITED(status)) r.rc = WEXITSTATUS(status);
    else if (WIFSIGNALED(status)) r.rc = 128 + WTERMSIG(status);
    r.out = vxtest::read_file(out_path_);
    r.err = vxtest::read_file(err_path_);
    return r;
  }

 private:
  pid_t pid_ = -1;
  std::string out_path_, err_path_;
};

// Starts "message recv args --verbose" and returns once all its channels are open.
inline std::unique_ptr<Background> start_recv(vxtest::Sandbox& box, std::vector<std::string> args) {
  args.insert(args.begin(), {"message", "recv"});
  args.push_back("--verbose");
  auto bg = std::make_unique<Background>(box, args);
  bg->wait_for_stderr("Receiving on ");
  return bg;
}

}  // namespace msgtest
