// The OBJ subset: v, vn, vt, f, s, g and usemtl in the first column.
#include <omp.h>
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/report.h"
#include "scene/geometry_reader.h"
#include "shading/shader.h"

namespace {

constexpr size_t kLineLimit = 4096;

bool isSeparator(char c) { return c == ' ' || c == '\t' || c == '\r'; }
bool isEnd(char c) { return c == '\0' || c == '\n'; }

// The end of the token that starts at p: the next blank, tab, carriage
// return, newline or NUL, and for face numbers also '/'.
const char* tokenEnd(const char* p, bool slash) {
    while (!isEnd(*p) && !isSeparator(*p) && !(slash && *p == '/')) ++p;
    return p;
}

// A token read as the C library's text-to-number functions read it. The
// common decimal forms take the correctly rounded fast path; a leading plus
// and hexadecimal forms go to the library itself.
template <typename T, typename Library>
T parseToken(const char* first, const char* last, Library library) {
    if (first == last) return T(0);
    if (*first != '+' && std::find_if(first, last, [](char c) { return c == 'x' || c == 'X'; }) == last) {
        T value{};
        const auto result = std::from_chars(first, last, value);
        if (result.ec == std::errc()) return value;
        if (result.ptr == first) return T(0);
    }
    char token[kLineLimit];
    std::memcpy(token, first, size_t(last - first));
    token[last - first] = '\0';
    return library(token);
}

double parseDouble(const char* first, const char* last) {
    return parseToken<double>(first, last, [](const char* t) { return std::strtod(t, nullptr); });
}

long parseLong(const char* first, const char* last) {
    return parseToken<long>(first, last, [](const char* t) { return std::strtol(t, nullptr, 10); });
}

// The next token up to a blank, tab or carriage return, read as a double;
// a missing or malformed token is 0.
double nextNumber(const char*& p) {
    while (isSeparator(*p)) ++p;
    const char* end = tokenEnd(p, false);
    const double value = parseDouble(p, end);
    p = end;
    return value;
}

// An integer token of a face vertex, ended by '/', blank, tab or carriage return.
long faceNumber(const char*& p) {
    const char* end = tokenEnd(p, true);
    const long value = parseLong(p, end);
    p = end;
    return value;
}

// 0 stays absent; n > 0 counts from the list's start in this file, n < 0 back
// from the element read last.
int32_t toIndex(long n, size_t base, size_t count) {
    if (n == 0) return -1;
    return n > 0 ? int32_t(long(base) + n - 1) : int32_t(long(count) + n);
}

struct Corner {
    int32_t position, uv, normal;
};

// Warnings that the faces of a stretch of the file raise, in the order they
// first appear; the join reports them in file order, each once per reader.
enum class ObjWarning : uint8_t { Degenerate, Polygons };

// The state of reading the faces of one stretch of the file: the counts of
// positions, UVs and normals read before the current line (which relative
// indices count back from and which bound the valid ones), the shader in
// effect, and the faces and warnings it makes.
struct ObjState {
    const GeometryReader& reader;
    size_t positionBase, uvBase, normalBase;   // the lists' sizes before this file
    size_t positionCount, uvCount, normalCount;
    int32_t shader = 0;
    std::vector<RawTriangle> triangles;
    std::vector<RawQuadrangle> quadrangles;
    std::vector<ObjWarning> warnings;
};

void warnOnce(ObjState& s, ObjWarning warning) {
    if (std::find(s.warnings.begin(), s.warnings.end(), warning) == s.warnings.end()) s.warnings.push_back(warning);
}

// A quadrangle stays whole only when it is a planar rectangle.
bool planarRectangle(const ObjState& s, const Corner c[4]) {
    for (int i = 0; i < 4; ++i)
        if (c[i].position < 0 || size_t(c[i].position) >= s.positionCount) return false;
    Vector p[4];
    for (int i = 0; i < 4; ++i) p[i] = s.reader.positions[size_t(c[i].position)];
    const Vector e0 = normalized(p[1] - p[0]), e1 = normalized(p[2] - p[1]);
    const Vector e2 = normalized(p[3] - p[2]), e3 = normalized(p[0] - p[3]);
    const bool planar = dot(normalized(cross(e0, e1)), normalized(cross(e2, e3))) > 0.999999f;
    const bool rectangular = std::fabs(dot(e0, e1)) < 1e-6f && std::fabs(dot(e1, e2)) < 1e-6f &&
                             std::fabs(dot(e2, e3)) < 1e-6f && std::fabs(dot(e3, e0)) < 1e-6f;
    return planar && rectangular;
}

void addTriangle(ObjState& s, const Corner& a, const Corner& b, const Corner& c) {
    RawTriangle t;
    const Corner* corners[3] = {&a, &b, &c};
    for (int i = 0; i < 3; ++i) {
        t.position[i] = corners[i]->position;
        t.uv[i] = corners[i]->uv;
        t.normal[i] = corners[i]->normal;
    }
    t.shader = s.shader;
    s.triangles.push_back(t);
}

void addQuadrangle(ObjState& s, const Corner c[4]) {
    const int32_t* q[4] = {&c[0].position, &c[1].position, &c[2].position, &c[3].position};
    if (*q[0] == *q[1] || *q[0] == *q[2] || *q[0] == *q[3] || *q[1] == *q[2] || *q[1] == *q[3] || *q[2] == *q[3]) {
        int a = 0, b = 0;
        if (*q[0] == *q[1]) a = 3, b = 2;
        if (*q[0] == *q[2]) a = 3, b = 1;
        if (*q[0] == *q[3]) a = 2, b = 1;
        if (*q[1] == *q[2]) a = 3, b = 1;
        if (*q[1] == *q[3]) a = 2, b = 1;
        if (*q[2] == *q[3]) a = 2, b = 1;
        addTriangle(s, c[0], c[b], c[a]);
        warnOnce(s, ObjWarning::Degenerate);
        return;
    }
    if (planarRectangle(s, c)) {
        RawQuadrangle r;
        for (int i = 0; i < 4; ++i) {
            r.position[i] = c[i].position;
            r.uv[i] = c[i].uv;
            r.normal[i] = c[i].normal;
        }
        r.shader = s.shader;
        s.quadrangles.push_back(r);
        return;
    }
    addTriangle(s, c[0], c[1], c[2]);
    addTriangle(s, c[2], c[3], c[0]);
}

void readFace(ObjState& s, const char* p) {
    Corner corners[8];
    int count = 0;
    while (count < 8) {
        while (*p == ' ' || *p == '\t') ++p;
        if (*p == '\0' || *p == '\n' || *p == '\r') break;
        long v = faceNumber(p), t = 0, n = 0;
        if (*p == '/') {
            ++p;
            t = faceNumber(p);
            if (*p == '/') {
                ++p;
                n = faceNumber(p);
            }
        }
        while (!isEnd(*p) && !isSeparator(*p)) ++p;   // the rest of a malformed vertex
        corners[count++] = {toIndex(v, s.positionBase, s.positionCount), toIndex(t, s.uvBase, s.uvCount),
                            toIndex(n, s.normalBase, s.normalCount)};
    }
    if (count == 8) {
        while (*p == ' ' || *p == '\t') ++p;
        if (!(*p == '\0' || *p == '\n' || *p == '\r')) count = 9;
    }
    if (count < 3) return;
    if (count == 3) {
        addTriangle(s, corners[0], corners[1], corners[2]);
    } else if (count == 4) {
        addQuadrangle(s, corners);
    } else {
        warnOnce(s, ObjWarning::Polygons);
    }
}

bool startsWord(const char* p, const char* word) {
    const size_t n = std::strlen(word);
    return std::strncmp(p, word, n) == 0 && (p[n] == ' ' || p[n] == '\t');
}

enum class LineKind : uint8_t { Other, Position, Normal, Uv, Face, Material };

// What a line is, and where its values start.
LineKind classify(const char* line, const char*& values) {
    if (std::strncmp(line, "usemtl", 6) == 0) return LineKind::Material;
    const char* p = line;
    while (*p == ' ' || *p == '\t') ++p;
    // s and g lines, comments and everything else have no effect.
    if (startsWord(p, "v")) return values = p + 1, LineKind::Position;
    if (startsWord(p, "vn")) return values = p + 2, LineKind::Normal;
    if (startsWord(p, "vt")) return values = p + 2, LineKind::Uv;
    if (startsWord(p, "f")) return values = p + 1, LineKind::Face;
    return LineKind::Other;
}

Vector readVector(const char* p) {
    const double x = nextNumber(p), y = nextNumber(p), z = nextNumber(p);
    return {float(x), float(y), float(z)};
}

UV readUv(const char* p) {
    const double u = nextNumber(p), v = nextNumber(p);
    return {float(u), float(v)};
}

// The file is read as the C library's line reader reads it: pieces of at
// most kLineLimit - 1 bytes, each up to and including a newline, so that
// the rest of an over-long line is read as a line of its own; a piece ends
// at its first NUL. `visit` sees every piece as a string that ends at a
// newline or a NUL. Pieces are read in place when they end in a newline and
// hold no NUL; the others, and material lines, whose names are scanned
// across blanks and newlines, are copied and ended.
template <typename Visit>
void forEachLine(const char* p, const char* end, Visit visit) {
    char copy[kLineLimit];
    while (p < end) {
        const char* limit = std::min(end, p + (kLineLimit - 1));
        const char* newline = static_cast<const char*>(std::memchr(p, '\n', size_t(limit - p)));
        const char* next = newline ? newline + 1 : limit;
        const bool inPlace = newline && !std::memchr(p, '\0', size_t(next - p)) && std::strncmp(p, "usemtl", 6) != 0;
        if (inPlace) {
            visit(p);
        } else {
            std::memcpy(copy, p, size_t(next - p));
            copy[next - p] = '\0';
            visit(static_cast<const char*>(copy));
        }
        p = next;
    }
}

// One stretch of the file, from a line start to a line start.
struct Stretch {
    const char* begin;
    const char* end;
    size_t positions = 0, normals = 0, uvs = 0;   // lines of each list in the stretch
    std::vector<std::string> materialLines;
    std::vector<int32_t> shaders;                 // the shader after each material line
};

// The file cut into stretches at line ends, about `count` of them, none
// shorter than objStretchBytes, so that small files stay whole.
std::vector<Stretch> cutIntoStretches(const char* text, size_t size, size_t count) {
    const size_t step = std::max<size_t>({objStretchBytes, 1, size / std::max<size_t>(count, 1) + 1});
    std::vector<Stretch> stretches;
    const char* p = text;
    const char* end = text + size;
    while (p < end) {
        const char* cut = end - p > ptrdiff_t(step) ? p + step : end;
        if (cut < end) {
            const char* newline = static_cast<const char*>(std::memchr(cut, '\n', size_t(end - cut)));
            cut = newline ? newline + 1 : end;
        }
        stretches.push_back({p, cut, 0, 0, 0, {}, {}});
        p = cut;
    }
    return stretches;
}

// Where a file's lists stood before it, and the shader in effect.
struct ObjFile {
    size_t positionBase, uvBase, normalBase;
    int32_t shader = 0;
};

// Reads a window of whole lines (or whole pieces of an over-long line) in
// stretches on all threads, in three passes, and joins them in file order, so
// that every list, index and warning is what a reading from start to end
// gives. First the lines of each list and the material lines of every stretch.
void readWindow(GeometryReader& reader, ObjFile& file, const char* text, size_t size) {
    const size_t positionBase = file.positionBase, uvBase = file.uvBase, normalBase = file.normalBase;
    std::vector<Stretch> stretches = cutIntoStretches(text, size, size_t(4 * omp_get_max_threads()));
    const int n = int(stretches.size());
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = 0; i < n; ++i) {
        Stretch& s = stretches[size_t(i)];
        forEachLine(s.begin, s.end, [&](const char* line) {
            const char* values = nullptr;
            switch (classify(line, values)) {
            case LineKind::Position: ++s.positions; break;
            case LineKind::Normal: ++s.normals; break;
            case LineKind::Uv: ++s.uvs; break;
            case LineKind::Material: s.materialLines.emplace_back(line); break;
            default: break;
            }
        });
    }
    // Materials name shaders, which are found or made in file order.
    int32_t& shader = file.shader;
    std::vector<int32_t> startShader(stretches.size());
    size_t positions = reader.positions.size(), normals = reader.normals.size(), uvs = reader.uvs.size();
    std::vector<size_t> positionStart(stretches.size()), normalStart(stretches.size()), uvStart(stretches.size());
    for (size_t i = 0; i < stretches.size(); ++i) {
        Stretch& s = stretches[i];
        startShader[i] = shader;
        positionStart[i] = positions, normalStart[i] = normals, uvStart[i] = uvs;
        positions += s.positions, normals += s.normals, uvs += s.uvs;
        for (const std::string& line : s.materialLines) {
            char first[kLineLimit], second[kLineLimit];
            if (std::sscanf(line.c_str(), "%4095s %4095s", first, second) == 2) shader = FindShader(second);
            s.shaders.push_back(shader);
        }
    }

