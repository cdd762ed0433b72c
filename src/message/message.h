// Standalone frame commands: "message send" and "message recv".
#pragma once

// Handlers for the words after "message send" / "message recv"; return 0 or 1.
int vxcli_message_send_command(int count, char** words);
int vxcli_message_recv_command(int count, char** words);
