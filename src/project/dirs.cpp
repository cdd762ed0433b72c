// Private per-user directories and lookup of files shipped beside the executable.
#include "project/dirs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int ensure_private_directory(const char* path) {
  if (mkdir(path, 0700) != 0 && errno != EEXIST) return -1;
  struct stat st;
  if (stat(path, &st) != 0) return -1;
  if (!S_ISDIR(st.st_mode)) return -1;
  if (st.st_uid != getuid()) return -1;
  if ((st.st_mode & 077) != 0 && chmod(path, 0700) != 0) return -1;
  return 0;
}

int ensure_state_tree(const char* path) {
  size_t length = strlen(path);
  if (path[0] != '/' || length < 1 || length > 1023) return -1;
  if (length == 1) return ensure_private_directory(path);
  char prefix[1024];
  for (size_t i = 1; i < length; i++) {
    if (path[i] != '/') continue;
    memcpy(prefix, path, i);
    prefix[i] = 0;
    struct stat st;
    if (stat(prefix, &st) != 0) {
      if (mkdir(prefix, 0700) != 0 && errno != EEXIST) return -1;
    } else if (!S_ISDIR(st.st_mode)) {
      return -1;
    }
  }
  return ensure_private_directory(path);
}

bool fits(int n, size_t size) { return n >= 0 && static_cast<size_t>(n) < size; }

const char* env_absolute(const char* name) {
  const char* v = getenv(name);
  return (v && v[0] == '/') ? v : nullptr;
}

const char* env_nonempty(const char* name) {
  const char* v = getenv(name);
  return (v && v[0]) ? v : nullptr;
}

bool readable(const char* path) {
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  close(fd);
  return true;
}

bool try_path(char* out, size_t size, const char* base, const char* subdirectory, const char* name) {
  if (!base) return false;
  int n = snprintf(out, size, "%s/%s%s", base, subdirectory, name);
  if (!fits(n, size)) return false;
  return readable(out);
}

}  // namespace

int vxcli_get_runtime_dir(char* buffer, size_t size) {
  if (!buffer || size == 0) return -1;
  const char* xdg = env_absolute("XDG_RUNTIME_DIR");
  int n;
  if (xdg && access(xdg, W_OK | X_OK) == 0) n = snprintf(buffer, size, "%s/vxcli", xdg);
  else n = snprintf(buffer, size, "/tmp/vxcli-%lu", static_cast<unsigned long>(getuid()));
  if (!fits(n, size)) return -1;
  return ensure_private_directory(buffer);
}

int vxcli_get_state_dir(char* buffer, size_t size) {
  if (!buffer || size == 0) return -1;
  int n;
  if (const char* v = env_nonempty("VXCLI_STATE_DIR")) {
    n = snprintf(buffer, size, "%s", v);
  } else if (const char* x = env_absolute("XDG_STATE_HOME")) {
    n = snprintf(buffer, size, "%s/vxcli", x);
  } else if (const char* h = env_absolute("HOME")) {
    n = snprintf(buffer, size, "%s/.local/state/vxcli", h);
  } else {
    char runtime[1024];
    if (vxcli_get_runtime_dir(runtime, sizeof runtime) != 0) return -1;
    n = snprintf(buffer, size, "%s/state", runtime);
  }
  if (!fits(n, size)) return -1;
  return ensure_state_tree(buffer);
}

int vxcli_get_config_dir(char* buffer, size_t size) {
  if (!buffer || size == 0) return -1;
  int n;
  if (const char* v = env_nonempty("VXCLI_CONFIG_HOME")) {
    n = snprintf(buffer, size, "%s", v);
  } else if (const char* x = env_absolute("XDG_CONFIG_HOME")) {
    n = snprintf(buffer, size, "%s/vxcli", x);
  } else if (const char* h = env_absolute("HOME")) {
    n = snprintf(buffer, size, "%s/.config/vxcli", h);
  } else {
    return -1;
  }
  if (!fits(n, size)) return -1;
  return ensure_state_tree(buffer);
}

int vxcli_executable_dir(char* out, size_t size) {
  if (!out || size == 0) return -1;
  char exe[1024];
  ssize_t n = readlink("/proc/self/exe", exe, 1023);
  if (n <= 0) return -1;
  exe[n] = 0;
  char* slash = strrchr(exe, '/');
  if (!slash) return -1;
  *slash = 0;
  if (strlen(exe) + 1 > size) return -1;
  strcpy(out, exe);
  return 0;
}

int vxcli_resolve_resource(const char* name, char* out, size_t size) {
  if (!name || !name[0] || !out || size == 0) return -1;
  const char* home = env_nonempty("VXCLI_HOME");
  if (try_path(out, size, home, "share/vxcli/", name)) return 0;
  if (try_path(out, size, home, "", name)) return 0;
  char exe_dir[1024];
  if (vxcli_executable_dir(exe_dir, sizeof exe_dir) == 0) {
    if (try_path(out, size, exe_dir, "", name)) return 0;
    if (try_path(out, size, exe_dir, "../share/vxcli/", name)) return 0;
  }
  if (readable(name)) {
    if (strlen(name) + 1 > size) return -1;
    strcpy(out, name);
    return 0;
  }
  out[0] = 0;
  return -1;
}
