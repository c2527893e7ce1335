// Whom the cases of RFCOMM sockets talk to; set before they run.

#ifndef LUMSO_BLUETOOTH_TESTS_CONTRACT_RFCOMM_CONTRACT_H_
#define LUMSO_BLUETOOTH_TESTS_CONTRACT_RFCOMM_CONTRACT_H_

#include <string>

namespace lumso_contract {

// An address of this machine that another adapter of it can reach.
extern std::string device_address;
// An address that nobody has.
extern std::string absent_address;

}  // namespace lumso_contract

#endif  // LUMSO_BLUETOOTH_TESTS_CONTRACT_RFCOMM_CONTRACT_H_
