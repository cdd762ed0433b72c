// Golden text help: the exact layout people read and scripts grep.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli/catalog.h"
#include "cli/output.h"

namespace {

template <typename Write>
std::string capture(Write write) {
  char* data = nullptr;
  size_t size = 0;
  FILE* out = open_memstream(&data, &size);
  write(out);
  fclose(out);
  std::string text(data, size);
  free(data);
  return text;
}

std::string command_text(const char* w1, const char* w2, const char* w3, uint32_t format) {
  const vxcli_command_entry* entry = vxcli_command_find(w1, w2, w3);
  EXPECT_NE(entry, nullptr);
  return capture([&](FILE* out) { vxcli_help_write_command(out, entry, format); });
}

const char* kGlobalLine =
    "Global options: --format=<text|json|jsonl|csv>, --to=<URL>, --project=<directory>, "
    "--verbose, --help\n";

TEST(HelpText, CommandGolden) {
  std::string expected =
      "Usage: vxcli channel claim --channel=<spec[,spec...]> [--timeout=<ms>]\n"
      "\n"
      "Acquire an explicit local control lock\n"
      "\n"
      "Options:\n"
      "  --channel=<spec[,spec...]>                 Channels as SN/port (recommended), UID/port "
      "or legacy index. [required: yes]\n"
      "  --timeout=<ms>                             Lease duration of the control lock. "
      "[required: no] [default: 300000] [unit: ms]\n"
      "\n"
      "Example:\n"
      "  vxcli channel claim --channel=10356/0 --timeout=600000\n"
      "\n"
      "Notes:\n"
      "  No command claims an unlocked channel implicitly.\n"
      "\n" +
      std::string(kGlobalLine);
  EXPECT_EQ(command_text("channel", "claim", nullptr, VXCLI_FORMAT_TEXT), expected);
  // csv has no help layout of its own.
  EXPECT_EQ(command_text("channel", "claim", nullptr, VXCLI_FORMAT_CSV), expected);
}

TEST(HelpText, CommandWithoutOptionsAndGroup) {
  EXPECT_EQ(command_text("daemon", "status", nullptr, VXCLI_FORMAT_TEXT),
            "Usage: vxcli daemon status\n"
            "\n"
            "Show pid, uptime and the open channels of the daemon.\n"
            "\n"
            "Example:\n"
            "  vxcli daemon status --format=json\n"
            "\n" +
                std::string(kGlobalLine));
  EXPECT_EQ(command_text("uds", "present", nullptr, VXCLI_FORMAT_TEXT),
            "Usage: vxcli uds present <send|start|stop|status> [options]\n"
            "\n"
            "Keep a diagnostic session alive with TesterPresent.\n"
            "\n"
            "Arguments:\n"
            "  send, start, stop, status\n"
            "\n" +
                std::string(kGlobalLine));
}

TEST(HelpText, PublishedTextsOfMessageRecv) {
  std::string text = command_text("message", "recv", nullptr, VXCLI_FORMAT_TEXT);
  EXPECT_EQ(text.rfind("Usage: vxcli message recv [--channel=<spec[,spec...]>] [options]\n\n"
                       "Capture CAN, CAN FD, or LIN frames until count or duration completes.\n",
                       0),
            0u);
  EXPECT_NE(text.find("\n  --duration=<seconds>                       Capture duration. "
                      "[required: no] [default: standalone 0; daemon safeguard 10] [unit: s]\n"),
            std::string::npos);
  EXPECT_NE(text.find("\n  --decode                                   Decode matching frames "
                      "through a DBC. [required: CAN only] [default: off]\n"),
            std::string::npos);
  EXPECT_NE(text.find("Example:\n  vxcli message recv --channel=10357/4 --duration=5 "
                      "--format=jsonl\n\nNotes:\n  Use duration in seconds; message recv has no "
                      "--timeout option.\n"),
            std::string::npos);
}

TEST(HelpText, CategoryGolden) {
  std::string text = capture([](FILE* out) {
    vxcli_help_write_category(out, vxcli_command_category_find("route"), VXCLI_FORMAT_TEXT);
  });
  EXPECT_EQ(text,
            "vxcli route - Manage same-device hardware message routes.\n"
            "\n"
            "Commands:\n"
            "  vxcli route add --src=<spec> --dst=<spec|mask> [options] Add a same-device "
            "hardware route\n"
            "  vxcli route remove --src=<spec> [filters] Remove matching hardware routes\n"
            "  vxcli route list --channel=<spec> List hardware routes on a device\n"
            "Use 'vxcli route <action> [subaction] --help' for command options.\n");
  // Short usage lines are padded to 28 columns.
  text = capture([](FILE* out) {
    vxcli_help_write_category(out, vxcli_command_category_find("version"), VXCLI_FORMAT_TEXT);
  });
  EXPECT_NE(text.find("\n  vxcli version                Print VXCLI and compile-time VXAPI "
                      "versions.\n"),
            std::string::npos);
}

TEST(HelpText, RootLayout) {
  std::string text = capture([](FILE* out) { vxcli_help_write_root(out, VXCLI_FORMAT_TEXT); });
  EXPECT_EQ(text.rfind("VXCLI v1.2.1 - QUELTAR Command Line Interface\n"
                       "Usage: vxcli <category> <action> [options]\n"
                       "       vxcli help [category [action [subaction]]]\n"
                       "\n"
                       "Categories:\n"
                       "  help       Discover VXCLI commands and their current parameter "
                       "contract.\n"
                       "  version    Print VXCLI and compile-time VXAPI versions.\n",
                       0),
            0u);
  const std::string tail =
      "  web        Host static dashboards and the versioned VXCLI automation API.\n"
      "\n"
      "Time units: timeout/cycle/interval/delay are milliseconds; duration is seconds.\n"
      "Channel selection: SN/port is recommended; UID/port and legacy index are supported.\n"
      "Use 'vxcli help <category>' or 'vxcli <category> <action> --help'.\n"
      "Use '--format=json' for the machine-readable command contract.\n"
      "Bounded JSON is one status=ok|error document; public exit codes are 0 and 1.\n";
  ASSERT_GE(text.size(), tail.size());
  EXPECT_EQ(text.substr(text.size() - tail.size()), tail);
  EXPECT_NE(text.find("\n  checksum   Calculate built-in or external file checksums.\n"),
            std::string::npos);
}

TEST(HelpDetect, HelpWordsAnywhere) {
  auto requested = [](std::initializer_list<const char*> list) {
    std::vector<std::string> words(list.begin(), list.end());
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    return vxcli_help_requested(static_cast<int>(argv.size()), argv.data());
  };
  EXPECT_TRUE(requested({"help"}));
  EXPECT_TRUE(requested({"message", "send", "--bogus", "--help"}));
  EXPECT_TRUE(requested({"-h", "message"}));
  EXPECT_FALSE(requested({"message", "help"}));
  EXPECT_FALSE(requested({"message", "--help=1"}));
  EXPECT_FALSE(requested({"message", "-H"}));
  EXPECT_FALSE(requested({}));
}

}  // namespace
