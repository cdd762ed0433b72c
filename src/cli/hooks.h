// Entry points of other subsystems that entry calls directly.
#pragma once

#include <cstddef>

// Runs the background daemon process ("vxcli __daemon__ ..."); returns its exit status.
int vxcli_daemon_process_main(int count, char** words);
// Loads the device library and calls VX_Init; 0, or -1 with a message.
int vxcli_device_library_init(char* message, size_t size);
void vxcli_device_library_shutdown();
// Log conversion tool.
int vxcli_convert_command(int count, char** words);
// Option check of "uds dtc" that runs before the device library is touched; 0 or 1 (reported).
int vxcli_uds_dtc_check_options(int count, char** words);
// Loads libvxapi64.so from the executable's directory without initialising it.
int vxcli_device_library_load(char* message, size_t size);
