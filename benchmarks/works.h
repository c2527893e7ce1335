// What can be measured. Each function measures the named subjects at one size
// and reports; the size is a number of devices or bytes, or 0 where there is
// none. They run on the main thread, on the bus that DBUS_SYSTEM_BUS_ADDRESS
// names, with bench_daemon on it.

#ifndef LUMSO_BLUETOOTH_BENCHMARKS_WORKS_H_
#define LUMSO_BLUETOOTH_BENCHMARKS_WORKS_H_

#include <cstddef>
#include <set>
#include <string>

namespace lumso_bench {

using Names = std::set<std::string>;

// Gives the daemon so many devices, and reports the size of its tree.
void SetDevices(const Names& subjects, size_t count);
void MeasureList(const Names& subjects, size_t devices);
void MeasureBond(const Names& subjects, size_t devices);
void MeasureLowerCaseBond(const Names& subjects, size_t devices);
// One start: the process is of no use for another.
void MeasureStart(const Names& subjects, size_t devices);
void MeasureBurst(const Names& subjects, size_t changes);

void MeasureReceive(const Names& subjects, size_t bytes);
void MeasureLatency(const Names& subjects, size_t bytes);
void MeasureWrite(const Names& subjects, size_t bytes);

void MeasureCall(const Names& subjects, size_t none);
void MeasureUnknownCall(const Names& subjects, size_t none);

void MeasureConnectionMemory(const Names& subjects, size_t connections);
void MeasureListMemory(const Names& subjects, size_t devices);

}  // namespace lumso_bench

#endif  // LUMSO_BLUETOOTH_BENCHMARKS_WORKS_H_
