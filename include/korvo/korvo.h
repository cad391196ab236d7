// The exported interface: the two stage entry points and the records they take.
#pragma once

#include <exception>

#include "korvo/common.h"

// Filled by the caller, passed by pointer; the entry points normalise some
// fields in place. Field order is part of the binary interface.
struct Parameters {
    Vec3<int> blockSize;
    Vec3<int> psdWorkSize;
    bool useRealFft;
    int maxGroupSize;
    int varianceGroupLimit;
    float thresholdFactor;
    float wienerFactor;
    float matchVarianceWeight;
    Vec3<int> searchWindow;
    Vec3<int> imageSize;
    Vec3<int> psdSize;
    Vec3<int> step;
    int minReduceCount;
    float matchThreshold;
    bool splitBlockExtraction[3];
    Vec3<int> axisArrayLength;
    Vec3<const float*> axisArrays;
    bool sharpen;
    bool sharpenVariances;
    float sharpenExponent;
    float sharpenExponentFlat;
    int numThreads;
};

// The caller's transform matrices (row-major, coefficient k = sum_j M[k*n+j] x[j]).
template <typename T>
struct Transforms {
    Vec3<const T*> forward;
    Vec3<const T*> inverse;
    const T* const* groupForward;  // 65 entries indexed by group size, null where absent
    const T* const* groupInverse;
    const T* window;  // aggregation window, one block
};

class KORVO_API MissingTransformException : public std::exception {
public:
    const char* what() const noexcept override;
};

extern "C" {
// Hard-thresholding stage. `output` must arrive zero-filled.
KORVO_API void korvoInterfaceHT(const float* noisy, const float* psd, Parameters* params,
                                Transforms<float>* transforms, float* output,
                                BlockMatchStorage* storage);

// Wiener stage with the first estimate as pilot. `output` must arrive zero-filled.
KORVO_API void korvoInterfaceWie(const float* noisy, const float* psd, Parameters* params,
                                 Transforms<float>* transforms, const float* pilot,
                                 float* output, BlockMatchStorage* storage);
}
