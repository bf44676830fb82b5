// The hook "pcap": writes what passes a gate into a capture file (libpcap's format, nanoseconds,
// Ethernet).
//
// Threads    : as GateHook says; a thread of the hook's own writes the file.
// Ownership  : owns its file; destruction writes what is left and closes it.
// Errors     : the constructor throws std::system_error when the file cannot be made. An error in
//              writing ends the capture and shows in state().
// Cost       : a worker copies the packets into memory and never waits for the file; packets that a
//              slow file leaves no room for are left out and counted.
// Invariants :
//   (1) the file holds whole records only, in the order in which workers handed them over.
//   (2) a record has all segments of its packet, up to kSnapLength bytes.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Bess/GateHook.h"

class PcapCapture final : public GateHook {
 public:
  static constexpr uint32_t kSnapLength = 65535;
  static constexpr size_t kBufferBytes = size_t{4} << 20;

  explicit PcapCapture(std::string file);
  ~PcapCapture() override;

  void ProcessBatch(const bess::PacketBatch* batch) override;
  GateHookStats stats() const override;
  std::string state() const override;  // the file, and how many packets were left out

 private:
  void appendRecord(const bess::Packet* pkt, uint32_t seconds, uint32_t nanoseconds);
  void writeLoop();
  int writeAll(const std::vector<char>& bytes) const;  // an errno value, 0 when all is written

  const std::string file_;
  int fd_ = -1;

  mutable std::mutex lock_;
  std::condition_variable work_;
  std::vector<char> buffer_;  // guarded by lock_; whole records
  GateHookStats stats_;       // guarded by lock_
  uint64_t missed_ = 0;       // guarded by lock_
  int error_ = 0;             // guarded by lock_
  bool ending_ = false;       // guarded by lock_
  std::thread writer_;
};
