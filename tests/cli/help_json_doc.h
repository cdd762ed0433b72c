// Walks help JSON documents with the project's own reader, so the tests check
// what a client of the contract would see.
#pragma once

#include <string>
#include <vector>

#include "json/json.h"

namespace helpdoc {

class Doc {
 public:
  explicit Doc(std::string text, size_t max_tokens = 16384)
      : text_(std::move(text)), tokens_(max_tokens) {
    count_ = vxcli_json_parse(text_.c_str(), tokens_.data(), static_cast<int>(tokens_.size()));
  }
  bool ok() const { return count_ > 0; }
  int parse_result() const { return count_; }
  const vxcli_json_token& token(int i) const { return tokens_[static_cast<size_t>(i)]; }

  // Keys of an object, in document order.
  std::vector<std::string> keys(int object) const {
    std::vector<std::string> out;
    int child = object + 1;
    for (int n = 0; n < token(object).size / 2; n++) {
      out.push_back(raw(child));
      child = vxcli_json_next(tokens_.data(), child + 1);
    }
    return out;
  }
  // Elements of an array, as token indices.
  std::vector<int> items(int array) const {
    std::vector<int> out;
    int child = array + 1;
    for (int n = 0; n < token(array).size; n++) {
      out.push_back(child);
      child = vxcli_json_next(tokens_.data(), child);
    }
    return out;
  }
  int get(int object, const char* key) const {
    return vxcli_json_object_get(text_.c_str(), tokens_.data(), object, key);
  }
  // Decoded string value, or the raw text of a primitive ("null", "true", "12").
  std::string str(int index) const {
    if (index < 0) return "<missing>";
    if (token(index).type == VXCLI_JSON_STRING) {
      std::vector<char> out(static_cast<size_t>(token(index).end - token(index).start) * 4 + 8);
      if (vxcli_json_string(text_.c_str(), &token(index), out.data(), out.size()) != 0)
        return "<bad string>";
      return out.data();
    }
    return raw(index);
  }
  std::string str(int object, const char* key) const { return str(get(object, key)); }

 private:
  std::string raw(int index) const {
    return text_.substr(static_cast<size_t>(token(index).start),
                        static_cast<size_t>(token(index).end - token(index).start));
  }
  std::string text_;
  std::vector<vxcli_json_token> tokens_;
  int count_ = -1;
};

}  // namespace helpdoc
