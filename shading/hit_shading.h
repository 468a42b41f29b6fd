// Hit shading: from a ray's closest hit to a finished HitRecord, with the
// shading frame, the chosen layer, roughness and the Fresnel terms.
#pragma once

#include "core/records.h"
#include "shading/shader.h"

// The frame around hit.normal: tangent and bitangent from the normal alone,
// with a fixed pair near the -z pole.
void buildFrame(HitRecord& hit);

// The layer that serves a hit: the only one of the side, else a draw by
// weight. A side with one layer draws no random number.
int pickLayer(const Shader& shader, const float uv[2], bool front);

// Per-kind shading of ray's closest hit; `hit.terminal` is an input.
void shadeParticle(const RayState& ray, HitRecord& hit);
void shadeCylinder(const RayState& ray, HitRecord& hit);
void shadeTriangle(const RayState& ray, HitRecord& hit);
void shadeTetragon(const RayState& ray, HitRecord& hit);
// Dispatch by ray.kind; other kinds leave the record empty (no layer).
void shadeHit(const RayState& ray, HitRecord& hit);

// The steps all kinds share once a layer is chosen: instance matrices, angle,
// normal mapping, the reflection guard, roughness and Fresnel.
void finishShading(const SurfaceShader& layer, const RayState& ray, HitRecord& hit);

// Schlick's reflectance for a layer index of `ior` at the cosine `cosOut`;
// `thin` adds all inner reflections of a thin sheet. 0 for an index of 1.
float fresnelReflectance(float ior, float cosOut, bool thin);
