// The built-in command catalogue, help and validation.
#pragma once

#include <cstddef>
#include <cstdint>

bool vxcli_help_requested(int count, char** words);
int vxcli_help_run(int count, char** words);
void vxcli_help_print_root();
int vxcli_command_validate_format(int count, char** words, uint32_t format, char* message,
                                  size_t size);
int vxcli_command_validate_options(int count, char** words, char* message, size_t size);
