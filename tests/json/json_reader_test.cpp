#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "json/json.h"

namespace {

int parse(const std::string& text, int max_tokens = 64) {
  std::vector<vxcli_json_token> tokens(static_cast<size_t>(max_tokens > 0 ? max_tokens : 1));
  return vxcli_json_parse(text.c_str(), tokens.data(), max_tokens);
}

TEST(JsonReader, IncompleteDocuments) {
  for (const char* text : {"", "  \n\t", "{}{}", "[1]x", "[1,2", "{\"a\":\"x", "[\"ab\\"})
    EXPECT_EQ(parse(text), -3) << text;
}

TEST(JsonReader, RootMustBeContainer) {
  EXPECT_EQ(parse("\"lone\""), -1);
  EXPECT_EQ(parse("42"), -1);
  EXPECT_EQ(parse("{}"), 1);
  EXPECT_EQ(parse(" [ ] "), 1);
}

TEST(JsonReader, SeparatorsAreChecked) {
  for (const char* text : {"[1,]", "{\"a\" 1}", "{\"a\":1,}", "[1 2]", "{\"a\":1 \"b\":2}", "{1:2}",
                           "[,1]", "{\"a\"}", "{\"a\"::1}", "[1,,2]", "{,}"})
    EXPECT_EQ(parse(text), -1) << text;
  EXPECT_EQ(parse("{ \"a\" : [ 1 , 2 ] , \"b\" : { } }"), 7);
}

TEST(JsonReader, NumbersAndLiterals) {
  for (const char* text : {"[01]", "[1.]", "[.5]", "[-]", "[1e]", "[True]", "[+1]", "[1e+]", "[0x10]"})
    EXPECT_EQ(parse(text), -1) << text;
  for (const char* text : {"[-0.5e+10]", "[0]", "[true,false,null]", "[1E5]", "[-0]", "[12.25e-3]"})
    EXPECT_GT(parse(text), 0) << text;
  std::string longest = "[" + std::string(95, '1') + "]";
  EXPECT_EQ(parse(longest), 2);
  std::string too_long = "[" + std::string(96, '1') + "]";
  EXPECT_EQ(parse(too_long), -1);
}

TEST(JsonReader, TokenLimitIsExact) {
  EXPECT_EQ(parse("[1,2,3]", 4), 4);
  EXPECT_EQ(parse("[1,2,3]", 3), -2);
  std::vector<vxcli_json_token> tokens(1);
  EXPECT_EQ(vxcli_json_parse("{}", tokens.data(), 0), -1);
  EXPECT_EQ(vxcli_json_parse(nullptr, tokens.data(), 1), -1);
}

TEST(JsonReader, StringLexing) {
  EXPECT_EQ(parse("[\"a\x01\"]"), -1);
  EXPECT_EQ(parse("[\"\\x\"]"), -1);
  EXPECT_EQ(parse("[\"\\u12G4\"]"), -1);
  EXPECT_EQ(parse("[\"\\u00e9 \\/ \\\" \\\\\"]"), 2);
}

TEST(JsonReader, TokenShapeAndSizes) {
  const char* text = "{\"a\":[1,{\"b\":true}],\"c\":\"x\"}";
  vxcli_json_token t[16];
  ASSERT_EQ(vxcli_json_parse(text, t, 16), 9);
  EXPECT_EQ(t[0].size, 4);  // two members: keys and values counted
  EXPECT_EQ(t[2].type, VXCLI_JSON_ARRAY);
  EXPECT_EQ(t[2].size, 2);
  EXPECT_EQ(t[2].parent, 0);
  EXPECT_EQ(t[1].start, 2);  // string start is after the quote
  EXPECT_EQ(t[1].end, 3);
  EXPECT_EQ(vxcli_json_next(t, 2), 7);
  EXPECT_EQ(t[0].end, static_cast<int>(strlen(text)));
}

TEST(JsonReader, MemberLookupIsDirectAndRaw) {
  const char* text = "{\"inner\":{\"k\":1},\"k\":2,\"e\\u0073c\":3,\"esc\":4}";
  vxcli_json_token t[32];
  ASSERT_GT(vxcli_json_parse(text, t, 32), 0);
  int64_t v = 0;
  int k = vxcli_json_object_get(text, t, 0, "k");
  ASSERT_GE(k, 0);
  ASSERT_EQ(vxcli_json_integer(text, &t[k], &v), 0);
  EXPECT_EQ(v, 2);
  int esc = vxcli_json_object_get(text, t, 0, "esc");
  ASSERT_GE(esc, 0);
  ASSERT_EQ(vxcli_json_integer(text, &t[esc], &v), 0);
  EXPECT_EQ(v, 4);  // the escaped key never matches
  EXPECT_EQ(vxcli_json_object_get(text, t, 0, "missing"), -1);
  EXPECT_EQ(vxcli_json_object_get(text, t, 2, "k"), 4);  // inside the nested object
  EXPECT_EQ(vxcli_json_object_get(text, t, 1, "k"), -1);  // a key token is not an object
}

TEST(JsonReader, UnescapeAndSurrogates) {
  const char* text = "[\"a\\n\\t\\\"\\u00e9\\ud83d\\ude00\",\"\\ud83d\",\"\\ud83dx\",\"\\ude00\",\"\"]";
  vxcli_json_token t[8];
  ASSERT_EQ(vxcli_json_parse(text, t, 8), 6);
  char out[32];
  ASSERT_EQ(vxcli_json_string(text, &t[1], out, sizeof out), 0);
  EXPECT_EQ(std::string(out), "a\n\t\"\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(vxcli_json_string(text, &t[2], out, sizeof out), -1);
  EXPECT_EQ(vxcli_json_string(text, &t[3], out, sizeof out), -1);
  EXPECT_EQ(vxcli_json_string(text, &t[4], out, sizeof out), -1);
  ASSERT_EQ(vxcli_json_string(text, &t[5], out, sizeof out), 0);
  EXPECT_EQ(std::string(out), "");
  // Exactly the decoded length leaves no room for the NUL.
  char exact[10];
  EXPECT_EQ(vxcli_json_string(text, &t[1], exact, 10), -1);
  char fits[11];
  EXPECT_EQ(vxcli_json_string(text, &t[1], fits, 11), 0);
  EXPECT_EQ(vxcli_json_string(text, &t[0], out, sizeof out), -1);  // not a string
}

TEST(JsonReader, IntegerConversion) {
  const char* text = "[12,-7,1.5,1e3,true,9223372036854775808]";
  vxcli_json_token t[8];
  ASSERT_EQ(vxcli_json_parse(text, t, 8), 7);
  int64_t v = 0;
  EXPECT_EQ(vxcli_json_integer(text, &t[1], &v), 0);
  EXPECT_EQ(v, 12);
  EXPECT_EQ(vxcli_json_integer(text, &t[2], &v), 0);
  EXPECT_EQ(v, -7);
  EXPECT_EQ(vxcli_json_integer(text, &t[3], &v), -1);
  EXPECT_EQ(vxcli_json_integer(text, &t[4], &v), -1);
  EXPECT_EQ(vxcli_json_integer(text, &t[5], &v), -1);
  EXPECT_EQ(vxcli_json_integer(text, &t[6], &v), 0);
  EXPECT_EQ(v, INT64_MAX);
}

}  // namespace
