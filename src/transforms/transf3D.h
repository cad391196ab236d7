// Separable 3-D block transform: x pass, y pass, then z pass (only when z >= 2).
#pragma once

#include "common.h"

// `input` may equal `output`; the two buffers hold one block each and must
// differ from both and from each other.
template <typename T>
void transf3D(const T* input, const Vec3<const T*>& transforms,
              const Vec3<TransformsMetas::StandardTransform>& kinds, T* bufferA, T* bufferB,
              T* output, const Vec3<int>& size);
