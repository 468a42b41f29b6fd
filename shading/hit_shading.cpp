#include "shading/hit_shading.h"

#include <algorithm>
#include <cmath>

#include "core/random.h"
#include "core/registry.h"
#include "geometry/intersect_primitives.h"
#include "geometry/traversal.h"
#include "lv.h"
#include "core/images.h"

namespace {

// A uniform number in [-1, 1] from the hardware source.
inline float signedUniform() { return float(hardwareRandom()) * 4.656613e-10f - 1.0f; }

inline bool shortVector(Vector v) { return dot(v, v) < 1e-8f; }

// The uv of a vertex from the part's first uv set; false when it has none.
inline bool vertexUv(const Part& part, uint32_t vertex, UV& uv) {
    if (part.uvChannels.empty() || vertex >= part.uvChannels[0].elements.size()) return false;
    uv = part.uvChannels[0].elements[vertex];
    return true;
}

// Position and outgoing direction, then the layer that serves the hit.
const SurfaceShader& startHit(const RayState& ray, HitRecord& hit) {
    hit.position = ray.origin + ray.direction * ray.t;
    hit.out_direction = -ray.direction;
    hit.alpha[0] = hit.alpha[1] = 0.000001f;
    hit.fresnel = 0.0f;
    hit.fresnel_complement = 1.0f;
    hit.eta = 1.0f;
    const Shader& shader = registry.shaders[ray.shader];
    const SurfaceShader& layer = shader.layers[size_t(pickLayer(shader, hit.uv, ray.front))];
    hit.layer = &layer;
    hit.material = layer.material;
    hit.visibility = shader.geometry.visibility;
    hit.virtual_light = layer.virtual_light;
    return layer;
}

// The face kinds share everything but their corners and weights: uv, the
// smoothed normal, the tangent and the terminal shortcut.
template <int N>
void shadeFace(const RayState& ray, HitRecord& hit, const uint32_t (&vertex)[N], const float (&weight)[N],
               Vector faceNormal) {
    const Part& part = *ray.part;
    UV corner[N];
    bool hasUv = true;
    for (int k = 0; k < N; ++k) hasUv = vertexUv(part, vertex[k], corner[k]) && hasUv;
    hit.uv[0] = hit.uv[1] = 0.0f;
    if (hasUv)
        for (int k = 0; k < N; ++k) {
            hit.uv[0] += weight[k] * corner[k].u;
            hit.uv[1] += weight[k] * corner[k].v;
        }
    const SurfaceShader& layer = startHit(ray, hit);

    const Vector g = normalized(faceNormal);
    Vector n = g;
    // A terminal hit on a surface without gloss keeps the flat normal.
    if (!(hit.terminal && !layer.gloss_like) && !part.normals.empty()) {
        Vector sum = zero;
        for (int k = 0; k < N; ++k) {
            const bool stored = vertex[k] < part.normals.size() && !(part.normals[vertex[k]] == PackedDirection{0, 0, 0});
            sum += (stored ? unpackDirection(part.normals[vertex[k]]) : g) * weight[k];
        }
        n = normalized(sum);
    }
    hit.geometric_normal = ray.front ? g : -g;
    hit.normal = ray.front ? n : -n;

    bool framed = false;
    if (layer.needs_tangent) {
        bool allTangents = true;
        Vector sum = zero;
        for (int k = 0; k < N; ++k) {
            const Vector t = vertexTangent(part, vertex[k]);
            allTangents = allTangents && !shortVector(t);
            sum += t * weight[k];
        }
        Vector tangent;
        if (allTangents) {
            tangent = normalized(sum);
        } else {
            // The direction in which the first uv coordinate grows.
            const Vector p0 = part.positions[vertex[0]];
            const Vector e1 = part.positions[vertex[1]] - p0, e2 = part.positions[vertex[2]] - p0;
            const float d1 = hasUv ? corner[1].v - corner[0].v : 0.0f;
            const float d2 = hasUv ? corner[2].v - corner[0].v : 0.0f;
            tangent = normalized(e1 * d2 - e2 * d1);
        }
        if (!shortVector(tangent)) {
            const Vector bitangent = normalized(cross(hit.normal, tangent));
            if (!shortVector(bitangent)) {
                hit.bitangent = bitangent;
                hit.tangent = normalized(cross(bitangent, hit.normal));
                framed = true;
            }
        }
    }
    if (!framed) buildFrame(hit);

    // A terminal hit on a plain matte surface needs nothing more than the
    // cosine by which the emission it shows is weighed against light samples.
    if (hit.terminal && layer.matte_only) {
        hit.cos_out = dot(hit.out_direction, hit.normal);
        return;
    }
    finishShading(layer, ray, hit);
}

}  // namespace

