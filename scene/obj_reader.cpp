// The OBJ subset: v, vn, vt, f, s, g and usemtl in the first column.
#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

struct ObjState {
    GeometryReader& reader;
    size_t positionBase, uvBase, normalBase;
    int32_t shader = 0;
};

void warnOnce(bool& warned, const char* text) {
    if (warned) return;
    warned = true;
    reportWarning(text);
    reportRule();
}

bool validPosition(const GeometryReader& r, int32_t i) { return i >= 0 && size_t(i) < r.positions.size(); }

// A quadrangle stays whole only when it is a planar rectangle.
bool planarRectangle(const GeometryReader& r, const Corner c[4]) {
    for (int i = 0; i < 4; ++i)
        if (!validPosition(r, c[i].position)) return false;
    Vector p[4];
    for (int i = 0; i < 4; ++i) p[i] = r.positions[size_t(c[i].position)];
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
        t.tangent[i] = -1;
    }
    t.shader = s.shader;
    s.reader.rawTriangles.push_back(t);
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
        warnOnce(s.reader.warnedDegenerate, "object - there are degenerated quadrangles");
        return;
    }
    if (planarRectangle(s.reader, c)) {
        RawQuadrangle r;
        for (int i = 0; i < 4; ++i) {
            r.position[i] = c[i].position;
            r.uv[i] = c[i].uv;
            r.normal[i] = c[i].normal;
            r.tangent[i] = -1;
        }
        r.shader = s.shader;
        s.reader.rawQuadrangles.push_back(r);
        return;
    }
    addTriangle(s, c[0], c[1], c[2]);
    addTriangle(s, c[2], c[3], c[0]);
}

void readFace(ObjState& s, const char* p) {
    GeometryReader& r = s.reader;
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
        corners[count++] = {toIndex(v, s.positionBase, r.positions.size()), toIndex(t, s.uvBase, r.uvs.size()),
                            toIndex(n, s.normalBase, r.normals.size())};
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
        warnOnce(r.warnedPolygons, "object - please triangulate/quadrangulate the input model(s)");
    }
}

bool startsWord(const char* p, const char* word) {
    const size_t n = std::strlen(word);
    return std::strncmp(p, word, n) == 0 && (p[n] == ' ' || p[n] == '\t');
}

void readLine(ObjState& s, const char* line) {
    if (std::strncmp(line, "usemtl", 6) == 0) {
        char first[kLineLimit], second[kLineLimit];
        if (std::sscanf(line, "%4095s %4095s", first, second) == 2) s.shader = FindShader(second);
        return;
    }
    const char* p = line;
    while (*p == ' ' || *p == '\t') ++p;
    GeometryReader& r = s.reader;
    if (startsWord(p, "v")) {
        p += 1;
        const double x = nextNumber(p), y = nextNumber(p), z = nextNumber(p);
        r.positions.push_back({float(x), float(y), float(z)});
    } else if (startsWord(p, "vn")) {
        p += 2;
        const double x = nextNumber(p), y = nextNumber(p), z = nextNumber(p);
        r.normals.push_back({float(x), float(y), float(z)});
    } else if (startsWord(p, "vt")) {
        p += 2;
        const double u = nextNumber(p), v = nextNumber(p);
        r.uvs.push_back({float(u), float(v)});
    } else if (startsWord(p, "f")) {
        readFace(s, p + 1);
    }
    // s and g lines, comments and everything else have no effect.
}

}  // namespace

void readObj(GeometryReader& reader, const std::string& fileName) {
    // Only plain files: a device or a pipe could be read for ever.
    struct stat info {};
    std::FILE* file =
        stat(fileName.c_str(), &info) == 0 && S_ISREG(info.st_mode) ? std::fopen(fileName.c_str(), "r") : nullptr;
    if (!file) {
        reportError("object - cannot open " + fileName);
        reportRule();
        return;
    }
    reader.smoothing = 0;
    ObjState state{reader, reader.positions.size(), reader.uvs.size(), reader.normals.size()};
    char line[kLineLimit];
    while (std::fgets(line, int(kLineLimit), file)) readLine(state, line);
    std::fclose(file);
}
