// Any bytes as what a device says to the prober, over a socket. The first byte
// chooses how the connection goes, a '|' ends a segment, and after the last one
// the device ends its stream, so that nothing waits for a timeout. Beside the
// prober runs a model of the session, written the plain way.

// The session belongs to the plug-in's one file and is not in a header.
#include "src/lumso_bluetooth_plugin.cc"
#include "tests/fuzz/fuzz.h"

using lumso_bluetooth::kProbeReadSize;
using lumso_bluetooth::ProbeDeviceRssi;
using lumso_bluetooth::ProbeOutcome;
using lumso_fuzz::Check;

namespace {

constexpr char kSecret[] = "the secret";

// As many as a socket buffer holds.
constexpr size_t kMaxSegments = 64;

// The errors of connect(); EINPROGRESS becomes a connection at once.
constexpr int kConnectErrors[] = {
    0,           EINPROGRESS, ECONNREFUSED, EHOSTUNREACH,
    ENETUNREACH, EHOSTDOWN,   ETIMEDOUT,
};

struct Device {
  std::vector<std::string> segments;
  int connect_error = 0;
  bool deaf = false;  // closes before the prober writes anything
};

int plugin_fd = -1;
int connect_error = 0;

Device ReadDevice(std::string_view input) {
  Device device;
  if (input.empty()) return device;
  const auto choice = static_cast<uint8_t>(input.front() - '0');
  device.connect_error = kConnectErrors[choice % std::size(kConnectErrors)];
  device.deaf =
      choice % (2 * std::size(kConnectErrors)) >= std::size(kConnectErrors);
  input.remove_prefix(1);
  while (!input.empty() && device.segments.size() < kMaxSegments) {
    const size_t length = std::min(input.find('|'), input.size());
    const size_t taken = std::min(length, kProbeReadSize);
    if (taken > 0) device.segments.emplace_back(input.substr(0, taken));
    input.remove_prefix(taken == length ? std::min(length + 1, input.size())
                                        : taken);
  }
  return device;
}

// Takes segments until they hold `terminator`; what arrived with it is part of
// the result, which is null when the stream ends first.
std::unique_ptr<std::string> TakeUntil(const char* terminator,
                                       const Device& device, size_t* next) {
  auto text = std::make_unique<std::string>();
  while (*next < device.segments.size()) {
    *text += device.segments[(*next)++];
    if (text->find(terminator) != std::string::npos) return text;
  }
  return nullptr;
}

ProbeOutcome Failure(const std::string& error) {
  return {false, 0, false, error};
}

// Parses byte by byte; zero bytes are bytes like others.
ProbeOutcome ModelReading(const std::string& reply) {
  const char kKey[] = "\"rssi\"";
  auto at = std::search(reply.begin(), reply.end(), kKey, std::strchr(kKey, 0));
  if (at == reply.end()) return Failure("no rssi in response");
  at = std::find(at, reply.end(), ':');
  if (at == reply.end()) return Failure("no rssi value");
  // A stop for every loop below, so that none has to look for the end.
  std::string rest(at + 1, reply.end());
  rest += '\0';
  const char* next = rest.data();
  while (*next == ' ' || *next == '\t') ++next;
  const bool negative = *next == '-';
  const bool has_sign = negative || *next == '+';
  if (has_sign) ++next;
  if (*next < '0' || *next > '9') {
    return Failure(has_sign ? "rssi parse" : "rssi value not integer");
  }
  int64_t value = 0;
  for (; *next >= '0' && *next <= '9'; ++next) {
    value = std::min<int64_t>(value * 10 + (*next - '0'), INT64_C(1) << 40);
  }
  if (negative) value = -value;
  if (value != static_cast<int32_t>(value)) return Failure("rssi parse");
  return {true, static_cast<int32_t>(value), false, ""};
}

// What the prober must make of the device; `sent` becomes what it must send.
ProbeOutcome ModelSession(const Device& device, std::string* sent) {
  if (device.connect_error != 0 && device.connect_error != EINPROGRESS) {
    const bool transient =
        device.connect_error != EHOSTDOWN && device.connect_error != ETIMEDOUT;
    return {false, 0, transient,
            std::string("connect: ") + std::strerror(device.connect_error)};
  }
  size_t next = 0;
  if (!TakeUntil("auth\r\n", device, &next)) return Failure("greeting timeout");
  if (device.deaf) return Failure("send auth");
  *sent += std::string("auth=") + kSecret + "\r\n";
  if (!TakeUntil("ready\r\n", device, &next)) return Failure("ready timeout");
  *sent += "rssi\r\n";
  const auto reply = TakeUntil("!!END", device, &next);
  if (reply == nullptr) return Failure("rssi timeout");
  return ModelReading(*reply);
}

// Returns everything that the prober sent. A prober that closed before it read
// everything makes one read fail in between.
std::string ReadAll(int fd) {
  std::string text;
  for (;;) {
    char chunk[kProbeReadSize];
    const ssize_t count = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
    if (count > 0) {
      text.append(chunk, static_cast<size_t>(count));
    } else if (count == 0 || errno != ECONNRESET) {
      return text;
    }
  }
}

}  // namespace

// The program's own socket calls: the prober gets one end of a pair of sockets
// that keep segments apart.
extern "C" int socket(int, int, int) noexcept { return plugin_fd; }

extern "C" int connect(int, const sockaddr*, socklen_t) {
  errno = connect_error;
  return connect_error == 0 ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // As in the prober's thread.
  signal(SIGPIPE, SIG_IGN);
  const Device device = ReadDevice({reinterpret_cast<const char*>(data), size});
  int fds[2];
  Check(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) == 0,
        "a pair of sockets");
  for (const std::string& segment : device.segments) {
    Check(send(fds[1], segment.data(), segment.size(), MSG_DONTWAIT) ==
              static_cast<ssize_t>(segment.size()),
          "a segment fits in the socket buffer");
  }
  if (device.deaf) {
    close(fds[1]);
  } else {
    shutdown(fds[1], SHUT_WR);
  }

  plugin_fd = fds[0];
  connect_error = device.connect_error;
  const ProbeOutcome outcome = ProbeDeviceRssi("00:11:22:33:44:55", kSecret);

  Check(fcntl(fds[0], F_GETFD) == -1, "the prober closes its socket");
  std::string sent;
  const ProbeOutcome expected = ModelSession(device, &sent);
  if (!device.deaf) {
    Check(ReadAll(fds[1]) == sent, "the prober sends its lines and no more");
    close(fds[1]);
  }
  Check(outcome.ok == expected.ok, "the outcome");
  Check(outcome.value == expected.value, "the reading");
  Check(outcome.transient == expected.transient, "what is not counted");
  Check(outcome.error == expected.error, "the failure's text");
  return 0;
}
