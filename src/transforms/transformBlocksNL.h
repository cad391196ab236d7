// The 1-D transform across the members of a group.
#pragma once

#include "common.h"

// Forward, reading every member straight from its stored block.
template <typename T>
void transformBlocksNL(const BlockDistance<T>* matches, int n, const T* matrix,
                       TransformsMetas::StandardTransform kind, Cube4D<T>& output,
                       const Vec3<int>& blockSize);

// From a cube (the inverse, with kind + 16). Input and output must not overlap.
template <typename T>
void transformBlocksNL(const Cube4D<T>& input, int n, const T* matrix,
                       TransformsMetas::StandardTransform kind, Cube4D<T>& output,
                       const Vec3<int>& blockSize);
