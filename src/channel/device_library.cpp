// Loads the device library from the executable's own directory and forwards
// every VX_ call to it, so that help and version work without the library.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>

#include "cli/hooks.h"
#include "cli/output.h"
#include "project/dirs.h"
#include "vxapi.h"

namespace {

void* g_library = nullptr;
bool g_initialised = false;

struct Entry {
  const char* name;
  void** slot;
};

VXStatus (*p_VX_Init)(void) = nullptr;
VXStatus (*p_VX_UnInit)(void) = nullptr;
VXStatus (*p_VX_Enumerate)(VXChannelInfo* entries, uint32_t* count) = nullptr;
VXStatus (*p_VX_OpenEx)(VXHandle* handle, const VXChannelInfo* info, uint32_t mode, uint32_t resistance, const VXBitrate* bitrate, uint32_t rx_queue, uint32_t flags) = nullptr;
VXStatus (*p_VX_Close)(VXHandle handle) = nullptr;
VXStatus (*p_VX_Activate)(VXHandle handle) = nullptr;
VXStatus (*p_VX_Read)(VXHandle handle, VXMessage* message, uint32_t timeout_ms, uint32_t* pending) = nullptr;
VXStatus (*p_VX_Write)(VXHandle handle, const VXMessage* message, uint32_t timeout_ms, uint32_t* timestamp) = nullptr;
VXStatus (*p_VX_WriteCanMessage)(VXHandle handle, const VXMessage* message) = nullptr;
VXStatus (*p_VX_WriteLinMessage)(VXHandle handle, const VXLinMessage* message, uint32_t flags, uint32_t timeout_ms, uint32_t* timestamp) = nullptr;
VXStatus (*p_VX_GetNotification)(VXHandle handle, VXNotifyHandle* notify) = nullptr;
VXStatus (*p_VX_WaitForNotifications)(const VXNotifyHandle* notify, uint32_t count, uint32_t timeout_ms) = nullptr;
VXStatus (*p_VX_WaitForNotificationsEx)(const VXNotifyHandle* notify, uint32_t count, uint32_t timeout_ms, uint32_t* index) = nullptr;
VXStatus (*p_VX_ClearBuffer)(VXHandle handle) = nullptr;
VXStatus (*p_VX_SetRxFilters)(VXHandle handle, const VXRxFilter* filters, uint32_t count) = nullptr;
VXStatus (*p_VX_Control)(VXHandle handle, uint32_t code, uint16_t group, uint16_t item, void* buffer, uint32_t size) = nullptr;
VXStatus (*p_VX_GetCanStatus)(VXHandle handle, VXCanStatus* status) = nullptr;
VXStatus (*p_VX_RecoverBusOff)(VXHandle handle) = nullptr;
VXStatus (*p_VX_SetTxTasks)(VXHandle handle, const VXTxTask* tasks, uint32_t count) = nullptr;
VXStatus (*p_VX_GetTxTasks)(VXHandle handle, VXTxTask* tasks, uint32_t count) = nullptr;
VXStatus (*p_VX_SetMsgRoutes)(VXHandle handle, const VXRoute* routes, uint32_t count) = nullptr;
VXStatus (*p_VX_GetMsgRoutes)(VXHandle handle, VXRoute* routes, uint32_t count) = nullptr;
VXStatus (*p_VX_SetLinVoltage)(VXHandle handle, uint32_t power) = nullptr;
VXStatus (*p_VX_SetLinProtocol)(VXHandle handle, const VXLinProtocol* protocol) = nullptr;
VXStatus (*p_VX_GetDataPtpTimestamp)(VXHandle handle, const VXMessage* message, uint64_t* ns) = nullptr;
VXStatus (*p_VX_SyncPtpTimes)(const VXHandle* handles, uint32_t count) = nullptr;
VXStatus (*p_VX_SetCanBitrate)(VXHandle handle, const VXBitrate* bitrate) = nullptr;
VXStatus (*p_VX_SetCanMode)(VXHandle handle, uint32_t mode) = nullptr;
VXStatus (*p_VX_SetCanTermination)(VXHandle handle, uint32_t ohm) = nullptr;
VXStatus (*p_VX_GetChannelConfig)(VXHandle handle, VXChannelConfig* config) = nullptr;
VXStatus (*p_VX_GetChannelInfo)(VXHandle handle, VXChannelInfo* info) = nullptr;

const Entry kEntries[] = {
    {"VX_Init", reinterpret_cast<void**>(&p_VX_Init)},
    {"VX_UnInit", reinterpret_cast<void**>(&p_VX_UnInit)},
    {"VX_Enumerate", reinterpret_cast<void**>(&p_VX_Enumerate)},
    {"VX_OpenEx", reinterpret_cast<void**>(&p_VX_OpenEx)},
    {"VX_Close", reinterpret_cast<void**>(&p_VX_Close)},
    {"VX_Activate", reinterpret_cast<void**>(&p_VX_Activate)},
    {"VX_Read", reinterpret_cast<void**>(&p_VX_Read)},
    {"VX_Write", reinterpret_cast<void**>(&p_VX_Write)},
    {"VX_WriteCanMessage", reinterpret_cast<void**>(&p_VX_WriteCanMessage)},
    {"VX_WriteLinMessage", reinterpret_cast<void**>(&p_VX_WriteLinMessage)},
    {"VX_GetNotification", reinterpret_cast<void**>(&p_VX_GetNotification)},
    {"VX_WaitForNotifications", reinterpret_cast<void**>(&p_VX_WaitForNotifications)},
    {"VX_WaitForNotificationsEx", reinterpret_cast<void**>(&p_VX_WaitForNotificationsEx)},
    {"VX_ClearBuffer", reinterpret_cast<void**>(&p_VX_ClearBuffer)},
    {"VX_SetRxFilters", reinterpret_cast<void**>(&p_VX_SetRxFilters)},
    {"VX_Control", reinterpret_cast<void**>(&p_VX_Control)},
    {"VX_GetCanStatus", reinterpret_cast<void**>(&p_VX_GetCanStatus)},
    {"VX_RecoverBusOff", reinterpret_cast<void**>(&p_VX_RecoverBusOff)},
    {"VX_SetTxTasks", reinterpret_cast<void**>(&p_VX_SetTxTasks)},
    {"VX_GetTxTasks", reinterpret_cast<void**>(&p_VX_GetTxTasks)},
    {"VX_SetMsgRoutes", reinterpret_cast<void**>(&p_VX_SetMsgRoutes)},
    {"VX_GetMsgRoutes", reinterpret_cast<void**>(&p_VX_GetMsgRoutes)},
    {"VX_SetLinVoltage", reinterpret_cast<void**>(&p_VX_SetLinVoltage)},
    {"VX_SetLinProtocol", reinterpret_cast<void**>(&p_VX_SetLinProtocol)},
    {"VX_GetDataPtpTimestamp", reinterpret_cast<void**>(&p_VX_GetDataPtpTimestamp)},
    {"VX_SyncPtpTimes", reinterpret_cast<void**>(&p_VX_SyncPtpTimes)},
    {"VX_SetCanBitrate", reinterpret_cast<void**>(&p_VX_SetCanBitrate)},
    {"VX_SetCanMode", reinterpret_cast<void**>(&p_VX_SetCanMode)},
    {"VX_SetCanTermination", reinterpret_cast<void**>(&p_VX_SetCanTermination)},
    {"VX_GetChannelConfig", reinterpret_cast<void**>(&p_VX_GetChannelConfig)},
    {"VX_GetChannelInfo", reinterpret_cast<void**>(&p_VX_GetChannelInfo)},
};

}  // namespace

