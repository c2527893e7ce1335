#include "doctor/wrap.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using lumso_doctor::ColumnsOf;
using lumso_doctor::Wrap;
using Lines = std::vector<std::string>;

TEST(Wrap, BreaksAtBlanksAndFillsTheLines) {
  EXPECT_EQ(Wrap("one two  three\nfour", 7),
            (Lines{"one two", "three", "four"}));
  EXPECT_EQ(Wrap("one two three", 6), (Lines{"one", "two", "three"}));
  EXPECT_EQ(Wrap("one two", 80), Lines{"one two"});
}

TEST(Wrap, GivesNoLineForNoWords) {
  EXPECT_EQ(Wrap("", 10), Lines{});
  EXPECT_EQ(Wrap(" \n ", 10), Lines{});
}

TEST(Wrap, BreaksALongWordAfterItsCommas) {
  EXPECT_EQ(Wrap("call [1,22,333,4444]", 9),
            (Lines{"call [1,", "22,333,", "4444]"}));
}

TEST(Wrap, LeavesAWordThatFitsWhole) {
  EXPECT_EQ(Wrap("call [1,22]", 8), (Lines{"call", "[1,22]"}));
}

TEST(Wrap, CutsAWordThatCannotBreakElsewhere) {
  EXPECT_EQ(Wrap("a bluetooth b", 4), (Lines{"a", "blue", "toot", "h b"}));
  EXPECT_EQ(Wrap("\u65e5\u672c\u8a9e", 5), (Lines{"\u65e5\u672c", "\u8a9e"}));
  EXPECT_EQ(Wrap("\u65e5", 1), Lines{"\u65e5"});
}

TEST(Wrap, CountsColumnsNotBytes) {
  EXPECT_EQ(ColumnsOf("–é"), 2U);
  EXPECT_EQ(ColumnsOf("e\u0301"), 1U);
  EXPECT_EQ(ColumnsOf("\u65e5\u672c"), 4U);
  EXPECT_EQ(Wrap("éé éé", 5), Lines{"éé éé"});
  EXPECT_EQ(Wrap("\u65e5 \u672c", 4), (Lines{"\u65e5", "\u672c"}));
}

}  // namespace
