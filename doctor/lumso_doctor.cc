// lumso_doctor: says what is wrong with Bluetooth on this machine. It looks at
// everything between an application and its bytes, step by step.

#include <unistd.h>

#include <algorithm>
#include <atomic>
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
#include "doctor/wrap.h"

namespace lumso_doctor {

namespace {

constexpr int kStatusProblem = 1;
constexpr int kStatusWrongUsage = 2;

constexpr int kDeadlineSeconds = 40;
// For what knows no deadline, such as an output that nobody reads.
constexpr std::chrono::milliseconds kGiveUpAfter(41500);
constexpr std::chrono::milliseconds kLastWords(500);

constexpr char kUsage[] =
    R"(Usage: lumso_doctor [ADDRESS] [--json] [--verbose] [--help]

Looks at everything between an application and its bytes, from this process to
the Bluetooth daemon's adapter, and says of each step what it saw: ok, problem
or cannot tell, and of a problem what to do. It ends within 45 s and changes
nothing that others could notice, but that the kernel may load its Bluetooth
modules for the socket that it asks for, and that, where no daemon runs, systemd
reads its service's file.

With ADDRESS it also looks at that device and opens its channel 1 once, as
"connect" does, and closes it; where nothing is bonded yet that may begin a
pairing. If it leaves a bond, the last line says how to remove it.

--verbose prints all that was seen, also where it is fine.
--json prints one JSON object per step, with the keys "step", "verdict" and
"saw", and where the cause is known, or likely, "trouble" (a name that stays),
"means" and "do".

Exit status: 0 when nothing is wrong, 1 when something is, 2 for wrong
arguments.)";

struct Options {
  bool help = false;
  bool json = false;
  bool verbose = false;
  bool has_address = false;
  std::string address;
};

// The step that is looked at, or whose finding is printed.
std::atomic<const char*> current_step{"its beginning"};

bool ParseOptions(const std::vector<std::string>& arguments, Options* options) {
  for (const std::string& argument : arguments) {
    if (argument == "--help" || argument == "-h") {
      options->help = true;
    } else if (argument == "--json") {
      options->json = true;
    } else if (argument == "--verbose") {
      options->verbose = true;
    } else if (!argument.empty() && argument.front() != '-' &&
               !options->has_address) {
      options->has_address = true;
      options->address = argument;
    } else {
      std::fprintf(stderr, "lumso_doctor: wrong argument: %s (see --help)\n",
                   Quoted(argument, CharsetOf(STDERR_FILENO)).c_str());
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

Json ToJson(const Step& step, const Finding& finding) {
  Json json = {{"step", step.name},
               {"verdict", LookOf(finding.verdict).word},
               {"saw", finding.saw}};
  if (finding.trouble != nullptr) {
    json["trouble"] = finding.trouble->name;
    json["means"] = PlainText(finding.trouble->means);
    json["do"] = PlainText(finding.trouble->remedy);
  }
  return json;
}

// What the doctor says to people; nothing is wider than their terminal.
class Report {
 public:
  Report(const Screen& screen, Charset charset, bool verbose)
      : screen_(screen), charset_(charset), verbose_(verbose) {}

  // Returns lines, as the others do, without the end of the last.
  std::string OfStep(const Step& step, const Finding& finding) {
    ++counts_[static_cast<int>(finding.verdict)];
    const bool all = verbose_ || finding.verdict != Verdict::kOk;
    const size_t facts = std::min(all ? finding.saw.size() : finding.telling,
                                  finding.saw.size());
    std::string text = Heading(finding.verdict);
    text += Lines(step.name + (facts > 0 ? ": " + Safe(finding.saw[0]) : ""),
                  kHanging);
    for (size_t i = 1; i < facts; ++i) text += Below(Safe(finding.saw[i]));
    if (finding.trouble != nullptr) {
      text += Below("It means: " + PlainText(finding.trouble->means)) +
              Below("Do: " + PlainText(finding.trouble->remedy));
    }
    return text;
  }

  std::string OfNotice(const std::string& text) const {
    return Lines(text, kIndent);
  }

  std::string OfWait(const std::string& what) const {
    return kIndent + Lines(what, kIndent);
  }

  std::string Summary() const {
    const size_t problems = counts_[static_cast<int>(Verdict::kProblem)];
    const size_t doubts = counts_[static_cast<int>(Verdict::kCannotTell)];
    std::string text = problems == 0
                           ? "Nothing is wrong that can be seen from here"
                           : Count(problems, "problem");
    if (doubts > 0) text += "; " + Count(doubts, "step") + " could not tell";
    return Lines(text + ".", "");
  }

  std::string OfWhatIsLeft(const std::string& left) const {
    return Lines(Safe(left) + ".", "");
  }

 private:
  inline static const std::string kIndent = std::string(4, ' ');
  inline static const std::string kHanging = std::string(15, ' ');

  static std::string Count(size_t number, const char* noun) {
    return std::to_string(number) + " " + noun + (number == 1 ? "" : "s");
  }

  std::string Safe(const std::string& text) const {
    return Printable(text, charset_);
  }

  std::string Heading(Verdict verdict) const {
    const Look& look = LookOf(verdict);
    std::string text = look.word;
    text.append(13 - text.size(), ' ');
    if (screen_.terminal && charset_ == Charset::kUtf8)
      text = std::string(look.mark) + " " + text;
    return screen_.colours ? look.colour + text + "\x1b[0m" : text;
  }

  // Breaks `text` into lines as wide as the terminal leaves them beside
  // `indent`, which goes before all but the first.
  std::string Lines(const std::string& text, const std::string& indent) const {
    if (!screen_.terminal) return text;
    const size_t columns = static_cast<size_t>(screen_.columns);
    std::string lines;
    for (const std::string& line :
         Wrap(text, columns > indent.size() ? columns - indent.size() : 1)) {
      if (!lines.empty()) lines.append("\n").append(indent);
      lines += line;
    }
    return lines;
  }

  std::string Below(const std::string& text) const {
    return "\n" + kIndent + Lines(text, kIndent);
  }

  const Screen screen_;
  const Charset charset_;
  const bool verbose_;
  size_t counts_[3] = {};
};

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

// Returns whether the line could be written.
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
  const Charset charset = CharsetOf(STDOUT_FILENO);
  Report report(screen, charset, options.verbose);
  Patient patient;
  patient.address = options.address;
  patient.deadline =
      g_get_monotonic_time() + kDeadlineSeconds * G_TIME_SPAN_SECOND;
  patient.announce = [&report](const std::string& text) {
    std::fprintf(stderr, "%s\n",
                 report.OfNotice("lumso_doctor: " + text).c_str());
  };
  // While a step waits nothing else is printed.
  if (screen.terminal) {
    patient.wait = [&report](const std::string& what) {
      WriteLine(report.OfWait(what));
    };
  }
  bool well = true;
  for (const Step& step : Steps()) {
    if (step.needs_address && !options.has_address) continue;
    current_step = step.name;
    const Finding finding = Examine(step, &patient);
    well &= finding.verdict != Verdict::kProblem;
    if (!WriteLine(options.json ? JsonLine(ToJson(step, finding), charset)
                                : report.OfStep(step, finding))) {
      return kStatusProblem;
    }
  }
  if (!options.json && (!WriteLine(report.Summary()) ||
                        (!patient.left.empty() &&
                         !WriteLine(report.OfWhatIsLeft(patient.left))))) {
    return kStatusProblem;
  }
  return well ? 0 : kStatusProblem;
}

}  // namespace

}  // namespace lumso_doctor

int main(int argc, char** argv) {
  lumso_doctor::OpenStandardStreams();
  // Writing to a device that has vanished must be an error, not the end.
  std::signal(SIGPIPE, SIG_IGN);
  setlocale(LC_CTYPE, "");  // Tells of a terminal that takes no UTF-8.
  lumso_doctor::Options options;
  if (!lumso_doctor::ParseOptions({argv + 1, argv + argc}, &options))
    return lumso_doctor::kStatusWrongUsage;
  if (options.help)
    return lumso_doctor::WriteLine(lumso_doctor::kUsage)
               ? 0
               : lumso_doctor::kStatusProblem;
  return lumso_doctor::Run(options);
}
