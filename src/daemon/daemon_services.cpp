// The daemon's per-channel services: TX tasks, routes, CAN and LIN
// configuration, LIN responses and schedules, power and recovery switches.
#include "daemon/daemon_state.h"

const char* daemon_answer_services(const Words&, Out*) { return nullptr; }
