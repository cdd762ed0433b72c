// vxsim: control tool of the virtual analyzer, and the device service
// itself ("vxsim serve", started by the library on demand).
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../common/frame.h"
#include "../common/protocol.h"
#include "../common/topology.h"
#include "../service/service.h"

namespace {

using namespace vxsim;

const char kUsage[] =
    "usage: vxsim <command> [arguments]\n"
    "\n"
    "Control of the virtual analyzer (the device service of the current VXSIM_DIR).\n"
    "\n"
    "commands:\n"
    "  list                      devices, ports, device state and open channels\n"
    "  stats                     bus, port and channel traffic counters\n"
    "  busoff <serial>/<port> [--stuck]\n"
    "                            put a CAN port into bus-off; with --stuck the\n"
    "                            controller cannot be recovered, only reopened\n"
    "  recover <serial>/<port>   clear an injected bus-off\n"
    "  unplug <serial>           disconnect a device (open channels die)\n"
    "  replug <serial>           connect it again (fresh power-on state)\n"
    "  topology                  check and show the topology in use\n"
    "  shutdown                  stop the service (succeeds when none runs)\n"
    "  serve [--detach]          run the device service (normally started by the library)\n"
    "\n"
    "environment: VXSIM_DIR, VXSIM_TOPOLOGY, VXSIM_CLOCK_START, VXSIM_IDLE_MS, VXSIM_SEED\n";

int error(const char* fmt, const std::string& arg = {}) {
  std::fprintf(stderr, "vxsim: ");
  std::fprintf(stderr, fmt, arg.c_str());
  std::fputc('\n', stderr);
  return 1;
}

std::string self_executable() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
  if (n <= 0) return "vxsim";
  buf[n] = 0;
  return buf;
}

int connect_or_report(bool start) {
  std::string err;
  int s = connect_service(sim_dir(), start, self_executable(), err);
  if (s < 0) error("%s", err);
  return s;
}

int request(MsgHeader& h, std::string* text = nullptr) {
  int s = connect_or_report(true);
  if (s < 0) return 1;
  std::vector<uint8_t> reply;
  VXStatus st = call_service(s, h, nullptr, 0, reply);
  close(s);
  if (st != VX_OK) {
    char code[32];
    std::snprintf(code, sizeof code, " (0x%X)", st);
    return error("%s", std::string(status_text(st)) + code);
  }
  if (text) text->assign(reply.begin(), reply.end());
  return 0;
}

// "<serial>/<port>" -> parts; false when malformed.
bool split_port(const std::string& spec, std::string& serial, uint32_t& port) {
  size_t slash = spec.find('/');
  if (slash == std::string::npos || slash == 0 || slash + 1 >= spec.size()) return false;
  serial = spec.substr(0, slash);
  std::string p = spec.substr(slash + 1);
  if (p.size() > 2 || p.find_first_not_of("0123456789") != std::string::npos) return false;
  port = static_cast<uint32_t>(std::atoi(p.c_str()));
  return serial.size() < sizeof(MsgHeader::text);
}

int device_command(Op op, int argc, char** argv, bool with_port) {
  if (argc < 3) return error("%s", std::string(argv[1]) + (with_port ? " needs <serial>/<port>" : " needs <serial>"));
  MsgHeader h{};
  h.code = op;
  std::string serial = argv[2];
  if (with_port) {
    uint32_t port = 0;
    if (!split_port(argv[2], serial, port)) return error("invalid port '%s' (expected <serial>/<port>)", argv[2]);
    h.arg[0] = port;
  } else if (serial.empty() || serial.size() >= sizeof h.text) {
    return error("invalid serial '%s'", serial);
  }
  for (int i = 3; i < argc; ++i) {
    if (op == kOpBusOff && std::strcmp(argv[i], "--stuck") == 0) h.arg[1] = 1;
    else return error("unexpected argument '%s'", argv[i]);
  }
  std::memcpy(h.text, serial.data(), serial.size());
  int rc = request(h);
  if (rc == 0) std::printf("OK: %s %s\n", argv[1], argv[2]);
  return rc;
}

