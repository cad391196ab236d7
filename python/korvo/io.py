"""Reading and writing volumes for the command line: .npy, NIfTI, TIFF.

Arrays come back in the package's axis order, the last axis fastest: a NIfTI
image of shape (i, j, k[, t]) is returned transposed, (k, j, i) or
(t, k, j, i), so that NIfTI's i axis is the profile's x and its slice axis k
the profile's z. Writing undoes the transposition and keeps the header.

Every array comes with axis labels, one letter per axis: X, Y, Z (space),
C or S (channels; S is the samples of an RGB pixel), T and any other letter
(a series, denoised item by item). TIFF files give their own labels; where a
file has none, unlabelled axes read as Z, then T, counted from the right.

Writes go to a temporary file beside the output, renamed over it only once
complete: a failure or an interrupt never leaves a half-written file behind.
"""

from __future__ import annotations

import math
import os
import tempfile
import xml.etree.ElementTree as ElementTree

import numpy as np

__all__ = ["read_volume", "write_volume", "volume_format", "check_output", "FORMATS",
           "STREAMED"]

FORMATS = {".npy": "npy", ".nii": "nifti", ".nii.gz": "nifti", ".tif": "tiff", ".tiff": "tiff"}
# Formats whose series are written item by item as they are denoised; NIfTI
# (nibabel) needs the whole array at once.
STREAMED = ("npy", "tiff")
# Labels tifffile gives axes it knows nothing about.
_UNKNOWN = "QI"
_OME_SIZES = ("PhysicalSizeX", "PhysicalSizeY", "PhysicalSizeZ", "TimeIncrement")
_IMAGEJ_KEYS = ("spacing", "unit", "finterval", "xorigin", "yorigin", "zorigin", "mode")


def _suffix(path):
    name = os.fspath(path).lower()
    for suffix in sorted(FORMATS, key=len, reverse=True):
        if name.endswith(suffix):
            return suffix
    return None


def volume_format(path):
    suffix = _suffix(path)
    if suffix is None:
        raise ValueError(f"unknown file type of {os.fspath(path)!r}; supported: "
                         f"{', '.join(FORMATS)}")
    return FORMATS[suffix]


def _require(module, extra):
    try:
        return __import__(module)
    except ImportError:
        raise ImportError(f"reading and writing this format needs the package {module!r} "
                          f"(pip install 'korvo[{extra}]')") from None


def _label(axes):
    """Give unlabelled axes names: the rightmost becomes Z (if there is none), the rest T."""
    out = list(axes)
    unknown = [i for i, a in enumerate(out) if a in _UNKNOWN]
    if unknown and "Z" not in out:
        out[unknown.pop()] = "Z"
    for i in unknown:
        out[i] = "T"
    return "".join(out)


# ----------------------------------------------------------------------------
# Reading


def read_volume(path):
    """-> (array, context). ``context["axes"]`` labels the array's axes; the rest
    lets :func:`write_volume` keep the format's metadata."""
    path = os.fspath(path)
    kind = volume_format(path)
    if not os.path.isfile(path):
        raise FileNotFoundError(f"{path}: no such file")
    if kind == "nifti":
        nib = _require("nibabel", "nifti")
    elif kind == "tiff":
        tifffile = _require("tifffile", "tiff")
    try:
        if kind == "npy":
            data = np.load(path, allow_pickle=False)
            context = {"kind": kind}
        elif kind == "nifti":
            image = nib.load(path)
            data = np.asanyarray(image.dataobj).T
            context = {"kind": kind, "image": image}
        else:
            data, context = _read_tiff(tifffile, path)
    except EOFError:
        raise ValueError(f"{path}: the file is empty or cut short") from None
    except (ImportError, MemoryError):
        raise
    except Exception as exc:  # every reader has its own error types
        raise ValueError(f"{path}: cannot be read as {kind}: {exc}") from None
    context.setdefault("axes", _label(_UNKNOWN[0] * (data.ndim - 2) + "YX"))
    if len(context["axes"]) != data.ndim:
        raise ValueError(f"{path}: axis labels {context['axes']!r} do not fit shape {data.shape}")
    return data, context


