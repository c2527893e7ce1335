// The cases on the double, which takes its time as a radio would.

#include <gtest/gtest.h>

#include <chrono>

#include "tests/contract/rfcomm_contract.h"
#include "tests/support/fake_rfcomm.h"

std::string lumso_contract::device_address = "AA:BB:CC:DD:EE:0F";
std::string lumso_contract::absent_address = "AA:BB:CC:DD:EE:10";

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  lumso_test::FakeRfcomm air;
  air.KeepNoRecords();
  air.SetConnectTime(std::chrono::milliseconds(10));
  air.SetClosingTime(std::chrono::milliseconds(10));
  return RUN_ALL_TESTS();
}