// A process that has exited but was not reaped yet (a zombie) counts as gone.
bool process_alive(pid_t pid) {
  if (pid <= 0) return false;
  std::string stat = "/proc/" + std::to_string(pid) + "/stat";
  FILE* f = std::fopen(stat.c_str(), "r");
  if (!f) return false;
  char buf[512];
  size_t n = std::fread(buf, 1, sizeof buf - 1, f);
  std::fclose(f);
  buf[n] = 0;
  const char* close_paren = std::strrchr(buf, ')');
  return close_paren && close_paren[1] == ' ' && close_paren[2] != 'Z' && close_paren[2] != 'X';
}

int shutdown_command() {
  std::string dir = sim_dir();
  std::string err;
  int s = connect_service(dir, false, "", err);
  if (s < 0) return 0;  // nothing runs: already stopped
  pid_t pid = 0;
  ucred cred{};
  socklen_t len = sizeof cred;
  if (getsockopt(s, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) pid = cred.pid;
  MsgHeader h{};
  h.code = kOpShutdown;
  std::vector<uint8_t> reply;
  VXStatus st = call_service(s, h, nullptr, 0, reply);
  close(s);
  if (st != VX_OK && st != VX_ERR_NO_DRIVER) return error("shutdown refused: %s", status_text(st));
  // Wait until the process is gone so that callers may remove the directory.
  for (int i = 0; i < 100 && process_alive(pid); ++i) {
    timespec ts{0, 50000000};
    nanosleep(&ts, nullptr);
  }
  if (process_alive(pid)) return error("service did not stop");
  return 0;
}

int serve_command(int argc, char** argv) {
  bool detach = argc > 2 && std::strcmp(argv[2], "--detach") == 0;
  close_range(3, ~0u, 0);  // nothing of the starting process may stay open in the service
  if (!detach) return service_run(-1);
  int pipefd[2];
  if (pipe(pipefd) != 0) return error("pipe: %s", std::strerror(errno));
  pid_t child = fork();
  if (child < 0) return error("fork: %s", std::strerror(errno));
  if (child == 0) {
    close(pipefd[0]);
    setsid();
    if (chdir("/") != 0) _exit(1);
    _exit(service_run(pipefd[1]));
  }
  close(pipefd[1]);
  pollfd p{pipefd[0], POLLIN, 0};
  char code = 0;
  if (poll(&p, 1, 10000) == 1 && read(pipefd[0], &code, 1) == 1 && (code == '1' || code == '2')) return 0;
  return 1;
}

int topology_command() {
  Topology t;
  const char* path = getenv("VXSIM_TOPOLOGY");
  if (path && *path) {
    std::string err;
    if (topology_load(path, t, err) != 0) return error("%s", err);
  } else {
    t = topology_default();
  }
  std::printf("%s\n", path && *path ? path : "(default topology)");
  for (auto& d : t.devices) {
    std::printf("device %s uid %s name \"%s\" generation %u.%u, %zu ports\n", d.serial.c_str(), d.unique_id.c_str(),
                d.name.c_str(), d.generation, d.generation_minor, d.ports.size());
    for (size_t k = 0; k < d.ports.size(); ++k)
      std::printf("  port %zu capability 0x%04X bus %d\n", k, d.ports[k].capability, d.ports[k].bus);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || !std::strcmp(argv[1], "help") || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")) {
    std::fputs(kUsage, argc < 2 ? stderr : stdout);
    return argc < 2 ? 1 : 0;
  }
  std::string cmd = argv[1];
  if (cmd == "serve") return serve_command(argc, argv);
  if (cmd == "shutdown") return shutdown_command();
  if (cmd == "topology") return topology_command();
  if (cmd == "list" || cmd == "stats") {
    if (argc > 2) return error("unexpected argument '%s'", argv[2]);
    MsgHeader h{};
    h.code = cmd == "list" ? kOpList : kOpStats;
    std::string text;
    int rc = request(h, &text);
    if (rc == 0) std::fputs(text.c_str(), stdout);
    return rc;
  }
  if (cmd == "busoff") return device_command(kOpBusOff, argc, argv, true);
  if (cmd == "recover") return device_command(kOpPortRecover, argc, argv, true);
  if (cmd == "unplug") return device_command(kOpUnplug, argc, argv, false);
  if (cmd == "replug") return device_command(kOpReplug, argc, argv, false);
  return error("unknown command '%s' (try 'vxsim help')", cmd);
}
