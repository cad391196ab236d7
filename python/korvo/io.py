"""Reading and writing volumes for the command line: .npy, NIfTI, TIFF, and
chunked stores read and written chunk by chunk: Zarr (plain arrays and OME-Zarr
images) and HDF5 datasets, named ``file.h5:/group/dataset``.

Arrays come back in the package's axis order, the last axis fastest: a NIfTI
image of shape (i, j, k[, t]) is returned transposed, (k, j, i) or
(t, k, j, i), so that NIfTI's i axis is the profile's x and its slice axis k
the profile's z. Writing undoes the transposition and keeps the header.

Every array comes with axis labels, one letter per axis: X, Y, Z (space),
C or S (channels; S is the samples of an RGB pixel), T and any other letter
(a series, denoised item by item). TIFF files give their own labels, Zarr
format 3 arrays theirs by dimension names; where a file has none, unlabelled
axes read as Z, then T, counted from the right. An output format must hold the
labels in their meaning (:func:`check_axes`).

Writes go to a temporary file beside the output, renamed over it only once
complete: a failure or an interrupt never leaves a half-written file behind.
An HDF5 dataset written into an existing file goes under a hidden name in its
group first and is renamed once complete; a process killed meanwhile leaves
that hidden dataset behind (its space is not reclaimed until the file is
repacked). .npy inputs, and TIFF stacks stored uncompressed in one run, are
memory-mapped, not loaded.
"""

from __future__ import annotations

import errno
import gzip
import math
import os
import re
import shutil
import tempfile
import threading
import warnings
import xml.etree.ElementTree as ElementTree

import numpy as np

from .noise import NonFiniteError

__all__ = ["read_volume", "write_volume", "volume_format", "check_output", "check_samples",
           "FORMATS", "STREAMED", "CHUNKED", "open_chunked", "ChunkedOutput"]

FORMATS = {".npy": "npy", ".nii": "nifti", ".nii.gz": "nifti", ".tif": "tiff", ".tiff": "tiff",
           ".zarr": "zarr", ".h5": "hdf5", ".hdf5": "hdf5"}
# Formats whose series are written item by item as they are denoised.
STREAMED = ("npy", "tiff", "nifti")
# Formats read lazily and written chunk by chunk (and .npy, memory-mapped).
CHUNKED = ("zarr", "hdf5")
_HDF5 = re.compile(r"^(.*\.(?:h5|hdf5))(?::(.*))?$", re.IGNORECASE | re.DOTALL)
# Labels tifffile gives axes it knows nothing about.
_UNKNOWN = "QI"
_OME_SIZES = ("PhysicalSizeX", "PhysicalSizeY", "PhysicalSizeZ", "TimeIncrement")
_IMAGEJ_KEYS = ("spacing", "unit", "finterval", "xorigin", "yorigin", "zorigin", "mode",
                "min", "max", "Labels", "LUTs", "Ranges", "Info")
# TIFF compressions that lose nothing: an input stored with one is written
# with it (where tifffile can encode it); anything else is written with zlib.
_LOSSLESS_TIFF = ("ADOBE_DEFLATE", "DEFLATE", "LZW", "LZMA", "ZSTD", "PACKBITS", "LERC")


def _split_hdf5(path):
    """``file.h5:/group/name`` -> (file, dataset path or None); None if not HDF5."""
    match = _HDF5.match(os.fspath(path))
    if match is None:
        return None
    # One spelling per dataset: "//", "." and a trailing "/" name the same one.
    parts = [p for p in (match.group(2) or "").split("/") if p not in ("", ".")]
    if ".." in parts:
        raise ValueError(f"{path}: '..' is not allowed in an HDF5 dataset path")
    return match.group(1), "/".join(parts) or None


def _hdf5_parts(path):
    file, dataset = _split_hdf5(path)
    if dataset is None:
        raise ValueError(f"{path}: name the dataset inside the file, e.g. {file}:/volume")
    return file, dataset


def _suffix(path):
    path = os.fspath(path)
    if _split_hdf5(path) is not None:
        path = _split_hdf5(path)[0]
    name = path.lower().rstrip("/")
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


class _Refused(ValueError):
    """A file read but refused: its message stands as it is."""


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
    if kind in CHUNKED:
        data, context = open_chunked(path)
        return np.asarray(data), context
    if not os.path.isfile(path):
        raise FileNotFoundError(f"{path}: no such file")
    if kind == "nifti":
        nib = _require("nibabel", "nifti")
    elif kind == "tiff":
        tifffile = _require("tifffile", "tiff")
    try:
        if kind == "npy":
            data = np.load(path, mmap_mode="r", allow_pickle=False)
            context = {"kind": kind}
        elif kind == "nifti":
            image = nib.load(path)
            data = np.asanyarray(image.dataobj).T
            context = {"kind": kind, "image": image}
        else:
            data, context = _read_tiff(tifffile, path)
    except EOFError:
        raise ValueError(f"{path}: the file is empty or cut short") from None
    except (ImportError, MemoryError, _Refused):
        raise
    except Exception as exc:  # every reader has its own error types
        raise ValueError(f"{path}: cannot be read as {kind}: {exc}") from None
    _default_axes(context, data.ndim)
    if len(context["axes"]) != data.ndim:
        raise ValueError(f"{path}: axis labels {context['axes']!r} do not fit shape {data.shape}")
    return data, context


def _default_axes(context, ndim):
    """Labels for a file that gives none (``context["labelled"]`` False)."""
    if "axes" not in context:
        context["axes"], context["labelled"] = _default_labels(ndim), False


def _default_labels(ndim):
    """The last two axes an image, a third from the end Z, the rest a series."""
    return _label(_UNKNOWN[0] * (ndim - 2) + "YX")