void buildFrame(HitRecord& hit) {
    const Vector n = hit.normal;
    if (n.z < -0.9999999f) {
        hit.tangent = {0.0f, -1.0f, 0.0f};
        hit.bitangent = {-1.0f, 0.0f, 0.0f};
        return;
    }
    const float a = 1.0f / (1.0f + n.z);
    const float b = -n.x * n.y * a;
    hit.tangent = {1.0f - n.x * n.x * a, b, -n.x};
    hit.bitangent = {b, 1.0f - n.y * n.y * a, -n.y};
}

int pickLayer(const Shader& shader, const float uv[2], bool front) {
    const int side = front ? kFaceSide : kBackSide;
    if (shader.layerCount[side] == 1) return shader.layerList[side][0];
    return chooseLayer(shader, side, uv, hardwareRandomFloat());
}

void shadeParticle(const RayState& ray, HitRecord& hit) {
    const Part& part = *ray.part;
    const uint32_t vertex = part.particles[ray.primitive];
    UV uv{0.0f, 0.0f};
    vertexUv(part, vertex, uv);
    hit.uv[0] = uv.u;
    hit.uv[1] = uv.v;
    const SurfaceShader& layer = startHit(ray, hit);
    // The query left the hit point minus the centre: the outward normal.
    const Vector n = normalized(ray.barycentric);
    hit.normal = hit.geometric_normal = ray.front ? n : -n;
    buildFrame(hit);
    finishShading(layer, ray, hit);
}

void shadeCylinder(const RayState& ray, HitRecord& hit) {
    const Part& part = *ray.part;
    const uint32_t vertex = part.cylinders[ray.primitive];
    const float s = ray.barycentric.z;
    UV a{0.0f, 0.0f}, b{0.0f, 0.0f};
    if (vertexUv(part, vertex, a) && vertexUv(part, vertex + 1, b)) {
        hit.uv[0] = a.u * (1.0f - s) + b.u * s;
        hit.uv[1] = a.v * (1.0f - s) + b.v * s;
    }
    const SurfaceShader& layer = startHit(ray, hit);

    Vector tangent = normalized(vertexTangent(part, vertex) * (1.0f - s) + vertexTangent(part, vertex + 1) * s);
    // A strand without tangents runs along its segment.
    if (shortVector(tangent)) tangent = normalized(part.positions[vertex + 1] - part.positions[vertex]);
    hit.fibre_width = vertexRadius(part, vertex) * (1.0f - s) + vertexRadius(part, vertex + 1) * s;

    // The shaded point lies at a random offset r across the fibre: the normal
    // turns from the side that faces the ray towards the fibre's edge.
    const float r = signedUniform();
    const Vector across = normalized(cross(tangent, hit.out_direction));
    const Vector facing = cross(across, tangent);
    hit.tangent = tangent;
    hit.geometric_normal = facing;
    hit.normal = normalized(across * r + facing * guardedLength(1.0f - r * r));
    hit.bitangent = normalized(cross(hit.normal, tangent));
    finishShading(layer, ray, hit);
}

void shadeTriangle(const RayState& ray, HitRecord& hit) {
    const Part& part = *ray.part;
    const Triangle& face = part.triangles[ray.primitive];
    const uint32_t vertex[3] = {face.a, face.b, face.c};
    const float weight[3] = {ray.barycentric.x, ray.barycentric.y, ray.barycentric.z};
    const Vector p0 = part.positions[face.a];
    shadeFace(ray, hit, vertex, weight, cross(part.positions[face.b] - p0, part.positions[face.c] - p0));
}

void shadeTetragon(const RayState& ray, HitRecord& hit) {
    const Part& part = *ray.part;
    const Tetragon& face = part.tetragons[ray.primitive];
    const uint32_t vertex[4] = {face.a, face.b, face.c, face.d};
    const float u = ray.barycentric.x, v = ray.barycentric.y;
    const float weight[4] = {(1.0f - u) * (1.0f - v), (1.0f - u) * v, u * v, u * (1.0f - v)};
    // The plane of the diagonals, as the intersection test takes it.
    const Vector* p = part.positions.data();
    shadeFace(ray, hit, vertex, weight, cross(p[face.c] - p[face.a], p[face.d] - p[face.b]));
}

