// Lets a person at a terminal edit commands.

#ifndef LUMSO_BLUETOOTH_HOST_LINE_EDITOR_H_
#define LUMSO_BLUETOOTH_HOST_LINE_EDITOR_H_

#include <glib.h>
#include <histedit.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/command_reader.h"
#include "host/help.h"

namespace lumso_host {

// Standard input and output, edited by libedit, with a history of this run.
//
// libedit reads a line in one call that blocks. Whenever it wants a character
// it asks GetCharacter(), which runs the main loop until there is one: events
// are printed and D-Bus signals handled while a line is being typed. Nothing
// else runs the main loop from inside, and no command is under way then.
//
// While a line is being edited the terminal makes no signals: Ctrl-C and Ctrl-Z
// arrive as characters. Between the lines it does, and echoes nothing: what is
// typed then shows up behind the next prompt. For the platform thread.
class LineEditor : public CommandReader {
 public:
  // Gets the line up to the cursor.
  using Completer = std::function<Completion(std::string_view text)>;

  // Borrows `loop`, which gives up the line when it is told to quit.
  LineEditor(GMainLoop* loop, Completer complete, LineHandler on_line,
             EndHandler on_end);
  // Gives the terminal back as it was.
  ~LineEditor() override;

  void Resume() override;
  void HidePrompt() override;
  void ShowPrompt() override;

 private:
  struct EditLineEnd {
    void operator()(EditLine* editor) const { el_end(editor); }
  };
  struct HistoryEnd {
    void operator()(History* history) const { history_end(history); }
  };

  static LineEditor* Of(EditLine* editor);
  // libedit's functions: the next character, and those that keys are bound to.
  static int GetCharacter(EditLine* editor, wchar_t* character);
  static unsigned char OnTab(EditLine* editor, int);
  static unsigned char OnInterrupt(EditLine* editor, int);
  static unsigned char OnSuspend(EditLine* editor, int);

  void BindKeys();
  void ReadLine();
  // Takes the lines, and the end, that were typed while the terminal gathered
  // lines: when it does no more, an end of file reads as a NUL, as Ctrl-Space.
  void TakeGatheredLines();
  // Gives the next byte, and runs the main loop until there is one. False at
  // the end.
  bool ReadByte(char* byte);
  // Returns how many rows the cursor is below the row of the prompt.
  int CursorRow() const;
  void OnResize();

  GMainLoop* const loop_;
  const Completer complete_;
  const LineHandler on_line_;
  const EndHandler on_end_;
  std::unique_ptr<History, HistoryEnd> history_;
  std::unique_ptr<EditLine, EditLineEnd> editor_;
  bool editing_ = false;  // A line is being edited.
  std::string typed_;     // That libedit has not got yet.
  guint source_ = 0;      // Of a Resume() under way; 0 for none.
  guint resize_source_ = 0;
};

}  // namespace lumso_host

#endif  // LUMSO_BLUETOOTH_HOST_LINE_EDITOR_H_
