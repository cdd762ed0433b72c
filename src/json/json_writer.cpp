// Bounded JSON writer: one growing buffer, a hard limit and a sticky failure flag.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "json/json.h"

namespace {

int fail(vxcli_json_writer* w) {
  w->failed = 1;
  return -1;
}

int reserve(vxcli_json_writer* w, size_t n) {
  if (!w || w->failed || !w->data) return w ? fail(w) : -1;
  if (w->limit - w->length < n) return fail(w);
  size_t need = w->length + n + 1;
  if (w->capacity >= need) return 0;
  size_t cap = w->capacity ? w->capacity : 64;
  while (cap < need) {
    size_t next;
    if (w->limit / 2 < cap) next = w->limit + 1;
    else next = cap * 2;
    if (next <= cap) return fail(w);
    cap = next;
  }
  size_t alloc = cap < w->limit + 1 ? cap : w->limit + 1;
  char* grown = static_cast<char*>(realloc(w->data, alloc));
  if (!grown) return fail(w);
  w->data = grown;
  w->capacity = alloc;
  return 0;
}

}  // namespace

int vxcli_json_writer_init(vxcli_json_writer* w, size_t initial_capacity, size_t limit) {
  if (!w) return -1;
  memset(w, 0, sizeof *w);
  if (limit == 0) return fail(w);
  size_t want = initial_capacity ? initial_capacity : 256;
  size_t cap = want < limit + 1 ? want : limit + 1;
  w->data = static_cast<char*>(malloc(cap));
  if (!w->data) return fail(w);
  w->data[0] = 0;
  w->capacity = cap;
  w->limit = limit;
  return 0;
}

void vxcli_json_writer_free(vxcli_json_writer* w) {
  if (!w) return;
  free(w->data);
  memset(w, 0, sizeof *w);
}

int vxcli_json_writer_raw_n(vxcli_json_writer* w, const void* bytes, size_t count) {
  if (!w) return -1;
  if (!bytes) return count ? fail(w) : (w->failed ? -1 : 0);
  if (reserve(w, count) != 0) return -1;
  memcpy(w->data + w->length, bytes, count);
  w->length += count;
  w->data[w->length] = 0;
  return 0;
}

int vxcli_json_writer_raw(vxcli_json_writer* w, const char* text) {
  if (!text) return (w && !w->failed) ? 0 : -1;
  return vxcli_json_writer_raw_n(w, text, strlen(text));
}

int vxcli_json_writer_char(vxcli_json_writer* w, char byte) {
  return vxcli_json_writer_raw_n(w, &byte, 1);
}

int vxcli_json_writer_printf(vxcli_json_writer* w, const char* format, ...) {
  if (!w || w->failed) return -1;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n < 0 || reserve(w, static_cast<size_t>(n)) != 0) {
    va_end(args);
    return fail(w);
  }
  vsnprintf(w->data + w->length, static_cast<size_t>(n) + 1, format, args);
  va_end(args);
  w->length += static_cast<size_t>(n);
  return 0;
}

int vxcli_json_writer_string(vxcli_json_writer* w, const char* text) {
  if (!w || w->failed) return -1;
  if (!text) return vxcli_json_writer_raw_n(w, "\"\"", 2);
  if (vxcli_json_writer_char(w, '"') != 0) return -1;
  // Copy runs of plain bytes in one go; escape the rest.
  const char* run = text;
  for (const char* p = text;; p++) {
    unsigned char c = static_cast<unsigned char>(*p);
    bool plain = c >= 0x20 && c != '"' && c != '\\';
    if (plain) continue;
    if (p > run && vxcli_json_writer_raw_n(w, run, static_cast<size_t>(p - run)) != 0) return -1;
    if (c == 0) break;
    char esc[8];
    const char* e = esc;
    switch (c) {
      case '"': e = "\\\""; break;
      case '\\': e = "\\\\"; break;
      case '\b': e = "\\b"; break;
      case '\f': e = "\\f"; break;
      case '\n': e = "\\n"; break;
      case '\r': e = "\\r"; break;
      case '\t': e = "\\t"; break;
      default: snprintf(esc, sizeof esc, "\\u%04X", c); break;
    }
    if (vxcli_json_writer_raw(w, e) != 0) return -1;
    run = p + 1;
  }
  return vxcli_json_writer_char(w, '"');
}

const char* vxcli_json_writer_data(const vxcli_json_writer* w) {
  return (w && !w->failed && w->data) ? w->data : nullptr;
}

size_t vxcli_json_writer_length(const vxcli_json_writer* w) {
  return (w && !w->failed && w->data) ? w->length : 0;
}

bool vxcli_json_writer_ok(const vxcli_json_writer* w) { return w && !w->failed && w->data; }
