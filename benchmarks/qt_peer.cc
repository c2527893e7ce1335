// The same works with Qt Bluetooth: bench_qt WORK SIZE.

#include <unistd.h>

#include <QBluetoothAddress>
#include <QBluetoothDeviceDiscoveryAgent>
#include <QBluetoothLocalDevice>
#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "benchmarks/measure.h"

namespace {

constexpr char kSubject[] = "Qt";
constexpr unsigned kDeadlineSeconds = 300;

// From the start of a discovery until every known device has been reported.
void MeasureList(int devices) {
  QBluetoothDeviceDiscoveryAgent agent;
  QEventLoop loop;
  int reported = 0;
  int64_t last = 0;
  int64_t longest = 0;
  QTimer ticker;
  const auto tick = [&] {
    const int64_t now = lumso_bench::Now();
    longest = std::max(longest, now - last);
    last = now;
  };
  QObject::connect(&ticker, &QTimer::timeout, tick);
  QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::errorOccurred,
                   [&] { qFatal("%s", qPrintable(agent.errorString())); });
  QObject::connect(&agent, &QBluetoothDeviceDiscoveryAgent::deviceDiscovered,
                   [&](const QBluetoothDeviceInfo&) {
                     if (++reported == devices) loop.quit();
                   });
  ticker.start(1);
  last = lumso_bench::Now();
  const int64_t start = lumso_bench::Now();
  agent.start(QBluetoothDeviceDiscoveryAgent::ClassicMethod);
  if (reported < devices) loop.exec();
  const int64_t end = lumso_bench::Now();
  tick();
  lumso_bench::Report(kSubject, "wall", static_cast<double>(end - start));
  lumso_bench::Report(kSubject, "gap", static_cast<double>(longest));
}

void MeasureBond(int) {
  const QBluetoothAddress address("C0:FF:EE:00:00:04");
  const QBluetoothLocalDevice device;
  std::vector<double> times;
  for (int i = 0; i < 10; ++i) {
    const int64_t start = lumso_bench::Now();
    if (device.pairingStatus(address) == QBluetoothLocalDevice::Unpaired) {
      qFatal("not paired");
    }
    times.push_back(static_cast<double>(lumso_bench::Now() - start));
  }
  lumso_bench::Report(kSubject, "wall", lumso_bench::Percentile(times, 0.5));
}

void MeasureStart(int) {
  const int64_t start = lumso_bench::Now();
  const QBluetoothLocalDevice device;
  if (!device.isValid()) qFatal("no adapter");
  lumso_bench::Report(kSubject, "wall",
                      static_cast<double>(lumso_bench::Now() - start));
}

}  // namespace

int main(int argc, char** argv) {
  alarm(kDeadlineSeconds);
  const QCoreApplication application(argc, argv);
  const std::string work = argc == 3 ? argv[1] : "";
  const int size = argc == 3 ? std::atoi(argv[2]) : 0;
  if (work == "list") {
    MeasureList(size);
  } else if (work == "bond") {
    MeasureBond(size);
  } else if (work == "start") {
    MeasureStart(size);
  } else {
    std::fprintf(stderr, "usage: bench_qt list|bond|start SIZE\n");
    return 2;
  }
  return 0;
}