def _read_tiff(tifffile, path):
    with tifffile.TiffFile(path) as tif:
        series = tif.series[0]
        data = series.asarray()
        context = {"kind": "tiff", "axes": _label(series.axes)}
        page = series.pages[0] if series.pages else tif.pages[0]
        tags = page.tags
        if "XResolution" in tags and "YResolution" in tags:
            context["resolution"] = tuple(_rational(tags[n].value)
                                          for n in ("XResolution", "YResolution"))
            if "ResolutionUnit" in tags:
                context["resolutionunit"] = int(tags["ResolutionUnit"].value)
        if tif.is_ome:
            context["ome"] = _ome_sizes(tif.ome_metadata)
        elif tif.is_imagej:
            meta = tif.imagej_metadata or {}
            context["imagej"] = {k: meta[k] for k in _IMAGEJ_KEYS if k in meta}
    return data, context


def _rational(value):
    if isinstance(value, tuple):
        return value[0] / value[1] if value[1] else 0.0
    return float(value)


def _ome_sizes(xml):
    """Physical pixel sizes (and their units) of the first image of an OME-XML text."""
    try:
        root = ElementTree.fromstring(xml)
    except ElementTree.ParseError:
        return {}
    for element in root.iter():
        if element.tag.endswith("}Pixels") or element.tag == "Pixels":
            wanted = _OME_SIZES + tuple(n + "Unit" for n in _OME_SIZES)
            out = {}
            for name in wanted:
                if name in element.attrib:
                    value = element.attrib[name]
                    out[name] = value if name.endswith("Unit") else float(value)
            return out
    return {}


# ----------------------------------------------------------------------------
# Writing


def check_output(path, source=None, force=False):
    """Refuse an output before any work: unknown suffix, missing or read-only
    folder, the input itself (by identity, through links), or an existing file
    without ``force``."""
    path = os.fspath(path)
    volume_format(path)
    folder = os.path.dirname(os.path.abspath(path))
    if not os.path.isdir(folder):
        raise ValueError(f"{path}: the folder {folder} does not exist")
    if not os.access(folder, os.W_OK | os.X_OK):
        raise ValueError(f"{path}: the folder {folder} is not writable")
    if os.path.isdir(path):
        raise ValueError(f"{path} is a folder")
    if not os.path.exists(path):
        return
    if source is not None and os.path.exists(source) and os.path.samefile(source, path):
        raise ValueError(f"{path} is the input file itself; korvo never writes over its input")
    if not force:
        raise ValueError(f"{path} exists; pass --force to replace it")


def write_volume(path, data, context=None, *, shape=None, dtype=None):
    """Write ``data`` (package axis order) in the format of ``path``'s suffix.

    ``data`` is an array, or an iterable of equal blocks that fill an array of
    ``shape`` and ``dtype`` in order along its leading axes (a series item by
    item); those are written as they come where the format allows.
    ``context["axes"]`` labels the axes (TIFF keeps them); the rest of the
    context is the metadata of the file read, kept where the formats match.
    """
    path = os.fspath(path)
    kind = volume_format(path)
    if isinstance(data, np.ndarray):
        shape, dtype, data = data.shape, data.dtype, [data]
    shape, dtype = tuple(shape), np.dtype(dtype)
    context = dict(context or {})
    if context.get("kind") != kind:  # another format's metadata means nothing here
        context = {"axes": context.get("axes")}
    if kind == "nifti":
        nib = _require("nibabel", "nifti")
    elif kind == "tiff":
        tifffile = _require("tifffile", "tiff")
    folder, name = os.path.split(os.path.abspath(path))
    descriptor, temporary = tempfile.mkstemp(prefix=f".{name}.", suffix=_suffix(path), dir=folder)
    os.close(descriptor)
    try:
        if kind == "npy":
            _write_npy(temporary, data, shape, dtype)
        elif kind == "nifti":
            _write_nifti(nib, temporary, _gather(data, shape, dtype), context)
        else:
            _write_tiff(tifffile, temporary, data, shape, dtype, {**context, "name": name})
        _set_mode(temporary, path)
        os.replace(temporary, path)
    except BaseException:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise


