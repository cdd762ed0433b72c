// Helpers shared by the fuzz targets.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace fuzz {

// The input as a NUL-terminated string (the parsers take C strings).
inline std::string text(const uint8_t* data, size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

// An in-memory file holding the input, for readers that take a path.
class MemFile {
 public:
  explicit MemFile(const char* name) : fd_(memfd_create(name, 0)) {
    snprintf(path_, sizeof path_, "/proc/self/fd/%d", fd_);
  }
  ~MemFile() {
    if (fd_ >= 0) close(fd_);
  }
  MemFile(const MemFile&) = delete;
  MemFile& operator=(const MemFile&) = delete;

  // Replaces the contents; the path then reads exactly these bytes.
  bool set(const void* data, size_t size) {
    if (fd_ < 0 || ftruncate(fd_, 0) != 0) return false;
    const auto* p = static_cast<const uint8_t*>(data);
    size_t done = 0;
    while (done < size) {
      ssize_t n = pwrite(fd_, p + done, size - done, static_cast<off_t>(done));
      if (n <= 0) return false;
      done += static_cast<size_t>(n);
    }
    return true;
  }
  const char* path() const { return path_; }

 private:
  int fd_;
  char path_[64];
};

}  // namespace fuzz