// Resolves every VX_ function; 0, or -1 with a message naming the file.
int vxcli_device_library_load(char* message, size_t size) {
  if (g_library) return 0;
  char dir[1024];
  if (vxcli_executable_dir(dir, sizeof dir) != 0) {
    snprintf(message, size, "cannot locate the executable's directory to load libvxapi64.so");
    return -1;
  }
  char path[1100];
  snprintf(path, sizeof path, "%s/libvxapi64.so", dir);
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (!library) {
    snprintf(message, size, "device library libvxapi64.so could not be loaded from %s", dir);
    return -1;
  }
  for (const Entry& e : kEntries) {
    *e.slot = dlsym(library, e.name);
    if (!*e.slot) {
      snprintf(message, size, "device library %s lacks %s", path, e.name);
      for (const Entry& c : kEntries) *c.slot = nullptr;
      dlclose(library);
      return -1;
    }
  }
  g_library = library;
  return 0;
}

int vxcli_device_library_init(char* message, size_t size) {
  if (vxcli_device_library_load(message, size) != 0) return -1;
  VXStatus status = VX_Init();
  // "Not initialized" alone is tolerated on purpose.
  if ((status & ~VX_ERR_NOT_INITIALIZED) != 0) {
    snprintf(message, size, "VX_Init failed: %s (0x%X)", vxcli_status_to_string(status), status);
    return -1;
  }
  g_initialised = true;
  return 0;
}

