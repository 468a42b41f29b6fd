// What the scene tests share: a scene started quietly before each test and
// released and shut down after it, under a registry of its own, inside a
// scratch directory (the release writes camera images by their relative
// names); and helpers to write files, read scene text and capture reports.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "capture.h"
#include "core/registry.h"
#include "lv.h"
#include "registry_guard.h"
#include "scene/block_reader.h"

namespace fs = std::filesystem;

inline const std::string kRule(80, '_');

// Runs `work` with the report silenced.
template <class Work>
void quietly(Work&& work) {
    ReportCapture quiet;
    work();
}

// The report lines that `work` prints.
template <class Work>
std::vector<std::string> reportedLines(Work&& work) {
    ReportCapture capture;
    work();
    capture.restore();
    return capture.lines();
}

// Writes `text` to `path`, making the directories on the way.
inline void writeFile(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path) << text;
}

// Reads `text` as a scene file; returns what the report printed.
inline std::string readScene(const std::string& text) {
    std::istringstream file(text);
    ReportCapture capture;
    readSceneStream(file);
    return capture.text();
}

// A float image already in memory, as if read from a file, with the colour
// f(u, v) at each pixel centre.
inline ImageRecord memoryImage(int width, int height, const std::function<Color(float u, float v)>& f) {
    ImageRecord record;
    SizeImage(record, width, height, 3, 32, false);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            StorePixel(record, y * width + x, f((float(x) + 0.5f) / float(width), (float(y) + 0.5f) / float(height)));
    record.name = "memory";
    record.loaded = 1;
    return record;
}

class SceneTest : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("lv_test_" + std::to_string(::getpid()));
        fs::create_directories(dir);
        previous_ = fs::current_path();
        fs::current_path(dir);
        quietly(lvStartup);
    }
    void TearDown() override {
        quietly([] {
            lvFinalize();
            lvShutdown();
        });
        fs::current_path(previous_);
        fs::remove_all(dir);
    }
    // The absolute name of `name` in the scratch directory.
    std::string path(const std::string& name) const { return (dir / name).string(); }

    fs::path dir;

private:
    RegistryGuard guard_;
    fs::path previous_;
};
