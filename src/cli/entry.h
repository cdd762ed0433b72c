#pragma once

// The whole entry algorithm; main() only forwards to it so tests can drive it.
int vxcli_main(int argc, char** argv);

// Removes the global options from words (in place, order kept) and records them
// in g_config. Returns the new count, or -1 after reporting an error.
int vxcli_strip_global_options(int count, char** words);
