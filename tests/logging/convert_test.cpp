// The convert command, run as a user runs it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <vector>

#include "blf_build.h"
#include "logging/replay_input.h"
#include "vxtest.h"

namespace {

std::vector<vxcli_log_frame> read_frames(const std::string& path) {
  std::vector<vxcli_log_frame> out;
  vxcli_replay_input in;
  if (vxcli_replay_input_open(&in, path.c_str()) != 0) return out;
  in.include_errors = 1;
  vxcli_log_frame f;
  while (vxcli_replay_input_next(&in, &f) == 1) out.push_back(f);
  vxcli_replay_input_close(&in);
  return out;
}

}  // namespace

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

  auto original = read_frames(source);
  auto back = read_frames(blf);
  ASSERT_EQ(original.size(), 194u);
  ASSERT_EQ(back.size(), original.size());
  for (size_t i = 0; i < back.size(); i++) {
    const auto& a = original[i];
    const auto& b = back[i];
    SCOPED_TRACE(i);
    EXPECT_EQ(b.channel, a.channel);
    EXPECT_EQ(b.error, a.error);
    EXPECT_EQ(b.id, a.id);
    EXPECT_EQ(b.extended, a.extended);
    EXPECT_EQ(b.remote, a.remote);
    EXPECT_EQ(b.fd, a.fd);
    EXPECT_EQ(b.brs, a.brs);
    EXPECT_EQ(b.esi, a.esi);
    EXPECT_EQ(b.tx, a.tx);
    EXPECT_EQ(b.dlc, a.dlc);
    EXPECT_EQ(b.length, a.length);
    EXPECT_EQ(memcmp(b.data, a.data, (size_t)a.length), 0);
    // ASC keeps microseconds.
    EXPECT_EQ(b.time_ns, (a.time_ns + 500) / 1000 * 1000);
  }
}

TEST(Convert, BadInvocationsFailWithoutLeavingOutput) {
  vxtest::Sandbox box;
  auto r = box.vxcli({"convert", "only-one.asc"});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("ERROR: usage: vxcli convert"), std::string::npos);
  r = box.vxcli({"convert", "a.txt", box.path("b.asc")});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("unsupported conversion"), std::string::npos);
  r = box.vxcli({"convert", box.path("missing.blf"), box.path("b.asc")});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("Failed to open file: " + box.path("missing.blf")), std::string::npos);
  r = box.vxcli({"--format=json", "convert", box.path("missing.blf"), box.path("b.asc")});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.out.find("\"status\":\"error\""), std::string::npos);

  std::string same = box.write_file("same.asc", "0.1 1 1 Rx d 0\n");
  r = box.vxcli({"convert", same, same});
  EXPECT_EQ(r.rc, 1);
  EXPECT_EQ(vxtest::read_file(same), "0.1 1 1 Rx d 0\n");  // untouched

  // A BLF that breaks after one good frame: no half-written output stays.
  using namespace blftest;
  Bytes s = object(1, can_payload(1, 1, 1, {1}), 0);
  append(s, object(1, can_payload(1, 2, 12, {}), 10));
  Bytes f = file_header();
  append(f, container(s));
  std::string bad = box.path("bad.blf");
  write(bad, f);
  std::string out = box.path("out.asc");
  r = box.vxcli({"convert", bad, out});
  EXPECT_EQ(r.rc, 1);
  EXPECT_NE(r.err.find("Malformed or unsupported record in " + bad), std::string::npos);
  EXPECT_NE(access(out.c_str(), F_OK), 0);
}