def _read_tiff(tifffile, path):
    with tifffile.TiffFile(path) as tif:
        series = tif.series[0]
        context = {"kind": "tiff", "axes": _label(series.axes),
                   "labelled": not set(series.axes) & set(_UNKNOWN)}
        context.update(_tiff_colour(tifffile, path, series.keyframe))
        if len(tif.series) > 1:  # a refusal would block files whose others are thumbnails
            what = "OME images" if tif.is_ome else "image series"
            warnings.warn(f"{path} holds {len(tif.series)} {what}; only the first "
                          f"({context['axes']} {'x'.join(map(str, series.shape))}) is read, "
                          f"the others are left out", stacklevel=3)
        data = _tiff_memmap(tifffile, path, series)
        if data is None:
            data = series.asarray()
        page = series.pages[0] if series.pages else tif.pages[0]
        tags = page.tags
        if page.compression != tifffile.COMPRESSION.NONE:
            context["compression"] = tifffile.COMPRESSION(page.compression).name
        if "XResolution" in tags and "YResolution" in tags:
            context["resolution"] = tuple(_rational(tags[n].value)
                                          for n in ("XResolution", "YResolution"))
            if "ResolutionUnit" in tags:
                context["resolutionunit"] = int(tags["ResolutionUnit"].value)
        if tif.is_ome:
            context["ome"] = _ome_metadata(tif.ome_metadata)
        elif tif.is_imagej:
            meta = tif.imagej_metadata or {}
            context["imagej"] = {k: meta[k] for k in _IMAGEJ_KEYS if k in meta}
    return data, context


def _tiff_colour(tifffile, path, page):
    """What the writer needs to display the samples as the input does; refuses
    samples that are no intensities (colour indices) or colours it cannot write."""
    kind = tifffile.PHOTOMETRIC
    # No tag reads as 0, "0 is white"; readers take a missing one as 0 is black.
    photometric = page.photometric if 262 in page.tags else kind.MINISBLACK
    if photometric == kind.PALETTE:
        raise _Refused(f"{path} is a palette (indexed colour) TIFF: its values are colour "
                       f"indices, not intensities; convert it to greyscale or RGB first")
    decoded = photometric == kind.YCBCR and page.compression == tifffile.COMPRESSION.JPEG
    if photometric not in (kind.MINISBLACK, kind.MINISWHITE, kind.RGB) and not decoded:
        name = kind(photometric).name if photometric in set(kind) else photometric
        raise _Refused(f"{path}: TIFF samples of photometric interpretation {name} are not "
                       f"supported (greyscale or RGB only)")
    context = {}
    if photometric == kind.MINISWHITE:  # 0 is white: the output must say so too
        context["photometric"] = "miniswhite"
    extra = tuple(int(e) for e in page.extrasamples)
    if extra:
        colours = 1 if photometric in (kind.MINISBLACK, kind.MINISWHITE) else 3
        context["extrasamples"] = extra
        # Opacity is no intensity: written back as read (1, 2: associated, unassociated).
        context["alpha"] = tuple(colours + i for i, e in enumerate(extra) if e in (1, 2))
    return context


def _tiff_memmap(tifffile, path, series):
    """The series memory-mapped, as .npy inputs are, where its samples are
    stored uncompressed in one run (most stacks from acquisition software):
    a stack larger than memory is then read chunk by chunk. None otherwise."""
    if series.dataoffset is None:
        return None
    try:
        data = tifffile.memmap(path, mode="r")
    except (ValueError, OSError):
        return None
    return data if data.shape == tuple(series.shape) else None


def _rational(value):
    if isinstance(value, tuple):
        return value[0] / value[1] if value[1] else 0.0
    return float(value)


def _ome_metadata(xml):
    """Physical pixel sizes (and their units) and channel names of the first
    image of an OME-XML text, as tifffile's OME writer takes them."""
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
            names = [c.attrib.get("Name") for c in element
                     if c.tag.endswith("}Channel") or c.tag == "Channel"]
            if names and all(names):
                out["Channel"] = {"Name": names}
            return out
    return {}


# ----------------------------------------------------------------------------
# Writing


def check_output(path, source=None, force=False):
    """Refuse an output before any work: unknown suffix, missing or read-only
    folder, the input itself (by identity, through links), or an existing file
    without ``force``."""
    path = os.fspath(path)
    kind = volume_format(path)
    if kind == "hdf5":
        return _check_hdf5_output(path, source, force)
    file = path.rstrip("/") if kind == "zarr" else path
    folder = os.path.dirname(os.path.realpath(file))  # where a link to OUT points
    _check_folder(path, folder)
    if not os.access(folder, os.W_OK | os.X_OK):
        raise ValueError(f"{path}: the folder {folder} is not writable")
    if os.path.isdir(file) and kind != "zarr":
        raise ValueError(f"{path} is a folder")
    if source is not None and volume_format(source) == "hdf5":
        source = _split_hdf5(source)[0]
    if source is not None and kind == "zarr" and _nested(source, file):
        raise ValueError(f"{path} lies inside the input {source}; korvo never writes into "
                         f"its input")
    if not os.path.exists(file):
        return
    if source is not None:
        if os.path.exists(source) and os.path.samefile(source, file):
            raise ValueError(f"{path} is the input file itself; korvo never writes over its input")
        if _nested(file, source):  # a store replaced with everything in it
            raise ValueError(f"{path} holds the input {source}; korvo never writes over its input")
    if not force:
        raise ValueError(f"{path} exists; pass --force to replace it")


def _nested(outer, inner):
    """Whether path ``inner`` lies strictly inside folder ``outer`` (links resolved)."""
    outer, inner = os.path.realpath(outer), os.path.realpath(inner)
    return inner.startswith(outer.rstrip(os.sep) + os.sep)


def _check_folder(path, folder):
    if not os.path.isdir(folder):
        raise ValueError(f"{path}: {folder} is a file, not a folder" if os.path.exists(folder)
                         else f"{path}: the folder {folder} does not exist")


