/*
 * Sample seed/key library for "vxcli uds unlock --algo=<this library>".
 *
 * Copy this file as the starting point for a real algorithm. vxcli calls
 * GenerateKeyEx with exactly these seven arguments and reads the key length
 * it stores; the return value is informational only.
 *
 * The algorithm here is deliberately trivial so that a test ECU can be
 * scripted by hand: every key byte is the seed byte XOR 0xA5, plus the
 * security level, plus its own index:
 *
 *     key[i] = ((seed[i] ^ 0xA5) + level + i) & 0xFF
 *
 * The key is as long as the seed. A seed of 12 34 56 78 at level 0x11 gives
 * the key C8 A3 06 F1.
 */
#include <stddef.h>

#if defined(_WIN32)
#define SEEDKEY_EXPORT __declspec(dllexport)
#else
#define SEEDKEY_EXPORT __attribute__((visibility("default")))
#endif

enum { KE_OK = 0, KE_BUFFER_TOO_SMALL = 1, KE_BAD_ARGUMENT = 2 };

SEEDKEY_EXPORT int GenerateKeyEx(const unsigned char* seed, unsigned int seed_length,
                                 unsigned int security_level, const char* variant,
                                 unsigned char* key, unsigned int max_key_length,
                                 unsigned int* key_length) {
  (void)variant; /* one algorithm for every ECU variant */
  if (!seed || !key || !key_length || seed_length == 0) return KE_BAD_ARGUMENT;
  if (seed_length > max_key_length) {
    *key_length = 0;
    return KE_BUFFER_TOO_SMALL;
  }
  for (unsigned int i = 0; i < seed_length; i++)
    key[i] = (unsigned char)(((seed[i] ^ 0xA5u) + security_level + i) & 0xFFu);
  *key_length = seed_length;
  return KE_OK;
}
