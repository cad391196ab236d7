// Python binding of the library: the parameter record as a typed class, the
// record services (defaults, checks, sizes) and the two filtering stages.
// Stage buffers are taken as they are (float32, C-contiguous, checked here, never
// converted), every record is checked before a stage runs, the interpreter lock
// is released while a stage runs, and a stage can be watched and cancelled
// through a Monitor from another Python thread.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <tuple>

#include "KORVO.h"

namespace py = pybind11;

namespace {

using Triple = std::tuple<int, int, int>;

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

Parameters blankParameters() {
    Parameters p{};
    p.axisArrayLength = {0, 0, 0};  // no per-axis grid offsets
    p.axisArrays = {nullptr, nullptr, nullptr};
    return p;
}

// Exposes a Vec3<int> field as an (x, y, z) tuple.
template <Vec3<int> Parameters::*field>
void vec3Field(py::class_<Parameters>& cls, const char* name) {
    cls.def_property(
        name,
        [](const Parameters& p) {
            const Vec3<int>& v = p.*field;
            return Triple{v.x, v.y, v.z};
        },
        [](Parameters& p, const Triple& t) {
            p.*field = {std::get<0>(t), std::get<1>(t), std::get<2>(t)};
        });
}

// Python-visible field names, in the record's order.
const char* const kFields[] = {"block_size", "psd_work_size", "use_real_fft", "max_group_size",
                               "variance_group_limit", "threshold_factor", "wiener_factor",
                               "match_variance_weight", "search_window", "image_size", "psd_size",
                               "step", "min_reduce_count", "match_threshold",
                               "split_block_extraction", "sharpen", "sharpen_variances",
                               "sharpen_exponent", "sharpen_exponent_flat", "num_threads"};

std::string checkParameters(const Parameters& params, int stage) {
    char message[512];
    return korvoCheckParameters(&params, stage, message, sizeof message) == 0 ? std::string()
                                                                             : std::string(message);
}

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
    if (array.size() != count) {
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
        throw py::value_error(std::string(name) + " holds " + std::to_string(array.size()) +
                              " values, the match storage needs " + std::to_string(count));
    }
}

// A match storage over the arrays of korvo.StageMatches: (counts, positions,
// relative positions, entries per reference, rows, filled). The arrays stay
// referenced by the caller's tuple while the record points into them.
BlockMatchStorage toStorage(const py::tuple& s, const Parameters& params) {
    if (s.size() != 6) {
        throw py::value_error("storage must be (counts, positions, relative, entries, rows, filled)");
    }
    const int entries = s[3].cast<int>();
    const bool filled = s[5].cast<bool>();
    if (entries < 1) throw py::value_error("match storage rows must hold at least one entry");
    // Recording writes up to maxGroupSize entries per row; replay reads the counts.
    if (!filled && entries < params.maxGroupSize) {
        throw py::value_error("match storage rows are shorter than the largest group");
    }
    const py::ssize_t rows = korvoMatchStorageRows(&params);
    py::array counts = s[0].cast<py::array>();
    py::array positions = s[1].cast<py::array>();
    py::array relative = s[2].cast<py::array>();
    requireInt32(counts, "counts", rows);
    requireInt32(positions, "positions", rows * entries * 3);
    requireInt32(relative, "relative_positions", rows * entries * 3);
    BlockMatchStorage storage{};
    storage.entriesPerReference = entries;
    storage.counts = static_cast<std::int32_t*>(counts.mutable_data());
    storage.positions = static_cast<Vec3<int>*>(positions.mutable_data());
    storage.relativePositions = static_cast<Vec3<int>*>(relative.mutable_data());
    storage.rows = filled ? s[4].cast<std::int32_t>() : 0;
    storage.filled = filled ? 1 : 0;
    return storage;
}

// Caller transforms for one run: per-axis forward and inverse matrices and the
// aggregation window, checked against the record's block size. The arrays stay
// referenced here for the whole call; group transforms stay the built-in ones.
struct CallerTransforms {
    py::array arrays[7];
    Transforms<float> record{};
};

