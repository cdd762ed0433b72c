#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <string>

#include "project/dirs.h"

namespace {

// Sets environment variables for one test and restores them afterwards.
class EnvScope {
 public:
  void set(const char* name, const char* value) {
    if (!saved_.count(name)) {
      const char* old = getenv(name);
      saved_[name] = old ? std::optional<std::string>(old) : std::nullopt;
    }
    if (value) setenv(name, value, 1);
    else unsetenv(name);
  }
  ~EnvScope() {
    for (auto& [k, v] : saved_) {
      if (v) setenv(k.c_str(), v->c_str(), 1);
      else unsetenv(k.c_str());
    }
  }

 private:
  std::map<std::string, std::optional<std::string>> saved_;
};

class Dirs : public testing::Test {
 protected:
  void SetUp() override {
    char t[] = "/tmp/vxdirs-XXXXXX";
    ASSERT_NE(mkdtemp(t), nullptr);
    root = t;
    for (const char* v : {"VXCLI_STATE_DIR", "XDG_STATE_HOME", "HOME", "VXCLI_CONFIG_HOME",
                          "XDG_CONFIG_HOME", "XDG_RUNTIME_DIR", "VXCLI_HOME"})
      env.set(v, nullptr);
  }
  void TearDown() override { std::filesystem::remove_all(root); }
  mode_t mode_of(const std::string& p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 ? (st.st_mode & 0777) : 0;
  }
  std::string root;
  EnvScope env;
  char buf[1024];
};

TEST_F(Dirs, RuntimeDirIsPrivate) {
  env.set("XDG_RUNTIME_DIR", root.c_str());
  ASSERT_EQ(vxcli_get_runtime_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/vxcli");
  EXPECT_EQ(mode_of(buf), 0700u);
  chmod(buf, 0755);
  ASSERT_EQ(vxcli_get_runtime_dir(buf, sizeof buf), 0);
  EXPECT_EQ(mode_of(buf), 0700u);  // group/other bits removed
  EXPECT_EQ(vxcli_get_runtime_dir(buf, 8), -1);  // does not fit
}

TEST_F(Dirs, RuntimeFallsBackToTmpWhenXdgUnusable) {
  env.set("XDG_RUNTIME_DIR", "relative/dir");
  ASSERT_EQ(vxcli_get_runtime_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), "/tmp/vxcli-" + std::to_string(getuid()));
}

TEST_F(Dirs, ForeignOwnerOrFileIsRefused) {
  std::string file = root + "/file";
  std::ofstream(file) << "x";
  env.set("VXCLI_STATE_DIR", file.c_str());
  EXPECT_EQ(vxcli_get_state_dir(buf, sizeof buf), -1);
  if (getuid() == 0) {
    std::string foreign = root + "/foreign";
    mkdir(foreign.c_str(), 0700);
    ASSERT_EQ(chown(foreign.c_str(), 12345, 12345), 0);
    env.set("VXCLI_STATE_DIR", foreign.c_str());
    EXPECT_EQ(vxcli_get_state_dir(buf, sizeof buf), -1);
  }
}

TEST_F(Dirs, StatePrecedence) {
  std::string explicit_dir = root + "/a/b/state";
  env.set("VXCLI_STATE_DIR", explicit_dir.c_str());
  env.set("XDG_STATE_HOME", (root + "/xdg").c_str());
  ASSERT_EQ(vxcli_get_state_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), explicit_dir);
  EXPECT_EQ(mode_of(explicit_dir), 0700u);
  env.set("VXCLI_STATE_DIR", "state");  // relative: the tree rule refuses it
  EXPECT_EQ(vxcli_get_state_dir(buf, sizeof buf), -1);
  env.set("VXCLI_STATE_DIR", "");
  ASSERT_EQ(vxcli_get_state_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/xdg/vxcli");
  env.set("XDG_STATE_HOME", "rel");  // ignored, next rule applies
  env.set("HOME", root.c_str());
  ASSERT_EQ(vxcli_get_state_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/.local/state/vxcli");
  env.set("HOME", nullptr);
  env.set("XDG_STATE_HOME", nullptr);
  env.set("XDG_RUNTIME_DIR", root.c_str());
  ASSERT_EQ(vxcli_get_state_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/vxcli/state");
}

TEST_F(Dirs, ConfigHasNoRuntimeFallback) {
  EXPECT_EQ(vxcli_get_config_dir(buf, sizeof buf), -1);
  env.set("HOME", root.c_str());
  ASSERT_EQ(vxcli_get_config_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/.config/vxcli");
  env.set("XDG_CONFIG_HOME", (root + "/cfg").c_str());
  ASSERT_EQ(vxcli_get_config_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/cfg/vxcli");
  env.set("VXCLI_CONFIG_HOME", (root + "/mine").c_str());
  ASSERT_EQ(vxcli_get_config_dir(buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/mine");
}

TEST_F(Dirs, ResourceLookupOrder) {
  std::filesystem::create_directories(root + "/share/vxcli/res");
  std::filesystem::create_directories(root + "/res");
  std::ofstream(root + "/res/uds.xml") << "plain";
  env.set("VXCLI_HOME", root.c_str());
  ASSERT_EQ(vxcli_resolve_resource("res/uds.xml", buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/res/uds.xml");
  std::ofstream(root + "/share/vxcli/res/uds.xml") << "shared";
  ASSERT_EQ(vxcli_resolve_resource("res/uds.xml", buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), root + "/share/vxcli/res/uds.xml");
  std::string direct = root + "/direct.txt";
  std::ofstream(direct) << "d";
  ASSERT_EQ(vxcli_resolve_resource(direct.c_str(), buf, sizeof buf), 0);
  EXPECT_EQ(std::string(buf), direct);
  EXPECT_EQ(vxcli_resolve_resource("nowhere/at/all", buf, sizeof buf), -1);
  EXPECT_EQ(buf[0], 0);
  EXPECT_EQ(vxcli_resolve_resource("", buf, sizeof buf), -1);
}

}  // namespace
