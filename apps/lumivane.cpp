// lumivane: renders a scene directory.
//
// The scene directory becomes the working directory, so that the file names
// that scene files give resolve against it and the images are written into
// it; the library is then handed "./".
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "lv.h"


namespace {

constexpr int kUsageError = 2;

const char kUsage[] =
    "usage: lumivane [options] SCENE_DIR\n"
    "\n"
    "Renders the scene described by the *.lv files in the subdirectories shader,\n"
    "render, light, camera and geometry of SCENE_DIR. The images are written into\n"
    "SCENE_DIR, and the report goes to standard output.\n"
    "\n"
    "options:\n"
    "  --preview    show the image in a window while it refines\n"
    "  -h, --help   print this help and exit\n"
    "  --version    print the version and exit\n";

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
    for (const char* folder : {"shader", "render", "light", "camera", "geometry"}) {
        struct stat info {};
        if (stat((path + "/" + folder).c_str(), &info) == 0 && S_ISDIR(info.st_mode)) return true;
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    bool preview = false;
    bool optionsEnded = false;
    std::string directory;
    bool haveDirectory = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (!optionsEnded && arg.size() > 1 && arg[0] == '-') {
            if (arg == "--") {
                optionsEnded = true;
            } else if (arg == "-h" || arg == "--help") {
                std::fputs(kUsage, stdout);
                return 0;
            } else if (arg == "--version") {
                std::printf("lumivane %s\n", LUMIVANE_VERSION);
                return 0;
            } else if (arg == "--preview") {
                preview = true;
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
    const std::string problem = unusableDirectory(directory);
    if (!problem.empty()) return fail("cannot read scene directory '" + directory + "': " + problem);
    if (!holdsSceneFolders(directory))
        return fail("'" + directory + "' holds none of the scene folders shader, render, light, camera, geometry");
    if (chdir(directory.c_str()) != 0)
        return fail("cannot enter scene directory '" + directory + "': " + std::strerror(errno));

    if (preview) lvSetPreviewWindow(true);
    lvGo("./");
    return 0;
}
