// The console report: exact text of every line form, blanks included.
#include <gtest/gtest.h>

#include <string>

#include "capture.h"
#include "core/report.h"

namespace {

const std::string kRule = std::string(80, '_') + "\n\n";

}  // namespace

TEST(Report, RuleAndMessageLines) {
    ReportCapture capture;
    reportRule();
    reportMessage("unidirectional path tracing");
    reportRule();
    EXPECT_EQ(capture.text(), kRule + "unidirectional path tracing\n" + kRule);
}

TEST(Report, CountAndRealLines) {
    ReportCapture capture;
    reportCount("camera sensor width ", 960, "pixels");
    reportReal("scene parsing", 1.23456, "seconds");
    reportCount("renderer sample", 64, "n/a");
    reportReal("photon radius ", 0.25, "m");
    EXPECT_EQ(capture.text(),
              "camera sensor width               960 [ pixels ]\n"
              "scene parsing           1.2346 [ seconds ]\n"
              "renderer sample               64 [ n/a ]\n"
              "photon radius            0.2500 [ m ]\n");
}

TEST(Report, EmptyUnitEndsAfterTheFieldAndItsBlank) {
    ReportCapture capture;
    reportCount("objects", 3, "");
    reportReal("ratio", 0.5, "");
    EXPECT_EQ(capture.text(),
              "objects                3 \n"
              "ratio           0.5000 \n");
}

TEST(Report, WideValuesPushTheUnitRight) {
    ReportCapture capture;
    reportCount("big", 12345678901234567LL, "n/a");
    reportReal("huge", 123456789012.5, "m");
    reportCount("negative", -42, "pixels");
    EXPECT_EQ(capture.text(),
              "big 12345678901234567 [ n/a ]\n"
              "huge 123456789012.5000 [ m ]\n"
              "negative              -42 [ pixels ]\n");
}

TEST(Report, FixedNotationStaysSetButWidthDoesNot) {
    ReportCapture capture;
    reportReal("a", 2.0, "m");
    std::cout << 0.5 << '|' << 7 << '\n';
    reportCount("b", 5, "n/a");
    reportReal("c", 3.0, "m");
    EXPECT_EQ(capture.text(),
              "a           2.0000 [ m ]\n"
              "0.5000|7\n"
              "b                5 [ n/a ]\n"
              "c           3.0000 [ m ]\n");
}

TEST(Report, VectorLine) {
    ReportCapture capture;
    reportVector("avgerage of beauty.hdr", 0.5, -1.0, 2.25, "n/a");
    EXPECT_EQ(capture.text(),
              "avgerage of beauty.hdr           0.5000          -1.0000           2.2500 [ n/a ]\n");
}

TEST(Report, PairLine) {
    ReportCapture capture;
    reportPair("performance", 1.5, "M rays/second", "    ", 20.0, "frames/second");
    EXPECT_EQ(capture.text(),
              "performance           1.5000 [ M rays/second ]              20.0000 [ frames/second ]\n");
}

TEST(Report, WarningAndErrorPrefixes) {
    ReportCapture capture;
    reportWarning("object - there are degenerated quadrangles");
    reportError("bbvh - depth out of range");
    EXPECT_EQ(capture.text(),
              "warning :( \tobject - there are degenerated quadrangles\n"
              "error :( \tbbvh - depth out of range\n");
}