py::array requireMatrix(const py::object& object, const char* what, int n) {
    py::array a = object.cast<py::array>();
    if (!py::array_t<float>::check_(a) || !(a.flags() & py::array::c_style)) {
        throw py::value_error(std::string(what) + " must be a C-contiguous float32 array");
    }
    if (a.ndim() != 2 || a.shape(0) != n || a.shape(1) != n) {
        throw py::value_error(std::string(what) + " must be " + std::to_string(n) + "x" +
                              std::to_string(n) + " to match the block size");
    }
    return a;
}

void toTransforms(const py::object& t, const Parameters& params, CallerTransforms& out) {
    const char* const axes[] = {"x", "y", "z"};
    const int extents[] = {params.blockSize.x, params.blockSize.y, params.blockSize.z};
    const float* pointers[6];
    for (int direction = 0; direction < 2; ++direction) {
        const char* name = direction == 0 ? "forward" : "inverse";
        const py::sequence matrices = t.attr(name).cast<py::sequence>();
        if (matrices.size() != 3) {
            throw py::value_error(std::string("transforms.") + name +
                                  " must hold three matrices (x, y, z)");
        }
        for (int a = 0; a < 3; ++a) {
            const std::string what = std::string("transforms.") + name + " along " + axes[a];
            py::array m = requireMatrix(matrices[a], what.c_str(), extents[a]);
            pointers[3 * direction + a] = static_cast<const float*>(m.data());
            out.arrays[3 * direction + a] = std::move(m);
        }
    }
    py::array window = t.attr("window").cast<py::array>();
    requireBuffer(window, "transforms.window", false,
                  static_cast<py::ssize_t>(extents[0]) * extents[1] * extents[2]);
    out.record.forward = {pointers[0], pointers[1], pointers[2]};
    out.record.inverse = {pointers[3], pointers[4], pointers[5]};
    out.record.window = static_cast<const float*>(window.data());
    out.arrays[6] = std::move(window);
}

std::string checkStorage(const Parameters& params, const BlockMatchStorage& storage) {
    char message[512];
    return korvoCheckMatchStorage(&params, &storage, message, sizeof message) == 0
               ? std::string()
               : std::string(message);
}

