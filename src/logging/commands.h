// Standalone logging and replay commands (the daemon serves its own).
#pragma once

#include <atomic>

// "replay start": words after the command path; 0, or 1 on failure or when
// any frame could not be sent.
int vxcli_replay_file(int count, char** words);
// "replay status" without a daemon.
int vxcli_replay_status_command(int count, char** words);
// "logging start|stop|status" without a daemon.
int vxcli_logging_start_command(int count, char** words);
int vxcli_logging_stop_command(int count, char** words);
int vxcli_logging_status_command(int count, char** words);

// Running flag of standalone logging, cleared by SIGINT.
extern std::atomic<int> g_logging_running;
void logging_signal_handler(int signal_number);
