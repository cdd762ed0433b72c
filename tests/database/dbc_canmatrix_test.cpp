// Cross-check of decoding against an established third-party decoder
// (Debian's python3-canmatrix) on random payloads for every shared DBC file.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <sstream>

#include "database/dbc.h"
#include "vxtest.h"

namespace {

const char kScript[] = R"PY(
import logging, sys, warnings
logging.disable(logging.CRITICAL)
warnings.filterwarnings("ignore")
import canmatrix.formats
out = sys.stdout
sys.stdout = sys.stderr  # the loader reports skipped lines on stdout
frames = {}
for line in open(sys.argv[1]):
    path, ident, data = line.rstrip("\n").split("\t")
    if path not in frames:
        by_id = {}
        for db in canmatrix.formats.loadp(path).values():
            for frame in db.frames:
                by_id.setdefault(frame.arbitration_id.id, frame)
        frames[path] = by_id
    frame = frames[path].get(int(ident))
    if frame is None:
        print("MISSING\t%s\t%s" % (path, ident), file=out)
        continue
    try:
        decoded = frame.decode(bytearray.fromhex(data))
    except Exception:
        print("ERROR\t%s\t%s\t%s" % (path, ident, data), file=out)
        continue
    print("FRAME\t%s\t%s\t%s" % (path, ident, data), file=out)
    for name, value in decoded.items():
        print("VALUE\t%s\t%s\t%s\t%s\t%r" % (path, ident, data, name, float(value.phys_value)),
              file=out)
)PY";

const char kPython[] = "/usr/bin/python3";

std::string hex(const std::vector<uint8_t>& data) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : data) {
    out += digits[b >> 4];
    out += digits[b & 15];
  }
  return out;
}

std::vector<std::string> fields(const std::string& line) {
  std::vector<std::string> out;
  std::stringstream in(line);
  std::string field;
  while (std::getline(in, field, '\t')) out.push_back(field);
  return out;
}

TEST(DbcCanmatrix, DecodingAgreesOnSharedFiles) {
  if (std::system((std::string(kPython) + " -c 'import canmatrix' >/dev/null 2>&1").c_str()) != 0)
    GTEST_SKIP() << "python3-canmatrix is not installed";
  char dir_template[] = "/tmp/vxcm-XXXXXX";
  ASSERT_NE(mkdtemp(dir_template), nullptr);
  std::string dir = dir_template;
  std::ofstream(dir + "/check.py") << kScript;
  std::ofstream frames(dir + "/frames.txt");

  struct Ours {
    const Signal* signal;
    uint64_t raw;
    double physical;
  };
  // frame key (path, id, data) -> our decoded signals by name
  std::map<std::string, std::map<std::string, Ours>> ours;
  std::vector<std::unique_ptr<DBCIterator>> files;
  std::mt19937 random(99);
  for (const auto& entry : std::filesystem::directory_iterator(vxtest::testdata("dbc"))) {
    if (entry.path().extension() != ".dbc") continue;
    std::string path = entry.path().string();
    files.push_back(std::make_unique<DBCIterator>(path));
    for (const Message& m : *files.back()) {
      size_t size = std::min<size_t>(m.size, 64);
      if (size == 0) continue;
      for (int round = 0; round < 3; round++) {
        std::vector<uint8_t> data(size);
        for (uint8_t& b : data) b = uint8_t(random());
        std::string key = path + "\t" + std::to_string(m.id & 0x7FFFFFFFu) + "\t" + hex(data);
        if (ours.count(key)) continue;  // short payloads repeat
        frames << key << "\n";
        std::vector<DbcSignalValue> values(m.signals.size());
        size_t n = vxcli_dbc_decode_message(m, data.data(), size, values.data(), values.size());
        auto& decoded = ours[key];
        for (size_t i = 0; i < n; i++)
          decoded.emplace(values[i].signal->name,
                          Ours{values[i].signal, values[i].raw, values[i].physical});
      }
    }
  }
  frames.close();
  ASSERT_EQ(files.size(), 12u);

  std::string command = std::string(kPython) + " " + dir + "/check.py " + dir + "/frames.txt 2>/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::string output;
  char buffer[65536];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  ASSERT_EQ(pclose(pipe), 0);
  std::filesystem::remove_all(dir);

  size_t compared = 0, missing_frames = 0, refused_frames = 0;
  std::map<std::string, size_t> seen;  // frame key -> values canmatrix gave
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line)) {
    std::vector<std::string> f = fields(line);
    ASSERT_FALSE(f.empty());
    if (f[0] == "MISSING") {
      missing_frames++;
      continue;
    }
    if (f[0] == "ERROR") {
      refused_frames++;
      continue;
    }
    ASSERT_GE(f.size(), 4u) << line;
    std::string key = f[1] + "\t" + f[2] + "\t" + f[3];
    if (f[0] == "FRAME") {
      seen.emplace(key, 0);
      continue;
    }
    ASSERT_EQ(f.size(), 6u) << line;
    auto frame = ours.find(key);
    ASSERT_NE(frame, ours.end()) << line;
    auto value = frame->second.find(f[4]);
    ASSERT_NE(value, frame->second.end()) << "not decoded here: " << line;
    seen[key]++;
    const Ours& mine = value->second;
    double theirs = std::stod(f[5]);
    // 64-bit raws read as two's complement here, also for unsigned signals.
    if (mine.signal->length == 64 && !mine.signal->sign && (mine.raw >> 63)) continue;
    EXPECT_NEAR(mine.physical, theirs, 1e-9 * std::max(1.0, std::fabs(theirs))) << line;
    compared++;
  }
  // Every signal decoded here for a frame the other decoder read was read there too.
  for (const auto& [key, count] : seen) EXPECT_EQ(count, ours[key].size()) << key;
  // The other decoder drops the ten 11-bit-looking ids above 0x7FF of vw_mqbevo
  // and the pseudo message of psa (never sent: DLC 0 is skipped above).
  EXPECT_EQ(missing_frames, 30u);
  EXPECT_EQ(refused_frames, 0u);
  EXPECT_GT(compared, 25000u);
}

}  // namespace