def _check_hdf5_output(path, source, force):
    """An HDF5 output may go into an existing file, the input's included, at a
    path that is not the input dataset."""
    file, dataset = _hdf5_parts(path)
    folder = os.path.dirname(os.path.abspath(file))
    _check_folder(path, folder)
    if not os.path.exists(file):
        if not os.access(folder, os.W_OK | os.X_OK):
            raise ValueError(f"{path}: the folder {folder} is not writable")
        return
    if os.path.isdir(file):
        raise ValueError(f"{file} is a folder")
    if not os.access(file, os.W_OK):
        raise ValueError(f"{file} is not writable")
    # The input's dataset when it lies in this file, else None.
    source_file, source_dataset = (_split_hdf5(source) if source is not None
                                   and volume_format(source) == "hdf5" else (None, None))
    if source_file is None or not (os.path.exists(source_file)
                                   and os.path.samefile(source_file, file)):
        source_dataset = None
    if source_dataset == dataset:
        raise ValueError(f"{path} is the input dataset itself; korvo never writes over its input")
    h5py = _require("h5py", "hdf5")
    try:
        with h5py.File(file, "r") as handle:
            exists = dataset in handle
            # Replacing a group would take every dataset in it, the input's too;
            # a dataset on the way cannot hold the output.
            parts = dataset.split("/")
            for depth in range(1, len(parts) + 1):
                name = "/".join(parts[:depth])
                node = handle.get(name)
                if node is None and handle.get(name, getlink=True) is not None:
                    raise ValueError(f"{path}: /{name} is a link that leads nowhere")
                if node is not None and not isinstance(node, (h5py.Group, h5py.Dataset)):
                    raise ValueError(f"{path}: /{name} is a {type(node).__name__.lower()}, "
                                     f"not a group or dataset")
                if isinstance(node, h5py.Group) and depth == len(parts):
                    raise ValueError(f"{path} is a group; name a dataset inside it, "
                                     f"e.g. {path.rstrip('/')}/denoised")
                if isinstance(node, h5py.Dataset) and depth < len(parts):
                    raise ValueError(f"{path}: /{'/'.join(parts[:depth])} is a dataset, "
                                     f"not a group")
                if node is None:
                    break
            # Another name (a hard link) for the input dataset is the input too.
            if exists and source_dataset is not None and source_dataset in handle \
                    and handle[dataset] == handle[source_dataset]:
                raise ValueError(f"{path} is another name of the input dataset; korvo never "
                                 f"writes over its input")
    except OSError as exc:
        raise ValueError(f"{file}: not an HDF5 file that can be added to ({exc})") from None
    if exists and not force:
        raise ValueError(f"{path} exists; pass --force to replace it")


def write_volume(path, data, context=None, *, shape=None, dtype=None):
    """Write ``data`` (package axis order) in the format of ``path``'s suffix.

    ``data`` is an array, or an iterable of equal blocks that fill an array of
    ``shape`` and ``dtype`` in order along its leading axes (a series item by
    item); those are written as they come where the format allows.
    ``context["axes"]`` labels the axes (TIFF keeps them); the rest of the
    context is the metadata of the file read, kept where the formats match;
    integers of a scaled NIfTI's stored type keep its slope and intercept (see
    :func:`stored_scaling`).
    """
    path = os.fspath(path)
    kind = volume_format(path)
    if kind not in STREAMED:
        raise ValueError(f"{path}: whole arrays are written as .npy, NIfTI or TIFF; Zarr and "
                         f"HDF5 outputs go chunk by chunk (ChunkedOutput)")
    if isinstance(data, np.ndarray):
        shape, dtype, data = data.shape, data.dtype, [data]
    shape, dtype = tuple(shape), np.dtype(dtype)
    context = dict(context or {})
    if context.get("axes"):
        check_axes(path, context["axes"], shape, dtype, context, warn=False)
    if context.get("kind") != kind:  # another format's metadata means nothing here
        context = {"axes": context.get("axes")}
    if kind == "nifti":
        nib = _require("nibabel", "nifti")
    elif kind == "tiff":
        tifffile = _require("tifffile", "tiff")
    target = os.path.realpath(path)  # a link to OUT stays a link: write where it points
    name = os.path.basename(target)
    temporary = _temporary_beside(path, target, _suffix(path))
    try:
        if kind == "npy":
            _write_npy(temporary, data, shape, dtype, path)
        elif kind == "nifti":
            _write_nifti(nib, temporary, data, shape, dtype, context)
        else:
            _write_tiff(tifffile, temporary, data, shape, dtype, {**context, "name": name})
        _set_mode(temporary, target)
        os.replace(temporary, target)
    except BaseException:
        try:
            os.unlink(temporary)
        except OSError:
            pass
        raise


def _temporary_beside(path, target, suffix, folder=False):
    """A new private file (or folder) beside ``target``, where OUT (``path``) is
    written before it takes OUT's name; a folder that refuses it is reported
    as OUT's, not by the temporary name the user never gave."""
    where, name = os.path.split(target)
    try:
        if folder:
            return tempfile.mkdtemp(prefix=f".{name}.", suffix=suffix, dir=where)
        descriptor, temporary = tempfile.mkstemp(prefix=f".{name}.", suffix=suffix, dir=where)
    except OSError as exc:
        error = type(exc)(f"{path}: cannot create a file in {where or '.'}: "
                          f"{exc.strerror or exc}")
        error.errno = exc.errno
        raise error from None
    os.close(descriptor)
    return temporary


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


def _npy_map(path, dtype, shape, name):
    """A new .npy file mapped for writing, its disk space reserved first:
    written through a map, a full disk ends the process (SIGBUS) where a
    write would have raised. ``name``: the output, as messages call it."""
    out = np.lib.format.open_memmap(path, mode="w+", dtype=dtype, shape=shape)
    if hasattr(os, "posix_fallocate"):  # not on macOS: its maps fail the same way
        try:
            with open(path, "r+b") as f:
                os.posix_fallocate(f.fileno(), 0, os.fstat(f.fileno()).st_size)
        except OSError as exc:
            if exc.errno in (errno.EOPNOTSUPP, errno.EINVAL):  # no reservation on this file system
                return out
            del out
            raise OSError(exc.errno, f"{name}: cannot reserve the output's "
                                     f"{math.prod(shape) * np.dtype(dtype).itemsize} bytes "
                                     f"({exc.strerror})") from None
    return out


def _write_npy(path, data, shape, dtype, name):
    out = _npy_map(path, dtype, shape, name)
    try:
        _fill(out, data, shape, dtype).flush()
    finally:
        del out


def stored_scaling(context):
    """(stored integer dtype, slope, intercept) of a NIfTI read with a scaling
    (the reader hands out slope * stored + intercept as floats), else None."""
    source = context.get("image") if context and context.get("kind") == "nifti" else None
    if source is None:
        return None
    stored = np.dtype(source.get_data_dtype())
    slope, inter = float(source.dataobj.slope), float(source.dataobj.inter)
    if stored.kind not in "iu" or (slope, inter) == (1.0, 0.0):
        return None
    return stored, slope, inter


