// Help and validation through the real binary: they answer before the device
// library or a daemon is touched.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "help_json_doc.h"
#include "vxtest.h"

namespace {

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

bool sim_untouched(const vxtest::Sandbox& box) {
  return std::filesystem::is_empty(box.path("sim"));
}

TEST(HelpE2E, RootInTextAndJson) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"help"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(starts_with(r.out, "VXCLI v1.2.1 - QUELTAR Command Line Interface\n")) << r.out;
  EXPECT_EQ(r.err, "");

  r = box.vxcli({"--format=json", "help"});
  EXPECT_EQ(r.rc, 0);
  helpdoc::Doc doc(r.out);
  ASSERT_TRUE(doc.ok()) << r.out.substr(0, 200);
  EXPECT_EQ(doc.str(0, "level"), "root");
  EXPECT_EQ(doc.items(doc.get(0, "commands")).size(), 202u);
  EXPECT_EQ(doc.items(doc.get(0, "categories")).size(), 29u);

  // --help alone is root help as well.
  r = box.vxcli({"--help", "--format=jsonl"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(starts_with(r.out, "{\"status\":\"ok\",\"level\":\"root\",")) << r.out;
  EXPECT_TRUE(sim_untouched(box));
}

TEST(HelpE2E, CategoryAndCommand) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"help", "channel"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(starts_with(r.out, "vxcli channel - Enumerate, inspect, and control")) << r.out;

  r = box.vxcli({"replay", "--help", "--format=json"});
  EXPECT_EQ(r.rc, 0);
  helpdoc::Doc category(r.out);
  ASSERT_TRUE(category.ok());
  EXPECT_EQ(category.str(0, "level"), "category");
  EXPECT_EQ(category.items(category.get(0, "commands")).size(), 3u);

  // --help after unknown options still answers, without touching hardware.
  r = box.vxcli({"message", "send", "--channel=10356/0", "--bogus=1", "--help"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(starts_with(r.out, "Usage: vxcli message send --channel=<spec> "
                                 "--message=<id|name> [options]\n"))
      << r.out;
  EXPECT_EQ(r.err, "");

  r = box.vxcli({"channel", "power", "status", "-h", "--format=json"});
  EXPECT_EQ(r.rc, 0);
  helpdoc::Doc command(r.out);
  ASSERT_TRUE(command.ok());
  EXPECT_EQ(command.str(0, "path"), "channel power status");
  EXPECT_EQ(command.str(command.get(0, "metadata"), "operation_id"), "channel.power.status");

  // Targets are only collected up to the help word.
  r = box.vxcli({"-h", "channel", "power", "status"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(starts_with(r.out, "VXCLI v1.2.1 - ")) << r.out;

  // A one-word command of the same name as its category shows the command.
  r = box.vxcli({"help", "version"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_TRUE(starts_with(r.out, "Usage: vxcli version\n")) << r.out;
  EXPECT_TRUE(sim_untouched(box));
}

TEST(HelpE2E, UnknownTargets) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"help", "nosuch"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: unknown help category 'nosuch'\n");
  EXPECT_TRUE(starts_with(r.out, "VXCLI v1.2.1 - ")) << r.out;

  r = box.vxcli({"channel", "bogus", "--help"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: unknown channel action 'bogus'\n");
  EXPECT_TRUE(starts_with(r.out, "vxcli channel - ")) << r.out;

  r = box.vxcli({"help", "channel", "bogus", "--format=json"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out,
            "{\"status\":\"error\",\"message\":\"unknown help target\",\"category\":\"channel\","
            "\"action\":\"bogus\",\"subaction\":null}\n");
  EXPECT_EQ(r.err, "");

  // Help strings use their own escaping, with lower-case hex digits.
  r = box.vxcli({"help", "a\"b\\c\x1b", "x", "y", "--format=jsonl"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out,
            "{\"status\":\"error\",\"message\":\"unknown help target\",\"category\":"
            "\"a\\\"b\\\\c\\u001b\",\"action\":\"x\",\"subaction\":\"y\"}\n");
  helpdoc::Doc doc(r.out);
  ASSERT_TRUE(doc.ok());
  EXPECT_EQ(doc.str(0, "category"), "a\"b\\c\x1b");
}

TEST(HelpE2E, ValidationRunsBeforeAnythingElse) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"message", "send", "--channel=10356/0", "--bogus=1"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: unknown option '--bogus' for message.send\n");
  EXPECT_EQ(r.out, "");

  r = box.vxcli({"--format=json", "update", "--dry-run"});
  EXPECT_EQ(r.rc, 1);
  helpdoc::Doc doc(r.out);
  ASSERT_TRUE(doc.ok()) << r.out;
  EXPECT_EQ(doc.str(0, "message"), "--dry-run was removed; use update --check");

  r = box.vxcli({"modbus", "read", "--device=127.0.0.1"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: Modbus commands return structured JSON; use --format=json, not text\n");

  r = box.vxcli({"xcp", "daq", "receive", "--format=csv"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err,
            "ERROR: xcp daq receive supports text or bounded JSON; use --format=json, not csv\n");

  r = box.vxcli({"dbc", "decode", "--=1"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: invalid empty option\n");
  EXPECT_TRUE(sim_untouched(box));
}

}  // namespace
