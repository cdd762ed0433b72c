// The convert command, run as a user runs it.
#include <unistd.h>

#include "log_test.h"
#include "vxtest.h"

using namespace logtest;

TEST(Convert, BlfToAscAndBackKeepsEveryFrame) {
  vxtest::Sandbox box;
  std::string source = vxtest::testdata("interop/pycan_zlib.blf");
  std::string asc = box.path("trace.asc"), blf = box.path("trace.blf");
  auto r = box.vxcli({"convert", source, asc});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(r.out, "Converted 194 frame(s) from " + source + " to " + asc + "\n");
  r = box.vxcli({"--format=json", "convert", asc, blf});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(r.out, "{\"status\":\"ok\",\"frames\":194,\"input\":\"" + asc + "\",\"output\":\"" + blf + "\"}\n");
  auto original = read_frames(source, true);
  auto back = read_frames(blf, true);
  expect_same_frames(back, original);
  for (size_t i = 0; i < back.size(); i++)  // ASC keeps microseconds
    EXPECT_EQ(back[i].time_ns, (original[i].time_ns + 500) / 1000 * 1000) << i;
}

TEST(Convert, BadInvocationsFailWithoutLeavingOutput) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"convert", "only-one.asc"});
  EXPECT_NE(r.err.find("ERROR: usage: vxcli convert"), std::string::npos);
  r = box.vxcli({"convert", "a.txt", box.path("b.asc")});
  EXPECT_NE(r.err.find("unsupported conversion"), std::string::npos);
  r = box.vxcli({"--format=json", "convert", box.path("missing.blf"), box.path("b.asc")});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("Failed to open file: " + box.path("missing.blf")), std::string::npos);
  std::string same = box.write_file("same.asc", "0.1 1 1 Rx d 0\n");
  r = box.vxcli({"convert", same, same});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(vxtest::read_file(same), "0.1 1 1 Rx d 0\n");
  Bytes f = file_header();  // one good frame, then a classic frame with DLC 12
  append(f, container(object(1, can_payload(1, 1, 1, {1}), 0)));
  append(f, container(object(1, can_payload(1, 2, 12, {}), 10)));
  std::string bad = box.path("bad.blf"), out = box.path("out.asc");
  write(bad, f);
  r = box.vxcli({"convert", bad, out});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("Malformed or unsupported record in " + bad), std::string::npos);
  EXPECT_NE(access(out.c_str(), F_OK), 0);
}
