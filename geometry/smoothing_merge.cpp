// Merging for smoothing: the new vertices of all slots, in slot order, become
// the part's vertex arrays, each taking the channel values of the input
// vertex it copies.
#include "geometry/smoothing_phases.h"

namespace smoothing {

namespace {

// Channel c of the output: the values of each new vertex's source, where the
// source lies within the channel.
template <typename T>
void gatherChannel(std::vector<T>& elements, const std::vector<SmoothOutput>& outputs, uint32_t slots,
                   const std::vector<uint64_t>& base, size_t vertexCount) {
    if (elements.empty()) return;
    std::vector<T> gathered;
    if (elements.size() >= vertexCount) {
        gathered.resize(base[slots]);
#pragma omp parallel for schedule(static)
        for (uint32_t s = 0; s < slots; ++s) {
            const auto& source = outputs[s].source;
            for (size_t k = 0; k < source.size(); ++k) gathered[base[s] + k] = elements[source[k]];
        }
    } else {
        for (uint32_t s = 0; s < slots; ++s)
            for (uint32_t v : outputs[s].source)
                if (v < elements.size()) gathered.push_back(elements[v]);
    }
    elements.swap(gathered);
}

template <typename T>
void gatherChannels(std::vector<VertexChannel<T>>& channels, const std::vector<SmoothOutput>& outputs,
                    uint32_t slots, const std::vector<uint64_t>& base, size_t vertexCount) {
    for (auto& channel : channels) gatherChannel(channel.elements, outputs, slots, base, vertexCount);
}

}  // namespace

std::vector<uint64_t> mergeVertices(Part& part, const std::vector<SmoothOutput>& outputs, uint32_t slots) {
    const size_t vertexCount = part.positions.size();
    std::vector<uint64_t> base(kMaxThreads + 1, 0);
    for (uint32_t s = 0; s < slots; ++s) base[s + 1] = base[s] + outputs[s].source.size();
    const uint64_t total = base[slots];

    std::vector<Vector> positions(total);
    std::vector<PackedDirection> normals(total), tangents(total);
#pragma omp parallel for schedule(static)
    for (uint32_t s = 0; s < slots; ++s) {
        const SmoothOutput& out = outputs[s];
        for (size_t k = 0; k < out.source.size(); ++k) {
            positions[base[s] + k] = part.positions[out.source[k]];
            normals[base[s] + k] = out.normals[k];
            tangents[base[s] + k] = out.tangents[k];
        }
    }
    gatherChannels(part.vectorChannels, outputs, slots, base, vertexCount);
    gatherChannels(part.uvChannels, outputs, slots, base, vertexCount);
    gatherChannels(part.scalarChannels, outputs, slots, base, vertexCount);
    part.positions.swap(positions);
    part.normals.swap(normals);
    part.tangents.swap(tangents);
    return base;
}

}  // namespace smoothing