// Runs one stage. Returns (status, rows): how the stage ended and the number of
// match-storage rows written (0 without storage).
py::tuple runStage(int stage, const py::array& noisy, const py::array& psd, Parameters params,
                   const py::object& pilotObject, py::array output, const py::object& storageObject,
                   Monitor& monitor, const py::object& transformsObject) {
    if (stage != HardThresholding && stage != Wiener) throw py::value_error("stage must be 0 or 1");
    const std::string refused = checkParameters(params, stage);
    if (!refused.empty()) throw py::value_error(refused);
    const py::ssize_t voxels = static_cast<py::ssize_t>(params.imageSize.x) * params.imageSize.y *
                               params.imageSize.z;
    const py::ssize_t psdCount =
        static_cast<py::ssize_t>(params.psdSize.x) * params.psdSize.y * params.psdSize.z;
    requireBuffer(noisy, "noisy", false, voxels);
    requireBuffer(psd, "psd", false, psdCount);
    requireBuffer(output, "output", true, voxels);

    const float* pilot = nullptr;
    py::array pilotArray;
    if (stage == Wiener) {
        if (pilotObject.is_none()) throw py::value_error("the Wiener stage needs a pilot");
        pilotArray = pilotObject.cast<py::array>();
        requireBuffer(pilotArray, "pilot", false, voxels);
        pilot = static_cast<const float*>(pilotArray.data());
    }

    BlockMatchStorage storage{};
    BlockMatchStorage* storagePointer = nullptr;
    py::tuple storageTuple;
    if (!storageObject.is_none()) {
        storageTuple = storageObject.cast<py::tuple>();
        storage = toStorage(storageTuple, params);
        if (storage.filled) {
            const std::string bad = checkStorage(params, storage);
            if (!bad.empty()) throw py::value_error("the stored matches cannot be replayed: " + bad);
        }
        storagePointer = &storage;
    }

    const float* noisyData = static_cast<const float*>(noisy.data());
    const float* psdData = static_cast<const float*>(psd.data());
    float* outputData = static_cast<float*>(output.mutable_data());
    // A null first member selects the library's built-in sets.
    CallerTransforms caller;
    if (!transformsObject.is_none()) toTransforms(transformsObject, params, caller);

    korvo_detail::StageStatus status = korvo_detail::StageStatus::Completed;
    std::string missingTransform;
    {
        py::gil_scoped_release release;
        std::lock_guard<std::mutex> lock(nativeMutex());
        monitor.state.slicesDone.store(0);
        monitor.state.slicesTotal.store(0);
        korvo_detail::setStageMonitor(&monitor.state);
        try {
            status = stage == HardThresholding
                         ? korvo_detail::runStageHT(noisyData, psdData, &params, &caller.record,
                                                    outputData, storagePointer)
                         : korvo_detail::runStageWie(noisyData, psdData, &params, &caller.record,
                                                     pilot, outputData, storagePointer);
        } catch (const MissingTransformException& e) {
            missingTransform = e.what();
        } catch (...) {
            korvo_detail::setStageMonitor(nullptr);
            throw;
        }
        korvo_detail::setStageMonitor(nullptr);
    }
    if (!missingTransform.empty()) throw py::value_error(missingTransform);
    return py::make_tuple(status, storagePointer ? storage.rows : 0);
}

}  // namespace

