#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <vector>

#include "benchmarks/plain.h"

namespace lumso_bench {

struct PlainReceive::Record {
  PlainReceive* owner;
  int32_t id;
  std::vector<uint8_t> bytes;
};

PlainReceive::PlainReceive(FlBinaryMessenger* messenger, int fd)
    : fd_(fd), wake_fd_(eventfd(0, EFD_CLOEXEC)) {
  g_autoptr(FlStandardMethodCodec) codec = fl_standard_method_codec_new();
  channels_[1] = fl_event_channel_new(messenger, "plain_bluetooth/read/1",
                                      FL_METHOD_CODEC(codec));
  reader_ = std::thread([this] { Read(); });
}

PlainReceive::~PlainReceive() {
  eventfd_write(wake_fd_, 1);
  reader_.join();
  close(wake_fd_);
  for (auto& [id, channel] : channels_) g_object_unref(channel);
}

void PlainReceive::Read() {
  uint8_t buffer[2048];
  for (;;) {
    pollfd waits[] = {{fd_, POLLIN, 0}, {wake_fd_, POLLIN, 0}};
    poll(waits, 2, -1);
    if (waits[1].revents != 0) return;
    const ssize_t count = read(fd_, buffer, sizeof(buffer));
    if (count <= 0) return;
    g_idle_add(Deliver, new Record{this, 1, {buffer, buffer + count}});
  }
}

gboolean PlainReceive::Deliver(gpointer user_data) {
  auto* record = static_cast<Record*>(user_data);
  FlEventChannel* channel = nullptr;
  {
    const std::lock_guard<std::mutex> lock(record->owner->mutex_);
    channel = record->owner->channels_.find(record->id)->second;
  }
  g_autoptr(FlValue) event =
      fl_value_new_uint8_list(record->bytes.data(), record->bytes.size());
  fl_event_channel_send(channel, event, nullptr, nullptr);
  delete record;
  return G_SOURCE_REMOVE;
}

}  // namespace lumso_bench
