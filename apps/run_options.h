// The command line's changes to a scene for one run: they override what the
// scene's files say, and the files stay as they are.
#pragma once

#include <string>

struct RunOptions {
    std::string output;   // the first AOV's file, made absolute; empty: the scene's
    int frames = 0;       // the camera's sample; 0: the scene's
    int width = 0, height = 0;
    double scale = 0.0;   // of the resolution; 0: none
    bool hasRegion = false;
    int region[4] = {0, 0, 0, 0};   // left, top, right, bottom
    int threads = 0;                // 0: all
    bool quiet = false;
};

// Reads option argv[i] with the values that follow it, moving i past them.
// Returns false when argv[i] is no option of a run; `error` is then empty.
// Otherwise true, with `error` set when a value is missing or wrong.
bool readRunOption(int argc, char** argv, int& i, RunOptions& options, std::string& error);
// The options' help lines.
extern const char kRunOptionsHelp[];
// Applies the options to the current camera of the scene just read, and
// notes each in the report.
void applyRunOptions(const RunOptions& options);
