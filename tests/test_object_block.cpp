// The object block: names, instances, file keywords that each make a part,
// and vertex data held in float images.
#include <gtest/gtest.h>

#include <bit>

#include "output/write_image.h"
#include "geometry/object.h"
#include "shading/shader.h"
#include "scene_fixture.h"

namespace {

class ObjectBlockTest : public SceneTest {
protected:
    // A float image of one row whose pixels hold the given triples.
    void writeFloatImage(const char* name, const std::vector<Vector>& pixels) {
        ImageRecord image;
        image.name = path(name);
        SizeImage(image, int(pixels.size()), 1, 3, 32, false);
        for (size_t i = 0; i < pixels.size(); ++i) StorePixel(image, int(i), pixels[i]);
        writeImage(image);
    }
};

TEST_F(ObjectBlockTest, NamesInstancesAndOnePartPerFileKeyword) {
    writeFile(dir / "quad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n");
    writeFile(dir / "tri.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nusemtl wood\nf 1 2 3\n");
    readScene("object\nname \"tree\"\nobj \"" + path("quad.obj") + "\"\nshader \"bark\"\nobj \"" + path("tri.obj") +
         "\"\nend\n"
         "object\nname forest\ninstance\nmatrix 1 0 0 2 0 1 0 3 0 0 1 4 0 0 0 1\nobject \"tree\"\nend\n"
         "instance\nobject tree\nend\nend\n"
         "object\nname empty\nend\nobject\nobj \"" + path("absent.obj") + "\"\nend\n");
    ASSERT_EQ(registry.objects.size(), 4u);
    EXPECT_TRUE(registry.objects[2].parts.empty());
    EXPECT_EQ(registry.objects[3].parts.size(), 1u);   // the part of a missing file stays, empty
    const Object& tree = registry.objects[0];
    EXPECT_EQ(tree.name, "\"tree\"");   // a bare word keeps its quotes
    ASSERT_EQ(tree.parts.size(), 2u);
    EXPECT_EQ(tree.parts[0].tetragons.size(), 1u);
    EXPECT_EQ(tree.parts[1].triangles.size(), 1u);
    EXPECT_EQ(tree.defaultShader, uint32_t(FindShader("bark")));
    EXPECT_EQ(tree.parts[1].triangles[0].shader, uint32_t(FindShader("wood")));

    const Object& forest = registry.objects[1];
    ASSERT_EQ(forest.instances.size(), 2u);
    EXPECT_EQ((std::vector<std::string>{forest.instances[0].targetName, forest.instances[1].targetName}),
              (std::vector<std::string>{"\"tree\"", "tree"}));
    EXPECT_EQ((std::vector<float>{forest.instances[0].toWorld[3], forest.instances[0].toWorld[11]}),
              (std::vector<float>{2, 4}));
    EXPECT_EQ(forest.instances[0].target, 0xFFFFFFFFu);
}

TEST_F(ObjectBlockTest, ImageHeldVertexDataNeedsTheTriangleImageLastAndParticlesTheirOwn) {
    writeFloatImage("positions.pfm", {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});
    writeFloatImage("uvs.pfm", {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});
    auto bits = [](uint32_t i) { return std::bit_cast<float>(i); };
    writeFloatImage("triangles.pfm", {{bits(0), bits(1), bits(2)}, {bits(2), bits(1), bits(0)}});

    readScene("object\nposition_texture \"" + path("positions.pfm") + "\"\nend\n");
    EXPECT_TRUE(registry.objects.back().parts.empty());

    const std::string report = readScene("object\nposition_texture \"" + path("positions.pfm") + "\"\nuv_texture \"" +
                                    path("uvs.pfm") + "\"\ntriangle_texture \"" + path("triangles.pfm") + "\"\nend\n");
    const Object& object = registry.objects.back();
    ASSERT_EQ(object.parts.size(), 1u);
    const Part& part = object.parts[0];
    EXPECT_EQ(part.positions.size(), 3u);
    EXPECT_EQ(part.uvChannels[0].elements[1].u, 1.0f);
    ASSERT_EQ(part.triangles.size(), 2u);
    EXPECT_TRUE(part.triangles[1].a == 2u && part.triangles[1].c == 0u);
    EXPECT_EQ(report, "3\n2\n");   // position and triangle counts as bare lines

    // Two pixels of three channels: one group of four values across the pixel boundary.
    writeFloatImage("particles.pfm", {{1, 2, 3}, {0.5f, 9, 9}});
    readScene("object\nparticle_texture \"" + path("particles.pfm") + "\"\nend\n");
    const Part& particles = registry.objects.back().parts.at(0);
    ASSERT_EQ(particles.particles.size(), 1u);
    EXPECT_EQ(particles.positions[0], (Vector{1, 2, 3}));
    EXPECT_EQ(particles.scalarChannels[0].elements[0], 0.5f);
}

}  // namespace
