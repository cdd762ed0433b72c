// Small JSON layer: a non-allocating strict reader and a bounded growing writer.
#pragma once

#include <cstddef>
#include <cstdint>

enum : int32_t {
  VXCLI_JSON_OBJECT = 1,
  VXCLI_JSON_ARRAY = 2,
  VXCLI_JSON_STRING = 3,
  VXCLI_JSON_PRIMITIVE = 4,
};

struct vxcli_json_token {
  int32_t type;
  int32_t start;
  int32_t end;
  int32_t size;
  int32_t parent;
};

// Number of tokens (>= 1), -1 invalid, -2 too many tokens, -3 incomplete.
int vxcli_json_parse(const char* text, vxcli_json_token* tokens, int max_tokens);
int vxcli_json_next(const vxcli_json_token* tokens, int index);
int vxcli_json_object_get(const char* text, const vxcli_json_token* tokens, int object_index,
                          const char* key);
int vxcli_json_string(const char* text, const vxcli_json_token* token, char* out, size_t out_size);
int vxcli_json_integer(const char* text, const vxcli_json_token* token, int64_t* out);

struct vxcli_json_writer {
  char* data;
  size_t length;
  size_t capacity;
  size_t limit;
  int32_t failed;
};

int vxcli_json_writer_init(vxcli_json_writer* writer, size_t initial_capacity, size_t limit);
void vxcli_json_writer_free(vxcli_json_writer* writer);
int vxcli_json_writer_raw_n(vxcli_json_writer* writer, const void* bytes, size_t count);
int vxcli_json_writer_raw(vxcli_json_writer* writer, const char* text);
int vxcli_json_writer_char(vxcli_json_writer* writer, char byte);
int vxcli_json_writer_printf(vxcli_json_writer* writer, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
int vxcli_json_writer_string(vxcli_json_writer* writer, const char* text);
const char* vxcli_json_writer_data(const vxcli_json_writer* writer);
size_t vxcli_json_writer_length(const vxcli_json_writer* writer);
bool vxcli_json_writer_ok(const vxcli_json_writer* writer);
