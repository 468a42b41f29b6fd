#include "photons/density_estimator.h"

#include <algorithm>
#include <cstdlib>

#include "core/registry.h"
#include "core/report.h"
#include "geometry/surface_sampling.h"

namespace {

constexpr uint64_t kCellLimit = 1073741824;   // bytes of the cells of one family

// A face gets cells only where one of its sides has a diffuse class to
// gather for; otherwise one cell is enough to keep indexing uniform.
uint32_t cellResolution(uint32_t shader, float area) {
    const Shader* s = shader < registry.shaders.size() ? &registry.shaders[shader] : nullptr;
    if (!s || !(s->hasLambertian[0] || s->hasLambertian[1] || s->hasTransmissive[0] || s->hasTransmissive[1]))
        return 1;
    for (uint32_t n = 1; n <= 255; ++n)
        if (registry.resolution * float(n * n) > area) return n;
    return 255;
}

// Bases and resolutions of one face family, with the total of its cells.
// A total past the limit ends the process, as nothing could hold it.
template <typename Face, typename Area>
uint64_t sizeFamily(const std::vector<Face>& faces, std::vector<uint32_t>& base, std::vector<uint32_t>& resolution,
                    Area area) {
    uint64_t total = 0;
    base.resize(faces.size());
    resolution.resize(faces.size());
    for (size_t i = 0; i < faces.size(); ++i) {
        const uint32_t n = cellResolution(faces[i].shader, area(faces[i]));
        base[i] = uint32_t(total);
        resolution[i] = n;
        total += uint64_t(n) * n;
        if (total * 24 > kCellLimit) {
            reportMessage("density estimator consumes more than 1GB memory.");
            reportRule();
            std::exit(1);
        }
    }
    return total;
}

inline uint32_t cellCoordinate(float x, uint32_t n) {
    const float f = x * float(n);
    if (!(f > 0.0f)) return 0;
    return std::min(uint32_t(f), n - 1);
}

// Vertex k of a part as placed in the scene (translation aside, which no
// area depends on); the origin for an index past the positions.
Vector placedVertex(const Part& part, uint32_t k) {
    return k < part.positions.size() ? times3x3(part.cellMatrix, part.positions[k]) : zero;
}

double placedArea(const Part& part, const Triangle& t) {
    return triangleArea(placedVertex(part, t.a), placedVertex(part, t.b), placedVertex(part, t.c));
}
double placedArea(const Part& part, const Tetragon& t) {
    return tetragonArea(placedVertex(part, t.a), placedVertex(part, t.b), placedVertex(part, t.c),
                        placedVertex(part, t.d));
}

// The area of face `index` of a part, as placed.
double faceArea(const Part& part, uint8_t kind, uint32_t index) {
    return kind == kTriangle ? placedArea(part, part.triangles[index]) : placedArea(part, part.tetragons[index]);
}

// The cell array and element of the ray's hit for one side, or null.
Color* cellOf(const RayState& ray, bool front) {
    if (!ray.gatherable || !ray.part) return nullptr;
    Part& part = const_cast<Part&>(*ray.part);
    const uint32_t i = ray.primitive;
    if (ray.kind == kTriangle && i < part.triangleCellBase.size()) {
        const uint32_t cell = part.triangleCellBase[i] + triangleCell(part.triangleCellResolution[i], ray.barycentric);
        std::vector<Color>& cells = front ? part.triangleCellsFront : part.triangleCellsBack;
        return cell < cells.size() ? &cells[cell] : nullptr;
    }
    if (ray.kind == kTetragon && i < part.tetragonCellBase.size()) {
        const uint32_t cell = part.tetragonCellBase[i] + tetragonCell(part.tetragonCellResolution[i], ray.barycentric);
        std::vector<Color>& cells = front ? part.tetragonCellsFront : part.tetragonCellsBack;
        return cell < cells.size() ? &cells[cell] : nullptr;
    }
    return nullptr;
}

}  // namespace

void prepareDensityEstimator(Part& part) {
    for (auto* v : {&part.triangleCellBase, &part.triangleCellResolution, &part.tetragonCellBase,
                    &part.tetragonCellResolution})
        v->clear();
    for (auto* v : {&part.triangleCellsFront, &part.triangleCellsBack, &part.tetragonCellsFront,
                    &part.tetragonCellsBack})
        v->clear();
    if (registry.resolution < 1e-8f) return;
    // Without final gathering (distance 0) nothing would read the cells.
    if (!(registry.distance > 0.0f)) {
        reportReal("density estimator buffer", 0.0, "M bytes");
        return;
    }

    auto area = [&](const auto& face) { return float(placedArea(part, face)); };
    const uint64_t triangles = sizeFamily(part.triangles, part.triangleCellBase, part.triangleCellResolution, area);
    const uint64_t tetragons = sizeFamily(part.tetragons, part.tetragonCellBase, part.tetragonCellResolution, area);
    part.triangleCellsFront.assign(triangles, zero);
    part.triangleCellsBack.assign(triangles, zero);
    part.tetragonCellsFront.assign(tetragons, zero);
    part.tetragonCellsBack.assign(tetragons, zero);

    // Resolutions count as elements, bases as four bytes, cells as 24.
    const double faces = double(part.triangles.size() + part.tetragons.size());
    reportReal("density estimator buffer", (faces + 4.0 * faces + 24.0 * double(triangles + tetragons)) * kMegabytes,
               "M bytes");
}

uint32_t triangleCell(uint32_t n, Vector b) {
    const uint32_t a = cellCoordinate(1.0f - b.x, n);
    const uint32_t c1 = cellCoordinate(1.0f - b.y, n);
    const uint32_t c2 = cellCoordinate(1.0f - b.z, n);
    // Row a holds 2a + 1 cells; weights rounded off the face stay in it.
    const int64_t cell = int64_t(a) * a + a + int64_t(c1) - int64_t(c2);
    return uint32_t(std::clamp<int64_t>(cell, int64_t(a) * a, int64_t(a) * a + 2 * a));
}

uint32_t tetragonCell(uint32_t n, Vector b) { return cellCoordinate(b.x, n) * n + cellCoordinate(b.y, n); }

void depositPhoton(const RayState& ray, Color color) {
    Color* cell = cellOf(ray, ray.front != 0);
    if (!cell) return;
    const double area = faceArea(*ray.part, ray.kind, ray.primitive);
    if (!(area > 0.00001)) return;
    const uint32_t n = ray.kind == kTriangle ? ray.part->triangleCellResolution[ray.primitive]
                                             : ray.part->tetragonCellResolution[ray.primitive];
    // Threads may land on one cell at once; a lost addition is accepted.
    *cell += color * float(double(n) * n / area);
}

Color readCell(const RayState& ray, bool ownSide) {
    const Color* cell = cellOf(ray, ownSide ? ray.front != 0 : ray.front == 0);
    return cell ? *cell : zero;
}

void prepareDensityEstimators() {
    for (Object& object : registry.objects)
        if (object.gatherable)
            for (Part& part : object.parts) prepareDensityEstimator(part);
}
