// Running the lumivane host as a user would, with its exit status and the
// text of its two streams.
#pragma once

#include <sys/wait.h>

#include <cstdlib>

#include "scene_fixture.h"

struct HostRun {
    int status;
    std::string out, err;
};

inline std::string quoted(const fs::path& path) {
    const std::string s = path.string();
    return "'" + s + "'";
}

inline std::string slurp(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// Runs a shell command line in `work`'s files, with its streams captured.
inline HostRun runCommand(const fs::path& work, const std::string& command) {
    const fs::path out = work / "stdout.txt", err = work / "stderr.txt";
    const int status = std::system((command + " >" + quoted(out) + " 2>" + quoted(err)).c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
}

inline HostRun runHost(const fs::path& work, const std::string& arguments) {
    return runCommand(work, quoted(LUMIVANE_EXE) + " " + arguments);
}

