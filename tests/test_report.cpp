// The console report: exact text of every line form, blanks included, and
// the stream state that a line leaves: fixed notation stays, the field width
// does not.
#include <gtest/gtest.h>

#include <string>

#include "capture.h"
#include "core/report.h"

TEST(Report, EveryLineForm) {
    ReportCapture capture;
    reportRule();
    reportMessage("unidirectional path tracing");
    reportCount("camera sensor width ", 960, "pixels");
    reportReal("scene parsing", 1.23456, "seconds");
    reportCount("objects", 3, "");   // an empty unit ends after the field and its blank
    reportReal("ratio", 0.5, "");
    reportCount("big", 12345678901234567LL, "n/a");   // wide values push the unit right
    reportReal("huge", 123456789012.5, "m");
    reportCount("negative", -42, "pixels");
    reportVector("avgerage of beauty.hdr", 0.5, -1.0, 2.25, "n/a");
    reportPair("performance", 1.5, "M rays/second", "    ", 20.0, "frames/second");
    reportWarning("object - there are degenerated quadrangles");
    reportError("bbvh - depth out of range");
    reportReal("a", 2.0, "m");
    std::cout << 0.5 << '|' << 7 << '\n';
    reportCount("b", 5, "n/a");
    reportReal("c", 3.0, "m");
    EXPECT_EQ(capture.text(),
              std::string(80, '_') + "\n\n" +
                  "unidirectional path tracing\n"
                  "camera sensor width               960 [ pixels ]\n"
                  "scene parsing           1.2346 [ seconds ]\n"
                  "objects                3 \n"
                  "ratio           0.5000 \n"
                  "big 12345678901234567 [ n/a ]\n"
                  "huge 123456789012.5000 [ m ]\n"
                  "negative              -42 [ pixels ]\n"
                  "avgerage of beauty.hdr           0.5000          -1.0000           2.2500 [ n/a ]\n"
                  "performance           1.5000 [ M rays/second ]              20.0000 [ frames/second ]\n"
                  "warning :( \tobject - there are degenerated quadrangles\n"
                  "error :( \tbbvh - depth out of range\n"
                  "a           2.0000 [ m ]\n"
                  "0.5000|7\n"
                  "b                5 [ n/a ]\n"
                  "c           3.0000 [ m ]\n");
}
