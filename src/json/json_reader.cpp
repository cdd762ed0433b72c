// Strict, non-allocating JSON reader: tokenize, check primitives, check layout.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "json/json.h"

namespace {

bool is_space(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

bool is_hex(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

// Counts a new value in its parent container, or at the top level.
void count_child(vxcli_json_token* tokens, int parent, int* top_level) {
  if (parent >= 0) tokens[parent].size++;
  else (*top_level)++;
}

int tokenize(const char* text, vxcli_json_token* tokens, int max_tokens, int* count_out) {
  int count = 0, open = -1, top_level = 0;
  int pos = 0;
  for (;;) {
    char c = text[pos];
    if (c == 0) break;
    if (is_space(c) || c == ':' || c == ',') {
      pos++;
      continue;
    }
    if (c == '{' || c == '[') {
      if (count >= max_tokens) return -2;
      vxcli_json_token& t = tokens[count];
      t.type = c == '{' ? VXCLI_JSON_OBJECT : VXCLI_JSON_ARRAY;
      t.start = pos;
      t.end = -1;
      t.size = 0;
      t.parent = open;
      count_child(tokens, open, &top_level);
      open = count++;
      pos++;
      continue;
    }
    if (c == '}' || c == ']') {
      int want = c == '}' ? VXCLI_JSON_OBJECT : VXCLI_JSON_ARRAY;
      if (open < 0 || tokens[open].type != want) return -1;
      tokens[open].end = pos + 1;
      open = tokens[open].parent;
      pos++;
      continue;
    }
    if (c == '"') {
      int start = pos + 1;
      int i = start;
      for (;;) {
        unsigned char s = static_cast<unsigned char>(text[i]);
        if (s == 0) return -3;
        if (s == '"') break;
        if (s < 0x20) return -1;
        if (s == '\\') {
          char e = text[i + 1];
          if (e == 0) return -3;
          if (strchr("\"\\/bfnrt", e)) {
            i += 2;
            continue;
          }
          if (e == 'u') {
            for (int k = 2; k < 6; k++) {
              if (text[i + k] == 0) return -3;
              if (!is_hex(text[i + k])) return -1;
            }
            i += 6;
            continue;
          }
          return -1;
        }
        i++;
      }
      if (count >= max_tokens) return -2;
      vxcli_json_token& t = tokens[count++];
      t.type = VXCLI_JSON_STRING;
      t.start = start;
      t.end = i;
      t.size = 0;
      t.parent = open;
      count_child(tokens, open, &top_level);
      pos = i + 1;
      continue;
    }
    // Primitive: runs to the next delimiter.
    int start = pos;
    int i = pos;
    for (;;) {
      unsigned char p = static_cast<unsigned char>(text[i]);
      if (p == 0 || p == ',' || p == ']' || p == '}' || is_space(static_cast<char>(p))) break;
      if (p < 0x20 || p == '"' || p == ':' || p == '[' || p == '{') return -1;
      i++;
    }
    if (i == start) return -1;
    if (count >= max_tokens) return -2;
    vxcli_json_token& t = tokens[count++];
    t.type = VXCLI_JSON_PRIMITIVE;
    t.start = start;
    t.end = i;
    t.size = 0;
    t.parent = open;
    count_child(tokens, open, &top_level);
    pos = i;
  }
  if (top_level != 1 || open >= 0 || count == 0) return -3;
  if (tokens[0].type != VXCLI_JSON_OBJECT && tokens[0].type != VXCLI_JSON_ARRAY) return -1;
  *count_out = count;
  return 0;
}

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool valid_primitive(const char* s, int length) {
  if (length < 1 || length > 95) return false;
  if ((length == 4 && memcmp(s, "true", 4) == 0) || (length == 5 && memcmp(s, "false", 5) == 0) ||
      (length == 4 && memcmp(s, "null", 4) == 0))
    return true;
  int i = 0;
  if (s[i] == '-') i++;
  if (i >= length) return false;
  if (s[i] == '0') {
    i++;
    if (i < length && is_digit(s[i])) return false;
  } else if (s[i] >= '1' && s[i] <= '9') {
    while (i < length && is_digit(s[i])) i++;
  } else {
    return false;
  }
  if (i < length && s[i] == '.') {
    i++;
    if (i >= length || !is_digit(s[i])) return false;
    while (i < length && is_digit(s[i])) i++;
  }
  if (i < length && (s[i] == 'e' || s[i] == 'E')) {
    i++;
    if (i < length && (s[i] == '+' || s[i] == '-')) i++;
    if (i >= length || !is_digit(s[i])) return false;
    while (i < length && is_digit(s[i])) i++;
  }
  return i == length;
}

// Where a token's text begins in the document (a string's opening quote).
int token_begin(const vxcli_json_token& t) { return t.type == VXCLI_JSON_STRING ? t.start - 1 : t.start; }
int token_finish(const vxcli_json_token& t) { return t.type == VXCLI_JSON_STRING ? t.end + 1 : t.end; }

int skip_space(const char* text, int pos) {
  while (is_space(text[pos])) pos++;
  return pos;
}

// Verifies separators of the container at index; returns the index after its subtree or -1.
int check_layout(const char* text, const vxcli_json_token* tokens, int count, int index) {
  const vxcli_json_token& c = tokens[index];
  int close = c.end - 1;
  int pos = skip_space(text, c.start + 1);
  int child = index + 1;
  if (c.size == 0) return pos == close ? child : -1;
  bool object = c.type == VXCLI_JSON_OBJECT;
  if (object && (c.size % 2) != 0) return -1;
  for (int n = 0; n < c.size; n++) {
    if (child >= count || tokens[child].parent != index) return -1;
    const vxcli_json_token& t = tokens[child];
    bool is_key = object && (n % 2 == 0);
    if (is_key && t.type != VXCLI_JSON_STRING) return -1;
    if (token_begin(t) != pos) return -1;
    int next;
    if (t.type == VXCLI_JSON_OBJECT || t.type == VXCLI_JSON_ARRAY) {
      next = check_layout(text, tokens, count, child);
      if (next < 0) return -1;
    } else {
      next = child + 1;
    }
    pos = skip_space(text, token_finish(t));
    if (is_key) {
      if (text[pos] != ':') return -1;
      pos = skip_space(text, pos + 1);
    } else if (n + 1 < c.size) {
      if (text[pos] != ',') return -1;
      pos = skip_space(text, pos + 1);
    } else if (pos != close) {
      return -1;
    }
    child = next;
  }
  return child;
}

}  // namespace

int vxcli_json_parse(const char* text, vxcli_json_token* tokens, int max_tokens) {
  if (!text || !tokens || max_tokens <= 0) return -1;
  int count = 0;
  int rc = tokenize(text, tokens, max_tokens, &count);
  if (rc != 0) return rc;
  for (int i = 1; i < count; i++) {
    if (tokens[i].type == VXCLI_JSON_PRIMITIVE &&
        !valid_primitive(text + tokens[i].start, tokens[i].end - tokens[i].start))
      return -1;
  }
  if (check_layout(text, tokens, count, 0) < 0) return -1;
  int pos = skip_space(text, tokens[0].end);
  if (text[pos] != 0) return -1;
  return count;
}

int vxcli_json_next(const vxcli_json_token* tokens, int index) {
  int remaining = 1;
  int i = index;
  while (remaining > 0) {
    remaining += tokens[i].size - 1;
    i++;
  }
  return i;
}

int vxcli_json_object_get(const char* text, const vxcli_json_token* tokens, int object_index,
                          const char* key) {
  if (!text || !tokens || !key || object_index < 0) return -1;
  const vxcli_json_token& o = tokens[object_index];
  if (o.type != VXCLI_JSON_OBJECT || o.size < 2) return -1;
  size_t key_length = strlen(key);
  int i = object_index + 1;
  for (int pair = 0; pair < o.size / 2; pair++) {
    int k = i;
    if (tokens[k].parent != object_index) return -1;
    int v = vxcli_json_next(tokens, k);
    if (tokens[v].parent != object_index) return -1;
    const vxcli_json_token& kt = tokens[k];
    if (kt.type == VXCLI_JSON_STRING && static_cast<size_t>(kt.end - kt.start) == key_length &&
        memcmp(text + kt.start, key, key_length) == 0)
      return v;
    i = vxcli_json_next(tokens, v);
  }
  return -1;
}

namespace {

bool put(char* out, size_t out_size, size_t* n, char c) {
  if (*n + 1 >= out_size) return false;  // keep room for the NUL
  out[(*n)++] = c;
  return true;
}

bool read_u4(const char* s, unsigned* value) {
  unsigned v = 0;
  for (int i = 0; i < 4; i++) {
    if (!is_hex(s[i])) return false;
    v = v * 16 + static_cast<unsigned>(hex_value(s[i]));
  }
  *value = v;
  return true;
}

}  // namespace

int vxcli_json_string(const char* text, const vxcli_json_token* token, char* out, size_t out_size) {
  if (!text || !token || !out || out_size == 0 || token->type != VXCLI_JSON_STRING) return -1;
  size_t n = 0;
  int i = token->start;
  while (i < token->end) {
    char c = text[i];
    if (c != '\\') {
      if (!put(out, out_size, &n, c)) return -1;
      i++;
      continue;
    }
    char e = text[i + 1];
    i += 2;
    char plain = 0;
    switch (e) {
      case 'b': plain = '\b'; break;
      case 'f': plain = '\f'; break;
      case 'n': plain = '\n'; break;
      case 'r': plain = '\r'; break;
      case 't': plain = '\t'; break;
      case 'u': break;
      default: plain = e; break;
    }
    if (e != 'u') {
      if (!put(out, out_size, &n, plain)) return -1;
      continue;
    }
    unsigned cp;
    if (i + 4 > token->end || !read_u4(text + i, &cp)) return -1;
    i += 4;
    if (cp >= 0xDC00 && cp <= 0xDFFF) return -1;
    if (cp >= 0xD800 && cp <= 0xDBFF) {
      unsigned low;
      if (i + 6 > token->end || text[i] != '\\' || text[i + 1] != 'u' || !read_u4(text + i + 2, &low) ||
          low < 0xDC00 || low > 0xDFFF)
        return -1;
      i += 6;
      cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
    }
    char bytes[4];
    int len;
    if (cp < 0x80) {
      bytes[0] = static_cast<char>(cp);
      len = 1;
    } else if (cp < 0x800) {
      bytes[0] = static_cast<char>(0xC0 | (cp >> 6));
      bytes[1] = static_cast<char>(0x80 | (cp & 0x3F));
      len = 2;
    } else if (cp < 0x10000) {
      bytes[0] = static_cast<char>(0xE0 | (cp >> 12));
      bytes[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      bytes[2] = static_cast<char>(0x80 | (cp & 0x3F));
      len = 3;
    } else {
      bytes[0] = static_cast<char>(0xF0 | (cp >> 18));
      bytes[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      bytes[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      bytes[3] = static_cast<char>(0x80 | (cp & 0x3F));
      len = 4;
    }
    for (int k = 0; k < len; k++)
      if (!put(out, out_size, &n, bytes[k])) return -1;
  }
  out[n] = 0;
  return 0;
}

int vxcli_json_integer(const char* text, const vxcli_json_token* token, int64_t* out) {
  if (!text || !token || !out || token->type != VXCLI_JSON_PRIMITIVE) return -1;
  int length = token->end - token->start;
  if (length < 1 || length > 63) return -1;
  char buffer[64];
  memcpy(buffer, text + token->start, static_cast<size_t>(length));
  buffer[length] = 0;
  int i = (buffer[0] == '-' || buffer[0] == '+') ? 1 : 0;
  if (buffer[i] == 0) return -1;
  for (int k = i; buffer[k]; k++)
    if (!is_digit(buffer[k])) return -1;
  errno = 0;
  *out = strtoll(buffer, nullptr, 10);  // saturates on overflow
  return 0;
}
