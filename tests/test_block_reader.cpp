// The line reader, the block grammar and the typed readers.
#include <gtest/gtest.h>

#include "scene_fixture.h"

namespace {

// Notes every keyword served, to watch the grammar at work.
using Trace = std::vector<std::string>;
void served(SceneInput&, std::istream& line, Trace& t) { t.push_back(firstWord(line)); }
void inner(SceneInput& input, std::istream&, Trace& t);
// "twice" stands twice: both entries must run.
constexpr BlockKeyword<Trace> kTable[] = {{"value", served}, {"twice", served}, {"inner", inner}, {"twice", served}};
void inner(SceneInput& input, std::istream&, Trace& t) {
    t.push_back("{");
    readBlock(input, t, kTable);
    t.push_back("}");
}

// Reads `text` as the body of a block just opened; `rest` is the next line.
Trace readBody(const std::string& text, std::string* rest = nullptr) {
    std::istringstream file(text);
    SceneInput input(file);
    Trace t;
    readBlock(input, t, kTable);
    if (rest) input.readLine(*rest);
    return t;
}

using SceneFile = SceneTest;

}  // namespace

TEST(BlockGrammar, EndsCommentsAndNesting) {
    std::string rest;
    EXPECT_EQ(readBody("value 1\r\nend of block\r\nafter\r\n", &rest), Trace{"1"});
    EXPECT_EQ(rest, "after");
    // Neither `endx` nor a `#` line (in the first column or indented) closes.
    EXPECT_EQ(readBody("endx\n# end\n  # end\n#value 5\n\tvalue\t6\n\tend\nafter\n", &rest), Trace{"6"});
    EXPECT_EQ(rest, "after");
    EXPECT_EQ(readBody("twice A\nTwice\nend\n"), (Trace{"A", ""}));  // both share the line
    // An unclosed block ends with the file, and its parents with it; an
    // `end` too many is left to the caller.
    EXPECT_EQ(readBody("inner\ninner\nvalue 3"), (Trace{"{", "{", "3", "}", "}"}));
    EXPECT_EQ(readBody("inner\nend\nvalue 4\nend\nend\n", &rest), (Trace{"{", "}", "4"}));
    EXPECT_EQ(rest, "end");
}

TEST(TypedReaders, FailedValuesKeepTheirTargets) {
    LineStream line;
    float f[3] = {7, 7, 7};
    line.reset("\t1.5abc   2");  // "abc" fails the rest of the line
    ReadFloats(line.stream(), f, 3);
    EXPECT_EQ((std::vector<float>(f, f + 3)), (std::vector<float>{1.5f, 7, 7}));
    int i = 5;
    int64_t l = 5;
    line.reset("3000000000 -2e3 12.9");
    ReadLong(line.stream(), l);
    ReadFloat(line.stream(), f[0]);
    ReadInt(line.stream(), i);
    EXPECT_TRUE(l == 3000000000LL && f[0] == -2000.0f && i == 12) << l << " " << f[0] << " " << i;
    line.reset("3000000000");  // out of range of 32 bits
    ReadInt(line.stream(), i);
    EXPECT_EQ(i, 12);

    std::string text = "old";
    auto quoted = [&](const std::string& s) {
        line.reset(s);
        ReadQuoted(line.stream(), text);
        return text;
    };
    EXPECT_EQ(quoted("name \"my  file.png\" tail \"x\""), "my  file.png");
    EXPECT_EQ(quoted("name bare_word"), "");
    EXPECT_EQ(quoted("name \"open to the end "), "open to the end ");
    line.reset("\"two words\"");
    ReadWord(line.stream(), text);
    EXPECT_EQ(text, "\"two");
}

TEST_F(SceneFile, NestedBlocksNeverCloseTheirOuterBlock) {
    readScene(
        "stray words\nend\n"
        "shader\n surface_shader\n  lambertian\n   sampler\n   end\n  end\n end\nend\n"
        "camera\n name \"a\"\nend\n"
        "sky_light\n volume_shader\n end\n aov\n end\n link\n end\nend\n"
        "camera\n name \"b\"\n camera\n name \"c\"\nend\n"  // one camera: the second line is an unknown word
        "point_light\n aov\n end\nend\n"
        "camera\n name \"d\"\n");
    std::vector<std::string> names;
    for (const Camera& c : registry.cameras) names.push_back(c.name);
    EXPECT_EQ(names, (std::vector<std::string>{"a", "c", "d"}));
}

TEST_F(SceneFile, CutFilesAndOverlongLinesNeverHangOrCrash) {
    const std::string scene =
        "render\n final_gather\n  sample 4\n end\n image_path \"img\"\nend\n"
        "camera\n pose\n  position 0 1 2\n end\n aov\n  type \"normal\"\n end\nend\n"
        "shader\n surface_shader\n  glossy\n   sampler\n   end\n  end\n end\nend\n";
    // Random bytes are the scene_file fuzz target's; here every cut of a scene.
    for (size_t n = 0; n <= scene.size(); ++n) readScene(scene.substr(0, n));
    readScene(std::string(100000, 'x') + "\ncamera\n name \"" + std::string(9000, 'n') + "\"\n resolution 6 5 " +
              std::string(100000, 'x') + "\nend\n");
    // The name line was cut at the limit, its closing quote with it; the
    // words of a long line before the limit count, and the next line is read
    // as its own.
    EXPECT_EQ(registry.cameras.back().name, std::string(kSceneLineLimit - 7, 'n'));
    EXPECT_EQ((std::pair{registry.cameras.back().width, registry.cameras.back().height}), (std::pair{6, 5}));
}