    // Then the values of the lists, each into its place.
    reader.positions.resize(positions);
    reader.normals.resize(normals);
    reader.uvs.resize(uvs);
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = 0; i < n; ++i) {
        size_t p = positionStart[size_t(i)], q = normalStart[size_t(i)], u = uvStart[size_t(i)];
        forEachLine(stretches[size_t(i)].begin, stretches[size_t(i)].end, [&](const char* line) {
            const char* values = nullptr;
            switch (classify(line, values)) {
            case LineKind::Position: reader.positions[p++] = readVector(values); break;
            case LineKind::Normal: reader.normals[q++] = readVector(values); break;
            case LineKind::Uv: reader.uvs[u++] = readUv(values); break;
            default: break;
            }
        });
    }

    // Then the faces, which count back from and are bounded by the lists as
    // far as the file has read them.
    std::vector<ObjState> states;
    states.reserve(stretches.size());
    for (size_t i = 0; i < stretches.size(); ++i)
        states.push_back({reader, positionBase, uvBase, normalBase, positionStart[i], uvStart[i], normalStart[i],
                          startShader[i], {}, {}, {}});
#pragma omp parallel for schedule(dynamic, 1)
    for (int i = 0; i < n; ++i) {
        ObjState& state = states[size_t(i)];
        size_t material = 0;
        forEachLine(stretches[size_t(i)].begin, stretches[size_t(i)].end, [&](const char* line) {
            const char* values = nullptr;
            switch (classify(line, values)) {
            case LineKind::Position: ++state.positionCount; break;
            case LineKind::Normal: ++state.normalCount; break;
            case LineKind::Uv: ++state.uvCount; break;
            case LineKind::Face: readFace(state, values); break;
            case LineKind::Material: state.shader = stretches[size_t(i)].shaders[material++]; break;
            case LineKind::Other: break;
            }
        });
    }

    // The join, stretch after stretch, each released once it is copied.
    size_t triangles = reader.rawTriangles.size(), quadrangles = reader.rawQuadrangles.size();
    for (const ObjState& state : states) triangles += state.triangles.size(), quadrangles += state.quadrangles.size();
    reader.rawTriangles.reserve(triangles);
    reader.rawQuadrangles.reserve(quadrangles);
    for (ObjState& state : states) {
        reader.rawTriangles.insert(reader.rawTriangles.end(), state.triangles.begin(), state.triangles.end());
        reader.rawQuadrangles.insert(reader.rawQuadrangles.end(), state.quadrangles.begin(), state.quadrangles.end());
        std::vector<RawTriangle>().swap(state.triangles);
        std::vector<RawQuadrangle>().swap(state.quadrangles);
        for (ObjWarning warning : state.warnings) {
            bool& warned = warning == ObjWarning::Degenerate ? reader.warnedDegenerate : reader.warnedPolygons;
            if (warned) continue;
            warned = true;
            reportWarning(warning == ObjWarning::Degenerate ? "object - there are degenerated quadrangles"
                                                            : "object - please triangulate/quadrangulate the input model(s)");
            reportRule();
        }
    }
}

}  // namespace

