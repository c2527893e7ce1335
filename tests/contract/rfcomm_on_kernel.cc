// The cases on the kernel: rfcomm_contract_on_kernel DEVICE ABSENT.

#include <gtest/gtest.h>

#include <cstdio>

#include "tests/contract/rfcomm_contract.h"

std::string lumso_contract::device_address;
std::string lumso_contract::absent_address;

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s DEVICE ABSENT (addresses)\n", argv[0]);
    return 2;
  }
  lumso_contract::device_address = argv[1];
  lumso_contract::absent_address = argv[2];
  return RUN_ALL_TESTS();
}
