// Point and parallel lights, the two kinds of delta light, with the shader
// link that every light carries. They are the only records with virtual
// operations: `reset` puts a record back to its defaults, `emitPhoton` makes
// the ray of one photon.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/records.h"

// Appends the index of the first shader bearing each name; unknown names drop out.
void resolveLink(ShaderLink& link);
// True when the link lets the light reach `shader`.
bool linkAllows(const ShaderLink& link, uint32_t shader);

// What point and parallel lights share, in this order.
struct DeltaLight {
    virtual void reset() = 0;
    virtual void emitPhoton(RayState& ray, uint64_t index) const = 0;

    float frame[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};   // three unit vectors, the third the axis
    Color color{1.0f, 1.0f, 1.0f};
    Color photonPower{1.0f, 1.0f, 1.0f};
    int64_t photon = 0;
    float blur = 0.0f;       // point: sphere radius; parallel: cone angle in degrees
    float ior = 1.0f;        // index that photons start with
    int sample = 1;          // shadow samples of a blurred light
    ShaderLink link;
    std::vector<Aov> aovs;

    Vector axis() const { return {frame[6], frame[7], frame[8]}; }

protected:
    DeltaLight() = default;
    DeltaLight(const DeltaLight&) = default;
    DeltaLight& operator=(const DeltaLight&) = default;
    ~DeltaLight() = default;
};

struct PointLight final : DeltaLight {
    void reset() override;
    void emitPhoton(RayState& ray, uint64_t index) const override;

    float coneCosine = 1.0f;        // half angle of the cone that holds the scene
    float offset = 0.1f;            // terminator offset
    uint8_t isInside = 0;           // the light sees the whole scene
    Vector position{0.0f, 0.0f, 0.0f};   // a scene must set it; the origin until then
    Vector direction{0.0f, 1.0f, 0.0f};  // the spot's axis
    float innerRadians = 0.0f;
    float outerRadians = 3.14159265f;
    float innerAngle = 0.0f;        // degrees
    float outerAngle = 180.0f;
};

struct ParallelLight final : DeltaLight {
    ParallelLight() { frame[6] = 0.0f, frame[7] = 0.0f, frame[8] = -1.0f; }
    void reset() override;
    void emitPhoton(RayState& ray, uint64_t index) const override;

    float blurCosine = 1.0f;
    float offset = 0.1f;
};

// The spot weight of a point light for the unit direction w leaving it:
// linear in the angle from the axis between the outer and inner angles.
float spotWeight(const PointLight& light, Vector w);

// A direction in the cone of cosine `cosine` around the third vector of
// `frame`, uniform over the cone's solid angle, from two uniform numbers.
Vector coneDirection(const float frame[9], float cosine, float a, float b);

// The gaffer stage: the point and parallel lights.
void prepareGaffer();
void releaseGaffer();
