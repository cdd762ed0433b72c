// The convert command refuses in every form and output mode, touching no file.
#include <gtest/gtest.h>

#include <filesystem>

#include "vxtest.h"

TEST(Convert, RefusesWithoutTouchingFiles) {
  vxtest::Sandbox box;
  std::string source = vxtest::testdata("interop/pycan.asc");
  std::string out = box.path("out.blf");
  auto r = box.vxcli({"convert", source, out});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(r.err, "ERROR: File conversion not supported in this build (requires BLF library)\n");
  EXPECT_FALSE(std::filesystem::exists(out));
  r = box.vxcli({"--format=json", "convert"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("\"status\":\"error\""), std::string::npos);
  EXPECT_NE(r.out.find("File conversion not supported in this build"), std::string::npos);
}
