#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/entry.h"
#include "cli/output.h"
#include "json/json.h"

namespace {

struct FormatGuard {
  vxcli_config saved = g_config;
  explicit FormatGuard(uint32_t format) { g_config.format = format; }
  ~FormatGuard() { g_config = saved; }
};

// Parses one JSON line and returns error.code / message members.
void expect_error_line(const std::string& line, const std::string& code, const std::string& message) {
  ASSERT_FALSE(line.empty());
  ASSERT_EQ(line.back(), '\n');
  std::vector<vxcli_json_token> t(64);
  ASSERT_GT(vxcli_json_parse(line.c_str(), t.data(), 64), 0) << line;
  int status = vxcli_json_object_get(line.c_str(), t.data(), 0, "status");
  ASSERT_GE(status, 0);
  std::string out(message.size() + 64, '\0');
  ASSERT_EQ(vxcli_json_string(line.c_str(), &t[status], out.data(), out.size()), 0);
  EXPECT_STREQ(out.c_str(), "error");
  int msg = vxcli_json_object_get(line.c_str(), t.data(), 0, "message");
  ASSERT_EQ(vxcli_json_string(line.c_str(), &t[msg], out.data(), out.size()), 0);
  EXPECT_EQ(std::string(out.c_str()), message);
  int err = vxcli_json_object_get(line.c_str(), t.data(), 0, "error");
  int c = vxcli_json_object_get(line.c_str(), t.data(), err, "code");
  ASSERT_EQ(vxcli_json_string(line.c_str(), &t[c], out.data(), out.size()), 0);
  EXPECT_EQ(std::string(out.c_str()), code);
}

TEST(Reporters, TextAndCsvGoToStderr) {
  for (uint32_t format : {VXCLI_FORMAT_TEXT, VXCLI_FORMAT_CSV}) {
    FormatGuard guard(format);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    vxcli_print_error("bad %s %d", "thing", 7);
    vxcli_print_warning("careful");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: bad thing 7\nWARN: careful\n");
  }
}

TEST(Reporters, JsonErrorsAreValidForNastyMessages) {
  FormatGuard guard(VXCLI_FORMAT_JSON);
  std::string nasty = "quote\" back\\slash \x01 tab\t newline\n";
  testing::internal::CaptureStdout();
  vxcli_print_error("%s", nasty.c_str());
  expect_error_line(testing::internal::GetCapturedStdout(), "command_failed", nasty);
  testing::internal::CaptureStdout();
  vxcli_print_error_code("no_messages_received", "nothing");
  std::string line = testing::internal::GetCapturedStdout();
  expect_error_line(line, "no_messages_received", "nothing");
  EXPECT_NE(line.find("\"details\":{},\"retryable\":false}}"), std::string::npos);
}

TEST(Reporters, OversizedMessageFallsBack) {
  FormatGuard guard(VXCLI_FORMAT_JSONL);
  std::string huge(0x100001, 'x');
  testing::internal::CaptureStdout();
  vxcli_print_error("%s", huge.c_str());
  expect_error_line(testing::internal::GetCapturedStdout(), "error_format_failed",
                    "failed to format error message");
  // Just under the formatting limit, the line itself exceeds the writer limit.
  std::string big(0x100000 - 10, 'y');
  testing::internal::CaptureStdout();
  vxcli_print_error("%s", big.c_str());
  expect_error_line(testing::internal::GetCapturedStdout(), "response_too_large",
                    "error output exceeded limit");
}

TEST(Reporters, WarningsOnlyBecomeEventsInJsonl) {
  {
    FormatGuard guard(VXCLI_FORMAT_JSON);
    testing::internal::CaptureStderr();
    vxcli_print_warning("w");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "WARN: w\n");
  }
  FormatGuard guard(VXCLI_FORMAT_JSONL);
  testing::internal::CaptureStdout();
  vxcli_print_warning("a\"b\\c\x02\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\"status\":\"ok\",\"event\":\"warning\",\"message\":\"a\\\"b\\\\c\\u0002\\n\"}\n");
}

TEST(StatusText, ExactValuesOnly) {
  EXPECT_STREQ(vxcli_status_to_string(0), "OK");
  EXPECT_STREQ(vxcli_status_to_string(0x20), "Receive queue empty");
  EXPECT_STREQ(vxcli_status_to_string(0x1C00), "Invalid client");
  EXPECT_STREQ(vxcli_status_to_string(0x4000000), "Not initialized");
  EXPECT_STREQ(vxcli_status_to_string(0x14), "Unknown status code");
  EXPECT_STREQ(vxcli_status_to_string(0x4000001), "Unknown status code");
}

TEST(OptionLookup, Forms) {
  std::vector<std::string> storage = {"--channel=", "--id", "0x1", "--channelx=1", "pos", "--flag"};
  std::vector<char*> w;
  for (auto& s : storage) w.push_back(s.data());
  int n = static_cast<int>(w.size());
  ASSERT_NE(vxcli_get_option(n, w.data(), "channel"), nullptr);
  EXPECT_STREQ(vxcli_get_option(n, w.data(), "channel"), "");
  EXPECT_STREQ(vxcli_get_option(n, w.data(), "id"), "0x1");
  EXPECT_EQ(vxcli_get_option(n, w.data(), "channelx"), std::string("1"));
  EXPECT_EQ(vxcli_get_option(n, w.data(), "chan"), nullptr);
  EXPECT_EQ(vxcli_get_option(n, w.data(), "flag"), nullptr);  // bare final flag reads as absent
  EXPECT_EQ(vxcli_get_option(n, w.data(), "pos"), nullptr);
  EXPECT_TRUE(vxcli_has_flag(n, w.data(), "flag"));
  // A separate value may itself look like an option.
  std::vector<std::string> s2 = {"--data", "--id"};
  std::vector<char*> w2 = {s2[0].data(), s2[1].data()};
  EXPECT_STREQ(vxcli_get_option(2, w2.data(), "data"), "--id");
}

TEST(GlobalOptions, StrippedInPlaceLaterWins) {
  vxcli_config saved = g_config;
  std::vector<std::string> storage = {"message", "--format=json", "send", "--format=yaml", "--to=tcp://x",
                                      "--verbose", "--project", "/p", "--format=csv", "--id=1"};
  std::vector<char*> w;
  for (auto& s : storage) w.push_back(s.data());
  int n = vxcli_strip_global_options(static_cast<int>(w.size()), w.data());
  ASSERT_EQ(n, 4);
  EXPECT_STREQ(w[0], "message");
  EXPECT_STREQ(w[1], "send");
  EXPECT_STREQ(w[2], "--format=yaml");
  EXPECT_STREQ(w[3], "--id=1");
  EXPECT_EQ(g_config.format, VXCLI_FORMAT_CSV);
  EXPECT_STREQ(g_config.to, "tcp://x");
  EXPECT_STREQ(g_config.project, "/p");
  EXPECT_EQ(g_config.verbose, 1u);
  g_config = saved;
}

TEST(GlobalOptions, ProjectNeedsADirectory) {
  vxcli_config saved = g_config;
  for (auto words : {std::vector<std::string>{"x", "--project"}, std::vector<std::string>{"--project=", "x"},
                     std::vector<std::string>{"--project", "", "x"}}) {
    std::vector<char*> w;
    for (auto& s : words) w.push_back(s.data());
    testing::internal::CaptureStderr();
    EXPECT_EQ(vxcli_strip_global_options(static_cast<int>(w.size()), w.data()), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ERROR: --project requires a directory\n");
  }
  g_config = saved;
}

}  // namespace
