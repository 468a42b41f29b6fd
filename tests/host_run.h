// Running the lumivane host, or any program, as a user would: to its end,
// with its exit status and the text of its two streams, or in the
// background, to be waited for with a deadline.
#pragma once

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <thread>
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

// Starts `argv` in the background with DISPLAY set to `display`, standard
// output into `out` and standard error dropped; returns its process id.
inline pid_t spawnHost(const std::vector<std::string>& argv, const std::string& display, const fs::path& out) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::setenv("DISPLAY", display.c_str(), 1);
    // In a sanitizer build the window system's libraries keep memory to the
    // end, which is theirs to keep; the host's own leaks are checked by the
    // tests that run it without a window.
    ::setenv("ASAN_OPTIONS", "detect_leaks=0", 1);
    if (!freopen(out.c_str(), "w", stdout) || !freopen("/dev/null", "w", stderr)) ::_exit(127);
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execvp(args[0], args.data());
    ::_exit(127);
}

// Waits for `done` to hold, up to `seconds`.
template <class Done>
bool waitFor(Done done, double seconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return done();
}

// The exit status of `pid` once it has ended within `seconds`, else -1 (and
// the process is killed).
inline int exitStatus(pid_t pid, double seconds) {
    int status = 0;
    if (waitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, seconds))
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    return -1;
}

// A copy of an example's folders, with lines of its scene files replaced
// by regular expression.
inline fs::path copyExample(const std::string& name, const fs::path& to,
                              const std::vector<std::pair<std::string, std::string>>& edits) {
    fs::remove_all(to);
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
