// Helpers of the diag end-to-end tests: the ECU simulator in the background
// and small text utilities.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "../logging/background.h"
#include "vxtest.h"

namespace diagtest {

using logtest::Background;

inline const std::vector<std::string> kEndpoint = {"--channel=10356/1", "--request-id=0x7E0", "--response-id=0x7E8"};

inline std::vector<std::string> with(std::vector<std::string> args, const std::vector<std::string>& more) {
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

inline std::string hex_bytes(size_t n, uint8_t first) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string s;
  for (size_t i = 0; i < n; i++) {
    uint8_t b = static_cast<uint8_t>(first + i);
    s += kDigits[b >> 4];
    s += kDigits[b & 15];
  }
  return s;
}

// The simulator on 10357/1 answering 0x7E0 with 0x7E8; stopped with SIGINT.
struct Ecu {
  Background process;
  Ecu(vxtest::Sandbox& box, const std::string& rules, std::vector<std::string> extra = {})
      : process(box,
                with({"isotp", "ecu-sim", "--channel=10357/1", "--reqid=0x7E0", "--respid=0x7E8",
                      "--responses=" + box.write_file("rules.txt", rules)},
                     extra),
                "ecu") {}
  bool ready() { return process.wait_for_output("ECU-SIM: listening on ch10357/1 reqid=0x7E0 respid=0x7E8"); }
  std::string stop() {
    process.signal(SIGINT);
    EXPECT_EQ(process.wait(), 0) << process.err();
    return process.out();
  }
};

inline bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

}  // namespace diagtest
