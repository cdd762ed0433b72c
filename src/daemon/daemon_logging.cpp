// The daemon's host logging and replay threads.
#include "daemon/daemon_state.h"

const char* daemon_answer_logging(const Words&, Out*) { return nullptr; }
