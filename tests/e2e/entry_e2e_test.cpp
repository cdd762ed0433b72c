#include <gtest/gtest.h>

#include "vxtest.h"

namespace {

TEST(EntryE2E, NoWordsPrintsRootHelp) {
  vxtest::Sandbox box;
  auto r = box.vxcli({});
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("Usage: vxcli <category> <action>"), std::string::npos);
}

TEST(EntryE2E, VersionOnlyAsFirstWord) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"--version", "whatever", "--format=json"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out.rfind("VXCLI v1.2.1 (build 24, commit ", 0), 0u) << r.out;
  EXPECT_NE(r.out.find(", VXAPI 0x010E002A)\n"), std::string::npos);
  r = box.vxcli({"version", "--format=json"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_NE(r.out.find("\"vxapi_header_version\":\"0x010E002A\""), std::string::npos) << r.out;
  r = box.vxcli({"-v"});
  EXPECT_EQ(r.rc, 0);
  EXPECT_EQ(r.out.rfind("VXCLI v1.2.1", 0), 0u);
}

TEST(EntryE2E, ProjectErrorsInEveryForm) {
  vxtest::Sandbox box;
  for (auto args : {std::vector<std::string>{"channel", "info", "--project"},
                    std::vector<std::string>{"channel", "info", "--project="}}) {
    auto r = box.vxcli(args);
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.err, "ERROR: --project requires a directory\n");
  }
  auto r = box.vxcli({"channel", "info", "--format=json", "--project"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("\"message\":\"--project requires a directory\""), std::string::npos);
}

TEST(EntryE2E, GlobalFormatAfterCommandWords) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"nosuchcategory", "x", "--format=json"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.out.rfind("{\"status\":\"error\"", 0), 0u) << r.out;
  EXPECT_EQ(r.err, "");
}

}  // namespace
