// Routing of a validated command line to exactly one handler.
#pragma once

int dispatch_command(int count, char** words, int forward_count, char** forward_words);
int dispatch_database_command(const char* category, const char* action, int count, char** words);
