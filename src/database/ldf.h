// The ldf commands. Each handler receives the words after its command path
// and returns the exit status (0 or 1); failures are reported in the current
// output format.
#pragma once

int vxcli_ldf_info_command(int count, char** words);
int vxcli_ldf_node_list_command(int count, char** words);
int vxcli_ldf_node_show_command(int count, char** words);
int vxcli_ldf_frame_list_command(int count, char** words);
int vxcli_ldf_frame_show_command(int count, char** words);
int vxcli_ldf_signal_list_command(int count, char** words);
int vxcli_ldf_signal_show_command(int count, char** words);
int vxcli_ldf_schedule_list_command(int count, char** words);
int vxcli_ldf_schedule_show_command(int count, char** words);
int vxcli_ldf_schedule_activate_command(int count, char** words);
int vxcli_ldf_schedule_deactivate_command(int count, char** words);
