#include "doctor/safe_text.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using lumso_doctor::Charset;
using lumso_doctor::Json;
using lumso_doctor::JsonLine;
using lumso_doctor::Printable;
using lumso_doctor::Quoted;

TEST(SafeText, LeavesWordsAsTheyAre) {
  const std::string text = "Grüße, 日本語, 😀, e\u0301, \\ and \"";
  EXPECT_EQ(Printable(text), text);
}

TEST(SafeText, EscapesWhatTurnsHidesOrCommands) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {std::string(1, '\0'), R"(\u0000)"},
      {"\x1b", R"(\u001b)"},
      {"\b\t\n\f\r", R"(\b\t\n\f\r)"},
      {"\x7f", R"(\u007f)"},
      {"\u0080\u009b\u009d\u009f", R"(\u0080\u009b\u009d\u009f)"},
      {"\u00ad", R"(\u00ad)"},                          // Soft hyphen.
      {"\u200b\u200e\u202e", R"(\u200b\u200e\u202e)"},  // Zero width, bidi.
      {"\u2066\u2069\ufeff", R"(\u2066\u2069\ufeff)"},
      {"\u2028\u2029", R"(\u2028\u2029)"},
      {"\U000e0041", R"(\udb40\udc41)"},  // A tag.
      {"\u0378", R"(\u0378)"},            // Unassigned.
      {"\xed\xa0\x80", R"(\ud800)"},      // A surrogate alone.
      {"\xed\xbf\xbf!", R"(\udfff!)"},
  };
  for (const auto& [text, escaped] : cases) {
    EXPECT_EQ(Printable(text), escaped);
    EXPECT_EQ(Quoted(text), '"' + escaped + '"');
    EXPECT_EQ(JsonLine(text), '"' + escaped + '"');
  }
}

TEST(SafeText, LeavesTheNeighboursOfWhatItEscapes) {
  for (const char* text :
       {" ", "~", "\u00a0", "\u00ac", "\u2027", "\u202f", "\ud7fb", "\ue000"}) {
    EXPECT_EQ(Printable(text), text);
  }
}

TEST(SafeText, ReplacesWhatIsNotUtf8) {
  EXPECT_EQ(Printable("a\xff\xc3"), "a\ufffd\ufffd");
  EXPECT_EQ(Printable("\xe2\x80"), "\ufffd\ufffd");
  EXPECT_EQ(Printable("\xed\xa0"), "\ufffd\ufffd");
  EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\ufffd\ufffd\ufffd\ufffd");
  EXPECT_EQ(Printable("\ufffd"), "\ufffd");
}

TEST(SafeText, EscapesAllBeyondAscii) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"a~\\", R"(a~\)"},
      {"\u0080\u00db2J", R"(\u0080\u00db2J)"},
      {"日", R"(\u65e5)"},
      {"😀", R"(\ud83d\ude00)"},
      {"\xff\ufffd", R"(\ufffd\ufffd)"},
  };
  for (const auto& [text, escaped] : cases)
    EXPECT_EQ(Printable(text, Charset::kAscii), escaped);
  EXPECT_EQ(Quoted("\"é", Charset::kAscii), R"("\"\u00e9")");
}

TEST(SafeText, EndsAQuotationWhereItEnds) {
  EXPECT_EQ(Quoted(R"("; paired; \)"), R"("\"; paired; \\")");
}

TEST(SafeJson, IsTheSameJson) {
  const Json json = {
      {"name", "\u009b2J\u202e\"\\\n"},
      {"\u2028", {1, -2, 0.5, true, nullptr, Json::array(), Json::object()}}};
  const std::string line = JsonLine(json);
  EXPECT_EQ(line, R"({"name":"\u009b2J\u202e\"\\\n","\u2028":)"
                  R"([1,-2,0.5,true,null,[],{}]})");
  EXPECT_EQ(Json::parse(line), json);
}

TEST(SafeJson, IsTheSameJsonInAscii) {
  const Json json = {{"größe", {"Û2J", {{"😀", "日"}}}}};
  const std::string line = JsonLine(json, Charset::kAscii);
  EXPECT_EQ(line, R"({"gr\u00f6\u00dfe":["\u00db2J",)"
                  R"({"\ud83d\ude00":"\u65e5"}]})");
  EXPECT_EQ(Json::parse(line), json);
}

}  // namespace