def _write_nifti(nib, path, data, shape, dtype, context):
    """Header first, then the blocks as they come: the package's axis order is
    NIfTI's reversed, so C-ordered blocks are NIfTI's Fortran-ordered data."""
    source = context.get("image")
    dims = tuple(shape[::-1])
    if _images_series(context.get("axes") or _default_labels(len(shape))):
        dims = dims[:2] + (1,) + dims[2:]
    if dtype == np.float16:  # not a NIfTI type; float32 holds every value
        dtype = np.dtype(np.float32)
    # NIfTI-1 extents are 16-bit: longer ones, or a NIfTI-2 input, write NIfTI-2.
    two = max(shape) > 32767 or isinstance(getattr(source, "header", None), nib.Nifti2Header)
    kind = nib.Nifti2Image if two else nib.Nifti1Image
    if source is not None and isinstance(source.header, kind.header_class):
        header = source.header.copy()  # as it was, its transform codes included
    else:
        # A one-voxel image settles the header's affine fields as nibabel writes them.
        image = kind(np.zeros((1,) * len(dims), dtype),
                     np.eye(4) if source is None else source.affine)
        image.update_header()
        header = image.header
    pixdim = header["pixdim"].copy()
    header.set_data_shape(dims)
    # nibabel resets the spacing past the image's rank: an image's slice
    # thickness is the qform's third scale.
    header["pixdim"][len(dims) + 1:] = pixdim[len(dims) + 1:]
    header.set_data_dtype(dtype)
    scaling = stored_scaling(context)
    # Integers under the source's scaling are its stored values: the scaling stays.
    same = scaling is not None and scaling[0] == dtype
    header.set_slope_inter(*(scaling[1:] if same else (1.0, 0.0)))
    # Single-file NIfTI: data after the header, the extension flag and any
    # extensions, on a 16-byte boundary.
    header.set_data_offset(-(-(header.single_vox_offset + header.extensions.get_sizeondisk())
                             // 16) * 16)
    stored = header.get_data_dtype()
    opener = gzip.open if path.lower().endswith(".gz") else open
    with opener(path, "wb") as f:
        header.write_to(f)
        f.write(b"\0" * (int(header.get_data_offset()) - f.tell()))
        for _, block in _blocks(data, shape, dtype):
            f.write(np.ascontiguousarray(block, dtype=stored).tobytes())


def _write_tiff(tifffile, path, data, shape, dtype, context):
    axes = context.get("axes") or _default_labels(len(shape))
    options = {}
    if "resolution" in context:
        options["resolution"] = context["resolution"]
        if "resolutionunit" in context:
            options["resolutionunit"] = context["resolutionunit"]
    samples, page = 1, shape[-2:]
    if axes.endswith("S"):
        samples, page = shape[-1], shape[-3:]
    elif axes.endswith("SYX"):  # colour planes one after the other
        samples, page = shape[-3], shape[-3:]
        options["planarconfig"] = "separate"
    extra, colours = context.get("extrasamples", ()), samples
    if extra and samples - len(extra) in (1, 3):  # the input's extra samples (alpha) stay so
        options["extrasamples"], colours = extra, samples - len(extra)
    options["photometric"] = ("rgb" if colours in (3, 4) else
                              context.get("photometric", "minisblack"))
    flavour = {"ome": False, "imagej": False}
    if "ome" in context or context.get("name", "").lower().endswith((".ome.tif", ".ome.tiff")):
        flavour["ome"] = True
        options["metadata"] = {"axes": axes, **context.get("ome", {})}
        names = options["metadata"].get("Channel", {}).get("Name", ())
        if len(names) != (shape[axes.index("C")] if "C" in axes else 1):
            options["metadata"].pop("Channel", None)  # names for other channels
    elif "imagej" in context and dtype in (np.uint8, np.uint16, np.float32):
        flavour["imagej"] = True
        options["metadata"] = {"axes": axes, **context["imagej"]}
    else:
        options["metadata"] = {"axes": axes}

    options["compression"] = _tiff_compression(tifffile, context, context.get("name", ""))

    def pages():
        for _, block in _blocks(data, shape, dtype):
            yield from np.ascontiguousarray(block).reshape((-1,) + page)

    with tifffile.TiffWriter(path, bigtiff=_big(shape, dtype), **flavour) as writer:
        writer.write(pages(), shape=shape, dtype=dtype, **options)


def _tiff_compression(tifffile, context, name):
    """The input's compression where it is lossless and tifffile can encode
    it; zlib for any other compressed input (a lossy one would alter the
    result); none for an uncompressed one."""
    compression = context.get("compression")
    if compression is None:
        return None
    if compression in _LOSSLESS_TIFF:
        try:  # a codec can be listed and still lack its module: encode a little
            tifffile.TIFF.COMPRESSORS[tifffile.COMPRESSION[compression]](np.zeros(16, np.uint8))
            return compression
        except (KeyError, ImportError, TypeError, ValueError):
            warnings.warn(f"{name}: written with zlib compression; the input's {compression} "
                          f"needs the imagecodecs package to write", stacklevel=4)
    return "ADOBE_DEFLATE"


def _big(shape, dtype):
    return math.prod(shape) * np.dtype(dtype).itemsize > 2 ** 31


# ----------------------------------------------------------------------------
# What an output format can hold

# OME-Zarr axis types by label; any other letter is a custom axis (a series).
_OME_KINDS = {"T": "time", "C": "channel", "S": "channel", "Z": "space", "Y": "space",
              "X": "space"}
# Units as OME-Zarr names them, from the spellings TIFF and NIfTI headers use.
_UNITS = {"um": "micrometer", "µm": "micrometer", "\u03bcm": "micrometer",
          "\\u00b5m": "micrometer", "micron": "micrometer", "microns": "micrometer",
          "micrometer": "micrometer", "nm": "nanometer", "nanometer": "nanometer",
          "mm": "millimeter", "millimeter": "millimeter", "cm": "centimeter",
          "centimeter": "centimeter", "m": "meter", "meter": "meter", "å": "angstrom",
          "angstrom": "angstrom", "s": "second", "sec": "second", "second": "second",
          "ms": "millisecond", "msec": "millisecond", "millisecond": "millisecond",
          "µs": "microsecond", "usec": "microsecond", "microsecond": "microsecond",
          "min": "minute", "minute": "minute", "h": "hour", "hour": "hour"}


def _unit(spelling):
    """A unit as OME-Zarr names it, from a header's spelling (None: unknown)."""
    return _UNITS.get(str(spelling).lower())


def _axis_name(label):
    """The OME-Zarr and Zarr dimension name of an axis label (RGB samples: "c")."""
    return {"S": "c"}.get(label, label.lower())


def _ome_zarr_order(axes):
    """The order an OME-Zarr image stores labelled axes in (time, then a channel or
    other axis, then space), as indices of ``axes``; None where it cannot hold them."""
    kinds = [_OME_KINDS.get(a) for a in axes]
    time = [i for i, k in enumerate(kinds) if k == "time"]
    other = [i for i, k in enumerate(kinds) if k in ("channel", None)]
    space = [i for i, k in enumerate(kinds) if k == "space"]
    if len(set(axes)) != len(axes) or len(time) > 1 or len(other) > 1 \
            or not 2 <= len(space) <= 3:
        return None
    return time + other + space


def _nifti_problem(axes):
    """Why NIfTI cannot hold these axes in their meaning (its first three are
    space, the fourth time, the rest other series), or None."""
    if "C" in axes or "S" in axes:
        return f"has no channel axis: those of {axes} would land on space or time axes"
    space = "".join(a for a in axes if a in "ZYX")
    if not axes.endswith(space) or len(axes) + _images_series(axes) > 7:
        return f"would put a series axis of {axes} on a space axis"
    return None


def _images_series(axes):
    """A series of images: NIfTI holds it with a third, space axis of one
    voxel, so that the series lands on its time axis."""
    return len(axes) > 2 and axes.endswith("YX") and "Z" not in axes


def _tiff_flavour(path, context):
    """"ome", "imagej" or "" as :func:`_write_tiff` chooses for this context."""
    if "ome" in context or path.lower().endswith((".ome.tif", ".ome.tiff")):
        return "ome"
    return "imagej" if "imagej" in context else ""


def check_axes(path, axes, shape, dtype, context=None, *, warn=True):
    """Refuse, before any work, an output whose format cannot hold the input's
    axes in their meaning or its sample type; ``warn`` of the input's metadata
    it drops (pixel spacing, an inverted grey scale). ``context``: the input's."""
    path, context = os.fspath(path), dict(context or {})
    kind, shape, dtype = volume_format(path), tuple(shape), np.dtype(dtype)
    axes = axes or _default_labels(len(shape))
    same = context.get("kind") == kind
    ome_zarr = kind == "zarr" and path.lower().rstrip("/").endswith(".ome.zarr") \
        and not (same and "ome" in context)
    if kind == "nifti" and _nifti_problem(axes):
        raise ValueError(f"{path}: NIfTI {_nifti_problem(axes)}; write a .tif or .ome.zarr, "
                         f"which keep the axes")
    if ome_zarr and _ome_zarr_order(axes) is None:
        raise ValueError(f"{path}: an OME-Zarr image holds 2 or 3 space axes, at most one time "
                         f"and one channel or other axis, and axes {axes} are not that; write a "
                         f"plain .zarr or a .tif, which keep any axis labels")
    if kind == "tiff":
        _check_tiff_axes(path, axes, shape, dtype, context if same else {})
    if not warn:
        return
    physical = _physical(context)
    # TIFF to TIFF keeps ImageJ spacing in an ImageJ TIFF and OME sizes in an OME-TIFF.
    kept = same and (kind != "tiff" or _tiff_flavour(path, context) == _tiff_flavour("", context))
    if physical and not kept and not ome_zarr:
        sizes = ", ".join(f"{a.lower()} {v:g}{' ' + u if u else ''}"
                          for a, (v, u) in physical.items())
        warnings.warn(f"{path}: the input's pixel spacing ({sizes}) is not kept in this "
                      f"format", stacklevel=2)
    if context.get("photometric") == "miniswhite" and kind != "tiff":
        warnings.warn(f"{path}: the input is a TIFF whose 0 is white, and this format keeps "
                      f"no such flag: the output displays inverted", stacklevel=2)


def _check_tiff_axes(path, axes, shape, dtype, context):
    flavour = _tiff_flavour(path, context)
    if flavour == "imagej" and "S" in axes and dtype != np.uint8:
        raise ValueError(f"{path}: an ImageJ RGB TIFF holds 8-bit samples, and the output's "
                         f"are {dtype}; pass --dtype keep (or write a .ome.tif)")
    if flavour != "ome":
        return
    tifffile = _require("tifffile", "tiff")
    if axes.endswith("S"):
        stored = (1, 1, 1) + shape[-3:]
    elif axes.endswith("SYX"):
        stored = (1, shape[-3], 1) + shape[-2:] + (1,)
    else:
        stored = (1, 1, 1) + shape[-2:] + (1,)
    planes = math.prod(shape) // math.prod(stored)
    try:  # the check the writer makes, on the metadata alone
        tifffile.OmeXml().addimage(dtype, shape, (planes,) + stored[1:], axes=axes)
    except (tifffile.OmeXmlError, ValueError) as exc:
        raise ValueError(f"{path}: OME-TIFF cannot hold axes {axes} ({exc}); write a plain "
                         f".tif, which keeps any axis labels") from None


def _physical(context):
    """The pixel spacing the input's metadata states: {axis label: (size, unit or
    None)}, for what is known (TIFF: ImageJ, OME or resolution tags; NIfTI;
    OME-Zarr); empty where none is."""
    kind, axes = context.get("kind"), context.get("axes") or ""
    found = {}
    if kind == "tiff":
        imagej, ome = context.get("imagej") or {}, context.get("ome") or {}
        resolution = context.get("resolution")
        if resolution and str(imagej.get("unit")).lower() == "inch":
            pass  # what ImageJ stores for an image of a given dpi: no spacing
        elif resolution and "unit" in imagej:  # ImageJ: pixels per its unit
            unit = _unit(imagej["unit"])
            found.update({a: (1 / r, unit) for a, r in zip("XY", resolution) if r})
        elif resolution and context.get("resolutionunit") == 3:  # pixels per centimetre
            # (per inch is a display or print density, 72 or 300 dpi, no spacing)
            found.update({a: (1e4 / r, "micrometer") for a, r in zip("XY", resolution) if r})
        if "spacing" in imagej:
            found["Z"] = (float(imagej["spacing"]), _unit(imagej.get("unit")))
        if imagej.get("finterval"):
            found["T"] = (float(imagej["finterval"]), "second")
        for a, name in zip("XYZT", _OME_SIZES):
            if name in ome:
                default = "s" if a == "T" else "µm"
                found[a] = (ome[name], _unit(ome.get(name + "Unit", default)))
    elif kind == "nifti" and context.get("image") is not None:
        header = context["image"].header
        units = [_unit(u) for u in header.get_xyzt_units()]
        for i, size in enumerate(header.get_zooms()[:4]):
            unit = units[i == 3] if i < len(axes) else None
            if i < len(axes) and (size != 1 or unit):  # 0.8 as stored, not float32's 0.800000011
                found[axes[-1 - i]] = (float(np.format_float_positional(size)), unit)
    elif kind == "zarr" and "ome" in context:
        image = context["ome"]
        scale = [1.0] * len(axes)
        for level in (image["datasets"][0], image):
            for step in level.get("coordinateTransformations", []):
                if step.get("type") == "scale" and len(step.get("scale", ())) == len(axes):
                    scale = [s * t for s, t in zip(scale, step["scale"])]
        names = image.get("axes") or ()
        units = [a.get("unit") if isinstance(a, dict) else None for a in names]
        units += [None] * (len(axes) - len(units))
        found = {a: (float(s), u) for a, s, u in zip(axes, scale, units) if s != 1 or u}
    return {a: v for a, v in found.items() if a in axes and (v[0] != 1 or v[1])}


class _Transposed:
    """Slice assignments in the package's axis order into an array that stores
    its axes in another: ``order`` lists the written axes in stored order."""

    def __init__(self, target, order):
        self.target, self.order, self.dtype = target, tuple(order), target.dtype
        self.shape = tuple(target.shape[self.order.index(i)] for i in range(len(order)))

    def __setitem__(self, key, value):
        key = key if isinstance(key, tuple) else (key,)
        key += (slice(None),) * (len(self.order) - len(key))
        if any(not isinstance(k, slice) for k in key):
            raise TypeError("a transposed output takes slices only")
        self.target[tuple(key[i] for i in self.order)] = np.asarray(value).transpose(self.order)


# ----------------------------------------------------------------------------
# Chunked stores: Zarr, HDF5, and memory-mapped .npy

# OME-Zarr axis types -> labels; space axes are named Z, Y, X from the right.
_OME_TYPES = {"time": "T", "channel": "C"}
# HDF5 files open in this process, shared by input and output (h5py cannot
# open one file twice in different modes).
_H5_FILES = {}


def _h5_file(file, mode):
    h5py = _require("h5py", "hdf5")
    key = os.path.realpath(file)
    handle = _H5_FILES.get(key)
    if handle is not None and handle.id.valid:
        if mode == "r" or handle.mode == "r+":
            return handle
        handle.close()
    try:
        handle = h5py.File(file, mode)
    except OSError as exc:
        raise ValueError(f"{file}: cannot be opened as HDF5 ({exc})") from None
    _H5_FILES[key] = handle
    return handle


def close_files():
    """Close the HDF5 files :func:`open_chunked` and :class:`ChunkedOutput` opened."""
    for handle in _H5_FILES.values():
        if handle.id.valid:
            handle.close()
    _H5_FILES.clear()


def _axis_type(name):
    """An OME axis type from the axis name, for axes that give none."""
    name = str(name).lower()
    return ("space" if name in ("x", "y", "z") else "channel" if name in ("c", "channel") else
            "time" if name in ("t", "time") else None)


def _ome_labels(axes):
    """OME axes (dicts, or names in early versions) -> one label per axis."""
    names = [a if isinstance(a, str) else a.get("name", "") for a in axes]
    types = [a.get("type") or _axis_type(n) if isinstance(a, dict) else _axis_type(a)
             for a, n in zip(axes, names)]
    space = [i for i, t in enumerate(types) if t == "space"]
    labels = [_OME_TYPES.get(t, "T") for t in types]
    for i, letter in zip(space, "ZYX"[-len(space):] if space else ""):
        labels[i] = letter
    if len(set(names)) != len(names) or len(space) > 3:
        raise ValueError(f"OME axes {names} are not supported")
    return "".join(labels)


def _open_zarr(path):
    zarr = _require("zarr", "zarr")
    if not os.path.isdir(path):
        raise FileNotFoundError(f"{path}: no such Zarr store (a folder)")
    try:
        node = zarr.open(path, mode="r")
    except Exception as exc:  # zarr's errors vary by version
        raise ValueError(f"{path}: cannot be read as Zarr: {exc}") from None
    context = {"kind": "zarr", "format": _zarr_format(node)}
    if hasattr(node, "shape"):
        # Format 3 may name the axes: labels where the names say which are Y and X.
        given = getattr(node.metadata, "dimension_names", None) or ()
        if any(given):
            context["dimension_names"] = list(given)
        labels = [_names_label(n) for n in given]
        known = [a for a in labels if a not in _UNKNOWN]
        if len(labels) == node.ndim and {"Y", "X"} <= set(known) and len(set(known)) == len(known):
            context["axes"] = _label(labels)
        return node, dict(context, attrs=dict(node.attrs))
    attrs = dict(node.attrs)
    ome = attrs.get("ome", attrs)
    multiscales = ome.get("multiscales")
    if not multiscales:
        raise ValueError(f"{path}: a Zarr group without OME multiscales metadata; name an array "
                         f"of it ({', '.join(sorted(node.array_keys())) or 'none'})")
    image = multiscales[0]
    level = image["datasets"][0]
    array = node[level["path"]]
    context.update(ome=dict(image, datasets=[level]), group_attrs=attrs,
                   ome_version=ome.get("version") or image.get("version"),
                   axes=_ome_labels(image.get("axes") or "tczyx"[-array.ndim:]))
    return array, context


def _holds_references(value):
    """Whether an HDF5 attribute's value holds object or region references."""
    h5py = _require("h5py", "hdf5")
    if isinstance(value, (h5py.Reference, h5py.RegionReference)):
        return True
    if isinstance(value, np.ndarray) and value.dtype.kind == "O":
        return any(_holds_references(item) for item in value.flat)
    if isinstance(value, np.ndarray) and value.dtype.names:
        return any(_holds_references(value[name]) for name in value.dtype.names)
    return False


def _names_label(name):
    """A Zarr dimension name -> an axis label (unknown: _UNKNOWN's first)."""
    kind = _axis_type(name) if name else None
    return (str(name).upper() if kind == "space" else "C" if kind == "channel" else
            "T" if kind == "time" else _UNKNOWN[0])


def _zarr_format(node):
    metadata = getattr(node, "metadata", None)
    return getattr(metadata, "zarr_format", 2)


def _open_hdf5(path, writable):
    file, dataset = _hdf5_parts(path)
    if not os.path.isfile(file):
        raise FileNotFoundError(f"{file}: no such file")
    handle = _h5_file(file, "r+" if writable else "r")
    node = handle.get(dataset)
    if node is None or not hasattr(node, "shape"):
        found = []
        handle.visititems(lambda name, item: found.append("/" + name)
                          if hasattr(item, "shape") else None)
        raise ValueError(f"{path}: no dataset /{dataset} in {file} (datasets: "
                         f"{', '.join(found[:8]) or 'none'}{' ...' if len(found) > 8 else ''})")
    # The built-in filters go to an HDF5 output as they were: written plain, a
    # compressed input grew (a fifth for float32 results, more for integers).
    filters = {"compression": node.compression, "compression_opts": node.compression_opts,
               "shuffle": node.shuffle} if node.compression in _HDF5_FILTERS else {}
    return node, {"kind": "hdf5", "attrs": dict(node.attrs), "hdf5_filters": filters}


# Compression filters every h5py build writes (szip and plugin filters may
# be missing here or where the output is read).
_HDF5_FILTERS = ("gzip", "lzf")


def check_samples(path, array, finite=True):
    """Refuse a file's samples korvo cannot denoise: not real numbers, or (with
    ``finite``, reading the array a slab at a time) NaN or infinite ones."""
    if array.dtype.kind not in "biuf":
        raise ValueError(f"{path}: samples of type {array.dtype} are not supported")
    if not finite or array.dtype.kind != "f" or array.ndim == 0:
        return
    step = max(1, (1 << 22) // max(1, math.prod(array.shape[1:])))
    for first in range(0, array.shape[0], step):
        bad = np.argwhere(~np.isfinite(array[first:first + step]))
        if len(bad):
            at = tuple(int(i) for i in bad[0] + np.eye(array.ndim, dtype=int)[0] * first)
            raise NonFiniteError(f"{path} holds NaN or infinite samples (the first at {at})")


def open_chunked(path, *, writable=False):
    """-> (array-like, context): a Zarr array or OME-Zarr level 0, an HDF5
    dataset, or a memory-mapped .npy, none of them read yet. ``writable``
    opens an HDF5 file for writing too (the output goes into the same file)."""
    path = os.fspath(path)
    kind = volume_format(path)
    if kind == "zarr":
        array, context = _open_zarr(path.rstrip("/"))
    elif kind == "hdf5":
        array, context = _open_hdf5(path, writable)
    else:
        array, context = read_volume(path)
    check_samples(path, array, finite=False)
    _default_axes(context, array.ndim)
    if len(context["axes"]) != array.ndim:
        raise ValueError(f"{path}: axis labels {context['axes']!r} do not fit shape {array.shape}")
    context["chunks"] = getattr(array, "chunks", None)
    return array, context


class _Closable:
    """Slice assignments into ``target`` until :meth:`close`, which waits for
    those under way: after an interruption the scheduler's threads still
    finish the chunks they hold, and their writes must land nowhere rather
    than recreate a store just removed or write into a file being closed."""

    def __init__(self, target):
        self.target, self.shape, self.dtype = target, target.shape, target.dtype
        self.ndim = len(target.shape)
        self._open, self._writing, self._changed = True, 0, threading.Condition()

    def __setitem__(self, key, value):
        with self._changed:
            if not self._open:
                return
            self._writing += 1
        try:
            self.target[key] = value
        finally:
            with self._changed:
                self._writing -= 1
                self._changed.notify_all()

    def close(self):
        """No more writes; returns the target once none is under way."""
        with self._changed:
            self._open = False
            self._changed.wait_for(lambda: self._writing == 0)
        return self.target


class ChunkedOutput:
    """An output written region by region: a Zarr store, an HDF5 dataset or a
    .npy file, created under a temporary name beside OUT and moved there by
    :meth:`commit`; :meth:`discard` removes it. ``target`` takes slice
    assignments; ``lock`` says whether writes must be serialised."""

    def __init__(self, path, shape, dtype, chunks, context):
        self.path, self.kind = os.fspath(path), volume_format(path)
        location = _split_hdf5(self.path)[0] if self.kind == "hdf5" else self.path.rstrip("/")
        self.written = os.path.realpath(location)  # a link to OUT: written where it points
        context = dict(context or {})
        if context.get("kind") != self.kind:  # another format's metadata means nothing here,
            context = {"axes": context.get("axes"), "physical": _physical(context)}  # but spacing
        self.lock = self.kind == "hdf5"
        shape, dtype, chunks = tuple(shape), np.dtype(dtype), tuple(chunks)
        if self.kind == "zarr":
            self._zarr(shape, dtype, chunks, context)
        elif self.kind == "hdf5":
            self._hdf5(shape, dtype, chunks, context)
        elif self.kind == "npy":
            self.temporary = self._temporary_name(".npy")
            try:
                self.target = _npy_map(self.temporary, dtype, shape, self.path)
            except BaseException:
                os.remove(self.temporary)
                raise
        else:
            raise ValueError(f"{self.path}: chunk by chunk, the output is a .zarr store, an "
                             f"HDF5 dataset (file.h5:/name) or a .npy file")
        self.target = _Closable(self.target)

    def _temporary_name(self, suffix):
        """A new file (a folder for .zarr) beside OUT."""
        return _temporary_beside(self.path, self.written, suffix, folder=suffix == ".zarr")

    def _zarr(self, shape, dtype, chunks, context):
        zarr = _require("zarr", "zarr")
        three = int(zarr.__version__.split(".")[0]) >= 3
        fmt = context.get("format", 3 if three else 2)
        options = {"zarr_format": fmt} if three else {}
        ome, order = context.get("ome"), None
        axes = context.get("axes") or _default_labels(len(shape))
        if ome is None and self.path.lower().rstrip("/").endswith(".ome.zarr"):
            order = _ome_zarr_order(axes)
            if order is None:
                raise ValueError(f"{self.path}: an OME-Zarr image cannot hold axes {axes}")
        self.temporary = self._temporary_name(".zarr")
        if order is not None:
            axes = "".join(axes[i] for i in order)
            shape, chunks = (tuple(t[i] for i in order) for t in (shape, chunks))
            ome = _new_ome(axes, context.get("physical") or {})
        names = {}
        if fmt >= 3 and three:  # names as the OME axes give them, else from the labels
            listed = [a["name"] if isinstance(a, dict) else a for a in (ome or {}).get("axes", ())]
            listed = listed or context.get("dimension_names") or \
                [_axis_name(a) for a in axes]
            if len(set(listed)) == len(listed) == len(shape) or listed == \
                    context.get("dimension_names"):  # the input's, as they were
                names["dimension_names"] = listed
        if ome is None:
            self.target = zarr.open_array(self.temporary, mode="w", shape=shape, chunks=chunks,
                                          dtype=dtype, **options, **names)
            self.target.attrs.update(context.get("attrs", {}))
            return
        group = zarr.open_group(self.temporary, mode="w", **options)
        attrs = {k: v for k, v in context.get("group_attrs", {}).items()
                 if k not in ("ome", "multiscales")}
        ome = {k: v for k, v in ome.items() if k != "version"}
        version = context.get("ome_version")
        if fmt >= 3:
            attrs["ome"] = {"version": version or "0.5", "multiscales": [ome]}
        else:
            attrs["multiscales"] = [dict(ome, version=version or "0.4")]
        group.attrs.update(attrs)
        create = getattr(group, "create_array", None) or group.create_dataset
        self.target = create(ome["datasets"][0]["path"], shape=shape, chunks=chunks, dtype=dtype,
                             **names)
        if order is not None and order != sorted(order):  # stored in OME-Zarr's axis order
            self.target = _Transposed(self.target, order)

    def _hdf5(self, shape, dtype, chunks, context):
        file, dataset = _hdf5_parts(self.path)
        if os.path.exists(file):  # into the existing file, under a hidden name first
            self.temporary = None
            self.handle = _h5_file(file, "r+")
            folder, _, name = dataset.rpartition("/")
            self.hidden = f"{folder}/.{name}.partial" if folder else f".{name}.partial"
            if self.hidden in self.handle:
                del self.handle[self.hidden]  # left by a run that was killed
            where = self.hidden
        else:
            self.temporary = self._temporary_name(".h5")
            self.handle = _h5_file(self.temporary, "w")
            where = dataset
        self.target = self.handle.create_dataset(where, shape=shape, dtype=dtype, chunks=chunks,
                                                 **context.get("hdf5_filters", {}))
        for key, value in context.get("attrs", {}).items():
            # References (dimension scales) name objects of the input's file that
            # are not written here: copied, they point at nothing or at scales
            # that do not list this dataset.
            if _holds_references(value):
                continue
            try:
                self.target.attrs[key] = value
            except (TypeError, ValueError):
                pass

    def commit(self):
        written = self.target.close()
        if self.kind == "npy":
            written.flush()
            del written, self.target
            _set_mode(self.temporary, self.written)
            os.replace(self.temporary, self.written)
        elif self.kind == "zarr":
            _replace_folder(self.temporary, self.written)
        elif self.temporary is None:
            _, dataset = _hdf5_parts(self.path)
            if dataset in self.handle:
                del self.handle[dataset]
            self.handle.move(self.hidden, dataset)
            self.handle.flush()
        else:
            self.handle.close()
            _set_mode(self.temporary, self.written)
            os.replace(self.temporary, self.written)

    def discard(self):
        self.target.close()
        try:
            if self.kind == "zarr":
                shutil.rmtree(self.temporary, ignore_errors=True)
            elif self.kind == "hdf5" and self.temporary is None:
                if self.hidden in self.handle:
                    del self.handle[self.hidden]
            else:
                if self.kind == "hdf5":
                    self.handle.close()
                os.unlink(self.temporary)
        except (OSError, ValueError):
            pass


def _new_ome(axes, physical):
    """OME multiscales metadata for labelled axes (in OME-Zarr's order), the
    scale and units ``physical`` knows (see :func:`_physical`), else 1."""
    listed = []
    for a in axes:
        axis = {"name": _axis_name(a)}
        if a in _OME_KINDS:  # other letters: custom axes, of no type
            axis["type"] = _OME_KINDS[a]
        if physical.get(a, (1, None))[1]:
            axis["unit"] = physical[a][1]
        listed.append(axis)
    scale = [float(physical.get(a, (1.0,))[0]) for a in axes]
    level = {"path": "0", "coordinateTransformations": [{"type": "scale", "scale": scale}]}
    return {"axes": listed, "datasets": [level]}


def _replace_folder(temporary, path):
    """Move a finished store to ``path``; an old one is moved aside first and
    removed only once the new one is in place."""
    _set_mode_folder(temporary)
    if not os.path.lexists(path):
        os.rename(temporary, path)
        return
    where, name = os.path.split(os.path.abspath(path))
    old = tempfile.mkdtemp(prefix=f".{name}.old.", dir=where)
    os.rmdir(old)
    os.rename(path, old)
    os.rename(temporary, path)
    if os.path.isdir(old) and not os.path.islink(old):
        shutil.rmtree(old, ignore_errors=True)
    else:
        os.unlink(old)


def _set_mode_folder(folder):
    """mkdtemp's folder is private; give it what the umask allows."""
    umask = os.umask(0)
    os.umask(umask)
    os.chmod(folder, 0o777 & ~umask)
