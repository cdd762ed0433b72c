#include "shm.h"

#include <linux/futex.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <climits>

namespace vxsim {

int64_t monotonic_ns() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int futex_wait(std::atomic<uint32_t>* word, uint32_t expected, int64_t timeout_ns) {
  timespec ts{};
  timespec* tp = nullptr;
  if (timeout_ns >= 0) {
    ts.tv_sec = timeout_ns / 1000000000;
    ts.tv_nsec = timeout_ns % 1000000000;
    tp = &ts;
  }
  // Not FUTEX_PRIVATE: the word lives in a mapping shared with other processes.
  return static_cast<int>(syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAIT, expected, tp,
                                  nullptr, 0));
}

int futex_wake(std::atomic<uint32_t>* word, int count) {
  return static_cast<int>(
      syscall(SYS_futex, reinterpret_cast<uint32_t*>(word), FUTEX_WAKE, count, nullptr, nullptr, 0));
}

}  // namespace vxsim
