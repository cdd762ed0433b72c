// Traces written by other tools read back to exactly the frames listed beside them.
#include "json/json.h"
#include "log_test.h"
#include "vxtest.h"

namespace {

// The listed frames in the log layer's terms; time_ns carries the BLF offset,
// written_as how the tool wrote a frame it could not represent.
struct Expected {
  vxcli_log_frame frame = {};
  std::string asc_time, written_as;
};

std::vector<Expected> load_expected(const std::string& path) {
  std::string text = vxtest::read_file(path);
  const char* t = text.c_str();
  std::vector<vxcli_json_token> tokens(100000);
  std::vector<Expected> out;
  if (vxcli_json_parse(t, tokens.data(), (int)tokens.size()) <= 0) return out;
  int frames = vxcli_json_object_get(t, tokens.data(), 0, "frames");
  if (frames < 0) return out;
  int item = frames + 1;
  for (int i = 0; i < tokens[frames].size; i++, item = vxcli_json_next(tokens.data(), item)) {
    auto value = [&](const char* key) { return vxcli_json_object_get(t, tokens.data(), item, key); };
    auto number = [&](const char* key) {
      int64_t v = -1;
      if (value(key) >= 0) vxcli_json_integer(t, &tokens[value(key)], &v);
      return v;
    };
    auto text_of = [&](const char* key) {
      char buf[512] = "";
      if (value(key) >= 0) vxcli_json_string(t, &tokens[value(key)], buf, sizeof buf);
      return std::string(buf);
    };
    auto flag = [&](const char* key) { return value(key) >= 0 && t[tokens[value(key)].start] == 't'; };
    Expected e;
    vxcli_log_frame& f = e.frame;
    f.channel = (int)number("channel");
    f.id = (uint32_t)number("id");
    f.extended = flag("extended"), f.remote = flag("remote"), f.fd = flag("fd");
    f.brs = flag("brs"), f.esi = flag("esi"), f.error = flag("error");
    f.tx = text_of("dir") == "Tx";
    f.dlc = (int)number("dlc");
    f.length = (int)number("length");
    std::string hex = text_of("data");
    for (size_t k = 0; k + 1 < hex.size(); k += 2) f.data[k / 2] = (uint8_t)std::stoi(hex.substr(k, 2), nullptr, 16);
    f.time_ns = (uint64_t)number("offset_ns");
    e.asc_time = text_of("asc_time");
    e.written_as = text_of("written_as");
    if (e.written_as.find("default channel (1)") != std::string::npos) {
      f.channel = 1;
    } else if (e.written_as.find("id 0x80") != std::string::npos) {
      f.error = 0, f.id = 0x80, f.dlc = f.length = 8;  // eight zero bytes
    }
    if (f.error) f.tx = 0, f.dlc = 0;  // error frames carry neither
    out.push_back(e);
  }
  return out;
}

const char* const kSamples[] = {"pycan_zlib.blf", "pycan_stored.blf", "pycan_stored_split.blf",
                                "pycan.asc", "canutils_log2asc.asc", "canutils_log2asc_f.asc"};

}  // namespace

TEST(Interop, EverySampleReadsToItsListedFrames) {
  for (const char* name : kSamples) {
    SCOPED_TRACE(name);
    auto expected = load_expected(vxtest::testdata(std::string("interop/") + name + ".expected.json"));
    ASSERT_EQ(expected.size(), 194u);
    std::vector<vxcli_log_frame> want, want_replay;
    for (const Expected& e : expected) {
      want.push_back(e.frame);
      if (!e.frame.error) want_replay.push_back(e.frame);
    }
    // Replay leaves error frames out; conversion keeps them.
    for (bool errors : {true, false}) {
      int rc;
      auto got = logtest::read_frames(vxtest::testdata(std::string("interop/") + name), errors, &rc);
      EXPECT_EQ(rc, 0);
      logtest::expect_same_frames(got, errors ? want : want_replay);
    }
    auto got = logtest::read_frames(vxtest::testdata(std::string("interop/") + name), true);
    ASSERT_EQ(got.size(), expected.size());
    bool blf = vxcli_path_is_blf(name);
    for (size_t i = 0; i < got.size(); i++) {
      if (blf) {
        EXPECT_EQ(got[i].time_ns, expected[i].frame.time_ns) << i;
      } else {
        char t[32];
        snprintf(t, sizeof t, "%.6f", got[i].time);
        EXPECT_EQ(t, expected[i].asc_time) << i;
      }
    }
  }
}
