// lumivane: renders a scene directory.
//
// The scene directory becomes the working directory, so that the file names
// that scene files give resolve against it and the images are written into
// it; the library is then handed "./".
//
// Built with Open MPI and started by mpirun, the processes of the job render
// the one scene together (apps/process_group.h); rank 0 writes the images
// and prints the report.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <omp.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/registry.h"
#include "lv.h"
#include "scene/directory_walk.h"
#include "progress_line.h"
#include "run_options.h"
#if LV_MPI
#include "process_group.h"
#endif


namespace {

constexpr int kUsageError = 2;

const char kUsage[] =
    "usage: lumivane [options] SCENE_DIR\n"
    "\n"
    "Renders the scene described by the *.lv files in the subdirectories shader,\n"
    "render, light, camera and geometry of SCENE_DIR. The images are written into\n"
    "SCENE_DIR, and the report goes to standard output; while it renders, a line\n"
    "on a terminal's standard error tells how far it is. The options below change\n"
    "the scene for this run only, and leave its files as they are.\n"
    "\n"
    "options:\n";
const char kUsageEnd[] =
    "  --preview                    show the image in a window while it refines\n"
    "  -h, --help                   print this help and exit\n"
    "  --version                    print the version and exit\n";

RunOptions runOptions;

void sceneRead() {
    applyRunOptions(runOptions);
    startProgress();
}

int fail(const std::string& message) {
    std::fprintf(stderr, "lumivane: %s\n", message.c_str());
    return kUsageError;
}

// Empty when the directory can be entered and listed, else why not.
std::string unusableDirectory(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) return std::strerror(errno);
    if (!S_ISDIR(info.st_mode)) return "not a directory";
    DIR* dir = opendir(path.c_str());
    if (!dir) return std::strerror(errno);
    closedir(dir);
    return "";
}

// True when at least one of the five scene folders is a directory there.
bool holdsSceneFolders(const std::string& path) {
    for (const char* folder : kSceneFolders) {
        struct stat info {};
        if (stat((path + "/" + folder).c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return true;
    }
    return false;
}

// Empty when the scene directory is usable and has been entered, else why not.
std::string sceneProblem(const std::string& directory) {
    const std::string problem = unusableDirectory(directory);
    if (!problem.empty()) return "cannot read scene directory '" + directory + "': " + problem;
    if (!holdsSceneFolders(directory))
        return "'" + directory + "' holds none of the scene folders shader, render, light, camera, geometry";
    if (chdir(directory.c_str()) != 0)
        return "cannot enter scene directory '" + directory + "': " + std::strerror(errno);
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    bool preview = false;
    bool optionsEnded = false;
    std::string error;
    std::string directory;
    bool haveDirectory = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
            if (arg == "--") {
                optionsEnded = true;
            } else if (arg == "-h" || arg == "--help") {
                std::fputs(kUsage, stdout);
                std::fputs(kRunOptionsHelp, stdout);
                std::fputs(kUsageEnd, stdout);
                return 0;
            } else if (arg == "--version") {
                std::printf("lumivane %s\n", LUMIVANE_VERSION);
                return 0;
            } else if (arg == "--preview") {
                preview = true;
            } else if (readRunOption(argc, argv, i, runOptions, error)) {
                if (!error.empty()) return fail(error);
            } else {
                return fail("unknown option '" + arg + "' (try 'lumivane --help')");
            }
            continue;
        }
        if (haveDirectory) return fail("more than one scene directory given (try 'lumivane --help')");
        directory = arg;
        haveDirectory = true;
    }

    if (!haveDirectory) return fail("no scene directory given (try 'lumivane --help')");
    if (runOptions.threads > 0) omp_set_num_threads(runOptions.threads);
    registry.host.sceneRead = sceneRead;
    registry.host.quiet = runOptions.quiet;
    if (!runOptions.quiet) registry.host.frameDone = showProgress;
#if LV_MPI
    joinGroup(argc, argv);
    if (inGroup()) {
        // Every process checks its own copy of the scene; one that cannot
        // render stops them all before anything is read.
        std::string problem = sceneProblem(directory);
        if (problem.empty() && preview) problem = "the preview window needs a single process";
        if (!agreeToRender(problem)) {
            leaveGroup();
            return 1;
        }
        lvGo("./");
        leaveGroup();
        return 0;
    }
#endif
    const std::string problem = sceneProblem(directory);
    if (!problem.empty()) return fail(problem);

    if (preview) lvSetPreviewWindow(true);
    lvGo("./");
    return 0;
}
