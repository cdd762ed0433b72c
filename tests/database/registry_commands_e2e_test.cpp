// database load|unload|list|info|validate through the real binary.
#include <gtest/gtest.h>

#include <filesystem>

#include "vxtest.h"

namespace {

using vxtest::RunResult;

const char kDbc[] = "BO_ 291 Engine: 8 ECU\n SG_ Rpm : 0|16@1+ (0.25,0) [0|0] \"rpm\" GW\n";

std::string canonical(const std::string& path) { return std::filesystem::canonical(path); }

class DatabaseCommands : public testing::Test {
 protected:
  std::string registry() { return vxtest::read_file(sandbox.path("state/vxcli/databases.json")); }
  vxtest::Sandbox sandbox;
};

TEST_F(DatabaseCommands, LoadRefreshRenameAndList) {
  std::string file = sandbox.write_file("my net (v2).dbc", kDbc);
  std::string path = canonical(file);
  RunResult first = sandbox.vxcli({"database", "load", "--file=" + file});
  ASSERT_EQ(first.rc, 0) << first.err;
  EXPECT_EQ(first.out, "Loaded database my_net__v2_: " + path + " (1 items, 1 members)\n");
  RunResult again = sandbox.vxcli({"--format=json", "dbc", "load", "--file", file});
  EXPECT_EQ(again.out.rfind("{\"status\":\"ok\",\"created\":false,\"resource\":{\"name\":"
                            "\"my_net__v2_\",\"type\":\"dbc\",\"path\":\"" + path + "\",", 0),
            0u)
      << again.out;
  EXPECT_NE(again.out.find(",\"summary\":{\"messages\":1,\"signals\":1}}}\n"), std::string::npos);
  RunResult renamed = sandbox.vxcli({"dbc", "load", "--file=" + file, "--name=other"});
  EXPECT_EQ(renamed.out, "Refreshed database my_net__v2_: " + path + " (1 items, 1 members)\n");

  std::string second = sandbox.write_file("dir/second.DBC", kDbc);
  RunResult taken = sandbox.vxcli({"database", "load", "--file=" + second, "--name=my_net__v2_"});
  EXPECT_EQ(taken.rc, 1);
  EXPECT_EQ(taken.err, "ERROR: database name 'my_net__v2_' already refers to another resource\n");
  ASSERT_EQ(sandbox.vxcli({"database", "load", "--file=" + second}).rc, 0);

  char line[512];
  snprintf(line, sizeof line, "%-24s %-8s %s\n", "my_net__v2_", "dbc", path.c_str());
  std::string expected = line;
  snprintf(line, sizeof line, "%-24s %-8s %s\n", "second", "dbc", canonical(second).c_str());
  expected += line;
  EXPECT_EQ(sandbox.vxcli({"database", "list"}).out, expected);
  EXPECT_EQ(sandbox.vxcli({"database", "list", "--type=ldf"}).out,
            "No database resources loaded\n");
  RunResult csv = sandbox.vxcli({"--format=csv", "database", "list"});
  EXPECT_EQ(csv.out.rfind("name,type,path,loaded_at\nmy_net__v2_,dbc," + path + ",", 0), 0u);
  RunResult json = sandbox.vxcli({"--format=jsonl", "database", "list"});
  EXPECT_EQ(json.out.rfind("{\"status\":\"ok\",\"resources\":[{\"name\":\"my_net__v2_\"", 0), 0u);
  EXPECT_NE(json.out.find("],\"count\":2}\n"), std::string::npos);
  EXPECT_EQ(json.out.find("summary"), std::string::npos);
}

TEST_F(DatabaseCommands, LoadRejections) {
  std::string yaml = sandbox.write_file("profile.yaml", "deviceResources: []\n");
  std::string plain = sandbox.write_file("noext", kDbc);
  struct Case {
    std::vector<std::string> args;
    std::string error;
  };
  const Case cases[] = {
      {{"dbc", "load", "--file=" + vxtest::testdata("ldf/lin22.ldf")},
       "dbc load requires a .dbc file"},
      {{"ldf", "load", "--file=" + plain, "--type=ldf"}, "ldf load requires a .ldf file"},
      {{"database", "load", "--file=" + yaml},
       "invalid mapping database: database type is recognized but not implemented"},
      {{"database", "load", "--file=" + yaml, "--type=modbus-edgex"},
       "invalid modbus-edgex database: database type is recognized but not implemented"},
      {{"database", "load"}, "--file is required"},
      {{"database", "load", "--file=nope.dbc"}, "database file not found: nope.dbc"},
      {{"database", "load", "--file=" + plain},
       "cannot infer database type; use --type=<dbc|ldf|a2l|modbus-edgex>"},
      {{"database", "load", "--file=" + plain, "--type=xml"},
       "unknown database type 'xml'; use --type=<dbc|ldf|a2l|modbus-edgex>"},
      {{"database", "load", "--file=" + plain, "--name=" + std::string(128, 'x'), "--type=dbc"},
       "database resource name is too long"},
  };
  for (const Case& c : cases) {
    RunResult r = sandbox.vxcli(c.args);
    EXPECT_EQ(r.rc, 1) << c.error;
    EXPECT_EQ(r.err, "ERROR: " + c.error + "\n");
  }
  EXPECT_FALSE(std::filesystem::exists(sandbox.path("state/vxcli/databases.json")));
  RunResult typed = sandbox.vxcli({"database", "load", "--file=" + plain, "--type=DBC"});
  EXPECT_EQ(typed.rc, 0) << typed.err;
}

TEST_F(DatabaseCommands, InfoValidateAndUnload) {
  std::string a = sandbox.write_file("a.dbc", kDbc);
  std::string b = sandbox.write_file("b.dbc", kDbc);
  ASSERT_EQ(sandbox.vxcli({"database", "load", "--file=" + a}).rc, 0);
  RunResult info = sandbox.vxcli({"database", "info"});
  EXPECT_EQ(info.out, "Database a (dbc)\n  Path: " + canonical(a) + "\n  Items: 1\n  Members: 1\n");
  RunResult direct = sandbox.vxcli({"--format=json", "database", "validate", "--file=" + b});
  EXPECT_EQ(direct.out.rfind("{\"status\":\"ok\",\"valid\":true,\"resource\":{\"name\":\"b\","
                             "\"type\":\"dbc\",\"path\":\"" + canonical(b) + "\",\"source_hash\":\"",
                             0),
            0u);
  EXPECT_NE(direct.out.find("\"loaded_at\":0,\"summary\":{\"messages\":1,\"signals\":1}}}\n"),
            std::string::npos);
  ASSERT_EQ(sandbox.vxcli({"database", "load", "--file=" + b}).rc, 0);
  EXPECT_EQ(sandbox.vxcli({"database", "validate", "b"}).out,
            "Valid dbc database: " + canonical(b) + " (1 items, 1 members)\n");
  RunResult many = sandbox.vxcli({"database", "info"});
  EXPECT_EQ(many.err, "ERROR: multiple database resources match; specify a name\n");
  EXPECT_EQ(sandbox.vxcli({"database", "info", "--name=zz"}).err,
            "ERROR: database resource not found: zz\n");
  // A file that broke after loading fails validation; the registry is untouched.
  sandbox.write_file("b.dbc", "not a database\n");
  std::string before = registry();
  EXPECT_EQ(sandbox.vxcli({"database", "validate", "b"}).err,
            "ERROR: invalid dbc database: DBC file defines no messages\n");
  EXPECT_EQ(registry(), before);

  EXPECT_EQ(sandbox.vxcli({"database", "unload"}).err,
            "ERROR: resource name or --all is required\n");
  EXPECT_EQ(sandbox.vxcli({"database", "unload", "a"}).out, "OK: database resource unloaded\n");
  EXPECT_EQ(sandbox.vxcli({"database", "unload", "--name=a"}).err,
            "ERROR: database resource not found: a\n");
  EXPECT_EQ(sandbox.vxcli({"--format=json", "database", "unload", "--all"}).out,
            "{\"status\":\"ok\",\"message\":\"all database resources unloaded\"}\n");
  EXPECT_EQ(registry(), "{\n  \"version\": 1,\n  \"resources\": []\n}\n");
  EXPECT_TRUE(std::filesystem::exists(b));  // only the registry changes
}

TEST_F(DatabaseCommands, BrokenRegistryBlocksEveryCommand) {
  std::string a = sandbox.write_file("a.dbc", kDbc);
  sandbox.write_file("state/vxcli/databases.json", "{}");
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"database", "list"},
           {"database", "load", "--file=" + a},
           {"database", "unload", "--all"},
           {"dbc", "message", "list"},
           {"dbc", "decode", "--message=1", "--data=00", "--database=" + a}}) {
    RunResult r = sandbox.vxcli(args);
    EXPECT_EQ(r.rc, 1) << args[1];
    EXPECT_EQ(r.err, "ERROR: database registry has no resources array\n") << args[1];
  }
  EXPECT_EQ(registry(), "{}");
  RunResult json = sandbox.vxcli({"--format=json", "database", "list"});
  EXPECT_EQ(json.out,
            "{\"status\":\"error\",\"message\":\"database registry has no resources array\","
            "\"error\":{\"code\":\"command_failed\",\"message\":\"database registry has no "
            "resources array\",\"details\":{},\"retryable\":false}}\n");
}

}  // namespace
