// Core value types shared by every unit of the library and by its callers.
#pragma once

#include <cstdint>

#if defined(_WIN32)
#define KORVO_API __declspec(dllexport)
#else
#define KORVO_API __attribute__((visibility("default")))
#endif

namespace korvo_detail {
// Always-on invariant check. The expression texts are part of the library's
// contract (tests and users match on them), so they must survive release builds.
[[noreturn]] KORVO_API void assertionFailed(const char* expression, const char* function,
                                            const char* file, int line) noexcept;
}  // namespace korvo_detail

#define KORVO_ASSERT(expression)                                                         \
    (__builtin_expect(static_cast<bool>(expression), 1)                                  \
         ? static_cast<void>(0)                                                          \
         : ::korvo_detail::assertionFailed(#expression, __func__, __FILE__, __LINE__))

template <typename T>
struct Vec3 {
    T x;
    T y;
    T z;

    T volume() const { return x * y * z; }

    Vec3 operator+(const Vec3& o) const { return {x + o.x, y + o.y, z + o.z}; }
    Vec3 operator-(const Vec3& o) const { return {x - o.x, y - o.y, z - o.z}; }

    // Deliberately asymmetric: >= needs every component, < and <= need any one.
    // The band range checks of the block collection depend on exactly this.
    bool operator>=(const Vec3& o) const { return x >= o.x && y >= o.y && z >= o.z; }
    bool operator<(const Vec3& o) const { return x < o.x || y < o.y || z < o.z; }
    bool operator<=(const Vec3& o) const { return x <= o.x || y <= o.y || z <= o.z; }
    // Every component above the scalar.
    bool operator>(T scalar) const { return x > scalar && y > scalar && z > scalar; }
    bool operator==(const Vec3& o) const { return x == o.x && y == o.y && z == o.z; }
    bool operator!=(const Vec3& o) const { return !(*this == o); }
};

struct Complex {
    float real;
    float imag;
};

struct Vec4i {
    int x;
    int y;
    int z;
    int w;
};

// Group of blocks: x fastest, the group member slowest, so every member is one
// contiguous slot of x*y*z values laid out like a block of the volume.
template <typename T>
struct Cube4D {
    Vec4i size;
    T* data;

    long index(const Vec4i& coord) const {
        return coord.x +
               static_cast<long>(size.x) *
                   (coord.y + static_cast<long>(size.y) *
                                  (coord.z + static_cast<long>(size.z) * coord.w));
    }
    long count() const {
        return static_cast<long>(size.x) * size.y * size.z * size.w;
    }
    long slot() const { return static_cast<long>(size.x) * size.y * size.z; }

    const T& at(const Vec4i& coord) const { return data[index(coord)]; }
    void setCoeff(const Vec4i& coord, const T& value) {
        KORVO_ASSERT(coord.x < size.x && coord.y < size.y && coord.z < size.z && coord.w < size.w);
        data[index(coord)] = value;
    }
};

namespace TransformsMetas {
// Forward kinds 0..15; the inverse of a kind is always kind + 16.
enum StandardTransform : std::int32_t {
    Dct4 = 0,
    Bior4 = 1,
    Haar4 = 2,
    Dct5 = 4,
    Dct8 = 5,
    Bior8 = 6,
    Haar8 = 7,
    GroupHaar2 = 9,
    GroupHaar4 = 10,
    GroupHaar8 = 11,
    GroupHaar16 = 12,
    GroupHaar32 = 13,
    Arbitrary = 15,
    InverseDct4 = 16,
    InverseBior4 = 17,
    InverseHaar4 = 18,
    InverseDct5 = 20,
    InverseDct8 = 21,
    InverseBior8 = 22,
    InverseHaar8 = 23,
    InverseGroupHaar2 = 25,
    InverseGroupHaar4 = 26,
    InverseGroupHaar8 = 27,
    InverseGroupHaar16 = 28,
    InverseGroupHaar32 = 29,
    InverseArbitrary = 31,
};

inline StandardTransform inverseOf(StandardTransform kind) {
    return static_cast<StandardTransform>(kind + 16);
}
}  // namespace TransformsMetas

// One block of a group: record 0 is the reference, then matches by distance.
template <typename T>
struct BlockDistance {
    const T* block;
    float distance;
    Vec3<int> position;
    Vec3<int> relativePosition;

    bool operator<(const BlockDistance& o) const { return distance < o.distance; }
};

// Caller-owned match lists of one run, replayed by a later run.
struct BlockMatchStorage {
    std::int32_t entriesPerReference;
    std::int32_t* counts;
    Vec3<int>* positions;
    Vec3<int>* relativePositions;
    std::int32_t rows;    // reference rows written by the last recording run
    std::int32_t filled;  // non-zero: replay instead of matching
};
