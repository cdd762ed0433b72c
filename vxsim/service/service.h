// The device service: the virtual hardware. Owns devices, ports, buses and
// their state (TX tasks, routes, LIN responses), serves the control socket
// and moves frames between the shared rings of open channels.
#pragma once

namespace vxsim {

// Runs the service of the current VXSIM_DIR until it is shut down, idle
// without state, or its directory disappears. `ready_fd` (or -1) receives
// one byte once the service listens ('1') or when another service already
// runs ('2'). Returns the process exit status.
int service_run(int ready_fd);

}  // namespace vxsim
