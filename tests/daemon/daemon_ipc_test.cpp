// In-process checks of the daemon's request parsing, error envelope and
// command classification.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "daemon/daemon.h"
#include "daemon/daemon_state.h"

namespace {

std::string envelope(const char* answer) {
  static char out[4096];
  return daemon_json_error_envelope(answer, out, sizeof out);
}

TEST(DaemonIpc, ErrorEnvelope) {
  EXPECT_EQ(envelope("ERROR: \t channel 3 not open\r\n"),
            "{\"status\":\"error\",\"message\":\"channel 3 not open\",\"error\":{\"code\":\"daemon_command_failed\","
            "\"message\":\"channel 3 not open\",\"details\":{},\"retryable\":false}}\n");
  EXPECT_NE(envelope("ERROR: bad \"quote\"\n").find("\"message\":\"bad \\\"quote\\\"\""), std::string::npos);
  EXPECT_NE(envelope("").find("\"message\":\"daemon command failed\""), std::string::npos);
  EXPECT_EQ(envelope("ERROR: unknown command 'x y'\n"), "ERROR: unknown command 'x y'\n");
  EXPECT_EQ(envelope("OK: fine\n"), "OK: fine\n");
  char tiny[32];
  EXPECT_NE(std::string(daemon_json_error_envelope("ERROR: a long message that cannot fit", tiny, sizeof tiny))
                .find("\"code\":\"response_too_large\""),
            std::string::npos);

  EXPECT_TRUE(daemon_request_wants_json("channel status --format=json"));
  EXPECT_TRUE(daemon_request_wants_json("{\"format\":\"jsonl\",\"argv\":[]}"));
  EXPECT_FALSE(daemon_request_wants_json("{\"format\":\"csv\",\"argv\":[]}"));
}

TEST(DaemonIpc, StructuredRequestParsing) {
  static daemon_ipc_request r;
  const std::string head = "{\"protocol\":\"vxcli-ipc\",\"version\":1,\"format\":";
  ASSERT_EQ(daemon_parse_ipc_request((head + "\"jsonl\",\"project\":\"/p\",\"argv\":[\"a\",\"b c\"]}").c_str(), &r), 0);
  ASSERT_EQ(r.argc, 3);
  EXPECT_STREQ(r.argv[1], "b c");
  EXPECT_STREQ(r.argv[2], "--format=jsonl");
  EXPECT_EQ(r.argv[3], nullptr);
  EXPECT_STREQ(r.project, "/p");
  ASSERT_EQ(daemon_parse_ipc_request((head + "\"text\",\"argv\":[]}").c_str(), &r), 0);
  EXPECT_EQ(r.argc, 0);

  // Strings whose total (with terminators) passes 64 KiB are refused.
  std::string big(40000, 'x');
  EXPECT_EQ(daemon_parse_ipc_request((head + "\"text\",\"argv\":[\"" + big + "\",\"" + big + "\"]}").c_str(), &r), -1);
  EXPECT_EQ(daemon_parse_ipc_request((head + "\"text\",\"argv\":\"daemon\"}").c_str(), &r), -1);
  EXPECT_EQ(daemon_parse_ipc_request((head + "\"text\"}").c_str(), &r), -1);
  EXPECT_EQ(daemon_parse_ipc_request("{\"protocol\":\"vxcli-ipc\",\"version\":\"1\",\"format\":\"text\",\"argv\":[]}", &r),
            -1);
  EXPECT_EQ(daemon_parse_ipc_request("[1,2]", &r), -1);
  EXPECT_EQ(daemon_parse_ipc_request("{\"protocol\":", &r), -1);

  EXPECT_TRUE(daemon_request_is_recv("message recv"));
  EXPECT_TRUE(daemon_request_is_recv("message \trecv --duration=1"));
  EXPECT_FALSE(daemon_request_is_recv("message receive"));
  EXPECT_FALSE(daemon_request_is_recv("message send"));
  EXPECT_TRUE(daemon_request_is_recv((head + "\"json\",\"argv\":[\"message\",\"recv\"]}").c_str()));
  EXPECT_FALSE(daemon_request_is_recv((head + "\"json\",\"argv\":[\"message\"]}").c_str()));
}

int classify(std::vector<std::string> words) {
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  return daemon_local_operation(argv.data(), static_cast<int>(argv.size()));
}

TEST(DaemonIpc, OperationClasses) {
  EXPECT_EQ(classify({"channel", "status", "--channel=0"}), 0);
  EXPECT_EQ(classify({"channel", "power", "status"}), 0);
  EXPECT_EQ(classify({"uds", "config", "get"}), 0);
  EXPECT_EQ(classify({"replay", "status"}), 0);
  EXPECT_EQ(classify({"message", "recv"}), 0);
  EXPECT_EQ(classify({"daemon", "stop"}), 0);
  EXPECT_EQ(classify({"channel", "claim", "--channel=0"}), 0);
  EXPECT_EQ(classify({"message", "send", "--channel=0"}), 1);
  EXPECT_EQ(classify({"channel", "close", "--channel=0"}), 2);
  EXPECT_EQ(classify({"txtask", "add", "--status=1"}), 2);
  EXPECT_EQ(classify({"lin", "schedule", "activate"}), 2);
  EXPECT_EQ(classify({"logging", "start"}), 2);
  EXPECT_EQ(classify({"frobnicate"}), 0);
}

}  // namespace
