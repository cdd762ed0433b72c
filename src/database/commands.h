// Command handlers of the database registry and the dbc commands. Each takes
// the words after its command path and returns the exit status 0 or 1;
// failures are reported once through the common error printer.
#pragma once

// database load --file=<path> [--name=<resource>] [--type=<type>]
int vxcli_database_load_command(int count, char** words);
// database unload <name> | --name=<name> | --all
int vxcli_database_unload_command(int count, char** words);
// database list [--type=<type>]
int vxcli_database_list_command(int count, char** words);
// database info [<name> | --name=<name> | --file=<path>] [--type=<type>]
int vxcli_database_info_command(int count, char** words);
// database validate [<name> | --name=<name> | --file=<path>] [--type=<type>]
int vxcli_database_validate_command(int count, char** words);

// The per-type loads: the file's extension must name the type.
int vxcli_database_load_typed_command(const char* type, int count, char** words);
int vxcli_dbc_load_command(int count, char** words);
int vxcli_ldf_load_command(int count, char** words);
int vxcli_a2l_load_command(int count, char** words);
// Same as database unload.
int vxcli_dbc_unload_command(int count, char** words);

int vxcli_dbc_decode_command(int count, char** words);
int vxcli_dbc_encode_command(int count, char** words);
int vxcli_dbc_message_list_command(int count, char** words);
int vxcli_dbc_message_show_command(int count, char** words);
int vxcli_dbc_signal_list_command(int count, char** words);
int vxcli_dbc_signal_show_command(int count, char** words);