PYBIND11_MODULE(_native, m) {
    m.doc() = "Native stages of the korvo denoiser (internal; use korvo.korvo).";

    py::class_<Parameters> params(m, "Parameters",
                                  "The library's parameter record of one stage; per-axis "
                                  "fields are (x, y, z) tuples.");
    params.def(py::init(&blankParameters))
        .def(py::init<const Parameters&>(), py::arg("other"))
        .def_readwrite("use_real_fft", &Parameters::useRealFft)
        .def_readwrite("max_group_size", &Parameters::maxGroupSize)
        .def_readwrite("variance_group_limit", &Parameters::varianceGroupLimit)
        .def_readwrite("threshold_factor", &Parameters::thresholdFactor)
        .def_readwrite("wiener_factor", &Parameters::wienerFactor)
        .def_readwrite("match_variance_weight", &Parameters::matchVarianceWeight)
        .def_readwrite("min_reduce_count", &Parameters::minReduceCount)
        .def_readwrite("match_threshold", &Parameters::matchThreshold)
        .def_readwrite("sharpen", &Parameters::sharpen)
        .def_readwrite("sharpen_variances", &Parameters::sharpenVariances)
        .def_readwrite("sharpen_exponent", &Parameters::sharpenExponent)
        .def_readwrite("sharpen_exponent_flat", &Parameters::sharpenExponentFlat)
        .def_readwrite("num_threads", &Parameters::numThreads)
        .def_property(
            "split_block_extraction",
            [](const Parameters& p) {
                return std::make_tuple(p.splitBlockExtraction[0], p.splitBlockExtraction[1],
                                       p.splitBlockExtraction[2]);
            },
            [](Parameters& p, const std::tuple<bool, bool, bool>& t) {
                p.splitBlockExtraction[0] = std::get<0>(t);
                p.splitBlockExtraction[1] = std::get<1>(t);
                p.splitBlockExtraction[2] = std::get<2>(t);
            });
    vec3Field<&Parameters::blockSize>(params, "block_size");
    vec3Field<&Parameters::psdWorkSize>(params, "psd_work_size");
    vec3Field<&Parameters::searchWindow>(params, "search_window");
    vec3Field<&Parameters::imageSize>(params, "image_size");
    vec3Field<&Parameters::psdSize>(params, "psd_size");
    vec3Field<&Parameters::step>(params, "step");
    params.attr("FIELDS") = py::cast(std::vector<std::string>(std::begin(kFields), std::end(kFields)));
    params.def("__repr__", [](const py::object& self) {
        std::string text = "Parameters(";
        for (const char* name : kFields) {
            if (text.back() != '(') text += ", ";
            text += std::string(name) + "=" + py::repr(self.attr(name)).cast<std::string>();
        }
        return text + ")";
    });
    params.def("__eq__", [](const py::object& self, const py::object& other) {
        if (!py::isinstance<Parameters>(other)) return false;
        for (const char* name : kFields) {
            if (!self.attr(name).equal(other.attr(name))) return false;
        }
        return true;
    });

    py::enum_<korvo_detail::StageStatus>(m, "StageStatus")
        .value("COMPLETED", korvo_detail::StageStatus::Completed)
        .value("OUT_OF_MEMORY", korvo_detail::StageStatus::OutOfMemory)
        .value("THREAD_START_FAILED", korvo_detail::StageStatus::ThreadStartFailed)
        .value("CANCELLED", korvo_detail::StageStatus::Cancelled);

    py::class_<Monitor>(m, "Monitor")
        .def(py::init<>())
        .def_property_readonly("slices_done", &Monitor::slicesDone)
        .def_property_readonly("slices_total", &Monitor::slicesTotal)
        .def_property_readonly("cancelled", &Monitor::cancelled)
        .def("cancel", &Monitor::cancel, "Ask the running stage to stop at the next row.");

    m.def(
        "default_parameters",
        [](int stage, const Triple& image, float sigma) {
            Parameters p = blankParameters();
            korvoDefaultParameters(&p, stage, {std::get<0>(image), std::get<1>(image), std::get<2>(image)},
                                   sigma);
            return p;
        },
        py::arg("stage"), py::arg("image_size"), py::arg("sigma"),
        "The package defaults of one stage for an image of this (x, y, z) size and white noise.");
    m.def(
        "fit_search_window", [](Parameters& p) { korvoFitSearchWindow(&p); }, py::arg("params"),
        "Narrow the record's search window to what its image size can serve (in place).");
    m.def("check_parameters", &checkParameters, py::arg("params"), py::arg("stage"),
          "Why a stage cannot run this record, or an empty string when it can.");
    m.def(
        "check_match_storage",
        [](const Parameters& p, const py::tuple& storage) {
            return checkStorage(p, toStorage(storage, p));
        },
        py::arg("params"), py::arg("storage"),
        "Why these filled match lists cannot be replayed with this record, or an empty string.");
    m.def(
        "match_storage_rows", [](const Parameters& p) { return korvoMatchStorageRows(&p); },
        py::arg("params"), "Reference rows a stage running this record records.");
    m.def(
        "collection_bytes",
        [](const Parameters& p, int stage) { return korvoCollectionBytes(&p, stage); },
        py::arg("params"), py::arg("stage"),
        "Bytes of block collections a stage running this record allocates.");
    m.def(
        "working_bytes",
        [](const Parameters& p, int stage) { return korvoWorkingBytes(&p, stage); },
        py::arg("params"), py::arg("stage"),
        "Bytes besides the block collections a stage running this record holds (weights, "
        "noise tables, per-worker group buffers).");
    m.def("run_stage", &runStage, py::arg("stage"), py::arg("noisy"), py::arg("psd"),
          py::arg("params"), py::arg("pilot"), py::arg("output"), py::arg("storage"),
          py::arg("monitor"), py::arg("transforms") = py::none(),
          "Run one stage (0: hard thresholding, 1: Wiener) on float32 C-contiguous buffers; "
          "transforms (forward and inverse: three square float32 matrices x, y, z; window: one "
          "block) replace the built-in block transforms.");
}
