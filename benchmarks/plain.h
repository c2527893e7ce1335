// The plainest programs that make the steps which the plug-in makes for a
// received chunk, for a "write" and for a list of the devices, and no other
// steps. They share nothing with src/, so what the plug-in costs above them is
// its own. Their channels are named as long as the plug-in's: whoever copies a
// name pays for its length.
//
// All belong to the main thread, and check only what keeps them right.

#ifndef LUMSO_BLUETOOTH_BENCHMARKS_PLAIN_H_
#define LUMSO_BLUETOOTH_BENCHMARKS_PLAIN_H_

#include <flutter_linux/flutter_linux.h>
#include <gio/gio.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <thread>

namespace lumso_bench {

inline constexpr char kPlainMethods[] = "plain_bluetooth/methods";

// A thread that waits for the socket or the end and reads; a record and an idle
// callback for each chunk; an event on the read channel of the record's id.
class PlainReceive {
 public:
  // Borrows the socket.
  PlainReceive(FlBinaryMessenger* messenger, int fd);
  // All chunks that were read have been delivered.
  ~PlainReceive();
  PlainReceive(const PlainReceive&) = delete;
  PlainReceive& operator=(const PlainReceive&) = delete;

 private:
  struct Record;

  void Read();
  static gboolean Deliver(gpointer record);

  const int fd_;
  const int wake_fd_;  // owned
  std::mutex mutex_;
  std::map<int32_t, FlEventChannel*> channels_;  // by id; owned references
  std::thread reader_;
};

// A method channel on which each call writes its "bytes" to the socket of its
// "id", in slices, and is answered with true.
class PlainWrite {
 public:
  // Borrows the socket, which gets `id`.
  PlainWrite(FlBinaryMessenger* messenger, int id, int fd);
  ~PlainWrite();
  PlainWrite(const PlainWrite&) = delete;
  PlainWrite& operator=(const PlainWrite&) = delete;

 private:
  static void OnCall(FlMethodChannel* channel, FlMethodCall* call,
                     gpointer user_data);

  std::mutex mutex_;
  std::map<int32_t, int> sockets_;  // by id
  FlMethodChannel* channel_;        // owned reference
};

// A method channel on which each call asks the daemon for its objects and is
// answered with the list of the devices among them.
class PlainList {
 public:
  // Borrows the connection.
  PlainList(FlBinaryMessenger* messenger, GDBusConnection* bus);
  ~PlainList();
  PlainList(const PlainList&) = delete;
  PlainList& operator=(const PlainList&) = delete;

 private:
  static void OnCall(FlMethodChannel* channel, FlMethodCall* call,
                     gpointer user_data);

  FlMethodChannel* channel_;  // owned reference
};

}  // namespace lumso_bench

#endif  // LUMSO_BLUETOOTH_BENCHMARKS_PLAIN_H_
