#include "host/doctor.h"

#include <unistd.h>

#include <chrono>
#include <clocale>
#include <cstdio>
#include <thread>
#include <utility>

#include "host/json_value.h"
#include "host/line_writer.h"
#include "host/method_table.h"
#include "host/screen.h"

namespace lumso_host {

namespace {

constexpr int kStatusProblem = 1;
constexpr int kStatusWrongUsage = 2;

constexpr int kDeadlineSeconds = 40;
// For what knows no deadline, such as an output that nobody reads.
constexpr std::chrono::milliseconds kGiveUpAfter(41500);
constexpr std::chrono::milliseconds kLastWords(500);

constexpr char kUsage[] =
    R"(Usage: lumso_host doctor [ADDRESS] [--json] [--help]

Goes through everything between an application and its bytes, from this process
to the Bluetooth daemon's adapter, and says of each step what it saw: ok, problem
or cannot tell, and of a problem what to do. It needs no plug-in, changes nothing
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
      std::fprintf(stderr,
                   "lumso_host: wrong argument: %s (see doctor --help)\n",
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

// What is seen may come from afar, such as a device's name: it must not command
// a terminal.
std::string Printable(const std::string& text) {
  g_autofree gchar* valid = g_utf8_make_valid(text.c_str(), -1);
  std::string printable;
  const gchar* next = nullptr;
  for (const gchar* c = valid; *c != '\0'; c = next) {
    next = g_utf8_next_char(c);
    printable += g_unichar_isprint(g_utf8_get_char(c)) ? std::string(c, next)
                                                       : std::string("?");
  }
  return printable;
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
    std::fprintf(stderr, "lumso_host: gave up in %s\n", current_step.load());
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

}  // namespace

int RunDoctor(const std::vector<std::string>& arguments) {
  Options options;
  if (!ParseOptions(arguments, &options)) return kStatusWrongUsage;
  if (options.help) {
    std::printf("%s", kUsage);
    return 0;
  }
  setlocale(LC_CTYPE, "");  // Tells of a terminal that has no such marks.
  std::thread(GuardTime).detach();
  const Screen screen = options.json ? Screen() : FindScreen();
  bool output_failed = false;
  LineWriter writer(false, [&output_failed] { output_failed = true; });
  Patient patient;
  patient.address = options.address;
  patient.deadline =
      g_get_monotonic_time() + kDeadlineSeconds * G_TIME_SPAN_SECOND;
  patient.announce = [](const std::string& text) {
    std::fprintf(stderr, "lumso_host: %s\n", text.c_str());
  };
  size_t problems = 0;
  size_t doubts = 0;
  for (const StepFunction step : Steps(options.has_address)) {
    if (output_failed) return kStatusProblem;
    const Finding finding = step(&patient);
    if (finding.verdict == Verdict::kProblem) ++problems;
    if (finding.verdict == Verdict::kCannotTell) ++doubts;
    writer.WriteLine(options.json ? JsonLine(ToJson(finding))
                                  : ToText(finding, screen));
  }
  if (!options.json) writer.WriteLine(Summary(problems, doubts));
  return problems > 0 || output_failed ? kStatusProblem : 0;
}

}  // namespace lumso_host
