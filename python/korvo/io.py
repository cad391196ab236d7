"""Reading and writing volumes for the command line: .npy, NIfTI, TIFF.

Arrays come back in the package's axis order, the last axis fastest: a NIfTI
image of shape (i, j, k[, t]) is returned transposed, (k, j, i) or
(t, k, j, i), so that NIfTI's i axis is the profile's x and its slice axis k
the profile's z. Writing undoes the transposition and keeps the header.
"""

from __future__ import annotations

import os

import numpy as np

__all__ = ["read_volume", "write_volume", "volume_format"]

FORMATS = {".npy": "npy", ".nii": "nifti", ".nii.gz": "nifti", ".tif": "tiff", ".tiff": "tiff"}


def volume_format(path):
    name = os.fspath(path).lower()
    for suffix in sorted(FORMATS, key=len, reverse=True):
        if name.endswith(suffix):
            return FORMATS[suffix]
    raise ValueError(f"unknown file type of {path!r}; supported: {', '.join(FORMATS)}")


def _require(module, extra):
    try:
        return __import__(module)
    except ImportError:
        raise ImportError(f"reading and writing this format needs the package {module!r} "
                          f"(pip install 'korvo[{extra}]')") from None


def read_volume(path):
    """-> (array, context); the context lets :func:`write_volume` keep the format's metadata."""
    kind = volume_format(path)
    if kind == "npy":
        return np.load(path, allow_pickle=False), {"kind": kind}
    if kind == "nifti":
        nib = _require("nibabel", "nifti")
        image = nib.load(os.fspath(path))
        data = np.asanyarray(image.dataobj)
        return data.T, {"kind": kind, "image": image}
    tifffile = _require("tifffile", "tiff")
    return tifffile.imread(os.fspath(path)), {"kind": kind}


def write_volume(path, array, context=None):
    """Write ``array`` (package axis order) in the format of ``path``'s suffix."""
    kind = volume_format(path)
    array = np.asarray(array)
    if kind == "npy":
        np.save(path, array)
    elif kind == "nifti":
        nib = _require("nibabel", "nifti")
        source = (context or {}).get("image")
        if source is not None:
            header = source.header.copy()
            header.set_data_dtype(array.dtype)
            out = nib.Nifti1Image(np.asarray(array.T), source.affine, header)
        else:
            out = nib.Nifti1Image(np.asarray(array.T), np.eye(4))
        nib.save(out, os.fspath(path))
    else:
        tifffile = _require("tifffile", "tiff")
        tifffile.imwrite(os.fspath(path), array)
