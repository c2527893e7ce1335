// lumso_doctor: says what is wrong with Bluetooth on this machine. It goes
// through everything between an application and its bytes, step by step.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "doctor/safe_text.h"
#include "doctor/screen.h"
#include "doctor/steps.h"

namespace lumso_doctor {

namespace {

constexpr int kStatusProblem = 1;
constexpr int kStatusWrongUsage = 2;

constexpr int kDeadlineSeconds = 40;
// For what knows no deadline, such as an output that nobody reads.
constexpr std::chrono::milliseconds kGiveUpAfter(41500);
constexpr std::chrono::milliseconds kLastWords(500);

constexpr char kUsage[] =
    R"(Usage: lumso_doctor [ADDRESS] [--json] [--help]

Goes through everything between an application and its bytes, from this process
to the Bluetooth daemon's adapter, and says of each step what it saw: ok, problem
or cannot tell, and of a problem what to do. It changes nothing
and ends within 45 s. With ADDRESS it also looks at that device and opens its
channel 1 once, as "connect" does, and closes it; where nothing is bonded yet
that may begin a pairing. It registers an agent for a moment, and the kernel may
load its Bluetooth modules for the socket that it asks for.

--json prints one JSON object per step, with the keys "step", "verdict" and
"saw", and where the cause is known, or likely, "trouble" (a name that stays),
"means" and "do".

Exit status: 0 when nothing is wrong, 1 when something is, 2 for wrong arguments.
)";

struct Options {
  bool help = false;
  bool json = false;
  bool has_address = false;
  std::string address;
};

bool ParseOptions(const std::vector<std::string>& arguments, Options* options) {
  for (const std::string& argument : arguments) {
    if (argument == "--help") {
      options->help = true;
    } else if (argument == "--json") {
      options->json = true;
    } else if (!argument.empty() && argument.front() != '-' &&
               !options->has_address) {
      options->has_address = true;
      options->address = argument;
    } else {
      std::fprintf(stderr, "lumso_doctor: wrong argument: %s (see --help)\n",
                   argument.c_str());
      return false;
    }
  }
  return true;
}

struct Look {
  const char* word;
  const char* mark;
  const char* colour;
};

const Look& LookOf(Verdict verdict) {
  static constexpr Look kLooks[] = {
      {"ok", "✔", "\x1b[32m"},
      {"problem", "✘", "\x1b[31m"},
      {"cannot tell", "?", "\x1b[33m"},
  };
  return kLooks[static_cast<int>(verdict)];
}

// A row's text without its Markdown marks.
std::string PlainText(std::string text) {
  text.erase(std::remove(text.begin(), text.end(), '`'), text.end());
  return text;
}

Json ToJson(const Finding& finding) {
  Json json = {{"step", finding.step},
               {"verdict", LookOf(finding.verdict).word},
               {"saw", finding.saw}};
  if (finding.trouble) {
    json["trouble"] = RowOf(*finding.trouble).name;
    json["means"] = PlainText(RowOf(*finding.trouble).means);
    json["do"] = PlainText(RowOf(*finding.trouble).remedy);
  }
  return json;
}

std::string ToText(const Finding& finding, const Screen& screen) {
  const Look& look = LookOf(finding.verdict);
  std::string text = look.word;
  text.append(13 - text.size(), ' ');
  if (screen.terminal && g_get_charset(nullptr))
    text = std::string(look.mark) + " " + text;
  if (screen.colours) text = look.colour + text + "\x1b[0m";
  text += std::string(finding.step) + ": ";
  for (size_t i = 0; i < finding.saw.size(); ++i) {
    text += (i == 0 ? "" : "; ") + Printable(finding.saw[i]);
  }
  if (finding.trouble) {
    const TroubleRow& row = RowOf(*finding.trouble);
    text += "\n    It means: " + PlainText(row.means) +
            "\n    Do: " + PlainText(row.remedy);
  }
  return text;
}

std::string Count(size_t number, const char* noun) {
  return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
}

std::string Summary(size_t problems, size_t doubts) {
  return (problems == 0 ? "Nothing is wrong that can be seen from here"
                        : Count(problems, "problem")) +
         (doubts == 0 ? "" : "; " + Count(doubts, "step") + " could not tell") +
         ".";
}

// Ends the process, whatever hangs, and says where; also when nobody reads
// that.
void GuardTime() {
  std::this_thread::sleep_for(kGiveUpAfter);
  std::thread([] {
    std::fprintf(stderr, "lumso_doctor: gave up in %s\n", current_step.load());
  }).detach();
  std::this_thread::sleep_for(kLastWords);
  _exit(kStatusProblem);
}

using StepFunction = Finding (*)(Patient* patient);

std::vector<StepFunction> Steps(bool has_address) {
  std::vector<StepFunction> steps = {
      ExamineProcess, ExamineKernel,  ExamineRadio, ExamineBus,
      ExamineDaemon,  ExamineAdapter, ExamineAgent, ExamineGlib};
  if (has_address) steps.insert(steps.end(), {ExamineDevice, ExamineStream});
  return steps;
}

// Opens the null device in place of closed standard streams, before anything
// else opens a descriptor and becomes one of them.
void OpenStandardStreams() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO) fd = dup(fd);
  if (fd >= 0) close(fd);
}

// Tells whether the line could be written.
bool WriteLine(const std::string& line) {
  if (std::printf("%s\n", line.c_str()) >= 0 && std::fflush(stdout) == 0)
    return true;
  std::perror("lumso_doctor: cannot write to standard output");
  return false;
}

// Returns the exit status.
int Run(const Options& options) {
  std::thread(GuardTime).detach();
  const Screen screen = options.json ? Screen() : FindScreen();
  Patient patient;
  patient.address = options.address;
  patient.deadline =
      g_get_monotonic_time() + kDeadlineSeconds * G_TIME_SPAN_SECOND;
  patient.announce = [](const std::string& text) {
    std::fprintf(stderr, "lumso_doctor: %s\n", text.c_str());
  };
  size_t problems = 0;
  size_t doubts = 0;
  for (const StepFunction step : Steps(options.has_address)) {
    const Finding finding = step(&patient);
    if (finding.verdict == Verdict::kProblem) ++problems;
    if (finding.verdict == Verdict::kCannotTell) ++doubts;
    if (!WriteLine(options.json ? JsonLine(ToJson(finding))
                                : ToText(finding, screen))) {
      return kStatusProblem;
    }
  }
  if (!options.json && !WriteLine(Summary(problems, doubts)))
    return kStatusProblem;
  return problems > 0 ? kStatusProblem : 0;
}

}  // namespace

}  // namespace lumso_doctor

int main(int argc, char** argv) {
  lumso_doctor::OpenStandardStreams();
  // Writing to a device that has vanished must be an error, not the end.
  std::signal(SIGPIPE, SIG_IGN);
  setlocale(LC_CTYPE, "");  // Tells of a terminal that has no such marks.
  lumso_doctor::Options options;
  if (!lumso_doctor::ParseOptions({argv + 1, argv + argc}, &options))
    return lumso_doctor::kStatusWrongUsage;
  if (options.help) {
    std::printf("%s", lumso_doctor::kUsage);
    return 0;
  }
  return lumso_doctor::Run(options);
}
