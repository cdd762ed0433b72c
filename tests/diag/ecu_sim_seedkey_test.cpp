#include <gtest/gtest.h>

#include "diag/ecu_sim.h"
#include "diag/seedkey.h"
#include "vxtest.h"

namespace {

std::vector<uint8_t> first_response(const std::vector<vxcli_ecu_rule>& rules,
                                    std::vector<uint8_t> request) {
  const auto* rule = vxcli_ecu_sim_match(rules, request.data(), static_cast<uint32_t>(request.size()));
  if (!rule) return {0xEE};
  auto out = vxcli_ecu_sim_responses(*rule, request.data(), static_cast<uint32_t>(request.size()));
  return out.empty() ? std::vector<uint8_t>{} : out.front();
}

}  // namespace

TEST(EcuSimRules, MatchingOrderAndWildcards) {
  const char* text =
      "# comment\n"
      "\n"
      "22F190 62F190.56.49.4E\n"
      "22XXXX 62XXXX00   # echo the identifier\n"
      "3E80 -\n"
      "31010203* 7F3178(2)/71010203\n"
      "10* 50XX\n";
  std::vector<vxcli_ecu_rule> rules;
  size_t ignored = 9;
  char err[200];
  ASSERT_EQ(vxcli_ecu_sim_parse_rules(text, &rules, &ignored, err, sizeof err), 0) << err;
  EXPECT_EQ(rules.size(), 5u);
  EXPECT_EQ(ignored, 0u);
  EXPECT_EQ(first_response(rules, {0x22, 0xF1, 0x90}), (std::vector<uint8_t>{0x62, 0xF1, 0x90, 0x56, 0x49, 0x4E}));
  EXPECT_EQ(first_response(rules, {0x22, 0x12, 0x34}), (std::vector<uint8_t>{0x62, 0x12, 0x34, 0x00}));
  EXPECT_EQ(first_response(rules, {0x22, 0x12}), (std::vector<uint8_t>{0xEE}));  // no rule
  EXPECT_EQ(first_response(rules, {0x3E, 0x80}), (std::vector<uint8_t>{}));      // silent
  EXPECT_EQ(first_response(rules, {0x10, 0x03}), (std::vector<uint8_t>{0x50, 0x03}));
  EXPECT_EQ(first_response(rules, {0x10}), (std::vector<uint8_t>{0x50, 0x00}));
  std::vector<uint8_t> routine = {0x31, 0x01, 0x02, 0x03, 0xAA};
  const auto* rule = vxcli_ecu_sim_match(rules, routine.data(), 5);
  ASSERT_NE(rule, nullptr);
  auto all = vxcli_ecu_sim_responses(*rule, routine.data(), 5);
  ASSERT_EQ(all.size(), 3u);
  EXPECT_EQ(all[1], (std::vector<uint8_t>{0x7F, 0x31, 0x78}));
  EXPECT_EQ(all[2][0], 0x71);

  ASSERT_EQ(vxcli_ecu_sim_parse_rules("* 7F0011\n22F190 620000\n", &rules, nullptr, err, sizeof err), 0);
  EXPECT_EQ(first_response(rules, {0x22, 0xF1, 0x90}), (std::vector<uint8_t>{0x7F, 0x00, 0x11}));
}

TEST(EcuSimRules, LimitsAndErrors) {
  std::string many;
  for (int i = 0; i < 70; i++) many += "3E00 7E00\n";
  std::vector<vxcli_ecu_rule> rules;
  size_t ignored = 0;
  char err[200];
  ASSERT_EQ(vxcli_ecu_sim_parse_rules(many, &rules, &ignored, err, sizeof err), 0);
  EXPECT_EQ(rules.size(), 64u);
  EXPECT_EQ(ignored, 6u);
  for (const char* bad : {"22F1\n", "22F 62\n", "2*2 62\n", "22 6G\n", "22 62(0)\n",
                          "22 62(x)\n", "22 /62\n", "22 62 extra\n"}) {
    EXPECT_EQ(vxcli_ecu_sim_parse_rules(bad, &rules, nullptr, err, sizeof err), -1) << bad;
    EXPECT_EQ(std::string(err).rfind("line 1", 0), 0u) << err;
  }
  EXPECT_EQ(vxcli_ecu_sim_parse_rules(std::string(1100, 'A') + "\n", &rules, nullptr, err, sizeof err), -1);
  EXPECT_EQ(vxcli_ecu_sim_parse_rules(std::string(300, 'A') + " 62\n", &rules, nullptr, err, sizeof err), -1);
}

TEST(SeedKey, SampleLibraryAndFailures) {
  vxcli_seedkey lib;
  char err[512];
  std::string path = vxtest::bin_path("libvxseedkey.so");
  ASSERT_EQ(vxcli_seedkey_load(path.c_str(), &lib, err, sizeof err), 0) << err;
  EXPECT_STREQ(lib.symbol, "GenerateKeyEx");
  const uint8_t seed[] = {0x12, 0x34, 0x56, 0x78};
  uint8_t key[VXCLI_SEEDKEY_MAX_KEY];
  uint32_t key_length = 99;
  ASSERT_EQ(vxcli_seedkey_compute(&lib, seed, 4, 0x11, key, &key_length, err, sizeof err), 0);
  ASSERT_EQ(key_length, 4u);
  EXPECT_EQ(std::vector<uint8_t>(key, key + 4), (std::vector<uint8_t>{0xC8, 0xA3, 0x06, 0xF1}));
  vxcli_seedkey_close(&lib);

  EXPECT_EQ(vxcli_seedkey_load("/nonexistent/lib.so", &lib, err, sizeof err), -1);
  EXPECT_EQ(std::string(err).rfind("--algo '/nonexistent/lib.so' could not be loaded: ", 0), 0u) << err;
  EXPECT_EQ(vxcli_seedkey_load("libz.so.1", &lib, err, sizeof err), -1);
  EXPECT_STREQ(err, "security library 'libz.so.1' does not export GenerateKeyEx or GenerateKeyExOpt");
}
