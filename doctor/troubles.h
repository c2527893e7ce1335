// What can be wrong with Bluetooth on a machine and be seen without an
// application: rows of doc/troubleshooting.md, which a test compares.

#ifndef LUMSO_BLUETOOTH_DOCTOR_TROUBLES_H_
#define LUMSO_BLUETOOTH_DOCTOR_TROUBLES_H_

#include <cstddef>
#include <vector>

namespace lumso_doctor {

enum class Trouble {
  kNoAdapter,
  kNoBus,
  kBusRefuses,
  kBusSilent,
  kDenied,
  kNoDaemon,
  kDaemonSkipped,
  kDaemonFails,
  kDaemonHangs,
  kAdapterOff,
  kBlocked,
  kAgentRefused,
  kNotKnown,
  kBadAddress,
  kNoSockets,
  kSocketsForbidden,
  kNoRfcomm,
  kRefused,
  kHostDown,
  kNoRoute,
  kNotAuthenticated,
  kNoAnswer,
  kBusy,
};

// A name for programs and the three cells of a row, in Markdown.
struct TroubleRow {
  Trouble trouble;
  const char* name;
  const char* see;
  const char* means;
  const char* remedy;
};

// In the order of the enumeration.
const std::vector<TroubleRow>& Troubles();

inline const TroubleRow& RowOf(Trouble trouble) {
  return Troubles()[static_cast<size_t>(trouble)];
}

}  // namespace lumso_doctor

#endif  // LUMSO_BLUETOOTH_DOCTOR_TROUBLES_H_
