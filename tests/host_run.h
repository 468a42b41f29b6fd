// Running the lumivane host as a user would, with its exit status and the
// text of its two streams.
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <utility>
#include <vector>

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

// A copy of an example's folders, with lines of its scene files replaced
// by regular expression.
inline fs::path copyExample(const std::string& name, const fs::path& to,
                              const std::vector<std::pair<std::string, std::string>>& edits) {
    fs::remove_all(to);
    fs::create_directories(to.parent_path());
    // The scene is the example's folders; images rendered beside them stay behind.
    fs::create_directories(to);
    for (const fs::path& entry : fs::directory_iterator(fs::path(LV_SOURCE_DIR) / "examples" / name))
        if (fs::is_directory(entry)) fs::copy(entry, to / entry.filename(), fs::copy_options::recursive);
    for (const fs::path& file : fs::recursive_directory_iterator(to)) {
        if (file.extension() != ".lv") continue;
        std::string text = slurp(file);
        for (const auto& [from, into] : edits) text = std::regex_replace(text, std::regex(from), into);
        std::ofstream(file) << text;
    }
    return to;
}
