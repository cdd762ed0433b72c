#include <gtest/gtest.h>

#include <string>

#include "json/json.h"

namespace {

TEST(JsonWriter, LimitIsHardAndFailureSticky) {
  vxcli_json_writer w;
  ASSERT_EQ(vxcli_json_writer_init(&w, 4, 10), 0);
  EXPECT_EQ(vxcli_json_writer_raw(&w, "0123456789"), 0);
  EXPECT_EQ(vxcli_json_writer_length(&w), 10u);
  EXPECT_STREQ(vxcli_json_writer_data(&w), "0123456789");
  EXPECT_EQ(vxcli_json_writer_char(&w, 'x'), -1);
  EXPECT_FALSE(vxcli_json_writer_ok(&w));
  EXPECT_EQ(vxcli_json_writer_data(&w), nullptr);
  EXPECT_EQ(vxcli_json_writer_length(&w), 0u);
  EXPECT_EQ(vxcli_json_writer_raw(&w, ""), -1);  // stays failed
  vxcli_json_writer_free(&w);
  EXPECT_EQ(w.data, nullptr);
  EXPECT_EQ(w.limit, 0u);
  EXPECT_FALSE(vxcli_json_writer_ok(&w));
}

TEST(JsonWriter, NothingIsCutOnOverflow) {
  vxcli_json_writer w;
  ASSERT_EQ(vxcli_json_writer_init(&w, 0, 8), 0);
  EXPECT_EQ(w.capacity, 9u);  // smaller of limit + 1 and the default
  ASSERT_EQ(vxcli_json_writer_raw(&w, "abc"), 0);
  EXPECT_EQ(vxcli_json_writer_printf(&w, "%s", "123456"), -1);
  EXPECT_EQ(w.length, 3u);  // the failed append wrote nothing
  vxcli_json_writer_free(&w);
  EXPECT_EQ(vxcli_json_writer_init(&w, 16, 0), -1);
  vxcli_json_writer_free(&w);
}

TEST(JsonWriter, GrowsGeometricallyUpToLimit) {
  vxcli_json_writer w;
  ASSERT_EQ(vxcli_json_writer_init(&w, 1, 1000), 0);
  std::string expected;
  for (int i = 0; i < 100; i++) {
    ASSERT_EQ(vxcli_json_writer_printf(&w, "%d,", i % 10), 0);
    expected += std::to_string(i % 10) + ",";
  }
  EXPECT_EQ(std::string(vxcli_json_writer_data(&w)), expected);
  EXPECT_LE(w.capacity, 1001u);
  std::string rest(800, 'z');
  EXPECT_EQ(vxcli_json_writer_raw(&w, rest.c_str()), 0);
  EXPECT_EQ(w.length, 1000u);
  EXPECT_EQ(w.capacity, 1001u);
  vxcli_json_writer_free(&w);
}

TEST(JsonWriter, StringEscapes) {
  vxcli_json_writer w;
  ASSERT_EQ(vxcli_json_writer_init(&w, 0, 4096), 0);
  vxcli_json_writer_string(&w, "q\"b\\/\b\f\n\r\t\x01\x1f\xC3\xA9");
  vxcli_json_writer_char(&w, ' ');
  vxcli_json_writer_string(&w, nullptr);
  ASSERT_TRUE(vxcli_json_writer_ok(&w));
  EXPECT_EQ(std::string(vxcli_json_writer_data(&w)),
            "\"q\\\"b\\\\/\\b\\f\\n\\r\\t\\u0001\\u001F\xC3\xA9\" \"\"");
  vxcli_json_writer_free(&w);
}

TEST(JsonWriter, RawArguments) {
  vxcli_json_writer w;
  ASSERT_EQ(vxcli_json_writer_init(&w, 0, 64), 0);
  EXPECT_EQ(vxcli_json_writer_raw(&w, nullptr), 0);
  EXPECT_EQ(vxcli_json_writer_raw_n(&w, nullptr, 0), 0);
  EXPECT_TRUE(vxcli_json_writer_ok(&w));
  EXPECT_EQ(vxcli_json_writer_raw_n(&w, nullptr, 3), -1);
  EXPECT_FALSE(vxcli_json_writer_ok(&w));
  vxcli_json_writer_free(&w);
}

TEST(JsonWriter, OutputParsesBack) {
  vxcli_json_writer w;
  ASSERT_EQ(vxcli_json_writer_init(&w, 0, 1 << 20), 0);
  vxcli_json_writer_raw(&w, "{\"text\":");
  std::string nasty;
  for (int c = 1; c < 256; c++) nasty.push_back(static_cast<char>(c));
  vxcli_json_writer_string(&w, nasty.c_str());
  vxcli_json_writer_raw(&w, "}");
  ASSERT_TRUE(vxcli_json_writer_ok(&w));
  const char* text = vxcli_json_writer_data(&w);
  vxcli_json_token t[4];
  ASSERT_EQ(vxcli_json_parse(text, t, 4), 3);
  char out[1024];
  ASSERT_EQ(vxcli_json_string(text, &t[2], out, sizeof out), 0);
  EXPECT_EQ(std::string(out), nasty);
  vxcli_json_writer_free(&w);
}

}  // namespace
