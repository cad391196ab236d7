#include "transforms/TransformsMeta.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

#include "transforms/tables.h"

namespace {

using TransformsMetas::StandardTransform;

// Kind of the group matrix for `size` blocks (a power of two from 2 to 32).
StandardTransform groupKind(const float* matrix, int size) {
    switch (size) {
        case 2:
            return matchesTable(matrix, standardTransformTable(TransformsMetas::GroupHaar2), 4)
                       ? TransformsMetas::GroupHaar2
                       : TransformsMetas::Arbitrary;
        case 4: {
            const StandardTransform kind = getStandardTransform4(matrix);
            if (kind != TransformsMetas::Arbitrary) return kind;
            return matchesTable(matrix, standardTransformTable(TransformsMetas::GroupHaar4), 16)
                       ? TransformsMetas::GroupHaar4
                       : TransformsMetas::Arbitrary;
        }
        case 8: {
            const StandardTransform kind = getStandardBlockTransform(matrix, 8);
            if (kind != TransformsMetas::Arbitrary) return kind;
            return matchesTable(matrix, standardTransformTable(TransformsMetas::GroupHaar8), 64)
                       ? TransformsMetas::GroupHaar8
                       : TransformsMetas::Arbitrary;
        }
        case 16:
            return matchesTable(matrix, standardTransformTable(TransformsMetas::GroupHaar16), 256)
                       ? TransformsMetas::GroupHaar16
                       : TransformsMetas::Arbitrary;
        case 32:
            return matchesTable(matrix, standardTransformTable(TransformsMetas::GroupHaar32), 1024)
                       ? TransformsMetas::GroupHaar32
                       : TransformsMetas::Arbitrary;
        default:
            return TransformsMetas::Arbitrary;
    }
}

}  // namespace

template <typename T>
TransformsMeta<T> getTransformMeta(const Transforms<T>& transforms, const Parameters& params) {
    TransformsMeta<T> meta{};
    meta.forward = transforms.forward;
    meta.inverse = transforms.inverse;
    meta.groupForward = transforms.groupForward;
    meta.groupInverse = transforms.groupInverse;
    meta.window = transforms.window;

    const Vec3<int>& b = params.blockSize;
    meta.forwardKinds = {getStandardBlockTransform(transforms.forward.x, b.x),
                         getStandardBlockTransform(transforms.forward.y, b.y),
                         getStandardBlockTransform(transforms.forward.z, b.z)};
    meta.inverseKinds = {TransformsMetas::inverseOf(meta.forwardKinds.x),
                         TransformsMetas::inverseOf(meta.forwardKinds.y),
                         TransformsMetas::inverseOf(meta.forwardKinds.z)};

    // Every entry, N included, starts as the general product: a group of
    // exactly maxGroupSize blocks reads entry N.
    const int n = params.maxGroupSize;
    const int entries = std::max(n + 1, 1);
    meta.groupForwardKinds =
        static_cast<StandardTransform*>(std::malloc(sizeof(StandardTransform) * static_cast<std::size_t>(entries)));
    meta.groupInverseKinds =
        static_cast<StandardTransform*>(std::malloc(sizeof(StandardTransform) * static_cast<std::size_t>(entries)));
    if (meta.groupForwardKinds == nullptr || meta.groupInverseKinds == nullptr) return meta;
    std::fill_n(meta.groupForwardKinds, entries, TransformsMetas::Arbitrary);
    std::fill_n(meta.groupInverseKinds, entries, TransformsMetas::InverseArbitrary);

    // Only powers of two up to 32 are examined; the 0.001 absorbs log2 rounding.
    if (n < 2) return meta;
    const int levels = static_cast<int>(std::log2(static_cast<double>(n)) + 0.001);
    for (int k = 0; k < std::min(levels, 5); ++k) {
        const int size = 2 << k;
        const StandardTransform kind = groupKind(transforms.groupForward[size], size);
        meta.groupForwardKinds[size] = kind;
        meta.groupInverseKinds[size] = TransformsMetas::inverseOf(kind);
    }
    return meta;
}

template TransformsMeta<float> getTransformMeta<float>(const Transforms<float>&, const Parameters&);
