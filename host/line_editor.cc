#include "host/line_editor.h"

#include <glib-unix.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cwchar>
#include <utility>

namespace lumso_host {

namespace {

constexpr int kHistorySize = 1000;
constexpr char kEndOfFile = 4;  // Ctrl-D.
constexpr int kTabWidth = 8;

char* Prompt(EditLine*) {
  static std::string prompt = kPrompt;
  return prompt.data();
}

// Returns how many columns libedit gives to a character that stands in
// `column`.
int WidthOf(wchar_t character, int column) {
  if (character == L'\t') return kTabWidth - column % kTabWidth;
  if (character < L' ' || character == 0x7f) return 2;  // As in ^A.
  return std::max(wcwidth(character), 0);
}

}  // namespace

LineEditor::LineEditor(GMainLoop* loop, Completer complete, LineHandler on_line,
                       EndHandler on_end)
    : loop_(loop),
      complete_(std::move(complete)),
      on_line_(std::move(on_line)),
      on_end_(std::move(on_end)) {
  // libedit takes its text in the locale's encoding; the commands are UTF-8.
  std::setlocale(LC_CTYPE, "C.UTF-8");
  history_.reset(history_init());
  HistEvent event;
  history(history_.get(), &event, H_SETSIZE, kHistorySize);
  history(history_.get(), &event, H_SETUNIQUE, 1);

  editor_.reset(el_init("lumso_host", stdin, stdout, stderr));
  EditLine* editor = editor_.get();
  el_set(editor, EL_CLIENTDATA, this);
  el_set(editor, EL_PROMPT, Prompt);
  el_set(editor, EL_EDITOR, "emacs");
  el_set(editor, EL_HIST, history, history_.get());
  el_set(editor, EL_GETCFN, GetCharacter);
  el_set(editor, EL_SETTY, "-d", "-isig", nullptr);
  el_set(editor, EL_SETTY, "-x", "-echo", nullptr);
  BindKeys();
  resize_source_ = g_unix_signal_add(
      SIGWINCH,
      [](gpointer self) -> gboolean {
        static_cast<LineEditor*>(self)->OnResize();
        return G_SOURCE_CONTINUE;
      },
      this);
}

LineEditor::~LineEditor() {
  g_source_remove(resize_source_);
  if (source_ != 0) g_source_remove(source_);
}

void LineEditor::BindKeys() {
  struct Key {
    const wchar_t* key;
    const wchar_t* function;
    unsigned char (*run)(EditLine* editor, int character);
  };
  constexpr Key kKeys[] = {{L"^I", L"lumso-complete", OnTab},
                           {L"^C", L"lumso-interrupt", OnInterrupt},
                           {L"^Z", L"lumso-suspend", OnSuspend}};
  for (const Key& key : kKeys) {
    el_wset(editor_.get(), EL_ADDFN, key.function, key.function, key.run);
    el_wset(editor_.get(), EL_BIND, key.key, key.function, nullptr);
  }
  el_set(editor_.get(), EL_BIND, "^R", "em-inc-search-prev", nullptr);
}

LineEditor* LineEditor::Of(EditLine* editor) {
  void* self = nullptr;
  el_get(editor, EL_CLIENTDATA, &self);
  return static_cast<LineEditor*>(self);
}

void LineEditor::Resume() {
  if (source_ != 0) return;
  source_ = g_idle_add(
      [](gpointer self) -> gboolean {
        static_cast<LineEditor*>(self)->ReadLine();
        return G_SOURCE_REMOVE;
      },
      this);
}

void LineEditor::ReadLine() {
  source_ = 0;
  int count = 0;
  editing_ = true;
  TakeGatheredLines();
  // Before the prompt: whoever sees it may press Ctrl-C or Ctrl-Z.
  el_set(editor_.get(), EL_PREP_TERM, 1);
  const char* text = el_gets(editor_.get(), &count);
  editing_ = false;
  if (text == nullptr || count <= 0) {
    std::fputc('\n', stdout);
    return on_end_();
  }
  std::string line(text, static_cast<size_t>(count));
  if (line.back() == '\n') line.pop_back();
  if (line.find_first_not_of(" \t") != std::string::npos) {
    HistEvent event;
    history(history_.get(), &event, H_ENTER, line.c_str());
  }
  on_line_(line);
}

void LineEditor::TakeGatheredLines() {
  char line[_POSIX_MAX_CANON + 1];
  pollfd input = {STDIN_FILENO, POLLIN, 0};
  while (poll(&input, 1, 0) > 0) {
    const ssize_t count = read(STDIN_FILENO, line, sizeof(line));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      typed_ += kEndOfFile;
      return;
    }
    typed_.append(line, static_cast<size_t>(count));
  }
}

