// The behaviour of the virtual hardware: buses, frame delivery, TX tasks,
// routes, LIN master/slave exchanges, faults. Single-threaded: the service's
// event loop calls every function.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../common/protocol.h"
#include "model.h"

namespace vxsim {

class Engine {
 public:
  ~Engine();
  void init(Topology topology, GlobalShm* global, uint32_t clock_start, uint64_t seed);
  void shutdown();

  GlobalShm* global() const { return global_; }
  size_t device_count() const { return devices_.size(); }
  bool has_state() const;

  std::vector<VXChannelInfo> enumerate() const;
  VXStatus open_channel(Client* client, const OpenRequest& req, OpenReply& reply, Channel*& out);
  void close_channel(Channel* ch);

  // Moves written frames from the channels' TX rings onto the buses, at
  // most `budget` per channel; returns how many were moved.
  size_t process_tx(size_t budget);
  bool tx_pending() const;
  void run_tasks(int64_t now_ns);
  int64_t next_task_due() const { return next_due_ns_; }

  VXStatus set_filters(Channel* ch, const VXRxFilter* filters, uint32_t count);
  VXStatus set_tasks(Channel* ch, const VXTxTask* tasks, uint32_t count);
  VXStatus set_routes(Channel* ch, const VXRoute* routes, uint32_t count);
  VXStatus can_status(Channel* ch, VXCanStatus& out);
  VXStatus recover(Channel* ch);
  VXStatus lin_slave_write(Channel* ch, const VXLinMessage& m);
  VXStatus set_lin_voltage(Channel* ch, uint32_t power);
  VXStatus set_lin_protocol(Channel* ch, const VXLinProtocol& p);
  VXStatus set_can_bitrate(Channel* ch, const VXBitrate& b);
  VXStatus set_can_mode(Channel* ch, uint32_t mode);
  VXStatus set_can_termination(Channel* ch, uint32_t ohm);
  VXChannelConfig config_of(const Channel* ch) const;
  VXStatus statistic(Channel* ch, uint32_t group, uint32_t item, uint32_t& value);
  VXStatus sync_clocks(const std::vector<Channel*>& channels);

  // Fault injection and inspection (control tool).
  VXStatus inject_busoff(const std::string& serial, uint32_t port, bool stuck);
  VXStatus recover_port(const std::string& serial, uint32_t port);
  VXStatus set_present(const std::string& serial, bool present);
  std::string describe(const std::map<int, std::unique_ptr<Client>>& clients) const;
  std::string statistics_text() const;

 private:
  struct Frame;
  Device* find_device(const std::string& serial) const;
  Bus& bus_of(const Port* p) { return buses_[p->bus]; }
  VXChannelInfo info_of(const Port* p) const;
  void update_port_state(Port* p);
  void reset_port(Port* p);
  void push(Channel* ch, const VXMessage& m);
  void stamp(VXMessage& m, const Port* p, int64_t t_ns) const;
  int64_t bus_time(Bus& b, int64_t t_ns);

  void transmit_can(Port* src, Channel* sender, VXMessage frame, int64_t t_ns, int hops);
  void lin_header(Port* master, Channel* sender, const VXLinMessage& req, int64_t t_ns);
  bool lin_response_of(const Port* p, uint8_t id, VXLinMessage& out) const;
  void fire_task(Port* p, unsigned index, int64_t t_ns);
  void reschedule();
  bool consume_channel(Channel* ch, size_t budget, size_t& moved);

  std::vector<std::unique_ptr<Device>> devices_;
  std::map<int, Bus> buses_;
  std::vector<Channel*> channels_;
  GlobalShm* global_ = nullptr;
  uint32_t clock_start_ = 0;
  uint32_t next_channel_id_ = 1;
  int64_t next_due_ns_ = INT64_MAX;
};

}  // namespace vxsim