size_t objStretchBytes = size_t(1) << 20;

void readObj(GeometryReader& reader, const std::string& fileName) {
    // Only plain files: a device or a pipe could be read for ever.
    struct stat info {};
    std::FILE* file =
        stat(fileName.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? std::fopen(fileName.c_str(), "rb") : nullptr;
    if (!file) {
        reportError("object - cannot open " + fileName);
        reportRule();
        return;
    }
    reader.smoothing = 0;
    ObjFile state{reader.positions.size(), reader.uvs.size(), reader.normals.size()};
    // Room for as many positions and triangles as the file could hold at
    // about 20 bytes a line, so that the lists do not grow by copies. Pages
    // that are never written take no memory.
    const size_t lines = size_t(info.st_size) / 20;
    reader.positions.reserve(reader.positions.size() + lines);
    reader.rawTriangles.reserve(reader.rawTriangles.size() + lines);

    // The file is read window by window, so that it is never held whole. A
    // window ends after its last newline; one without a newline ends after
    // its last whole piece, which is where the line reader would cut it too.
    // A small file gets a window of its own size: a scene of many small
    // files would otherwise clear 64 MB for each.
    const size_t fileBytes = size_t(info.st_size) + 1;
    std::vector<char> window(std::max<size_t>(std::min(64 * objStretchBytes, fileBytes), 2 * kLineLimit));
    size_t held = 0;
    for (;;) {
        held += std::fread(window.data() + held, 1, window.size() - held, file);
        if (held == 0) break;
        const bool last = held < window.size();
        size_t cut = held;
        if (!last) {
            const char* begin = window.data();
            const char* p = begin + held;
            while (p > begin && p[-1] != '\n') --p;
            cut = p > begin ? size_t(p - begin) : held / (kLineLimit - 1) * (kLineLimit - 1);
        }
        readWindow(reader, state, window.data(), cut);
        std::memmove(window.data(), window.data() + cut, held - cut);
        held -= cut;
        if (last && held == 0) break;
    }
    std::fclose(file);
}
