#include "vxtest.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace vxtest {

std::string bin_path(const std::string& program) { return std::string(VX_BIN_DIR) + "/" + program; }
std::string testdata(const std::string& relative) {
  return std::string(VX_TESTDATA_DIR) + "/" + relative;
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

Sandbox::Sandbox() {
  char templ[] = "/tmp/vxtest-XXXXXX";
  if (!mkdtemp(templ)) throw std::runtime_error("mkdtemp failed");
  root_ = templ;
  for (const char* d : {"home", "config", "state", "runtime", "sim"})
    mkdir((root_ + "/" + d).c_str(), 0700);
  env_["HOME"] = root_ + "/home";
  env_["XDG_CONFIG_HOME"] = root_ + "/config";
  env_["XDG_STATE_HOME"] = root_ + "/state";
  env_["XDG_RUNTIME_DIR"] = root_ + "/runtime";
  env_["VXSIM_DIR"] = root_ + "/sim";
}

Sandbox::~Sandbox() {
  // Stop a virtual analyzer service that a test may have started in here.
  std::string ctl = bin_path("vxsim");
  if (access(ctl.c_str(), X_OK) == 0) run_program("vxsim", {"shutdown"}, "", 20);
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

std::string Sandbox::write_file(const std::string& relative, const std::string& content) const {
  std::string p = path(relative);
  std::filesystem::create_directories(std::filesystem::path(p).parent_path());
  std::ofstream out(p, std::ios::binary);
  out << content;
  return p;
}

namespace {

void drain(int fd, std::string& into, bool& open) {
  char buf[65536];
  ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) into.append(buf, static_cast<size_t>(n));
  else if (n == 0 || (errno != EINTR && errno != EAGAIN)) open = false;
}

}  // namespace

RunResult Sandbox::run_program(const std::string& program, const std::vector<std::string>& args,
                               const std::string& input, int timeout_seconds) const {
  RunResult result;
  int out_pipe[2], err_pipe[2], in_pipe[2];
  if (pipe(out_pipe) || pipe(err_pipe) || pipe(in_pipe)) return result;
  std::string exe = bin_path(program);
  std::vector<std::string> envs;
  for (const char* keep : {"PATH", "LANG", "TZ", "ASAN_OPTIONS", "UBSAN_OPTIONS", "TSAN_OPTIONS"})
    if (const char* v = getenv(keep)) envs.push_back(std::string(keep) + "=" + v);
  for (auto& [k, v] : env_) envs.push_back(k + "=" + v);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(in_pipe[0], 0);
    dup2(out_pipe[1], 1);
    dup2(err_pipe[1], 2);
    for (int fd : {out_pipe[0], out_pipe[1], err_pipe[0], err_pipe[1], in_pipe[0], in_pipe[1]})
      close(fd);
    if (chdir(root_.c_str()) != 0) _exit(126);
    std::vector<char*> argv{const_cast<char*>(exe.c_str())};
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : envs) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    execve(exe.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(out_pipe[1]);
  close(err_pipe[1]);
  close(in_pipe[0]);
  if (!input.empty()) {
    ssize_t w = write(in_pipe[1], input.data(), input.size());
    (void)w;
  }
  close(in_pipe[1]);
  bool out_open = true, err_open = true;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeout_seconds);
  bool killed = false;
  while (out_open || err_open) {
    pollfd fds[2] = {{out_pipe[0], POLLIN, 0}, {err_pipe[0], POLLIN, 0}};
    int n = poll(fds, 2, 200);
    if (n > 0) {
      if (out_open && (fds[0].revents & (POLLIN | POLLHUP))) drain(out_pipe[0], result.out, out_open);
      if (err_open && (fds[1].revents & (POLLIN | POLLHUP))) drain(err_pipe[0], result.err, err_open);
    }
    if (!killed && std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      killed = true;
    }
  }
  close(out_pipe[0]);
  close(err_pipe[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status)) result.rc = WEXITSTATUS(status);
  else if (WIFSIGNALED(status)) result.rc = 128 + WTERMSIG(status);
  return result;
}

}  // namespace vxtest
