// A stage's transforms with the kinds that select their fast paths.
#pragma once

#include "common.h"

template <typename T>
struct TransformsMeta {
    Vec3<const T*> forward;
    Vec3<const T*> inverse;
    const T* const* groupForward;
    const T* const* groupInverse;
    const T* window;
    Vec3<TransformsMetas::StandardTransform> forwardKinds;
    TransformsMetas::StandardTransform* groupForwardKinds;  // maxGroupSize + 1 entries, or null
    Vec3<TransformsMetas::StandardTransform> inverseKinds;
    TransformsMetas::StandardTransform* groupInverseKinds;
};

// Copies the pointers and recognises every matrix once; the two kind arrays are
// malloc'ed and released by the stage loop.
template <typename T>
TransformsMeta<T> getTransformMeta(const Transforms<T>& transforms, const Parameters& params);
