// Handlers of the isotp and uds commands: the words after the command path; 0 or 1.
#pragma once

int vxcli_isotp_send_command(int count, char** words);
int vxcli_isotp_recv_command(int count, char** words);
int vxcli_isotp_ecu_sim_command(int count, char** words);

int vxcli_uds_request_command(int count, char** words);
int vxcli_uds_unlock_command(int count, char** words);
int vxcli_uds_download_command(int count, char** words);
int vxcli_uds_present_send_command(int count, char** words);
int vxcli_uds_discover_command(int count, char** words);
int vxcli_uds_load_command(int count, char** words);
int vxcli_uds_save_command(int count, char** words);
int vxcli_uds_list_command(int count, char** words);
// "uds dtc <action> ...": words start with the action.
int vxcli_uds_dtc_command(int count, char** words);
