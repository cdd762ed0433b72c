// Test support: private temporary homes and running the real binaries.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace vxtest {

struct RunResult {
  int rc = -1;          // exit status, or 128+signal when killed
  std::string out;      // stdout
  std::string err;      // stderr
};

// A private directory tree used as HOME, XDG_* and the virtual analyzer's
// runtime directory (VXSIM_DIR) for every process a test starts. Removed,
// together with any analyzer service started inside it, on destruction.
class Sandbox {
 public:
  Sandbox();
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& root() const { return root_; }
  std::string path(const std::string& relative) const { return root_ + "/" + relative; }
  // Environment given to child processes (on top of PATH and a few basics).
  std::map<std::string, std::string>& env() { return env_; }
  // Writes a file below the sandbox and returns its absolute path.
  std::string write_file(const std::string& relative, const std::string& content) const;

  // Runs bin/<program> from the build with args; stdin is /dev/null unless input given.
  RunResult run_program(const std::string& program, const std::vector<std::string>& args,
                        const std::string& input = "", int timeout_seconds = 120) const;
  RunResult vxcli(const std::vector<std::string>& args, int timeout_seconds = 120) const {
    return run_program("vxcli", args, "", timeout_seconds);
  }

 private:
  std::string root_;
  std::map<std::string, std::string> env_;
};

std::string bin_path(const std::string& program);
std::string testdata(const std::string& relative);
std::string read_file(const std::string& path);

}  // namespace vxtest
