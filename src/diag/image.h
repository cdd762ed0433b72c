// Firmware images for download: raw binary, Intel HEX and Motorola S-record,
// reduced to sorted, non-overlapping data segments.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct vxcli_image_segment {
  uint32_t address;
  std::vector<uint8_t> data;
};

enum : int {
  VXCLI_IMAGE_AUTO = 0,
  VXCLI_IMAGE_BINARY = 1,
  VXCLI_IMAGE_IHEX = 2,
  VXCLI_IMAGE_SREC = 3,
};

// "auto", "bin"/"binary"/"raw", "hex"/"ihex", "srec"/"s19"/"s28"/"s37"/"mot"; -1 otherwise.
int vxcli_image_parse_format(const char* text);
// Guess from the contents (':' records, 'S' records), then the file extension.
int vxcli_image_detect(const std::string& path, const std::string& content);

// Text parsers; 0, or -1 with "line N: ..." in the message.
int vxcli_image_parse_ihex(const std::string& text, std::vector<vxcli_image_segment>* out,
                           char* error_text, size_t error_size);
int vxcli_image_parse_srec(const std::string& text, std::vector<vxcli_image_segment>* out,
                           char* error_text, size_t error_size);

// Reads a file. Raw binary needs `address`; `size` > 0 limits how much of it is used.
int vxcli_image_load(const char* path, int format, uint32_t address, uint32_t size,
                     std::vector<vxcli_image_segment>* out, char* error_text, size_t error_size);