void shadeHit(const RayState& ray, HitRecord& hit) {
    switch (ray.kind) {
    case kParticle: shadeParticle(ray, hit); break;
    case kCylinder: shadeCylinder(ray, hit); break;
    case kTriangle: shadeTriangle(ray, hit); break;
    case kTetragon: shadeTetragon(ray, hit); break;
    default: break;
    }
}

void finishShading(const SurfaceShader& layer, const RayState& ray, HitRecord& hit) {
    const SurfaceElement* e = layer.elements;

    // Hits inside instances carry their normals up through every level.
    if (ray.hit_instance_depth > 0) {
        const InstanceStack& stack = instanceStacks[ray.thread];
        Vector n = hit.normal, g = hit.geometric_normal, t = hit.tangent;
        for (int k = std::min(int(ray.hit_instance_depth), 16) - 1; k >= 0; --k) {
            n = times3x3(stack.matrices[k], n);
            g = times3x3(stack.matrices[k], g);
            t = times3x3(stack.matrices[k], t);
        }
        hit.normal = normalized(n);
        hit.geometric_normal = normalized(g);
        if (ray.kind == kCylinder) {
            // A fibre keeps its own direction as the tangent.
            hit.tangent = normalized(t);
            hit.bitangent = normalized(cross(hit.normal, hit.tangent));
        } else {
            buildFrame(hit);
        }
    }

    if (layer.has_angle) {
        const float a = mean(elementColor(e[LV_ELEMENT_ANGLE], hit.uv));
        if (a != 0.0f) {
            const float c = std::cos(kTwoPi * a), s = std::sin(kTwoPi * a);
            const Vector t = hit.tangent, b = hit.bitangent;
            hit.tangent = t * c - b * s;
            hit.bitangent = t * s + b * c;
        }
    }

    if (layer.has_normal_image) {
        const Vector m = elementVector(e[LV_ELEMENT_NORMAL], hit.uv);
        const Vector n = normalized(hit.tangent * m.x + hit.bitangent * m.y + hit.normal * m.z);
        hit.bitangent = normalized(cross(n, hit.tangent));
        hit.tangent = normalized(cross(hit.bitangent, n));
        hit.normal = n;
    }

    // A shading normal whose mirror image of the viewer would point into the
    // surface gives way to the geometric one. A fibre has no inside: its
    // normal sweeps the whole side that faces the viewer, which is what
    // makes its diffuse rays follow the fibre's diffuse term.
    hit.cos_out = dot(hit.out_direction, hit.normal);
    const Vector mirrored = hit.normal * (2.0f * hit.cos_out) - hit.out_direction;
    if (ray.kind != kCylinder && dot(mirrored, hit.geometric_normal) < 0.0f) {
        hit.normal = hit.geometric_normal;
        hit.cos_out = dot(hit.out_direction, hit.normal);
    }

    if (layer.has_roughness) {
        const float alpha = mean(elementColor(e[LV_ELEMENT_ROUGHNESS], hit.uv)) + 0.000001f;
        hit.alpha[0] = hit.alpha[1] = alpha;
        if (layer.has_anisotropy) {
            const float a = 1.0f - mean(elementColor(e[LV_ELEMENT_ANISOTROPY], hit.uv));
            hit.alpha[0] = alpha * a;
            hit.alpha[1] = alpha / a;
        }
    }

    const float ior = mean(elementColor(e[LV_ELEMENT_IOR], hit.uv));
    hit.eta = ray.front ? 1.0f / ior : ior;
    if (layer.material == LV_MATERIAL_THIN) hit.eta = 1.0f;
    hit.fresnel = fresnelReflectance(ior, hit.cos_out, layer.material == LV_MATERIAL_THIN);
    hit.fresnel_complement = 1.0f - hit.fresnel;
}

float fresnelReflectance(float ior, float cosOut, bool thin) {
    if (std::fabs(ior - 1.0f) < 1e-8f) return 0.0f;
    const float r0 = (ior - 1.0f) * (ior - 1.0f) / ((ior + 1.0f) * (ior + 1.0f));
    const float q = 1.0f - cosOut;
    const float q2 = q * q;
    float f = r0 + q2 * q2 * q * (1.0f - r0);
    // A thin sheet reflects again at its second face, and so on: the sum of
    // the series (1 - F)^2 F / (1 - F^2), written so that F = 1 stays finite.
    if (thin) f += (1.0f - f) * f / (1.0f + f);
    return f;
}
