// Text in columns, as terminals show it.
#include "host/ctl/table.h"

#include <gtest/gtest.h>

#include <clocale>
#include <sstream>

namespace {

using ctl::CutTo;
using ctl::Style;
using ctl::Table;
using ctl::WidthOf;

class CtlTable : public testing::Test {
protected:
    CtlTable() { setlocale(LC_CTYPE, "C.UTF-8"); }

    static std::string Print(const Table &table, const Style &style = {}, size_t indent = 0) {
        std::ostringstream out;
        table.Print(out, style, indent);
        return out.str();
    }
};

TEST_F(CtlTable, WidthsAreThoseOfTheTerminal) {
    EXPECT_EQ(WidthOf("abc"), 3u);
    EXPECT_EQ(WidthOf("Größe"), 5u);
    EXPECT_EQ(WidthOf("日本"), 4u) << "two columns each";
    EXPECT_EQ(WidthOf("e\u0301"), 1u) << "an accent of its own takes none";
    EXPECT_EQ(WidthOf("\xff\xfe"), 2u) << "no UTF-8: a column for each byte";
}

TEST_F(CtlTable, CutsWholeCharactersOnly) {
    EXPECT_EQ(CutTo("abcdef", 6), "abcdef");
    EXPECT_EQ(CutTo("abcdef", 4), "abc…");
    EXPECT_EQ(CutTo("日本語", 4), "日…") << "half of one is no character";
    EXPECT_EQ(CutTo("日本語", 5), "日本…");
    EXPECT_EQ(CutTo("abc", 1), "…");
    EXPECT_EQ(CutTo("abc", 0), "");
}

TEST_F(CtlTable, NumbersStandToTheRightAndTheirHeadsAsWell) {
    Table table({"name", "pid", "use"});
    table.Add({"日本", "7", "12.5 %"});
    table.Add({"worker", "4711", "3.0 %"});
    EXPECT_EQ(Print(table), "name     pid     use\n"
                            "日本       7  12.5 %\n"
                            "worker  4711   3.0 %\n");
    EXPECT_EQ(table.Width(), 20u);
}

TEST_F(CtlTable, NumbersThatAreMissingDontMoveTheOthers) {
    Table table({"pid", "time", "value"});
    table.Add({"-", "1.2 s", "90.0 %"});
    table.Add({"4711", "6m 02s", "not told"});
    table.Add({"7", "2h 05m", "on"});
    EXPECT_EQ(Print(table), " pid    time  value\n"
                            "   -   1.2 s  90.0 %\n"
                            "4711  6m 02s  not told\n"
                            "   7  2h 05m  on\n");
}

TEST_F(CtlTable, LinesOfACellStandBelowEachOther) {
    Table table({"n", "stack", "x"});
    table.Add({"1", "main\nwork\033[1m", "a"});
    EXPECT_EQ(Print(table), "n  stack     x\n"
                            "1  main      a\n"
                            "   work?[1m\n")
        << "and no control gets out of it";
}

TEST_F(CtlTable, IsCutOnATerminalOnlyThatHasNoPager) {
    Table table({"name"});
    table.Add({"a long name"});
    EXPECT_EQ(Print(table, {.width = 6, .whole = false}), "name\na lon…\n");
    EXPECT_EQ(Print(table, {.width = 6, .whole = true}), "name\na long name\n");
    EXPECT_EQ(Print(table, {.width = 6, .whole = false, .colours = true}), "\033[1mname\033[0m\na lon…\n");
}

} // namespace
