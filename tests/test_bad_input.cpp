// Scene directories with missing, empty, garbled and out-of-range input, each
// rendered by the host in a process of its own: none of them may crash it.
// What the scene format defines stays as it is (silent, or its error line);
// the rest ends in one error line where a user needs to know.
#include "host_run.h"

namespace {

class BadInput : public SceneTest {
protected:
    // A small scene that renders a lit square in 8 x 8 pixels, one frame.
    fs::path scene(const std::string& name) {
        const fs::path s = dir / name;
        writeFile(s / "geometry/quad.obj", "v -1 -1 0\nv 1 -1 0\nv 1 1 0\nv -1 1 0\nf 1 2 3 4\n");
        writeFile(s / "geometry/floor.lv", "object\n  name floor\n  obj \"geometry/quad.obj\"\nend\n");
        writeFile(s / "camera/camera.lv",
                  "camera\n  resolution 8 8\n  sample 1\n  pose\n    position 0 0 3\n    target 0 0 0\n"
                  "    up_vector 0 1 0\n    field_of_view 40\n  end\nend\n");
        writeFile(s / "render/render.lv", "render\n  final_gather\n    sample 1\n  end\nend\n");
        writeFile(s / "light/sky.lv", "sky_light\n  color 1 1 1\n  photon 0\nend\ngeometry_light\n  photon 0\nend\n");
        return s;
    }
    // The error lines of a run, each without its "error :( " and tab.
    static std::vector<std::string> errors(const HostRun& r) {
        std::vector<std::string> lines;
        std::istringstream in(r.out);
        for (std::string line; std::getline(in, line);)
            if (line.rfind("error :( \t", 0) == 0) lines.push_back(line.substr(10));
        return lines;
    }
    HostRun render(const fs::path& s) { return runHost(dir, quoted(s)); }
};

using Lines = std::vector<std::string>;

TEST_F(BadInput, MissingAndEmptyFilesAreNamed) {
    // No scene folder at all: the host refuses before it reads anything.
    fs::create_directories(dir / "bare");
    HostRun r = render(dir / "bare");
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("holds none of the scene folders shader, render, light, camera, geometry"),
              std::string::npos);

    // Empty scene files: no camera, nothing rendered, nothing written.
    fs::path s = scene("empty");
    writeFile(s / "camera/camera.lv", "");
    writeFile(s / "geometry/floor.lv", "");
    r = render(s);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(errors(r), Lines{"camera - the scene has no camera"});
    EXPECT_FALSE(fs::exists(s / "beauty.hdr"));

    // A missing mesh, a missing texture, an image that is no image, and a
    // directory or a device named as a mesh.
    s = scene("missing");
    writeFile(s / "geometry/floor.lv",
              "object\n  name floor\n  obj \"geometry/none.obj\"\n  obj \"geometry\"\n  obj \"/dev/zero\"\n"
              "  obj \"geometry/quad.obj\"\nend\n");
    writeFile(s / "image/noise.png", "\x89PNG not really");
    writeFile(s / "shader/s.lv",
              "shader\n  name \"undefined\"\n  surface_shader\n    lambertian\n      image \"gone.png\"\n    end\n"
              "    glossy\n      image \"noise.png\"\n    end\n  end\nend\n");
    r = render(s);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(errors(r), (Lines{"object - cannot open geometry/none.obj", "object - cannot open geometry",
                                "object - cannot open /dev/zero", "image - gone.png\tcannot be found",
                                "image - noise.png\tcannot be read"}));
    EXPECT_TRUE(fs::exists(s / "beauty.hdr"));
}

// Numbers outside any sense render or are refused, never crash.
TEST_F(BadInput, NumbersOutOfRange) {
    fs::path s = scene("nan");
    writeFile(s / "camera/camera.lv",
              "camera\n  resolution 4 4\n  sample -3\n  pose\n    position nan inf 3\n    target 0 0 -inf\n"
              "    field_of_view nan\n  end\nend\n");
    writeFile(s / "light/point.lv",
              "point_light\n  color inf nan 1\n  position 0 0 nan\n  photon -5\n  sample 99999999999\nend\n");
    writeFile(s / "shader/s.lv",
              "shader\n  name \"undefined\"\n  surface_shader\n    lambertian\n      color nan inf -inf\n    end\n"
              "  end\nend\n");
    writeFile(s / "render/render.lv", "render\n  clamp nan inf -1\n  ray_depth -7\n  final_gather\n    sample 0\n"
                                      "    bounce -2\n    distance nan\n  end\nend\n");
    HostRun r = render(s);
    EXPECT_TRUE(r.status == 0 && errors(r).empty()) << r.out << r.err;

    for (const std::string size : {"0 0", "-5 -7"}) {
        s = scene("empty sensor " + size);
        writeFile(s / "camera/camera.lv", "camera\n  resolution " + size + "\n  sample 1\nend\n");
        r = render(s);
        EXPECT_TRUE(r.status == 0 && errors(r).empty()) << size << r.out << r.err;
    }

    // A sensor that memory cannot hold ends the run before anything is
    // allocated or written.
    s = scene("huge");
    writeFile(s / "camera/camera.lv", "camera\n  name \"wide\"\n  resolution 2000000000 2000000000\n  sample 1\nend\n");
    r = render(s);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(errors(r),
              Lines{"camera - a sensor of 2000000000 x 2000000000 pixels is too large to be held in memory (wide)"});
    EXPECT_FALSE(fs::exists(s / "beauty.hdr"));
}

}  // namespace