bool LineEditor::ReadByte(char* byte) {
  if (!typed_.empty()) {
    *byte = typed_.front();
    typed_.erase(0, 1);
    return true;
  }
  bool readable = false;
  const guint source = g_unix_fd_add_full(
      G_PRIORITY_DEFAULT_IDLE, STDIN_FILENO,
      static_cast<GIOCondition>(G_IO_IN | G_IO_HUP | G_IO_ERR | G_IO_NVAL),
      [](gint, GIOCondition, gpointer flag) -> gboolean {
        *static_cast<bool*>(flag) = true;
        return G_SOURCE_REMOVE;
      },
      &readable, nullptr);
  while (!readable && g_main_loop_is_running(loop_)) {
    g_main_context_iteration(nullptr, TRUE);
  }
  if (!readable) {
    g_source_remove(source);
    return false;
  }
  ssize_t count = 0;
  do {
    count = read(STDIN_FILENO, byte, 1);
  } while (count < 0 && errno == EINTR);
  return count == 1;
}

int LineEditor::GetCharacter(EditLine* editor, wchar_t* character) {
  constexpr auto kCutOff = static_cast<gunichar>(-2);
  constexpr auto kInvalid = static_cast<gunichar>(-1);
  constexpr wchar_t kReplacement = 0xfffd;
  LineEditor* self = Of(editor);
  std::string bytes;
  gunichar decoded = kCutOff;
  do {
    bytes.push_back('\0');
    if (!self->ReadByte(&bytes.back())) return 0;
    // GLib takes a NUL for the end of the text.
    decoded = bytes.back() == '\0'
                  ? kInvalid
                  : g_utf8_get_char_validated(
                        bytes.data(), static_cast<gssize>(bytes.size()));
  } while (decoded == kCutOff);
  if (bytes == std::string(1, '\0')) {
    *character = L'\0';
  } else if (decoded == kInvalid) {
    *character = kReplacement;
    // What does not go on with the character is a key of its own.
    if (bytes.size() > 1) self->typed_.insert(0, 1, bytes.back());
  } else {
    *character = static_cast<wchar_t>(decoded);
  }
  return 1;
}

unsigned char LineEditor::OnTab(EditLine* editor, int) {
  LineEditor* self = Of(editor);
  const LineInfo* line = el_line(editor);
  const Completion completion = self->complete_(std::string_view(
      line->buffer, static_cast<size_t>(line->cursor - line->buffer)));
  if (!completion.insertion.empty()) {
    return el_insertstr(editor, completion.insertion.c_str()) == 0 ? CC_REFRESH
                                                                   : CC_ERROR;
  }
  if (completion.choices.empty()) return CC_ERROR;
  self->HidePrompt();
  for (const std::string& choice : completion.choices) {
    std::fprintf(stdout, "%s\n", choice.c_str());
  }
  self->ShowPrompt();
  return CC_NORM;
}

unsigned char LineEditor::OnInterrupt(EditLine* editor, int) {
  const LineInfoW* line = el_wline(editor);
  const auto length = static_cast<int>(line->lastchar - line->buffer);
  if (length == 0) return CC_EOF;
  el_cursor(editor, static_cast<int>(line->lastchar - line->cursor));
  el_deletestr(editor, length);
  return CC_REFRESH;
}

unsigned char LineEditor::OnSuspend(EditLine* editor, int) {
  el_set(editor, EL_PREP_TERM, 0);
  // To the whole group, as the terminal would have sent it.
  kill(0, SIGTSTP);
  el_set(editor, EL_PREP_TERM, 1);
  return CC_REDISPLAY;
}

int LineEditor::CursorRow() const {
  const LineInfoW* line = el_wline(editor_.get());
  int columns = 0;
  el_get(editor_.get(), EL_GETTC, "co", &columns);
  if (columns <= 0) return 0;
  int row = 0;
  int column = static_cast<int>(sizeof(kPrompt)) - 1;
  for (const wchar_t* c = line->buffer; c != line->cursor; ++c) {
    // A search puts its own line below.
    if (*c == L'\n') {
      ++row;
      column = 0;
      continue;
    }
    const int width = WidthOf(*c, column);
    // A wide character does not stand across the edge.
    if (column + width > columns) {
      ++row;
      column = 0;
    }
    column += width;
    if (column >= columns) {
      ++row;
      column -= columns;
    }
  }
  return row;
}

void LineEditor::HidePrompt() {
  if (!editing_) return;
  const int row = CursorRow();
  if (row > 0) std::fprintf(stdout, "\x1b[%dA", row);
  std::fputs("\r\x1b[J", stdout);
}

void LineEditor::ShowPrompt() {
  if (editing_) el_set(editor_.get(), EL_REFRESH);
}

void LineEditor::OnResize() {
  if (!editing_) return;
  el_resize(editor_.get());
  HidePrompt();
  ShowPrompt();
}

}  // namespace lumso_host