def _set_mode(temporary, path):
    """Give the new file the mode the old one had, else what the umask allows
    (temporary files start private)."""
    try:
        mode = os.stat(path).st_mode & 0o7777
    except OSError:
        umask = os.umask(0)
        os.umask(umask)
        mode = 0o666 & ~umask
    os.chmod(temporary, mode)


def _blocks(data, shape, dtype):
    """Check the blocks as they come; -> (index, block) with index over the leading axes."""
    count = None
    for index, block in enumerate(data):
        block = np.asarray(block)
        if count is None:
            inner = block.shape
            if shape[len(shape) - len(inner):] != inner:
                raise ValueError(f"blocks of shape {inner} do not fill shape {shape}")
            count = math.prod(shape[:len(shape) - len(inner)])
        if block.shape != inner or index >= count:
            raise ValueError(f"blocks do not fill shape {shape}")
        yield index, block.astype(dtype, copy=False)
    if count is None or index + 1 != count:
        raise ValueError(f"blocks do not fill shape {shape}")


def _fill(out, data, shape, dtype):
    flat = None
    for index, block in _blocks(data, shape, dtype):
        if flat is None:
            flat = out.reshape((-1,) + block.shape)
        flat[index] = block
    return out


def _gather(data, shape, dtype):
    return _fill(np.empty(shape, dtype), data, shape, dtype)


def _write_npy(path, data, shape, dtype):
    out = np.lib.format.open_memmap(path, mode="w+", dtype=dtype, shape=shape)
    try:
        _fill(out, data, shape, dtype).flush()
    finally:
        del out


def _write_nifti(nib, path, array, context):
    source = context.get("image")
    if source is not None:
        header = source.header.copy()
        header.set_data_dtype(array.dtype)
        out = nib.Nifti1Image(np.asarray(array.T), source.affine, header)
    else:
        out = nib.Nifti1Image(np.asarray(array.T), np.eye(4))
    nib.save(out, path)


def _write_tiff(tifffile, path, data, shape, dtype, context):
    axes = context.get("axes") or _label(_UNKNOWN[0] * (len(shape) - 2) + "YX")
    options = {}
    if "resolution" in context:
        options["resolution"] = context["resolution"]
        if "resolutionunit" in context:
            options["resolutionunit"] = context["resolutionunit"]
    if axes.endswith("S"):
        options["photometric"] = "rgb" if shape[-1] in (3, 4) else "minisblack"
        page = shape[-3:]
    else:
        options["photometric"] = "minisblack"
        page = shape[-2:]
    flavour = {"ome": False, "imagej": False}
    if "ome" in context or context.get("name", "").lower().endswith((".ome.tif", ".ome.tiff")):
        flavour["ome"] = True
        options["metadata"] = {"axes": axes, **context.get("ome", {})}
    elif "imagej" in context and dtype in (np.uint8, np.uint16, np.float32):
        flavour["imagej"] = True
        options["metadata"] = {"axes": axes, **context["imagej"]}
    else:
        options["metadata"] = {"axes": axes}

    def pages():
        for _, block in _blocks(data, shape, dtype):
            yield from np.ascontiguousarray(block).reshape((-1,) + page)

    with tifffile.TiffWriter(path, bigtiff=_big(shape, dtype), **flavour) as writer:
        writer.write(pages(), shape=shape, dtype=dtype, **options)


def _big(shape, dtype):
    return math.prod(shape) * np.dtype(dtype).itemsize > 2 ** 31
