// Option helpers shared by the frame commands.
#pragma once

#include <cstddef>
#include <cstdint>

// Whole-text decimal integer (optional sign); false on junk, empty text or overflow.
bool vxcli_message_parse_long(const char* text, long* out);

// Refuses the removed "--bus", "--tres" and "--voltage" options (reported); true when any.
bool vxcli_message_refuse_legacy_options(int count, char** words);

// Every value of a repeatable option ("--name=value" or "--name value"), in order.
// Returns how many were stored into values (at most max).
int vxcli_message_collect_option(int count, char** words, const char* name, const char** values,
                                 int max);

void vxcli_message_sleep_ms(uint32_t ms);
uint64_t vxcli_message_monotonic_ms();
