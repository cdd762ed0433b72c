// Traces written by other tools read back to exactly the frames listed beside them.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "json/json.h"
#include "logging/replay_input.h"
#include "vxtest.h"

namespace {

struct Expected {
  int index = 0;
  int channel = 0;
  int64_t id = 0;
  bool extended = false, remote = false, fd = false, brs = false, esi = false, error = false;
  bool tx = false;
  int64_t dlc = 0, length = 0;
  std::string data;        // hex, upper case
  int64_t offset_ns = -1;  // BLF only
  std::string asc_time;    // ASC only
  std::string written_as;  // how the tool wrote a frame it could not represent
};

std::vector<Expected> load_expected(const std::string& path) {
  std::string text = vxtest::read_file(path);
  std::vector<vxcli_json_token> tokens(200000);
  int n = vxcli_json_parse(text.c_str(), tokens.data(), (int)tokens.size());
  EXPECT_GT(n, 0) << path;
  std::vector<Expected> out;
  if (n <= 0) return out;
  const char* t = text.c_str();
  int frames = vxcli_json_object_get(t, tokens.data(), 0, "frames");
  EXPECT_GE(frames, 0);
  if (frames < 0) return out;
  auto string_of = [&](int obj, const char* key) {
    int v = vxcli_json_object_get(t, tokens.data(), obj, key);
    if (v < 0) return std::string();
    char buf[512];
    vxcli_json_string(t, &tokens[v], buf, sizeof buf);
    return std::string(buf);
  };
  auto int_of = [&](int obj, const char* key, int64_t fallback) {
    int v = vxcli_json_object_get(t, tokens.data(), obj, key);
    int64_t value = fallback;
    if (v >= 0) vxcli_json_integer(t, &tokens[v], &value);
    return value;
  };
  auto bool_of = [&](int obj, const char* key) {
    int v = vxcli_json_object_get(t, tokens.data(), obj, key);
    return v >= 0 && strncmp(t + tokens[v].start, "true", 4) == 0;
  };
  int item = frames + 1;
  for (int i = 0; i < tokens[frames].size; i++) {
    Expected e;
    e.index = (int)int_of(item, "index", -1);
    e.channel = (int)int_of(item, "channel", -1);
    e.id = int_of(item, "id", -1);
    e.extended = bool_of(item, "extended");
    e.remote = bool_of(item, "remote");
    e.fd = bool_of(item, "fd");
    e.brs = bool_of(item, "brs");
    e.esi = bool_of(item, "esi");
    e.error = bool_of(item, "error");
    e.tx = string_of(item, "dir") == "Tx";
    e.dlc = int_of(item, "dlc", -1);
    e.length = int_of(item, "length", -1);
    e.data = string_of(item, "data");
    e.offset_ns = int_of(item, "offset_ns", -1);
    e.asc_time = string_of(item, "asc_time");
    e.written_as = string_of(item, "written_as");
    out.push_back(e);
    item = vxcli_json_next(tokens.data(), item);
  }
  return out;
}

std::string hex(const uint8_t* data, int n) {
  std::string s;
  char b[3];
  for (int i = 0; i < n; i++) {
    snprintf(b, sizeof b, "%02X", data[i]);
    s += b;
  }
  return s;
}

// What a frame the tool could not write as such turned into.
Expected as_written(Expected e) {
  if (e.written_as.find("default channel (1)") != std::string::npos) {
    e.channel = 1;
  } else if (e.written_as.find("id 0x80") != std::string::npos) {
    e.error = false;
    e.id = 0x80;
    e.dlc = e.length = 8;
    e.data = "0000000000000000";
  }
  return e;
}

void check_file(const std::string& name, bool include_errors) {
  SCOPED_TRACE(name);
  std::vector<Expected> expected = load_expected(vxtest::testdata("interop/" + name + ".expected.json"));
  ASSERT_FALSE(expected.empty());
  vxcli_replay_input input;
  ASSERT_EQ(vxcli_replay_input_open(&input, vxtest::testdata("interop/" + name).c_str()), 0);
  input.include_errors = include_errors;
  bool blf = vxcli_path_is_blf(name.c_str());
  vxcli_log_frame f;
  size_t k = 0;
  int rc;
  while ((rc = vxcli_replay_input_next(&input, &f)) == 1) {
    Expected e;
    do {
      ASSERT_LT(k, expected.size()) << "more frames than listed";
      e = as_written(expected[k++]);
    } while (e.error && !include_errors);
    SCOPED_TRACE(e.index);
    EXPECT_EQ(f.channel, e.channel);
    EXPECT_EQ(f.error != 0, e.error);
    EXPECT_EQ((int64_t)f.id, e.id);
    EXPECT_EQ(f.extended != 0, e.extended);
    EXPECT_EQ(f.remote != 0, e.remote);
    EXPECT_EQ(f.fd != 0, e.fd);
    EXPECT_EQ(f.brs != 0, e.brs);
    EXPECT_EQ(f.esi != 0, e.esi);
    if (!e.error) {
      EXPECT_EQ(f.tx != 0, e.tx);
      EXPECT_EQ(f.dlc, e.dlc);
    }
    EXPECT_EQ(f.length, e.length);
    EXPECT_EQ(hex(f.data, f.length), e.data);
    if (blf) {
      EXPECT_EQ((int64_t)f.time_ns, e.offset_ns);
    } else {
      char t[32];
      snprintf(t, sizeof t, "%.6f", f.time);
      EXPECT_EQ(std::string(t), e.asc_time);
    }
  }
  EXPECT_EQ(rc, 0);
  while (k < expected.size() && expected[k].error && !include_errors) k++;
  EXPECT_EQ(k, expected.size()) << "frames missing";
  vxcli_replay_input_close(&input);
}

const char* const kSamples[] = {"pycan_zlib.blf", "pycan_stored.blf", "pycan_stored_split.blf",
                                "pycan.asc", "canutils_log2asc.asc", "canutils_log2asc_f.asc"};

}  // namespace

TEST(Interop, EverySampleReadsToItsListedFrames) {
  for (const char* name : kSamples) check_file(name, true);
}

TEST(Interop, ReplayLeavesErrorFramesOut) {
  for (const char* name : kSamples) check_file(name, false);
}
