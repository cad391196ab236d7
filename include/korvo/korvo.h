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

// Services around the entry points, for hosts that want to check a record before
// running it and size their buffers the way the library does. None of them runs
// a stage or changes its results.

// Fills `params` with the defaults of the Python package for one stage (0: hard
// thresholding, 1: Wiener) of a volume of `imageSize` (x, y, z; z = 1 for an
// image) carrying white noise of standard deviation `sigma`: psdSize is {1, 1, 1}
// (pass sigma * sigma as the PSD) and numThreads 0 (all cores).
KORVO_API void korvoDefaultParameters(Parameters* params, int stage, Vec3<int> imageSize,
                                      float sigma);

// Narrows searchWindow per axis to what imageSize can serve with blockSize (the
// stages clip windows at the border, so no group changes; a wider window only
// costs time and memory).
KORVO_API void korvoFitSearchWindow(Parameters* params);

// 0 when a stage can run `params`; otherwise 1, with the reason (one sentence
// naming the fields) copied into `message` (at most capacity - 1 characters and a
// terminating zero). Covers every combination the stage loop would stop on with
// an assertion or could not serve.
KORVO_API int korvoCheckParameters(const Parameters* params, int stage, char* message,
                                   int capacity);

// 0 when a filled `storage` can be replayed by a stage running `params` (every
// row's count and positions within what the stage reads); otherwise 1 and the
// reason, as above.
KORVO_API int korvoCheckMatchStorage(const Parameters* params, const BlockMatchStorage* storage,
                                     char* message, int capacity);

// Rows of reference positions a stage running `params` records in a match
// storage (each row needs maxGroupSize entries).
KORVO_API long korvoMatchStorageRows(const Parameters* params);

// Bytes of block collections a stage running `params` allocates, with the
// record's splitBlockExtraction flags and numThreads (0: all cores).
KORVO_API long long korvoCollectionBytes(const Parameters* params, int stage);

// Bytes besides the block collections that a stage running `params` holds
// while its workers run: the weight image, the noise tables, each worker's
// group buffers and the aggregation planes shared by two workers.
KORVO_API long long korvoWorkingBytes(const Parameters* params, int stage);
