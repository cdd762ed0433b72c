#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/dispatch.h"
#include "cli/output.h"

namespace {

struct Outcome {
  int rc;
  std::string out;
  std::string err;
};

// Runs dispatch in-process with no daemon reachable (the client finds none).
Outcome dispatch(std::vector<std::string> words, uint32_t format = VXCLI_FORMAT_TEXT) {
  vxcli_config saved = g_config;
  g_config.format = format;
  std::vector<char*> w;
  for (auto& s : words) w.push_back(s.data());
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  int rc = dispatch_command(static_cast<int>(w.size()), w.data(), static_cast<int>(w.size()), w.data());
  Outcome o{rc, testing::internal::GetCapturedStdout(), testing::internal::GetCapturedStderr()};
  g_config = saved;
  return o;
}

TEST(Dispatch, DaemonModeRefusalsWithoutDaemon) {
  struct Case {
    std::vector<std::string> words;
    const char* message;
  } cases[] = {
      {{"channel", "open", "--channel=10356/0"}, "channel open requires daemon mode; start daemon first"},
      {{"channel", "claim"}, "channel claim requires daemon mode; start daemon first"},
      {{"channel", "config"}, "channel config was removed; use can config get/set or lin config get/set"},
      {{"can", "config", "get"}, "can config requires daemon mode; start daemon and open the channel first"},
      {{"lin"}, "lin requires an action"},
      {{"modbus", "value", "latest"}, "modbus value requires daemon mode; start daemon first"},
      {{"uds", "config", "get"}, "uds config get requires daemon mode; start daemon first"},
      {{"uds", "config"}, "uds config requires get|set"},
      {{"uds", "present", "start"}, "uds present start requires daemon mode; start daemon first"},
      {{"uds", "present", "x"}, "uds present requires send|start|stop|status"},
      {{"xcp", "connect"}, "xcp connect requires daemon mode; start daemon and configure an open channel first"},
      {{"replay", "stop"}, "replay stop requires daemon mode; standalone replay is stopped with Ctrl+C"},
      {{"web", "stop"}, "web stop requires the local daemon"},
      {{"web"}, "web requires start, stop, or status"},
      {{"offline", "config"}, "offline config requires save|load|clear"},
      {{"offline", "logging", "x"}, "offline logging requires start|stop|status"},
      {{"offline", "flash"}, "unknown offline action 'flash' (logging|replay|config)"},
      {{"txtask", "frob"}, "unknown txtask action 'frob'"},
      {{"route"}, "route requires an action"},
      {{"daemon"}, "daemon requires an action"},
      {{"daemon", "nap"}, "unknown daemon action 'nap'"},
      {{"channel", "close"}, "channel close requires daemon mode; start daemon first"},
      {{"channel", "status"}, "channel status requires daemon mode; start daemon first"},
  };
  for (auto& c : cases) {
    Outcome o = dispatch(c.words);
    EXPECT_EQ(o.rc, 1) << c.message;
    EXPECT_EQ(o.err, std::string("ERROR: ") + c.message + "\n");
  }
}

TEST(Dispatch, UnknownCategoryTextAddsRootHelpJsonDoesNot) {
  Outcome text = dispatch({"frobnicate"});
  EXPECT_EQ(text.rc, 1);
  EXPECT_EQ(text.err, "ERROR: unknown category 'frobnicate'\n");
  EXPECT_NE(text.out.find("Usage: vxcli"), std::string::npos);
  Outcome json = dispatch({"frobnicate"}, VXCLI_FORMAT_JSON);
  EXPECT_EQ(json.rc, 1);
  EXPECT_EQ(json.err, "");
  EXPECT_EQ(json.out.rfind("{\"status\":\"error\",\"message\":\"unknown category 'frobnicate'\"", 0), 0u);
  EXPECT_EQ(json.out.find("Usage"), std::string::npos);
}

TEST(Dispatch, DatabaseSubcommandRules) {
  struct Case {
    std::string category;
    std::vector<std::string> words;  // action first
    const char* message;
  } cases[] = {
      {"dbc", {}, "dbc requires an action"},
      {"dbc", {"message"}, "dbc message requires list|show"},
      {"dbc", {"signal", "count"}, "dbc signal requires list|show"},
      {"ldf", {"schedule"}, "ldf schedule requires an action"},
      {"ldf", {"node", "activate"}, "unknown ldf node action 'activate'"},
      {"a2l", {"measurement"}, "a2l measurement requires list|show"},
      {"a2l", {"characteristic", "x"}, "unknown a2l characteristic action 'x'"},
      {"database", {"zap"}, "unknown database action 'zap'"},
  };
  for (auto& c : cases) {
    std::vector<char*> w;
    for (auto& s : c.words) w.push_back(s.data());
    const char* action = w.empty() ? nullptr : w[0];
    testing::internal::CaptureStderr();
    int rc = dispatch_database_command(c.category.c_str(), action, w.size() > 1 ? static_cast<int>(w.size()) - 1 : 0,
                                       w.size() > 1 ? w.data() + 1 : w.data());
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("ERROR: ") + c.message + "\n");
  }
}

}  // namespace
