// Assembling the scene: instance targets, the root object, levels below it,
// bottom-up object preparation and the scene's box.
#include <algorithm>
#include <cmath>

#include "core/registry.h"
#include "core/report.h"
#include "geometry/load_time.h"
#include "geometry/prepare.h"

namespace {

constexpr uint32_t kUnresolved = 0xFFFFFFFFu;

// Finds each instance's target by name; instances that name no object are
// dropped, so that no walk ever indexes with them.
void resolveTargets() {
    auto& objects = registry.objects;
    for (Object& object : objects) {
        for (Instance& instance : object.instances) {
            if (instance.target != kUnresolved) continue;
            for (size_t i = 0; i < objects.size(); ++i)
                if (objects[i].name == instance.targetName) {
                    instance.target = uint32_t(i);
                    break;
                }
        }
        std::erase_if(object.instances, [&](const Instance& instance) { return instance.target >= objects.size(); });
    }
}

// Sets the level of every object below `index`, the last visit winning. An
// instance that leads back into the path that reached it would never end the
// walk: it is reported and dropped.
void assignLevels(size_t index, uint32_t depth, std::vector<uint8_t>& onPath) {
    Object& object = registry.objects[index];
    onPath[index] = 1;
    for (size_t i = 0; i < object.instances.size();) {
        const uint32_t target = object.instances[i].target;
        if (onPath[target]) {
            reportError("object - instance cycle from " + object.name + " to " + registry.objects[target].name);
            reportRule();
            object.instances.erase(object.instances.begin() + std::ptrdiff_t(i));
            continue;
        }
        registry.objects[target].level = depth;
        assignLevels(target, depth + 1, onPath);
        ++i;
    }
    onPath[index] = 0;
}

// Counts, up to two, the chains of instances that reach each object from
// `index`, and keeps the linear part of the first chain's matrix. An object
// reached twice passes its second count down, so that every object below
// it counts two as well; deeper visits stop there.
struct Placement {
    uint8_t count = 0;
    float linear[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
};
void countPlacements(size_t index, const float* linear, std::vector<Placement>& placements) {
    Placement& placement = placements[index];
    if (placement.count == 2) return;
    if (++placement.count == 1) std::copy(linear, linear + 9, placement.linear);
    for (const Instance& instance : registry.objects[index].instances) {
        // The product, column by column: the placement times each column of
        // the instance's own linear part.
        const float* m = instance.toWorld;
        float product[9];
        for (int c = 0; c < 3; ++c) {
            const Vector column = times3x3(placement.linear, {m[c], m[4 + c], m[8 + c]});
            product[c] = column.x, product[3 + c] = column.y, product[6 + c] = column.z;
        }
        countPlacements(instance.target, product, placements);
    }
}

// The objects placed once are gatherable, and their parts carry the linear
// part of that one placement for the cells of the density estimator: photons
// that land on them light one place only. Objects placed many times are not,
// and their hits are path traced.
void markGatherableObjects() {
    auto& objects = registry.objects;
    std::vector<Placement> placements(objects.size());
    const Placement identity;
    countPlacements(size_t(registry.rootObject), identity.linear, placements);
    for (size_t i = 0; i < objects.size(); ++i) {
        objects[i].gatherable = placements[i].count == 1;
        if (!objects[i].gatherable) continue;
        for (Part& part : objects[i].parts) std::copy(placements[i].linear, placements[i].linear + 9, part.cellMatrix);
    }
}

}  // namespace

void prepareAccelerator() {
    registry.displaceMilliseconds = 0;
    registry.smoothMilliseconds = 0;
    auto& objects = registry.objects;
    if (objects.empty()) return;

    resolveTargets();
    for (Object& object : objects) object.referenced = 0;
    for (const Object& object : objects)
        for (const Instance& instance : object.instances) objects[instance.target].referenced = 1;

    registry.rootObject = 0;
    int unreferenced = 0;
    for (size_t i = 0; i < objects.size(); ++i)
        if (!objects[i].referenced) {
            registry.rootObject = int(i);
            ++unreferenced;
        }
    Object& root = objects[size_t(registry.rootObject)];
    if (unreferenced > 1) {
        reportMessage("object - " + root.name + " is treated as the root object");
        reportRule();
        for (size_t i = 0; i < objects.size(); ++i) {
            if (objects[i].referenced || int(i) == registry.rootObject) continue;
            Instance instance;
            instance.target = uint32_t(i);
            root.instances.push_back(instance);
        }
    }

    root.level = 0;
    std::vector<uint8_t> onPath(objects.size(), 0);
    assignLevels(size_t(registry.rootObject), 1, onPath);

    uint32_t deepest = 0;
    for (const Object& object : objects) deepest = std::max(deepest, object.level);
    for (int64_t level = deepest; level >= 0; --level)
        for (Object& object : objects)
            if (object.level == uint32_t(level)) prepareObject(object);

    const Bbox& b = objects[size_t(registry.rootObject)].bounds;
    registry.sceneMin = {b.min[0], b.min[1], b.min[2]};
    registry.sceneMax = {b.max[0], b.max[1], b.max[2]};
    registry.sceneCenter = (registry.sceneMin + registry.sceneMax) * 0.5f;
    const Vector diagonal = registry.sceneMax - registry.sceneMin;
    registry.sceneRadius = 0.5f * std::sqrt(dot(diagonal, diagonal));

    if (unreferenced == 0) {
        reportError("object - there is no root object");
        reportRule();
    }
    markGatherableObjects();
}

void reportSceneBounds() {
    const Vector size = registry.sceneMax - registry.sceneMin;
    reportVector("scene size  ", size.x, size.y, size.z, "m");
    reportVector("scene min   ", registry.sceneMin.x, registry.sceneMin.y, registry.sceneMin.z, "n/a");
    reportVector("scene max   ", registry.sceneMax.x, registry.sceneMax.y, registry.sceneMax.z, "n/a");
    reportVector("scene center", registry.sceneCenter.x, registry.sceneCenter.y, registry.sceneCenter.z, "n/a");
    reportRule();
}

void releaseAccelerator() { registry.objects = {}; }
