// RFCOMM sockets without Bluetooth in the kernel, and without any cost of their
// own: the benchmark program defines socket() and connect() ahead of libc, and
// an AF_BLUETOOTH socket is one end of a local pair made beforehand. All else,
// reading, writing and waiting included, is the kernel's. The double of the
// tests keeps a record of every call, which would be measured too.

#ifndef LUMSO_BLUETOOTH_BENCHMARKS_SOCKET_DOUBLE_H_
#define LUMSO_BLUETOOTH_BENCHMARKS_SOCKET_DOUBLE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

namespace lumso_bench {

// Both ends of one stream that keeps the device's chunks apart: one write of
// the device is one read of the plug-in, so a chunk has the size that is asked
// for however far the reader lags behind.
class DevicePair {
 public:
  DevicePair();
  ~DevicePair();
  DevicePair(const DevicePair&) = delete;
  DevicePair& operator=(const DevicePair&) = delete;

  int device() const { return device_; }
  // The plug-in's end, for those that measure without the plug-in.
  int local() const { return local_; }

  // Makes the plug-in's end the next AF_BLUETOOTH socket; it then belongs to
  // whoever asks for that.
  void HandOver();

  // What the device writes as its chunk `number`, all of them different.
  static std::vector<uint8_t> Chunk(size_t size, size_t number);

  // Writes chunks of `size` bytes until `count` are in the socket or no more
  // fit. Returns how many there are.
  size_t Fill(size_t size, size_t count) const;

  // Reads away what was written to the device, and returns it.
  std::vector<uint8_t> Drain() const;

 private:
  int device_ = -1;
  int local_ = -1;
};

}  // namespace lumso_bench

#endif  // LUMSO_BLUETOOTH_BENCHMARKS_SOCKET_DOUBLE_H_
