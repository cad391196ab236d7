"""Reading and writing volumes for the command line: .npy, NIfTI, TIFF, and
chunked stores read and written chunk by chunk: Zarr (plain arrays and OME-Zarr
images) and HDF5 datasets, named ``file.h5:/group/dataset``.

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
import xml.etree.ElementTree as ElementTree

import numpy as np

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
_IMAGEJ_KEYS = ("spacing", "unit", "finterval", "xorigin", "yorigin", "zorigin", "mode")


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
        data = _tiff_memmap(tifffile, path, series)
        if data is None:
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
                node = handle.get("/".join(parts[:depth]))
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
    if context.get("kind") != kind:  # another format's metadata means nothing here
        context = {"axes": context.get("axes")}
    if kind == "nifti":
        nib = _require("nibabel", "nifti")
    elif kind == "tiff":
        tifffile = _require("tifffile", "tiff")
    target = os.path.realpath(path)  # a link to OUT stays a link: write where it points
    folder, name = os.path.split(target)
    descriptor, temporary = tempfile.mkstemp(prefix=f".{name}.", suffix=_suffix(path), dir=folder)
    os.close(descriptor)
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
    if dtype == np.float16:  # not a NIfTI type; float32 holds every value
        dtype = np.dtype(np.float32)
    # NIfTI-1 extents are 16-bit: longer ones, or a NIfTI-2 input, write NIfTI-2.
    two = max(shape) > 32767 or isinstance(getattr(source, "header", None), nib.Nifti2Header)
    kind = nib.Nifti2Image if two else nib.Nifti1Image
    if source is not None and isinstance(source.header, kind.header_class):
        header = source.header.copy()  # as it was, its transform codes included
    else:
        # A one-voxel image settles the header's affine fields as nibabel writes them.
        image = kind(np.zeros((1,) * len(shape), dtype),
                     np.eye(4) if source is None else source.affine)
        image.update_header()
        header = image.header
    pixdim = header["pixdim"].copy()
    header.set_data_shape(shape[::-1])
    # nibabel resets the spacing past the image's rank: an image's slice
    # thickness is the qform's third scale.
    header["pixdim"][len(shape) + 1:] = pixdim[len(shape) + 1:]
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


def _ome_labels(axes):
    """OME axes (dicts, or names in early versions) -> one label per axis."""
    names = [a if isinstance(a, str) else a.get("name", "") for a in axes]
    types = [a.get("type") if isinstance(a, dict) else
             ("space" if a in "zyx" else "channel" if a == "c" else "time") for a in axes]
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
    return node, {"kind": "hdf5", "attrs": dict(node.attrs)}


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
            raise ValueError(f"{path} holds NaN or infinite samples (the first at {at})")


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
    context.setdefault("axes", _label(_UNKNOWN[0] * (array.ndim - 2) + "YX"))
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
        if context.get("kind") != self.kind:  # another format's metadata means nothing here
            context = {"axes": context.get("axes")}
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
        where, name = os.path.split(self.written)
        if suffix == ".zarr":
            return tempfile.mkdtemp(prefix=f".{name}.", suffix=suffix, dir=where)
        descriptor, temporary = tempfile.mkstemp(prefix=f".{name}.", suffix=suffix, dir=where)
        os.close(descriptor)
        return temporary

    def _zarr(self, shape, dtype, chunks, context):
        zarr = _require("zarr", "zarr")
        self.temporary = self._temporary_name(".zarr")
        three = int(zarr.__version__.split(".")[0]) >= 3
        fmt = context.get("format", 3 if three else 2)
        options = {"zarr_format": fmt} if three else {}
        ome = context.get("ome")
        if ome is None and self.path.lower().rstrip("/").endswith(".ome.zarr"):
            axes = context.get("axes") or _label(_UNKNOWN[0] * (len(shape) - 2) + "YX")
            ome = _new_ome(axes)
        if ome is None:
            self.target = zarr.open_array(self.temporary, mode="w", shape=shape, chunks=chunks,
                                          dtype=dtype, **options)
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
        self.target = create(ome["datasets"][0]["path"], shape=shape, chunks=chunks, dtype=dtype)

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
        self.target = self.handle.create_dataset(where, shape=shape, dtype=dtype, chunks=chunks)
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


def _new_ome(axes):
    """OME multiscales metadata for labelled axes, unit scale."""
    kinds = {"T": "time", "C": "channel", "S": "channel", "Z": "space", "Y": "space",
             "X": "space"}
    listed = [{"name": a.lower(), "type": kinds.get(a, "time")} for a in axes]
    level = {"path": "0", "coordinateTransformations": [{"type": "scale",
                                                         "scale": [1.0] * len(axes)}]}
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
