// The cases on the kernel: rfcomm_contract_on_kernel DEVICE ABSENT.

#include <gtest/gtest.h>
#include <strings.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "tests/contract/rfcomm_contract.h"

std::string lumso_contract::device_address;
std::string lumso_contract::absent_address;

namespace {

// Whether RFCOMM runs between the two adapters, by the kernel's list of L2CAP
// channels.
bool HasSession() {
  constexpr char kRfcommPsm[] = "3";
  std::ifstream channels("/sys/kernel/debug/bluetooth/l2cap");
  EXPECT_TRUE(channels.is_open());
  std::string line;
  while (std::getline(channels, line)) {
    std::istringstream fields(line);
    std::string source, source_type, destination, type, state, psm;
    fields >> source >> source_type >> destination >> type >> state >> psm;
    if (psm == kRfcommPsm &&
        strcasecmp(destination.c_str(),
                   lumso_contract::device_address.c_str()) == 0) {
      return true;
    }
  }
  return false;
}

// Lets no case begin on the closing session of the one before: what begins on
// such a session ends with it. A session that lasts is idle, and as good as
// new.
class SessionsApart : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo&) override {
    const auto idle =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
    while (HasSession() && std::chrono::steady_clock::now() < idle) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s DEVICE ABSENT (addresses)\n", argv[0]);
    return 2;
  }
  lumso_contract::device_address = argv[1];
  lumso_contract::absent_address = argv[2];
  testing::UnitTest::GetInstance()->listeners().Append(new SessionsApart);
  return RUN_ALL_TESTS();
}