void vxcli_device_library_shutdown() {
  if (g_initialised) VX_UnInit();
  g_initialised = false;
}

// Forwarders: without a loaded library every call reports "No driver".
VXStatus VX_Init(void) {
  return p_VX_Init ? p_VX_Init() : VX_ERR_NO_DRIVER;
}
VXStatus VX_UnInit(void) {
  return p_VX_UnInit ? p_VX_UnInit() : VX_ERR_NO_DRIVER;
}
VXStatus VX_Enumerate(VXChannelInfo* entries, uint32_t* count) {
  return p_VX_Enumerate ? p_VX_Enumerate(entries, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_OpenEx(VXHandle* handle, const VXChannelInfo* info, uint32_t mode, uint32_t resistance, const VXBitrate* bitrate, uint32_t rx_queue, uint32_t flags) {
  return p_VX_OpenEx ? p_VX_OpenEx(handle, info, mode, resistance, bitrate, rx_queue, flags) : VX_ERR_NO_DRIVER;
}
VXStatus VX_Close(VXHandle handle) {
  return p_VX_Close ? p_VX_Close(handle) : VX_ERR_NO_DRIVER;
}
VXStatus VX_Activate(VXHandle handle) {
  return p_VX_Activate ? p_VX_Activate(handle) : VX_ERR_NO_DRIVER;
}
VXStatus VX_Read(VXHandle handle, VXMessage* message, uint32_t timeout_ms, uint32_t* pending) {
  return p_VX_Read ? p_VX_Read(handle, message, timeout_ms, pending) : VX_ERR_NO_DRIVER;
}
VXStatus VX_Write(VXHandle handle, const VXMessage* message, uint32_t timeout_ms, uint32_t* timestamp) {
  return p_VX_Write ? p_VX_Write(handle, message, timeout_ms, timestamp) : VX_ERR_NO_DRIVER;
}
VXStatus VX_WriteCanMessage(VXHandle handle, const VXMessage* message) {
  return p_VX_WriteCanMessage ? p_VX_WriteCanMessage(handle, message) : VX_ERR_NO_DRIVER;
}
VXStatus VX_WriteLinMessage(VXHandle handle, const VXLinMessage* message, uint32_t flags, uint32_t timeout_ms, uint32_t* timestamp) {
  return p_VX_WriteLinMessage ? p_VX_WriteLinMessage(handle, message, flags, timeout_ms, timestamp) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetNotification(VXHandle handle, VXNotifyHandle* notify) {
  return p_VX_GetNotification ? p_VX_GetNotification(handle, notify) : VX_ERR_NO_DRIVER;
}
VXStatus VX_WaitForNotifications(const VXNotifyHandle* notify, uint32_t count, uint32_t timeout_ms) {
  return p_VX_WaitForNotifications ? p_VX_WaitForNotifications(notify, count, timeout_ms) : VX_ERR_NO_DRIVER;
}
VXStatus VX_WaitForNotificationsEx(const VXNotifyHandle* notify, uint32_t count, uint32_t timeout_ms, uint32_t* index) {
  return p_VX_WaitForNotificationsEx ? p_VX_WaitForNotificationsEx(notify, count, timeout_ms, index) : VX_ERR_NO_DRIVER;
}
VXStatus VX_ClearBuffer(VXHandle handle) {
  return p_VX_ClearBuffer ? p_VX_ClearBuffer(handle) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetRxFilters(VXHandle handle, const VXRxFilter* filters, uint32_t count) {
  return p_VX_SetRxFilters ? p_VX_SetRxFilters(handle, filters, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_Control(VXHandle handle, uint32_t code, uint16_t group, uint16_t item, void* buffer, uint32_t size) {
  return p_VX_Control ? p_VX_Control(handle, code, group, item, buffer, size) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetCanStatus(VXHandle handle, VXCanStatus* status) {
  return p_VX_GetCanStatus ? p_VX_GetCanStatus(handle, status) : VX_ERR_NO_DRIVER;
}
VXStatus VX_RecoverBusOff(VXHandle handle) {
  return p_VX_RecoverBusOff ? p_VX_RecoverBusOff(handle) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetTxTasks(VXHandle handle, const VXTxTask* tasks, uint32_t count) {
  return p_VX_SetTxTasks ? p_VX_SetTxTasks(handle, tasks, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetTxTasks(VXHandle handle, VXTxTask* tasks, uint32_t count) {
  return p_VX_GetTxTasks ? p_VX_GetTxTasks(handle, tasks, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetMsgRoutes(VXHandle handle, const VXRoute* routes, uint32_t count) {
  return p_VX_SetMsgRoutes ? p_VX_SetMsgRoutes(handle, routes, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetMsgRoutes(VXHandle handle, VXRoute* routes, uint32_t count) {
  return p_VX_GetMsgRoutes ? p_VX_GetMsgRoutes(handle, routes, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetLinVoltage(VXHandle handle, uint32_t power) {
  return p_VX_SetLinVoltage ? p_VX_SetLinVoltage(handle, power) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetLinProtocol(VXHandle handle, const VXLinProtocol* protocol) {
  return p_VX_SetLinProtocol ? p_VX_SetLinProtocol(handle, protocol) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetDataPtpTimestamp(VXHandle handle, const VXMessage* message, uint64_t* ns) {
  return p_VX_GetDataPtpTimestamp ? p_VX_GetDataPtpTimestamp(handle, message, ns) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SyncPtpTimes(const VXHandle* handles, uint32_t count) {
  return p_VX_SyncPtpTimes ? p_VX_SyncPtpTimes(handles, count) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetCanBitrate(VXHandle handle, const VXBitrate* bitrate) {
  return p_VX_SetCanBitrate ? p_VX_SetCanBitrate(handle, bitrate) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetCanMode(VXHandle handle, uint32_t mode) {
  return p_VX_SetCanMode ? p_VX_SetCanMode(handle, mode) : VX_ERR_NO_DRIVER;
}
VXStatus VX_SetCanTermination(VXHandle handle, uint32_t ohm) {
  return p_VX_SetCanTermination ? p_VX_SetCanTermination(handle, ohm) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetChannelConfig(VXHandle handle, VXChannelConfig* config) {
  return p_VX_GetChannelConfig ? p_VX_GetChannelConfig(handle, config) : VX_ERR_NO_DRIVER;
}
VXStatus VX_GetChannelInfo(VXHandle handle, VXChannelInfo* info) {
  return p_VX_GetChannelInfo ? p_VX_GetChannelInfo(handle, info) : VX_ERR_NO_DRIVER;
}
