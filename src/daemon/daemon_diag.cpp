// The daemon's diagnostic services: ISO-TP, the UDS session and tester present.
#include "daemon/daemon_state.h"

const char* daemon_answer_diag(const Words&, Out*) { return nullptr; }
