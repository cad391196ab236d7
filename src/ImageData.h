// Views of a volume: x fastest, then y, then z.
#pragma once

#include <cstdlib>

#include "common.h"

template <typename T>
struct ImageData {
    const T* _data;
    Vec3<int> _size;
    int _volume;
    int _planeSize;

    ImageData(const T* data, const Vec3<int>& size)
        : _data(data), _size(size), _volume(size.x * size.y * size.z), _planeSize(size.x * size.y) {}

    int convertToIndex(const Vec3<int>& coords) const {
        return coords.x + coords.y * _size.x + coords.z * _planeSize;
    }
    const T& at(const Vec3<int>& coords) const {
        KORVO_ASSERT(convertToIndex(coords) >= 0 && convertToIndex(coords) < _size.volume());
        return _data[convertToIndex(coords)];
    }
    const Vec3<int>& size() const { return _size; }
    const T* data() const { return _data; }
};

template <typename T>
struct ImageDataMutable : ImageData<T> {
    T* _mutableData;
    bool _ownsData;

    ImageDataMutable(T* data, const Vec3<int>& size, bool ownsData)
        : ImageData<T>(data, size), _mutableData(data), _ownsData(ownsData) {}
    ImageDataMutable(const ImageDataMutable&) = delete;
    ImageDataMutable& operator=(const ImageDataMutable&) = delete;
    ~ImageDataMutable() {
        if (_ownsData) {
            std::free(_mutableData);
        }
    }

    using ImageData<T>::convertToIndex;
    using ImageData<T>::_size;

    T& at(const Vec3<int>& coords) {
        KORVO_ASSERT(convertToIndex(coords) >= 0 && convertToIndex(coords) < _size.volume());
        return _mutableData[convertToIndex(coords)];
    }
    T* data() { return _mutableData; }
};
