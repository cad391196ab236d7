// Python binding of the two filtering stages. Buffers are taken as they are
// (float32, C-contiguous, checked here, never converted), the interpreter lock
// is released while a stage runs, and a stage can be watched and cancelled
// through a Monitor from another Python thread.
#include <pybind11/pybind11.h>
#include <pybind11/numpy.h>

#include <cstdint>
#include <mutex>
#include <string>

#include "KORVO.h"

namespace py = pybind11;

namespace {

// The library's thread pool takes one driving thread at a time.
std::mutex& nativeMutex() {
    static std::mutex mutex;
    return mutex;
}

struct Monitor {
    korvo_detail::StageMonitor state;

    long slicesDone() const { return state.slicesDone.load(); }
    long slicesTotal() const { return state.slicesTotal.load(); }
    bool cancelled() const { return state.cancel.load(); }
    void cancel() { state.cancel.store(true); }
};

void requireBuffer(const py::array& array, const char* name, bool writable, py::ssize_t count) {
    if (!py::array_t<float>::check_(array)) {
        throw py::type_error(std::string(name) + " must be a float32 array");
    }
    if (!(array.flags() & py::array::c_style)) {
        throw py::value_error(std::string(name) + " must be C-contiguous");
    }
    if (writable && !array.writeable()) {
        throw py::value_error(std::string(name) + " must be writable");
    }
    if (count >= 0 && array.size() != count) {
        throw py::value_error(std::string(name) + " has " + std::to_string(array.size()) +
                              " elements, expected " + std::to_string(count));
    }
}

void requireInt32(const py::array& array, const char* name, py::ssize_t count) {
    if (!py::array_t<std::int32_t>::check_(array) || !(array.flags() & py::array::c_style) ||
        !array.writeable()) {
        throw py::type_error(std::string(name) + " must be a writable C-contiguous int32 array");
    }
    if (array.size() < count) {
        throw py::value_error(std::string(name) + " is too small for the match storage");
    }
}

Vec3<int> vec3(const py::dict& values, const char* key) {
    auto t = values[key].cast<std::tuple<int, int, int>>();
    return {std::get<0>(t), std::get<1>(t), std::get<2>(t)};
}

Parameters toParameters(const py::dict& v) {
    Parameters p{};
    p.blockSize = vec3(v, "block_size");
    p.psdWorkSize = vec3(v, "psd_work_size");
    p.useRealFft = v["use_real_fft"].cast<bool>();
    p.maxGroupSize = v["max_group_size"].cast<int>();
    p.varianceGroupLimit = v["variance_group_limit"].cast<int>();
    p.thresholdFactor = v["threshold_factor"].cast<float>();
    p.wienerFactor = v["wiener_factor"].cast<float>();
    p.matchVarianceWeight = v["match_variance_weight"].cast<float>();
    p.searchWindow = vec3(v, "search_window");
    p.imageSize = vec3(v, "image_size");
    p.psdSize = vec3(v, "psd_size");
    p.step = vec3(v, "step");
    p.minReduceCount = v["min_reduce_count"].cast<int>();
    p.matchThreshold = v["match_threshold"].cast<float>();
    auto split = v["split_block_extraction"].cast<std::tuple<bool, bool, bool>>();
    p.splitBlockExtraction[0] = std::get<0>(split);
    p.splitBlockExtraction[1] = std::get<1>(split);
    p.splitBlockExtraction[2] = std::get<2>(split);
    // No per-axis grid offsets: the entry points substitute their zero table.
    p.axisArrayLength = {0, 0, 0};
    p.axisArrays = {nullptr, nullptr, nullptr};
    p.sharpen = v["sharpen"].cast<bool>();
    p.sharpenVariances = v["sharpen_variances"].cast<bool>();
    p.sharpenExponent = v["sharpen_exponent"].cast<float>();
    p.sharpenExponentFlat = v["sharpen_exponent_flat"].cast<float>();
    p.numThreads = v["num_threads"].cast<int>();
    return p;
}

// Runs one stage. Returns (completed, rows): completed is false when the stage
// stopped early (allocation failure or cancellation, which the monitor tells
// apart); rows is the number of match-storage rows written (0 without storage).
py::tuple runStage(int stage, const py::array& noisy, const py::array& psd, const py::dict& values,
                   const py::object& pilotObject, py::array output,
                   const py::object& storageObject, Monitor& monitor) {
    if (stage != 0 && stage != 1) throw py::value_error("stage must be 0 or 1");
    Parameters params = toParameters(values);
    const py::ssize_t voxels = static_cast<py::ssize_t>(params.imageSize.x) * params.imageSize.y *
                               params.imageSize.z;
    const py::ssize_t psdCount =
        static_cast<py::ssize_t>(params.psdSize.x) * params.psdSize.y * params.psdSize.z;
    requireBuffer(noisy, "noisy", false, voxels);
    requireBuffer(psd, "psd", false, psdCount);
    requireBuffer(output, "output", true, voxels);

    const float* pilot = nullptr;
    py::array pilotArray;
    if (stage == 1) {
        if (pilotObject.is_none()) throw py::value_error("the Wiener stage needs a pilot");
        pilotArray = pilotObject.cast<py::array>();
        requireBuffer(pilotArray, "pilot", false, voxels);
        pilot = static_cast<const float*>(pilotArray.data());
    }

    BlockMatchStorage storage{};
    BlockMatchStorage* storagePointer = nullptr;
    py::array counts, positions, relative;
    if (!storageObject.is_none()) {
        auto s = storageObject.cast<py::tuple>();
        if (s.size() != 5) throw py::value_error("storage must be (counts, positions, relative, entries, filled)");
        counts = s[0].cast<py::array>();
        positions = s[1].cast<py::array>();
        relative = s[2].cast<py::array>();
        const int entries = s[3].cast<int>();
        if (entries < params.maxGroupSize) {
            throw py::value_error("match storage rows are shorter than the largest group");
        }
        const py::ssize_t rows = counts.size();
        requireInt32(counts, "counts", rows);
        requireInt32(positions, "positions", rows * entries * 3);
        requireInt32(relative, "relative_positions", rows * entries * 3);
        storage.entriesPerReference = entries;
        storage.counts = static_cast<std::int32_t*>(counts.mutable_data());
        storage.positions = static_cast<Vec3<int>*>(positions.mutable_data());
        storage.relativePositions = static_cast<Vec3<int>*>(relative.mutable_data());
        storage.rows = 0;
        storage.filled = s[4].cast<bool>() ? 1 : 0;
        storagePointer = &storage;
    }

    const float* noisyData = static_cast<const float*>(noisy.data());
    const float* psdData = static_cast<const float*>(psd.data());
    float* outputData = static_cast<float*>(output.mutable_data());
    Transforms<float> builtIn{};  // null first member: the library's built-in sets

    bool completed = false;
    std::string missingTransform;
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(nativeMutex());
        monitor.state.slicesDone.store(0);
        monitor.state.slicesTotal.store(0);
        korvo_detail::setStageMonitor(&monitor.state);
        try {
            completed = stage == 0
                            ? korvo_detail::runStageHT(noisyData, psdData, &params, &builtIn,
                                                       outputData, storagePointer)
                            : korvo_detail::runStageWie(noisyData, psdData, &params, &builtIn, pilot,
                                                        outputData, storagePointer);
        } catch (const MissingTransformException& e) {
            missingTransform = e.what();
        } catch (...) {
            korvo_detail::setStageMonitor(nullptr);
            throw;
        }
        korvo_detail::setStageMonitor(nullptr);
    }
    if (!missingTransform.empty()) throw py::value_error(missingTransform);
    return py::make_tuple(completed, storagePointer ? storage.rows : 0);
}

}  // namespace

PYBIND11_MODULE(_native, m) {
    m.doc() = "Native stages of the korvo denoiser (internal; use korvo.korvo).";

    py::class_<Monitor>(m, "Monitor")
        .def(py::init<>())
        .def_property_readonly("slices_done", &Monitor::slicesDone)
        .def_property_readonly("slices_total", &Monitor::slicesTotal)
        .def_property_readonly("cancelled", &Monitor::cancelled)
        .def("cancel", &Monitor::cancel, "Ask the running stage to stop at the next slice.");

    m.def("run_stage", &runStage, py::arg("stage"), py::arg("noisy"), py::arg("psd"),
          py::arg("params"), py::arg("pilot"), py::arg("output"), py::arg("storage"),
          py::arg("monitor"),
          "Run one stage (0: hard thresholding, 1: Wiener) on float32 C-contiguous buffers.");
}
