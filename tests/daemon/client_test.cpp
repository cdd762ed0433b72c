#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/output.h"
#include "daemon/client.h"
#include "json/json.h"
#include "vxtest.h"

namespace {

TEST(DaemonClient, StructuredRequestShape) {
  std::vector<std::string> words = {"message", "send", "--data=\"quoted\"\\"};
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  char* request = vxcli_daemon_build_request(3, argv.data(), VXCLI_FORMAT_JSONL);
  ASSERT_NE(request, nullptr);
  std::string text = request;
  EXPECT_EQ(text.rfind("{\"protocol\":\"vxcli-ipc\",\"version\":1,\"request_id\":\"", 0), 0u) << text;
  EXPECT_NE(text.find("\",\"format\":\"jsonl\",\"project\":\"\",\"argv\":[\"message\",\"send\","), std::string::npos);
  vxcli_json_token t[32];
  ASSERT_GT(vxcli_json_parse(request, t, 32), 0);
  int a = vxcli_json_object_get(request, t, 0, "argv");
  ASSERT_GE(a, 0);
  EXPECT_EQ(t[a].size, 3);
  char out[64];
  ASSERT_EQ(vxcli_json_string(request, &t[a + 3], out, sizeof out), 0);
  EXPECT_STREQ(out, "--data=\"quoted\"\\");
  free(request);
}

TEST(DaemonClient, RequestLimits) {
  std::vector<std::string> many(128, "x");
  std::vector<char*> argv;
  for (auto& w : many) argv.push_back(w.data());
  EXPECT_EQ(vxcli_daemon_build_request(128, argv.data(), 0), nullptr);
  EXPECT_STREQ(vxcli_daemon_last_ipc_error(), "invalid structured IPC argv");
  std::string huge(70000, 'a');
  char* one[] = {huge.data()};
  EXPECT_EQ(vxcli_daemon_build_request(1, one, 0), nullptr);
  EXPECT_STREQ(vxcli_daemon_last_ipc_error(), "structured IPC request exceeds 64 KiB");
}

TEST(DaemonClient, NoPidFileMeansNoDaemon) {
  vxtest::Sandbox box;
  setenv("XDG_RUNTIME_DIR", box.path("runtime").c_str(), 1);
  char response[64];
  EXPECT_EQ(vxcli_daemon_send_command("daemon status", 13, response, sizeof response), -1);
  EXPECT_STREQ(vxcli_daemon_last_ipc_error(), "daemon PID file not found");
  char pid_path[1024];
  ASSERT_EQ(vxcli_daemon_pid_path(pid_path, sizeof pid_path), 0);
  box.write_file("runtime/vxcli/daemon_4502.pid", "0\n");
  EXPECT_EQ(vxcli_daemon_send_command("daemon status", 13, response, sizeof response), -1);
  EXPECT_STREQ(vxcli_daemon_last_ipc_error(), "daemon PID 0 is not running");
  unsetenv("XDG_RUNTIME_DIR");
}

TEST(DaemonClientE2E, StopWithoutDaemonSucceeds) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"daemon", "stop", "--format=json"});
  EXPECT_EQ(r.rc, 0) << r.err;
  EXPECT_NE(r.out.find("{\"status\":\"ok\",\"state\":\"stopped\",\"pid\":0,\"forced\":false,\"was_running\":false}"),
            std::string::npos)
      << r.out;
  r = box.vxcli({"daemon", "status"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: daemon not running\n");
}

}  // namespace
