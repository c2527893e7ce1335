#include "doctor/steps.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <thread>
#include <utility>

namespace lumso_doctor {

namespace {

constexpr std::chrono::milliseconds kShortWait(500);

}  // namespace

const std::vector<Step>& Steps() {
  static const std::vector<Step> steps = {
      {"this process", false, {}, ExamineProcess, {&kBusWithheld, &kNoSockets}},
      {"kernel",
       false,
       {Part::kSockets},
       ExamineKernel,
       {&kNoBluetooth, &kNoSockets, &kNoRfcomm, &kSocketsForbidden}},
      {"radio switch", false, {}, ExamineRadio, {&kBlocked}},
      {"bus",
       false,
       {Part::kBus},
       ExamineBus,
       {&kNoBus, &kBusWithheld, &kBusRefuses, &kBusSilent, &kDenied}},
      {"daemon",
       false,
       {Part::kBus, Part::kDaemon},
       ExamineDaemon,
       {&kNoDaemon, &kDaemonDisabled, &kNoSystemd, &kDaemonUnseen,
        &kDaemonSkipped, &kDaemonFails, &kUnitBroken, &kDaemonHangs,
        &kDaemonSlow}},
      {"adapter",
       false,
       {Part::kBus, Part::kDaemon},
       ExamineAdapter,
       {&kNoAdapter, &kAdapterWithheld, &kAdapterOff, &kBlocked}},
      {"agent",
       false,
       {Part::kBus, Part::kDaemon},
       ExamineAgent,
       {&kAgentRefused, &kDenied, &kDaemonHangs}},
      {"GLib", false, {}, ExamineGlib, {}},
      {"address", true, {}, ExamineAddress, {&kBadAddress}},
      {"device",
       true,
       {Part::kAddress, Part::kBus, Part::kDaemon},
       ExamineDevice,
       {&kNotKnown, &kOwnAddress, &kLowEnergyOnly}},
      {"stream",
       true,
       {Part::kAddress, Part::kSockets, Part::kBus, Part::kDaemon,
        Part::kAdapter},
       ExamineStream,
       {&kRefused, &kHostDown, &kNoRoute, &kNotAuthenticated, &kNoAnswer,
        &kReset, &kAborted, &kBusy, &kOwnAddress}},
  };
  return steps;
}

Finding Examine(const Step& step, Patient* patient) {
  for (const Part part : step.needs) {
    const auto lost = patient->lost.find(part);
    if (lost != patient->lost.end())
      return CannotTell({}, std::string("not looked at: see ") + lost->second);
  }
  if (TimeLeft(*patient) <= 0)
    return CannotTell({}, "not looked at: no time left");
  Finding finding = step.look(patient);
  for (const Part part : finding.lost) patient->lost.emplace(part, step.name);
  return finding;
}

Finding Problem(Finding finding, const Trouble& trouble) {
  finding.verdict = Verdict::kProblem;
  finding.trouble = &trouble;
  return finding;
}

Finding Problem(Finding finding, const std::string& reason) {
  finding.verdict = Verdict::kProblem;
  finding.saw.insert(finding.saw.begin(), reason);
  return finding;
}

Finding CannotTell(Finding finding, const std::string& reason) {
  finding.verdict = Verdict::kCannotTell;
  finding.saw.insert(finding.saw.begin(), reason);
  return finding;
}

gint64 TimeLeft(const Patient& patient) {
  return (patient.deadline - g_get_monotonic_time()) / 1000;
}

int TimeFor(const Patient& patient, int most) {
  return static_cast<int>(std::clamp<gint64>(TimeLeft(patient), 1, most));
}

struct Wait::Thread {
  std::promise<void> over;
  std::thread thread;
};

Wait::Wait(const Patient& patient, const std::string& what, int limit_ms) {
  if (!patient.wait) return;
  thread_ = std::make_unique<Thread>();
  thread_->thread = std::thread(
      [say = patient.wait, what, limit_ms, over = thread_->over.get_future()] {
        if (over.wait_for(kShortWait) == std::future_status::timeout) {
          say("waiting for " + what + ", " +
              std::to_string((limit_ms + 999) / 1000) + " s at most");
        }
      });
}

Wait::~Wait() {
  if (thread_ == nullptr) return;
  thread_->over.set_value();
  thread_->thread.join();
}

}  // namespace lumso_doctor
